#include "filesystem/ContentComparer.h"

#include <fcntl.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <span>
#include <string>

#include "foundation/System.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

constexpr std::int64_t kRegularFileType = 5;
constexpr std::int64_t kSymbolicLinkType = 6;

// Reads until `buffer` is full, the file ends or a read fails: the count, or -1 when the first
// read failed. A file whose reads come back short (a pipe swapped in, a network file system) thus
// compares by its bytes, not by how they arrive.
std::int64_t readBlock(int fd, std::span<std::uint8_t> buffer) {
  if (fd < 0) return -1;
  std::size_t filled = 0;
  while (filled < buffer.size()) {
    Result<std::size_t> count = sys::read(fd, buffer.subspan(filled));
    if (!count) return filled == 0 ? -1 : static_cast<std::int64_t>(filled);
    if (*count == 0) break;
    filled += *count;
  }
  return static_cast<std::int64_t>(filled);
}

}  // namespace

UniqueFd openForComparison(ObjectAt object) {
  // Cleared once O_NOATIME was refused: only the owner and a process that may act as any owner
  // can keep the access time.
  static std::atomic<bool> mayKeepAccessTimes{true};
  // O_NONBLOCK: a FIFO swapped in after the status was read must not hold the comparison.
  const int flags = O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
  if (mayKeepAccessTimes.load(std::memory_order_relaxed)) {
    Result<UniqueFd> fd = sys::openAt(object.folderFd, object.name, flags | O_NOATIME);
    if (fd) return std::move(*fd);
    if (fd.error().code() != EPERM) return UniqueFd();
    mayKeepAccessTimes.store(false, std::memory_order_relaxed);
  }
  Result<UniqueFd> fd = sys::openAt(object.folderFd, object.name, flags);
  return fd ? std::move(*fd) : UniqueFd();
}

bool ContentComparer::regularFilesEqual(int firstFd, int secondFd, std::uint64_t length) {
  if (firstFd < 0 && secondFd < 0) return true;
  if (firstFd < 0 || secondFd < 0) return false;
  if (!m_blocks) m_blocks = std::make_unique_for_overwrite<std::uint8_t[]>(2 * kBlockSize);
  std::uint8_t* firstBlock = m_blocks.get();
  std::uint8_t* secondBlock = m_blocks.get() + kBlockSize;

  std::uint64_t remaining = length;
  while (remaining > 0) {
    const auto wanted = static_cast<std::size_t>(std::min<std::uint64_t>(remaining, kBlockSize));
    const std::int64_t firstCount = readBlock(firstFd, {firstBlock, wanted});
    const std::int64_t secondCount = readBlock(secondFd, {secondBlock, wanted});
    if (firstCount != secondCount) return false;
    if (firstCount <= 0) break;
    if (std::memcmp(firstBlock, secondBlock, static_cast<std::size_t>(firstCount)) != 0) {
      return false;
    }
    if (static_cast<std::size_t>(firstCount) < wanted) break;  // both ended early, alike
    remaining -= static_cast<std::uint64_t>(firstCount);
  }
  return true;
}

bool ContentComparer::linkDestinationsEqual(ObjectAt first, ObjectAt second) {
  Result<std::string> firstDestination = sys::readLinkAt(first.folderFd, first.name);
  if (!firstDestination) return false;
  Result<std::string> secondDestination = sys::readLinkAt(second.folderFd, second.name);
  return secondDestination && *firstDestination == *secondDestination;
}

bool ContentComparer::contentsEqual(const KRVFileSystemObjectDescription& first,
                                    ObjectAt firstObject,
                                    const KRVFileSystemObjectDescription& second,
                                    ObjectAt secondObject, bool compareBytes,
                                    const UniqueFd* firstFile, const UniqueFd* secondFile) {
  const std::int64_t type = first.objectType();
  if (type != second.objectType() || first.objectSize() != second.objectSize()) return false;
  if (!compareBytes) return true;
  if (type == kRegularFileType) {
    UniqueFd firstOpened = firstFile == nullptr ? openForComparison(firstObject) : UniqueFd();
    UniqueFd secondOpened = secondFile == nullptr ? openForComparison(secondObject) : UniqueFd();
    return regularFilesEqual(firstFile != nullptr ? firstFile->get() : firstOpened.get(),
                             secondFile != nullptr ? secondFile->get() : secondOpened.get(),
                             first.objectSize());
  }
  if (type == kSymbolicLinkType) return linkDestinationsEqual(firstObject, secondObject);
  return true;
}

}  // namespace krv
