#include "filesystem/DirectoryReader.h"

#include <dirent.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstddef>
#include <cstring>
#include <limits>
#include <span>

#include "foundation/System.h"

namespace krv {

namespace {

// The kernel's record layout (struct linux_dirent64), which glibc's dirent64 mirrors.
constexpr std::size_t kReclenOffset = offsetof(struct dirent64, d_reclen);
constexpr std::size_t kTypeOffset = offsetof(struct dirent64, d_type);
constexpr std::size_t kNameOffset = offsetof(struct dirent64, d_name);

static_assert(DirectoryReader::kMappingSize <= std::numeric_limits<std::uint32_t>::max());
static_assert(DirectoryReader::kSmallestRead >= kNameOffset + 1024 + 8,
              "the smallest batch must hold the longest name any Linux file system returns");

bool isDotOrDotDot(std::string_view name) { return name == "." || name == ".."; }

}  // namespace

Result<std::unique_ptr<DirectoryReader>> DirectoryReader::create() {
  void* mapping = ::mmap(nullptr, kMappingSize, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapping == MAP_FAILED) return Error::fromErrno("mmap");
  return std::unique_ptr<DirectoryReader>(new DirectoryReader(static_cast<char*>(mapping)));
}

DirectoryReader::~DirectoryReader() { ::munmap(m_mapping, kMappingSize); }

void DirectoryReader::beginLevel(int level) {
  LevelState& state = m_levels[level];
  state.start = level == 0 ? 0 : m_levels[level - 1].start + m_levels[level - 1].filled;
  state.position = 0;
  state.filled = 0;
  state.ended = false;
}

// Leaves kSmallestRead bytes for each level below this one. By induction a level always gets at
// least kSmallestRead: its parent's batch ended no later than the parent's own share allowed.
std::size_t DirectoryReader::readCapacity(int level) const {
  std::size_t reserved = static_cast<std::size_t>(kMaximumLevels - 1 - level) * kSmallestRead;
  std::size_t available = kMappingSize - m_levels[level].start - reserved;
  return available < kLargestRead ? available : kLargestRead;
}

std::optional<DirectoryReader::Entry> DirectoryReader::next(int level, int directoryFd) {
  LevelState& state = m_levels[level];
  for (;;) {
    if (state.position >= state.filled) {
      if (state.ended) return std::nullopt;
      std::span<char> batch(m_mapping + state.start, readCapacity(level));
      Result<std::size_t> count = sys::readDirectoryEntries(directoryFd, batch);
      state.position = 0;
      if (!count || *count == 0 || *count > batch.size()) {
        state.filled = 0;
        state.ended = true;
        return std::nullopt;
      }
      state.filled = static_cast<std::uint32_t>(*count);
    }

    const char* record = m_mapping + state.start + state.position;
    std::size_t remaining = state.filled - state.position;
    std::uint16_t recordLength = 0;
    if (remaining > kNameOffset) std::memcpy(&recordLength, record + kReclenOffset, 2);
    if (recordLength <= kNameOffset || recordLength > remaining) break;
    state.position += recordLength;

    const char* name = record + kNameOffset;
    std::size_t nameRoom = recordLength - kNameOffset;
    const void* terminator = std::memchr(name, '\0', nameRoom);
    if (terminator == nullptr) break;
    std::string_view nameView(
        name, static_cast<std::size_t>(static_cast<const char*>(terminator) - name));
    if (nameView.empty() || isDotOrDotDot(nameView) ||
        nameView.find('/') != std::string_view::npos) {
      continue;
    }
    return Entry{nameView, static_cast<unsigned char>(record[kTypeOffset])};
  }
  // A malformed record: the rest of the folder cannot be trusted.
  state.position = state.filled = 0;
  state.ended = true;
  return std::nullopt;
}

}  // namespace krv
