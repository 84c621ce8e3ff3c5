#pragma once
// WalkGuard: opens the folders of a depth-first walk and keeps the walk from entering a folder
// that is already open on its stack (same device and inode). Such a folder is refused: the walk
// returns it like a folder it cannot open and does not walk it.
//
// Why: a walk over a tree that users can write must end. Two things can make a folder reappear
// below itself: the KRVDirectoryEnumerator's one-byte bookkeeping, where a 255-byte name below the
// first level stands for "." and so reopens the folder the walk is in, and a mount of a folder
// into its own subtree (a bind mount, a bind of "/" into a chroot below it). Either one, met twice
// in a folder, doubles the walk at every level. Refusing what is already open keeps every result
// of an ordinary tree (no folder of a tree is its own ancestor) and makes a folder's contents
// appear at most once on any one way down.
//
// Cost: within one mount the folders form a tree, so a folder entered by name without crossing a
// mount point cannot be one of the open levels unless a mount point crossed further up holds the
// same file system as a level above it. The guard therefore opens each folder with openat2 and
// RESOLVE_NO_XDEV, which fails with EXDEV at a mount point: an ordinary folder costs no system
// call beyond its opening. A mount point is opened again normally and its device and inode
// (fstat) compared with those of the open levels (read from their descriptors when first needed);
// below one whose file system is also that of a level above, every folder is compared. Where
// openat2 is missing (or a sandbox refuses it), every folder is compared (one fstat each). Memory:
// one small record per level up to the capacity given at construction, allocated then.
//
// What it cannot see: a file system that reports a folder below itself without a mount point (a
// corrupt one, or a user-space file system other users may enter) is bounded only by the walk's
// own depth limit.
//
// Levels: the walk calls beginAt for its base (level 0) and enter for each folder it goes into,
// with the level that folder takes; levels 0 .. level - 1 must be the walk's open folders, whose
// descriptors stay open meanwhile. Whatever was recorded at that level and deeper is forgotten
// (the walk has left those folders).
//
// Errors: a refused folder is POSIX ELOOP (already open, or a level beyond the capacity);
// otherwise the error of opening it or of reading a status. Not synchronised: one walk, one
// thread.

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv {

class WalkGuard {
 public:
  // Room for `maximumDepth` open levels; a level at or beyond it is always refused.
  explicit WalkGuard(std::size_t maximumDepth);

  // The walk's base, open at folderFd, becomes level 0 (and the only level).
  void beginAt(int folderFd);
  // Opens `name` (openat flags; O_DIRECTORY belongs in them) in the folder open at parentFd, the
  // open level `level` - 1 (for level 0 any folder: it becomes the base), and records it at
  // `level`; refused with ELOOP when it is one of the open levels. The name "." below the base is
  // the folder the walk is in and is refused without being opened.
  Result<UniqueFd> enter(std::size_t level, int parentFd, const char* name, int flags);
  // Whether an error of enter() is the guard's refusal, not the failure of an opening (which may be
  // ELOOP too, for a symbolic link opened with O_NOFOLLOW).
  static bool isRefusal(const Error& error);

 private:
  struct Level {
    int fd;
    bool identified;
    bool checksBelow;  // whether folders below must be compared with the open levels
    dev_t device;
    ino_t inode;
  };

  Status identify(Level& level);

  std::size_t m_maximumDepth;
  bool m_detectsMounts = true;  // false once openat2 turned out to be missing
  std::vector<Level> m_levels;  // the open levels, the base first
};

}  // namespace krv
