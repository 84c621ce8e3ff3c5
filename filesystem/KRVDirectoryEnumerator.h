#pragma once
// KRVDirectoryEnumerator: walks a folder tree depth first and returns, one call at a time, the
// path of every object below its base folder, relative to that folder. The age search, the
// multi-pattern search and the object count walk with it (executor/SearchCommands.cpp).
//
// Order: pre-order; the entries of one folder in the order the kernel delivers them (no sorting);
// a folder's subtree is finished before its next sibling is read.
//
// Which folders are entered: an entry is a candidate when its mode has the bit 0x4000 (the folder
// bit tested alone, so block devices and sockets are candidates too, whose opening then fails).
// Symbolic links are never followed. With the stay-on-file-system flag only candidates on the
// device of the base folder are entered; without it, nothing whose absolute path begins with
// "/.vol" is entered. Every entry is returned whether it was entered or not. Limits:
//   - a candidate is entered only if the current relative folder path, a "/" and its name make at
//     most 1,024 bytes (the base path does not count; absolute paths may be longer than PATH_MAX);
//   - depth: at most 500 folders are open at once (the base and 499 below it); a folder that
//     would be the 501st is returned, not entered, and its message logged.
// Each level remembers the bytes it added to the relative path in 8 bits, so a 255-byte name
// below the first level adds nothing: such a "folder" reopens its parent. This is a deliberate
// part of the walk's behaviour, and it meets the walk guard (filesystem/WalkGuard.h): a folder
// that is already open on the walk's stack (same device and inode) is returned but not walked,
// like one that cannot be opened. So the reopened parent is not listed again, and a folder
// bind-mounted into its own subtree is walked once; no tree, however built, makes a walk branch
// without end. Entries whose names exceed 255 bytes (only some network and user-space file
// systems have them) are returned but never entered.
//
// Paths: the absolute path of an object is its base joined with its relative path as
// appendingPathComponent joins them (filesystem/PathNames.h): "/" + "a" is "/a", "." + "a" is
// "./a", and a trailing slash of the base adds no second one.
//
// Messages (to standard error, the console log): an invalid base, and each candidate refused by
// one of the limits. The enumerator never reports an error to its caller: a folder that cannot be
// opened or read is returned but not walked, a read error ends its folder.
//
// System calls, per folder: openat2 (relative to the parent's descriptor, O_NOFOLLOW, telling a
// mount point apart for the walk guard, which then adds an openat and an fstat), getdents64 until
// it returns 0, close. Per entry: nothing, where the file system reports the entry type;
// otherwise an fstatat. With the stay flag, each candidate needs an fstatat for its device.
//
// Resources: the walk keeps one open descriptor per open level, so up to 500 descriptors per
// walk; several concurrent walks need RLIMIT_NOFILE raised accordingly (the daemon's job). When
// descriptors run out, folders cannot be opened and are returned without being walked. Memory is
// the directory reader's mapping for 500 levels, about 1.25 MiB (filesystem/DirectoryReader.h;
// only touched pages become resident), the path buffer and the guard's 12 KiB of level records;
// nothing is allocated per level or per entry.
//
// Threads: an enumerator belongs to one thread; it has no locks. Separate enumerators on separate
// threads share nothing.

#include <sys/stat.h>
#include <sys/types.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/DirectoryReader.h"
#include "filesystem/WalkGuard.h"
#include "foundation/UniqueFd.h"

namespace krv {

class KRVDirectoryEnumeratorTestPeer;

class KRVDirectoryEnumerator {
 public:
  static constexpr std::size_t kMaximumRelativePathLength = 1024;
  static constexpr int kMaximumOpenLevels = 500;
  static constexpr std::string_view kClassName = "KRVDirectoryEnumerator";

  // A walk of the folder at `path` (a symbolic link to a folder is followed for the base only).
  // An empty path gives nullptr silently; a path that does not exist or is not a folder gives
  // nullptr and the message "KRVDirectoryEnumerator: attempt to initialize with invalid path
  // '<path>'". Also nullptr when no memory can be had for the buffers. A folder that exists but
  // cannot be opened gives an enumerator that returns nothing. With stayOnFileSystem the device is
  // that of the base path itself (not following a final link); if it cannot be read, the flag is
  // cleared.
  static std::unique_ptr<KRVDirectoryEnumerator> enumeratorAtPath(const std::string& path,
                                                                  bool stayOnFileSystem = false);
  // A walk of a folder the caller has already pinned and opened for reading (`folder`), for walks
  // whose base must not be looked up again by path. `path` is only the text the absolute paths
  // begin with (and that the "/.vol" rule reads); it is never looked up. With stayOnFileSystem the
  // device is the open folder's. An invalid descriptor gives an enumerator that returns nothing;
  // nullptr only when no memory can be had for the buffers.
  static std::unique_ptr<KRVDirectoryEnumerator> enumeratorAtFolder(UniqueFd folder,
                                                                    const std::string& path,
                                                                    bool stayOnFileSystem = false);

  ~KRVDirectoryEnumerator();
  KRVDirectoryEnumerator(const KRVDirectoryEnumerator&) = delete;
  KRVDirectoryEnumerator& operator=(const KRVDirectoryEnumerator&) = delete;

  // The relative path of the next object, or nothing at the end (and on every call after it). The
  // view is NUL-terminated and valid until the next call of a non-const member.
  std::optional<std::string_view> nextObject();
  // All remaining relative paths, in walk order. Its memory grows with the tree: walks of trees of
  // unknown size should use nextObject().
  std::vector<std::string> allObjects();
  // Closes the innermost open folder. Right after nextObject() returned a folder that was entered,
  // that skips its contents; after any other entry it closes the folder holding that entry, so
  // the rest of that folder is skipped as well.
  void skipDescendents();
  // The flag, as cleared when the base device could not be read.
  bool shouldStayOnFileSystem() const { return m_stayOnFileSystem; }

  // What the walk knows about the entry nextObject() returned last, valid until the next call of a
  // non-const member; meaningless before the first entry.
  //   currentEntryName: its last path component (NUL-terminated).
  //   currentEntryFileType: its S_IFMT bits as the file system reported them, 0 when unknown.
  //   currentEntryWasEntered: whether its contents follow.
  //   currentEntryDirectoryFd: the open folder that holds it, for *at() calls with its name; -1
  //   when
  //     skipDescendents() has closed that folder. Owned by the enumerator.
  //   currentAbsolutePath: base joined with the relative path (NUL-terminated; may exceed
  //   PATH_MAX).
  std::string_view currentEntryName() const;
  mode_t currentEntryFileType() const { return m_entryFileType; }
  bool currentEntryWasEntered() const { return m_entryWasEntered; }
  int currentEntryDirectoryFd() const;
  std::string_view currentAbsolutePath() const;

 private:
  friend class KRVDirectoryEnumeratorTestPeer;

  KRVDirectoryEnumerator(DirectoryReader reader, const std::string& basePath);
  // The walk of the open base (level 0 even when `base` is invalid), on `baseDevice` when given.
  static std::unique_ptr<KRVDirectoryEnumerator> startAt(UniqueFd base, const std::string& path,
                                                         std::optional<dev_t> baseDevice);
  bool shouldEnter(int level, std::size_t nameOffset, std::size_t nameLength,
                   unsigned char directoryType);
  bool pushDirectory(std::size_t nameOffset, std::size_t nameLength, mode_t fileType);
  void popDirectory();

  DirectoryReader m_reader;  // the open levels: level 0 the base, the innermost last
  WalkGuard m_guard;         // the identities of the open levels
  // Base, separator, relative path; sized for the longest relative path plus one name.
  std::unique_ptr<char[]> m_pathBuffer;
  std::size_t m_relativeStart = 0;       // where the relative part begins
  std::size_t m_relativePathLength = 0;  // of the current (innermost open) folder
  int m_topIndex = -1;                   // the innermost open level; -1 when none is open
  std::array<std::uint8_t, kMaximumOpenLevels> m_addedLengths{};
  bool m_stayOnFileSystem = false;
  dev_t m_baseFileSystemId = 0;
  bool m_ignoresEntryTypes = false;  // tests: behave as on a file system without d_type

  // The entry returned last.
  std::size_t m_entryLength = 0;  // of its relative path
  std::size_t m_entryNameLength = 0;
  mode_t m_entryFileType = 0;
  bool m_entryWasEntered = false;
  int m_entryLevel = -1;
};

}  // namespace krv
