#include "filesystem/KRVDirectoryEnumerator.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>
#include <span>
#include <utility>

#include "filesystem/PathNames.h"
#include "foundation/System.h"

namespace krv {

namespace {

constexpr std::string_view kPathLengthMessage =
    "KRVDirectoryEnumerator: maximum path length reached. Skipping...\n";
constexpr std::string_view kNestingMessage =
    "KRVDirectoryEnumerator: maximum number of nested directories reached. Skipping...\n";
// Mode bit that makes an entry a candidate for descent: the folder bit, tested alone.
constexpr mode_t kFolderBit = 0x4000;
// Names up to this length fit the one-byte bookkeeping of a level.
constexpr std::size_t kLongestEnterableName = 255;
constexpr std::string_view kVolumePrefix = "/.vol";

void logToConsole(std::string_view message) {
  std::span<const std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(message.data()),
                                      message.size());
  // The console log is best effort: a closed standard error must not disturb the walk.
  (void)sys::writeAll(STDERR_FILENO, bytes);
}

}  // namespace

std::unique_ptr<KRVDirectoryEnumerator> KRVDirectoryEnumerator::enumeratorAtPath(
    const std::string& path, bool stayOnFileSystem) {
  if (path.empty()) return nullptr;

  // A path with a NUL byte cannot name anything; the kernel would only see its first part.
  bool isFolder = false;
  if (path.find('\0') == std::string::npos) {
    Result<struct stat> status = sys::stat(path);
    isFolder = status && S_ISDIR(status->st_mode);
  }
  if (!isFolder) {
    logToConsole(std::string(kClassName) + ": attempt to initialize with invalid path '" + path +
                 "'\n");
    return nullptr;
  }

  // Level 0 is open even when the base cannot be read; the walk then yields nothing.
  Result<UniqueFd> base = sys::open(path, O_RDONLY | O_DIRECTORY | O_NOCTTY);
  std::optional<dev_t> device;
  if (stayOnFileSystem) {
    if (Result<struct stat> status = sys::lstat(path)) device = status->st_dev;
  }
  return startAt(base ? std::move(*base) : UniqueFd(), path, device);
}

std::unique_ptr<KRVDirectoryEnumerator> KRVDirectoryEnumerator::enumeratorAtFolder(
    UniqueFd folder, const std::string& path, bool stayOnFileSystem) {
  std::optional<dev_t> device;
  if (stayOnFileSystem && folder.valid()) {
    if (Result<struct stat> status = sys::fstat(folder.get())) device = status->st_dev;
  }
  return startAt(std::move(folder), path, device);
}

std::unique_ptr<KRVDirectoryEnumerator> KRVDirectoryEnumerator::startAt(
    UniqueFd base, const std::string& path, std::optional<dev_t> baseDevice) {
  Result<DirectoryReader> reader = DirectoryReader::create(kMaximumOpenLevels);
  if (!reader) return nullptr;
  std::unique_ptr<KRVDirectoryEnumerator> enumerator(
      new KRVDirectoryEnumerator(std::move(*reader), path));
  if (base.valid()) enumerator->m_guard.beginAt(base.get());
  enumerator->m_reader.push(std::move(base));
  enumerator->m_topIndex = 0;
  if (baseDevice) {
    enumerator->m_stayOnFileSystem = true;
    enumerator->m_baseFileSystemId = *baseDevice;
  }
  return enumerator;
}

KRVDirectoryEnumerator::KRVDirectoryEnumerator(DirectoryReader reader, const std::string& basePath)
    : m_reader(std::move(reader)), m_guard(kMaximumOpenLevels) {
  // The base and its separator, as every path below a base is joined.
  const std::string prefix = pathPrefixBelow(basePath);
  // The limit counts the relative part only, so the buffer holds the whole prefix, the longest
  // relative folder path, a separator, the longest name and a NUL.
  std::size_t capacity =
      prefix.size() + kMaximumRelativePathLength + 1 + DirectoryReader::kLongestName + 1;
  m_pathBuffer = std::make_unique_for_overwrite<char[]>(capacity);
  std::memcpy(m_pathBuffer.get(), prefix.data(), prefix.size());
  m_relativeStart = prefix.size();
  m_pathBuffer[m_relativeStart] = '\0';
}

KRVDirectoryEnumerator::~KRVDirectoryEnumerator() = default;

std::optional<std::string_view> KRVDirectoryEnumerator::nextObject() {
  for (;;) {
    if (m_topIndex < 0) return std::nullopt;
    const int level = m_topIndex;
    std::optional<DirectoryReader::Entry> entry = m_reader.next();
    if (!entry) {
      popDirectory();
      continue;
    }

    // The entry's relative path is built where a push would put it: the buffer then already holds
    // the path of the folder if it is entered.
    char* relative = m_pathBuffer.get() + m_relativeStart;
    std::size_t nameOffset = m_relativePathLength;
    if (m_relativePathLength != 0) relative[nameOffset++] = '/';
    std::memcpy(relative + nameOffset, entry->name.data(), entry->name.size());
    m_entryNameLength = entry->name.size();
    m_entryLength = nameOffset + m_entryNameLength;
    relative[m_entryLength] = '\0';
    m_entryLevel = level;
    m_entryWasEntered = shouldEnter(level, nameOffset, m_entryNameLength, entry->type);
    return std::string_view(relative, m_entryLength);
  }
}

// Decides with as few system calls as the outcome allows: the kernel's entry type stands in for
// lstat's file type, and only the stay flag (for the device) or a file system without entry types
// needs the status of the entry. (The two differ only for an object mounted over an entry, where
// the kernel reports the covered entry's type; a folder can only be mounted over a folder, so which
// folders are entered never differs.)
bool KRVDirectoryEnumerator::shouldEnter(int level, std::size_t nameOffset, std::size_t nameLength,
                                         unsigned char directoryType) {
  const char* name = m_pathBuffer.get() + m_relativeStart + nameOffset;
  const int directoryFd = m_reader.fd(static_cast<std::size_t>(level));
  bool haveStatus = false;
  struct stat status {};
  auto readStatus = [&] {
    Result<struct stat> result =
        sys::statAt(directoryFd, name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
    if (!result) return false;
    status = *result;
    haveStatus = true;
    return true;
  };

  m_entryFileType = 0;
  if (directoryType != DT_UNKNOWN && !m_ignoresEntryTypes) {
    m_entryFileType = DTTOIF(directoryType);
  } else if (readStatus()) {
    m_entryFileType = status.st_mode & S_IFMT;
  }
  if ((m_entryFileType & kFolderBit) == 0) return false;

  if (m_stayOnFileSystem) {
    if (!haveStatus && !readStatus()) return false;
    m_entryFileType = status.st_mode & S_IFMT;
    if ((m_entryFileType & kFolderBit) == 0 || status.st_dev != m_baseFileSystemId) return false;
  } else {
    std::size_t absoluteLength = m_relativeStart + nameOffset + nameLength;
    if (absoluteLength >= kVolumePrefix.size() &&
        std::memcmp(m_pathBuffer.get(), kVolumePrefix.data(), kVolumePrefix.size()) == 0) {
      return false;
    }
  }
  if (nameLength > kLongestEnterableName) return false;
  return pushDirectory(nameOffset, nameLength, m_entryFileType);
}

bool KRVDirectoryEnumerator::pushDirectory(std::size_t nameOffset, std::size_t nameLength,
                                           mode_t fileType) {
  if (m_relativePathLength + nameLength + 1 >= kMaximumRelativePathLength + 1) {
    logToConsole(kPathLengthMessage);
    return false;
  }
  if (m_topIndex + 1 >= kMaximumOpenLevels) {
    logToConsole(kNestingMessage);
    return false;
  }

  // The level's share of the relative path is kept in one byte: a 255-byte name below the first
  // level adds nothing and so stands for "." (the folder the walk is in), which the guard refuses
  // as it refuses a folder mounted into its own subtree: such a folder is returned, not walked.
  auto added = static_cast<std::uint8_t>(nameLength + (m_relativePathLength != 0 ? 1 : 0));
  // A block device, socket or the like cannot be opened as a folder.
  if (added != 0 && fileType != S_IFDIR) return false;
  const char* name = added == 0 ? "." : m_pathBuffer.get() + m_relativeStart + nameOffset;
  const auto level = static_cast<std::size_t>(m_topIndex) + 1;
  Result<UniqueFd> fd = m_guard.enter(level, m_reader.fd(level - 1), name,
                                      O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NOCTTY);
  if (!fd) return false;

  ++m_topIndex;
  m_reader.push(std::move(*fd));
  m_addedLengths[m_topIndex] = added;
  m_relativePathLength += added;
  return true;
}

void KRVDirectoryEnumerator::popDirectory() {
  if (m_topIndex < 0) return;
  m_reader.pop();
  m_relativePathLength -= m_addedLengths[m_topIndex];
  --m_topIndex;
}

std::vector<std::string> KRVDirectoryEnumerator::allObjects() {
  std::vector<std::string> objects;
  while (std::optional<std::string_view> path = nextObject()) objects.emplace_back(*path);
  return objects;
}

void KRVDirectoryEnumerator::skipDescendents() { popDirectory(); }

std::string_view KRVDirectoryEnumerator::currentEntryName() const {
  return std::string_view(m_pathBuffer.get() + m_relativeStart + m_entryLength - m_entryNameLength,
                          m_entryNameLength);
}

int KRVDirectoryEnumerator::currentEntryDirectoryFd() const {
  if (m_entryLevel < 0 || m_entryLevel > m_topIndex) return -1;
  return m_reader.fd(static_cast<std::size_t>(m_entryLevel));
}

std::string_view KRVDirectoryEnumerator::currentAbsolutePath() const {
  return std::string_view(m_pathBuffer.get(), m_relativeStart + m_entryLength);
}

}  // namespace krv
