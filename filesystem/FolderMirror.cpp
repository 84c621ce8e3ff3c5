#include "filesystem/FolderMirror.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "filesystem/DirectoryReader.h"
#include "filesystem/PathNames.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

constexpr int kFolderFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW;

bool isShortage(const Error& error) {
  return error.isPosix() && sys::isResourceExhaustion(static_cast<int>(error.code()));
}

}  // namespace

FolderMirror::FolderMirror(const std::string& root) : m_prefix(pathPrefixBelow(root)) {
  Level base;
  if (checkPath(root)) {
    Result<UniqueFd> fd = sys::open(root, O_PATH | O_DIRECTORY);
    if (fd) {
      base.fd = std::move(*fd);
      base.reach = Reach::Open;
    } else if (isShortage(fd.error())) {
      base.reach = Reach::ByPath;
    }
  }
  m_levels.push_back(std::move(base));
}

void FolderMirror::moveTo(std::string_view folderPath) {
  // Leave the levels that are not on the way to folderPath (the base always is).
  while (m_levels.size() > 1) {
    const std::size_t end = m_levels.back().end;
    if (end <= folderPath.size() && (end == folderPath.size() || folderPath[end] == '/') &&
        std::memcmp(m_folderPath.data(), folderPath.data(), end) == 0) {
      break;
    }
    m_listedBytes -= m_levels.back().names.size();
    m_levels.pop_back();
  }
  m_folderPath.resize(m_levels.back().end);
  // Enter the rest, one component at a time.
  std::size_t at = m_folderPath.size();
  while (at < folderPath.size()) {
    if (folderPath[at] == '/') ++at;
    std::size_t end = folderPath.find('/', at);
    if (end == std::string_view::npos) end = folderPath.size();
    enter(folderPath.substr(at, end - at), end);
    at = end;
  }
}

void FolderMirror::enter(std::string_view name, std::size_t end) {
  const Level& parent = m_levels.back();
  Level level;
  level.end = end;
  level.reach = parent.reach;
  if (parent.reach == Reach::Open) {
    const std::string terminated(name);
    Result<UniqueFd> fd = sys::openAt(parent.fd.get(), terminated.c_str(), kFolderFlags);
    if (fd) {
      level.fd = std::move(*fd);
    } else {
      level.reach = isShortage(fd.error()) ? Reach::ByPath : Reach::Missing;
    }
  }
  if (!m_folderPath.empty()) m_folderPath += '/';
  m_folderPath.append(name);
  m_levels.push_back(std::move(level));
}

ObjectAt FolderMirror::objectAt(std::string_view folderPath, std::string_view name) {
  moveTo(folderPath);
  const Level& level = m_levels.back();
  switch (level.reach) {
    case Reach::Open:
      return {level.fd.get(), name.data()};
    case Reach::Missing:
      return {-1, nullptr};
    case Reach::ByPath:
      break;
  }
  m_absolutePath.assign(m_prefix).append(folderPath);
  if (!folderPath.empty()) m_absolutePath += '/';
  m_absolutePath.append(name);
  return {AT_FDCWD, m_absolutePath.c_str()};
}

void FolderMirror::list(Level& level) {
  level.listing = Listing::Unlisted;
  Result<UniqueFd> folder = sys::openAt(level.fd.get(), ".", O_RDONLY | O_DIRECTORY);
  if (!folder) return;
  Result<DirectoryReader> reader = DirectoryReader::listing(std::move(*folder));
  if (!reader) return;
  std::string names;
  while (std::optional<DirectoryReader::Entry> entry = reader->next()) {
    if (m_listedBytes + names.size() + entry->name.size() + 1 > kListingBudget) return;
    names.append(entry->name).push_back('\0');
  }
  if (reader->readError()) return;
  level.names = std::move(names);
  for (std::size_t at = 0; at < level.names.size(); at = level.names.find('\0', at) + 1) {
    level.sorted.push_back(static_cast<std::uint32_t>(at));
  }
  const char* base = level.names.c_str();
  std::sort(level.sorted.begin(), level.sorted.end(), [base](std::uint32_t a, std::uint32_t b) {
    return std::strcmp(base + a, base + b) < 0;
  });
  m_listedBytes += level.names.size();
  level.listing = Listing::Read;
}

int FolderMirror::folderFd(std::string_view folderPath) {
  moveTo(folderPath);
  const Level& level = m_levels.back();
  switch (level.reach) {
    case Reach::Open:
      return level.fd.get();
    case Reach::Missing:
      return -1;
    case Reach::ByPath:
      break;
  }
  return AT_FDCWD;
}

std::optional<bool> FolderMirror::holds(std::string_view folderPath, std::string_view name) {
  moveTo(folderPath);
  Level& level = m_levels.back();
  if (level.reach == Reach::Missing) return false;
  if (level.reach == Reach::ByPath) return std::nullopt;
  if (level.listing == Listing::NotRead) list(level);
  if (level.listing != Listing::Read) return std::nullopt;
  // Names hold no NUL, so each reads from its offset up to its terminator.
  const char* base = level.names.c_str();
  auto at = std::lower_bound(level.sorted.begin(), level.sorted.end(), name,
                             [base](std::uint32_t offset, std::string_view wanted) {
                               return std::string_view(base + offset) < wanted;
                             });
  return at != level.sorted.end() && std::string_view(base + *at) == name;
}

}  // namespace krv
