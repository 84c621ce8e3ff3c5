#pragma once
// WalkGuard: keeps a depth-first walk from entering a folder that is already open on its stack.
// A walk asks it each time it has opened a folder, with the folder's descriptor and the level the
// folder would take (0 for the base); the guard reads the folder's device and inode from the
// descriptor and compares them with those of the levels below. A folder that is one of them is
// refused: the walk returns it like a folder it cannot read and does not walk it.
//
// Why: a walk over a tree that users can write must end. Two things can make a folder reappear
// below itself: the KRVDirectoryEnumerator's one-byte bookkeeping, where a 255-byte name below the
// first level reopens its parent, and a bind mount of a folder into its own subtree. Either one,
// met twice in a folder, doubles the walk at every level. Refusing what is already open keeps
// every result of an ordinary tree (no folder of a tree is its own ancestor) and makes a folder's
// contents appear at most once on any one path of the walk.
//
// Cost: one fstat per folder entered (on the descriptor the walk just opened, so what is compared
// is exactly what was opened) and a comparison with each open level. Memory: one identity per
// level up to the capacity given at construction, allocated then, nothing per level.
//
// Errors: a refused folder is POSIX ELOOP (a folder already open, or a level beyond the capacity)
// or the error of reading its status (a walk cannot tell such a folder from an ancestor). Walks
// that report why a folder was not walked pass these on. Not synchronised: one walk, one thread.

#include <sys/types.h>

#include <cstddef>
#include <vector>

#include "foundation/Result.h"

namespace krv {

class WalkGuard {
 public:
  // Room for `maximumDepth` open levels; a level at or beyond it is always refused.
  explicit WalkGuard(std::size_t maximumDepth);

  // Whether the folder open at folderFd may be walked at `level`. Levels 0 .. level - 1 must be
  // the folders the walk has open now, each admitted by this call; whatever was recorded at
  // `level` and above is forgotten (the walk has left those folders). On success the folder is
  // recorded at `level`.
  Status admit(std::size_t level, int folderFd);

 private:
  struct Identity {
    dev_t device;
    ino_t inode;
  };

  std::size_t m_maximumDepth;
  std::vector<Identity> m_open;  // one per open level, the base first
};

}  // namespace krv
