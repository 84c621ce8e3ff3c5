#pragma once
// DirectoryReader: the one reader of directory entries. It reads the folders a depth-first walk
// holds open - a stack of levels, level 0 the walk's base, each level one open folder - with
// getdents64, and hands out the entries of the innermost level one at a time, in the order the
// kernel lists them, without "." and "..". The listing of a single folder is a walk of one level
// (listing()).
//
// Depth: the reader has no policy of its own. A walk makes it for the number of levels it allows
// and says in its own header what happens to a folder deeper than that (KRVDirectoryEnumerator:
// 500 open levels; the file manager's walks: FileManagerEnumerator::kMaximumDepth, 4,096).
//
// Memory: the batches of every level live in one private anonymous mapping made by create() and
// unmapped by the destructor, so a walk allocates nothing per level or per entry, and the memory
// of a finished walk goes back to the system at once. Levels are stacked in the mapping: a level's
// batch begins where its parent's last batch ends. A batch is at most kLargestRead bytes, and each
// level may take only so much that every deeper level still finds kSmallestRead bytes free; a walk
// hundreds of levels deep through large folders therefore reads its deep levels in smaller
// batches instead of needing more memory. The mapping spans levels x 2 KiB + 256 KiB of address
// space (1.25 MiB for 500 levels, 8.25 MiB for 4,096); only the touched pages become resident.
//
// Hostile input: every record is checked against its batch before use; a malformed record (length
// out of range, name without its terminating NUL) ends the folder as a read error does. Entries
// whose name is empty or contains "/" cannot name an object of the folder and are skipped.
//
// Errors: a failed read ends its folder; readError() tells that from the folder's end (a malformed
// record is no error: the folder simply ends). Owns the descriptors of its levels. Movable, not
// copyable; one walk, one thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv {

class DirectoryReader {
 public:
  static constexpr std::size_t kLargestRead = 32 * 1024;
  static constexpr std::size_t kSmallestRead = 2 * 1024;
  // No name handed out is longer than this (a record never exceeds its batch).
  static constexpr std::size_t kLongestName = kLargestRead;
  // Far beyond any walk's depth; keeps the mapping's offsets within 32 bits.
  static constexpr std::size_t kMostLevels = 1 << 20;

  struct Entry {
    std::string_view name;  // not NUL-terminated in general; valid until the level reads again
    unsigned char type;     // the kernel's d_type, DT_UNKNOWN when the file system gives none
  };

  // A reader for walks of at most `maximumLevels` open levels (1 .. kMostLevels, EINVAL
  // otherwise); fails with the mapping's error when the system has no memory for it.
  static Result<DirectoryReader> create(std::size_t maximumLevels);
  // A reader of one level holding `folder`: the listing of that one folder.
  static Result<DirectoryReader> listing(UniqueFd folder);
  // The same for the folder at `path` (a final symbolic link is followed); the error of opening it
  // otherwise.
  static Result<DirectoryReader> listing(const std::string& path);

  ~DirectoryReader();
  DirectoryReader(DirectoryReader&& other) noexcept;
  DirectoryReader& operator=(DirectoryReader&& other) noexcept;
  DirectoryReader(const DirectoryReader&) = delete;
  DirectoryReader& operator=(const DirectoryReader&) = delete;

  std::size_t maximumLevels() const { return m_maximumLevels; }
  // The number of open levels.
  std::size_t depth() const { return m_levels.size(); }
  // The folder of an open level (level < depth()); -1 when the level holds none.
  int fd(std::size_t level) const { return m_levels[level].folder.get(); }

  // Opens a new innermost level for `folder` (opened with O_DIRECTORY); an invalid descriptor
  // makes a level that lists nothing. Calling it with maximumLevels() levels open is a programming
  // error: the walk checks its depth first.
  void push(UniqueFd folder);
  // Closes the innermost level (none open: nothing happens).
  void pop();

  // The next entry of the innermost level (at least one must be open), or nothing at its end, after
  // a read error or a malformed record, and on every later call for that level.
  std::optional<Entry> next();
  // The error of the read that ended the innermost level, if a read failed.
  std::optional<Error> readError() const;
  // Lists the innermost level again from its beginning (for a folder changed while it was read).
  Status rewind();

 private:
  struct Level {
    UniqueFd folder;
    std::uint32_t start = 0;     // offset of the level's batch in the mapping
    std::uint32_t position = 0;  // offset of the next record within the batch
    std::uint32_t filled = 0;    // bytes of the batch
    std::int32_t readErrno = 0;  // the errno of a failed read, 0 when none failed
    bool ended = false;
  };

  DirectoryReader(char* mapping, std::size_t mappingSize, std::size_t maximumLevels);
  std::size_t readCapacity() const;

  char* m_mapping = nullptr;
  std::size_t m_mappingSize = 0;
  std::size_t m_maximumLevels = 0;
  std::vector<Level> m_levels;  // the open levels, the base first; room for all made at creation
};

}  // namespace krv
