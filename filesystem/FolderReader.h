#pragma once
// FolderReader: the entries of one open folder, read with getdents64 into a buffer of its own, in
// the order the kernel lists them; "." and ".." are skipped. The file manager's walks keep one
// reader per open level, so the memory of a walk is one small buffer per level of depth, whatever
// the size of the folders.
//
// Records are checked against the batch before use; a malformed one ends the folder as a read
// error does. Names that are empty or contain "/" cannot name an entry and are skipped.
//
// Owns the folder's descriptor. Movable, not copyable; one thread at a time.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv {

// The deepest a walk of the file manager goes. Every open level holds a descriptor and a reader's
// buffer, so a tree built deeper than any real one is reported (ELOOP) instead of being followed
// to the end of the daemon's memory.
inline constexpr std::size_t kMaximumTreeDepth = 4096;

class FolderReader {
 public:
  static constexpr std::size_t kSmallBuffer = 4096;
  static constexpr std::size_t kLargeBuffer = 32768;

  struct Entry {
    std::string_view name;  // valid until the next call of next()
    unsigned char type;     // d_type; DT_UNKNOWN when the file system does not say
  };

  // Takes a descriptor opened with O_DIRECTORY. bufferSize is at least kSmallBuffer.
  explicit FolderReader(UniqueFd folder, std::size_t bufferSize = kSmallBuffer);

  FolderReader(FolderReader&&) noexcept = default;
  FolderReader& operator=(FolderReader&&) noexcept = default;

  int fd() const { return m_folder.get(); }

  // The next entry; nothing at the end. A failed read ends the folder and is kept in error().
  std::optional<Entry> next();
  const std::optional<Error>& error() const { return m_error; }

  // Starts the listing again from the beginning (for folders changed while read).
  Status rewind();

 private:
  UniqueFd m_folder;
  std::unique_ptr<char[]> m_buffer;
  std::size_t m_capacity = 0;
  std::size_t m_position = 0;
  std::size_t m_filled = 0;
  bool m_ended = false;
  std::optional<Error> m_error;
};

}  // namespace krv
