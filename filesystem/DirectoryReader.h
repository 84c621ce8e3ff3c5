#pragma once
// DirectoryReader: the directory-entry buffers of one depth-first walk. The caller keeps one open
// folder per level (level 0 the base, at most kMaximumLevels levels) and asks for the next entry
// of the innermost level; the reader fills that level's buffer with getdents64 batches and hands
// out one entry at a time, skipping "." and "..".
//
// Memory: every buffer lives in one private anonymous mapping made by create() and unmapped by
// the destructor, so a walk allocates nothing per level or per entry, and the memory of a finished
// walk goes back to the system at once. Levels are stacked in the mapping: a level's batch begins
// where its parent's last batch ends. A batch is at most kLargestRead bytes, and each level may
// only take so much that every deeper level still finds kSmallestRead bytes free; a walk 500
// levels deep through large folders therefore reads its deep levels in smaller batches instead
// of needing more memory. Only the touched pages of the mapping become resident.
//
// Hostile input: records are checked against the batch before use; a malformed record (length
// out of range, name without its terminating NUL) ends the folder as a read error does. Entries
// whose name is empty or contains "/" cannot name an object of the folder and are skipped.
//
// Errors: none are reported; a failed read ends the folder. Not synchronised: one walk, one thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "foundation/Result.h"

namespace krv {

class DirectoryReader {
 public:
  static constexpr int kMaximumLevels = 500;
  static constexpr std::size_t kLargestRead = 32 * 1024;
  static constexpr std::size_t kSmallestRead = 2 * 1024;
  static constexpr std::size_t kMappingSize = kMaximumLevels * kSmallestRead + 8 * kLargestRead;
  // No name handed out is longer than this (a record never exceeds its batch).
  static constexpr std::size_t kLongestName = kLargestRead;

  struct Entry {
    std::string_view name;  // not NUL-terminated in general; valid until the level reads again
    unsigned char type;     // the kernel's d_type, DT_UNKNOWN when the file system gives none
  };

  // Maps the buffers; fails only when the system has no memory for the mapping.
  static Result<std::unique_ptr<DirectoryReader>> create();
  ~DirectoryReader();
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  // Prepares `level` (0 .. kMaximumLevels - 1) for a folder just opened there. Every deeper level
  // is free again; the levels above keep their unread entries.
  void beginLevel(int level);
  // The next entry of the folder open at `level` on `directoryFd`, or nothing at its end and after
  // a read error or malformed record (and on every later call for that level).
  std::optional<Entry> next(int level, int directoryFd);

 private:
  struct LevelState {
    std::uint32_t start = 0;     // offset of the level's batch in the mapping
    std::uint32_t position = 0;  // offset of the next record within the batch
    std::uint32_t filled = 0;    // bytes of the batch
    bool ended = false;
  };

  explicit DirectoryReader(char* mapping) : m_mapping(mapping) {}
  std::size_t readCapacity(int level) const;

  char* m_mapping;
  LevelState m_levels[kMaximumLevels];
};

}  // namespace krv
