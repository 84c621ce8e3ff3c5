#include "filesystem/DirectoryReader.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <span>
#include <utility>

#include "foundation/System.h"

namespace krv {

namespace {

// The kernel's record layout (struct linux_dirent64), which glibc's dirent64 mirrors.
constexpr std::size_t kReclenOffset = offsetof(struct dirent64, d_reclen);
constexpr std::size_t kTypeOffset = offsetof(struct dirent64, d_type);
constexpr std::size_t kNameOffset = offsetof(struct dirent64, d_name);

// Batches beyond the levels' shares, so that shallow levels read whole large batches.
constexpr std::size_t kSpareBatches = 8;

static_assert(DirectoryReader::kSmallestRead >= kNameOffset + 1024 + 8,
              "the smallest batch must hold the longest name any Linux file system returns");
static_assert(DirectoryReader::kMostLevels * DirectoryReader::kSmallestRead +
                      kSpareBatches * DirectoryReader::kLargestRead <=
                  std::numeric_limits<std::uint32_t>::max(),
              "offsets in the mapping fit 32 bits");

bool isDotOrDotDot(std::string_view name) { return name == "." || name == ".."; }

}  // namespace

Result<DirectoryReader> DirectoryReader::create(std::size_t maximumLevels) {
  if (maximumLevels == 0 || maximumLevels > kMostLevels) {
    return Error::posix(EINVAL, "directory reader levels");
  }
  const std::size_t size = maximumLevels * kSmallestRead + kSpareBatches * kLargestRead;
  KRV_TRY(char* mapping, sys::mapPrivateMemory(size));
  return DirectoryReader(mapping, size, maximumLevels);
}

Result<DirectoryReader> DirectoryReader::listing(UniqueFd folder) {
  KRV_TRY(DirectoryReader reader, create(1));
  reader.push(std::move(folder));
  return reader;
}

Result<DirectoryReader> DirectoryReader::listing(const std::string& path) {
  KRV_TRY(UniqueFd folder, sys::open(path, O_RDONLY | O_DIRECTORY | O_NOCTTY | O_NONBLOCK));
  return listing(std::move(folder));
}

DirectoryReader::DirectoryReader(char* mapping, std::size_t mappingSize, std::size_t maximumLevels)
    : m_mapping(mapping), m_mappingSize(mappingSize), m_maximumLevels(maximumLevels) {
  m_levels.reserve(maximumLevels);
}

DirectoryReader::~DirectoryReader() {
  if (m_mapping != nullptr) sys::unmapMemory(m_mapping, m_mappingSize);
}

DirectoryReader::DirectoryReader(DirectoryReader&& other) noexcept
    : m_mapping(std::exchange(other.m_mapping, nullptr)),
      m_mappingSize(std::exchange(other.m_mappingSize, 0)),
      m_maximumLevels(std::exchange(other.m_maximumLevels, 0)),
      m_levels(std::move(other.m_levels)) {
  other.m_levels.clear();
}

DirectoryReader& DirectoryReader::operator=(DirectoryReader&& other) noexcept {
  if (this != &other) {
    if (m_mapping != nullptr) sys::unmapMemory(m_mapping, m_mappingSize);
    m_mapping = std::exchange(other.m_mapping, nullptr);
    m_mappingSize = std::exchange(other.m_mappingSize, 0);
    m_maximumLevels = std::exchange(other.m_maximumLevels, 0);
    m_levels = std::move(other.m_levels);
    other.m_levels.clear();
  }
  return *this;
}

void DirectoryReader::push(UniqueFd folder) {
  Level level;
  if (!m_levels.empty()) level.start = m_levels.back().start + m_levels.back().filled;
  level.folder = std::move(folder);
  m_levels.push_back(std::move(level));
}

void DirectoryReader::pop() {
  if (!m_levels.empty()) m_levels.pop_back();
}

// Leaves kSmallestRead bytes for each level below the innermost one. By induction a level always
// gets at least kSmallestRead: its parent's batch ended no later than the parent's share allowed.
std::size_t DirectoryReader::readCapacity() const {
  const std::size_t deeper = m_maximumLevels - m_levels.size();
  const std::size_t available = m_mappingSize - m_levels.back().start - deeper * kSmallestRead;
  return available < kLargestRead ? available : kLargestRead;
}

std::optional<DirectoryReader::Entry> DirectoryReader::next() {
  Level& level = m_levels.back();
  for (;;) {
    if (level.position >= level.filled) {
      if (level.ended) return std::nullopt;
      level.position = 0;
      level.filled = 0;
      level.ended = true;
      if (!level.folder.valid()) return std::nullopt;
      std::span<char> batch(m_mapping + level.start, readCapacity());
      Result<std::size_t> count = sys::readDirectoryEntries(level.folder.get(), batch);
      if (!count) {
        level.readErrno = static_cast<std::int32_t>(count.error().code());
        return std::nullopt;
      }
      if (*count == 0 || *count > batch.size()) return std::nullopt;
      level.filled = static_cast<std::uint32_t>(*count);
      level.ended = false;
    }

    // The one place where the kernel's records are taken apart: nothing is read before the
    // record's length is known to lie within what the kernel filled.
    const char* record = m_mapping + level.start + level.position;
    const std::size_t remaining = level.filled - level.position;
    std::uint16_t recordLength = 0;
    if (remaining > kNameOffset) std::memcpy(&recordLength, record + kReclenOffset, 2);
    if (recordLength <= kNameOffset || recordLength > remaining) break;
    level.position += recordLength;

    const char* name = record + kNameOffset;
    const void* terminator = std::memchr(name, '\0', recordLength - kNameOffset);
    if (terminator == nullptr) break;
    const std::string_view nameView(
        name, static_cast<std::size_t>(static_cast<const char*>(terminator) - name));
    if (nameView.empty() || isDotOrDotDot(nameView) ||
        nameView.find('/') != std::string_view::npos) {
      continue;
    }
    return Entry{nameView, static_cast<unsigned char>(record[kTypeOffset])};
  }
  // A malformed record: the rest of the folder cannot be trusted.
  level.position = level.filled = 0;
  level.ended = true;
  return std::nullopt;
}

std::optional<Error> DirectoryReader::readError() const {
  if (m_levels.empty() || m_levels.back().readErrno == 0) return std::nullopt;
  return Error::posix(m_levels.back().readErrno, "getdents64");
}

Status DirectoryReader::rewind() {
  Level& level = m_levels.back();
  KRV_TRY_VOID(sys::seek(level.folder.get(), 0, SEEK_SET));
  level.position = 0;
  level.filled = 0;
  level.readErrno = 0;
  level.ended = false;
  return {};
}

}  // namespace krv
