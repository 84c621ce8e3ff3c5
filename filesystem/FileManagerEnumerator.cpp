#include "filesystem/FileManagerEnumerator.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include "filesystem/FileManager.h"
#include "foundation/System.h"

namespace krv {
namespace {

constexpr int kFolderOpenFlags = O_RDONLY | O_DIRECTORY | O_NOCTTY | O_NONBLOCK;

}  // namespace

Result<FileManagerEnumerator> FileManagerEnumerator::open(const std::string& path) {
  if (path.find('\0') != std::string::npos) return FileManager::error(EINVAL, path);
  Result<UniqueFd> folder = sys::open(path, kFolderOpenFlags);
  if (!folder) return FileManager::error(folder.error(), path);
  KRV_TRY(DirectoryReader reader, DirectoryReader::create(kMaximumDepth));
  FileManagerEnumerator enumerator(std::move(reader));
  enumerator.m_guard.beginAt(folder->get());
  enumerator.m_reader.push(std::move(*folder));
  enumerator.m_prefixLengths.push_back(0);
  return enumerator;
}

std::optional<std::string> FileManagerEnumerator::nextObject() {
  std::optional<std::string_view> path = nextRelativePath();
  if (!path) return std::nullopt;
  return std::string(*path);
}

std::string_view FileManagerEnumerator::currentName() const {
  if (m_reader.depth() == 0 || m_nameStart > m_path.size()) return {};
  return std::string_view(m_path).substr(m_nameStart);
}

int FileManagerEnumerator::currentDirectoryFd() const {
  return m_reader.depth() == 0 ? -1 : m_reader.fd(m_reader.depth() - 1);
}

std::optional<std::string_view> FileManagerEnumerator::nextRelativePath() {
  if (m_descendPending) descend();
  while (m_reader.depth() != 0) {
    const std::size_t prefixLength = m_prefixLengths.back();
    std::optional<DirectoryReader::Entry> entry = m_reader.next();
    if (!entry) {
      if (std::optional<Error> failure = m_reader.readError()) {
        m_path.resize(prefixLength > 0 ? prefixLength - 1 : 0);
        noteError(*failure);
      }
      m_reader.pop();
      m_prefixLengths.pop_back();
      continue;
    }
    m_path.resize(prefixLength);
    m_nameStart = m_path.size();
    m_path.append(entry->name);
    bool isDirectory = entry->type == DT_DIR;
    if (entry->type == DT_UNKNOWN) {
      Result<struct stat> status = sys::statAt(m_reader.fd(m_reader.depth() - 1),
                                               m_path.c_str() + m_nameStart, AT_SYMLINK_NOFOLLOW);
      isDirectory = status && S_ISDIR(status->st_mode);
    }
    m_lastIsDirectory = isDirectory;
    m_descendPending = isDirectory;
    return std::string_view(m_path);
  }
  m_lastIsDirectory = false;
  return std::nullopt;
}

void FileManagerEnumerator::descend() {
  m_descendPending = false;
  const std::size_t depth = m_reader.depth();
  if (depth == 0) return;
  // O_NOFOLLOW: a folder replaced by a link since it was listed is not entered. The guard keeps
  // out a folder already open further up (one mounted into its own subtree) and, since each open
  // level costs a descriptor, one deeper than kMaximumDepth: a tree built deeper than any real one
  // is reported, not followed to the end of the daemon's descriptors.
  Result<UniqueFd> folder = m_guard.enter(
      depth, m_reader.fd(depth - 1), m_path.c_str() + m_nameStart, kFolderOpenFlags | O_NOFOLLOW);
  if (!folder) {
    noteError(folder.error());
    return;
  }
  m_path += '/';
  m_reader.push(std::move(*folder));
  m_prefixLengths.push_back(m_path.size());
}

void FileManagerEnumerator::noteError(const Error& error) {
  if (!m_firstError) m_firstError = FileManager::error(error, m_path);
}

}  // namespace krv
