#pragma once
// FileManagerEnumerator: the file manager's own walk of a folder tree. It hands out the relative
// path of every object below the base folder ("a", "a/b", ...), pre-order, each folder's entries in
// the order the kernel lists them. The base folder is opened as named (a final symbolic link is
// followed, as when listing a folder); below it no symbolic link is ever followed, so a link to a
// folder is handed out but not entered. skipDescendents() keeps the walk out of the folder it
// handed out last.
//
// Every level is opened relative to its parent's descriptor with O_NOFOLLOW, so the walk is
// immune to links swapped into the tree and knows no path length limit. A folder that cannot be
// entered or read is handed out but its contents are passed over; the first such failure is kept
// in firstError().
//
// Depth: every open level costs a descriptor, so the walk keeps at most kMaximumDepth levels open
// (the base and 4,095 below it, far beyond any real tree): a deeper folder counts as one that
// cannot be entered, with ELOOP. This is the depth of all the file manager's walks (the removal
// and copy of trees too, filesystem/FileTrees.h). Nor does the walk enter a folder that is already
// open on its stack, such as a folder bind-mounted into its own subtree (filesystem/WalkGuard.h;
// also ELOOP).
//
// Resources: the descriptors of the open levels and a directory reader for kMaximumDepth levels
// (filesystem/DirectoryReader.h). Owns its descriptors; movable, not copyable; one thread at a
// time.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/DirectoryReader.h"
#include "filesystem/WalkGuard.h"
#include "foundation/Result.h"

namespace krv {

class FileManagerEnumerator {
 public:
  static constexpr std::size_t kMaximumDepth = 4096;

  // Errors: the POSIX error of opening the base folder, with FailingPath; the mapping's error when
  // no memory can be had for the reader.
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
  explicit FileManagerEnumerator(DirectoryReader reader) : m_reader(std::move(reader)) {}
  void descend();
  void noteError(const Error& error);

  DirectoryReader m_reader;  // the open levels, the base first
  // Per open level: the length of its folder's relative path plus "/" (0 at the base).
  std::vector<std::size_t> m_prefixLengths;
  WalkGuard m_guard{kMaximumDepth};
  std::string m_path;  // relative path of the object handed out last
  std::size_t m_nameStart = 0;
  bool m_descendPending = false;
  bool m_lastIsDirectory = false;
  std::optional<Error> m_firstError;
};

}  // namespace krv
