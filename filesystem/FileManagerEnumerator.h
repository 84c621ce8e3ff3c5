#pragma once
// FileManagerEnumerator: the file manager's own walk of a folder tree. It hands out the relative
// path of every object below the base folder ("a", "a/b", ...), pre-order, each folder's entries in
// the order the kernel lists them. The base folder is opened as named (a final symbolic link is
// followed, as when listing a folder); below it no symbolic link is ever followed, so a link to a
// folder is handed out but not entered. skipDescendents() keeps the walk out of the folder it
// handed out last.
//
// Every level is opened relative to its parent's descriptor with O_NOFOLLOW, so the walk is
// immune to links swapped into the tree and knows no path length limit. Each open level costs one
// descriptor and one small buffer, so the walk enters at most kMaximumDepth levels (far beyond any
// real tree; a deeper folder counts as one that cannot be entered, with ELOOP). Nor does it enter
// a folder that is already open on its stack, such as a folder bind-mounted into its own subtree
// (filesystem/WalkGuard.h; also ELOOP). A folder that cannot be entered or read is handed out but
// its contents are passed over; the first such failure is kept in firstError().
//
// Owns its descriptors; movable, not copyable; one thread at a time.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/FolderReader.h"
#include "filesystem/WalkGuard.h"
#include "foundation/Result.h"

namespace krv {

class FileManagerEnumerator {
 public:
  static constexpr std::size_t kMaximumDepth = kMaximumTreeDepth;

  // Errors: the POSIX error of opening the base folder, with FailingPath.
  static Result<FileManagerEnumerator> open(const std::string& path);

  FileManagerEnumerator(FileManagerEnumerator&&) noexcept = default;
  FileManagerEnumerator& operator=(FileManagerEnumerator&&) noexcept = default;

  // The relative path of the next object, or nothing when the walk is over.
  std::optional<std::string> nextObject();
  // The same without a copy: a view of the walk's own path, valid until the next call of a
  // non-const member.
  std::optional<std::string_view> nextRelativePath();
  // The object handed out last, for *at() calls: its name (NUL-terminated), and the open folder
  // that holds it (owned by the walk; -1 once the walk is over). Valid until the next call of a
  // non-const member.
  std::string_view currentName() const;
  int currentDirectoryFd() const;
  // The object handed out last is not descended into (no effect unless it is a folder).
  void skipDescendents() { m_descendPending = false; }
  // Whether the object handed out last is a folder (not a link to one).
  bool lastObjectIsDirectory() const { return m_lastIsDirectory; }

  // The first folder that could not be entered or read (FailingPath = its relative path).
  const std::optional<Error>& firstError() const { return m_firstError; }

 private:
  struct Level {
    FolderReader reader;
    std::size_t prefixLength;  // length of this folder's relative path plus "/" (0 at the base)
  };

  FileManagerEnumerator() = default;
  void descend();
  void noteError(const Error& error);

  std::vector<Level> m_levels;
  WalkGuard m_guard{kMaximumDepth};
  std::string m_path;  // relative path of the object handed out last
  std::size_t m_nameStart = 0;
  bool m_descendPending = false;
  bool m_lastIsDirectory = false;
  std::optional<Error> m_firstError;
};

}  // namespace krv
