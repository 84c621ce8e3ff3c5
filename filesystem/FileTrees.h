#pragma once
// The file manager's whole-tree operations, done relative to open folders with *at() calls: the
// removal of a tree, and its copy (or hard-link copy) to a new place. No symbolic link is ever
// followed inside a tree; a folder is entered with O_NOFOLLOW, so a link swapped in for a folder
// is never entered.
//
// Depth: the file manager's, FileManagerEnumerator::kMaximumDepth (4,096) open levels, each one
// descriptor; a folder deeper than that stops the operation with ELOOP, and so does a folder
// already open further up the walk (one bind-mounted into its own subtree, filesystem/WalkGuard.h),
// as at a folder it cannot open. The entries are read with one directory reader per operation
// (filesystem/DirectoryReader.h).
//
// Errors are POSIX errors with FailingPath: `path` for the top object, `path` joined with the
// relative path (appendingPathComponent) for one inside. Thread-safe (no shared state).

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "foundation/Result.h"

namespace krv {

enum class TreeCopyMode : std::uint8_t {
  Copy,      // data and attributes copied
  HardLink,  // folders recreated, everything else hard-linked
};

// Removes `name` in the folder open at parentFd and, for a folder, everything below it, stopping
// at the first failure. Entries of a folder that changes while it is emptied are looked for again
// a few times before ENOTEMPTY is given up on.
Status removeTree(int parentFd, const std::string& name, const std::string& path);

// Makes the new entry toName in toParentFd a copy of fromName in fromParentFd (see
// FileManager::moveItem for what a copy keeps). An existing destination is EEXIST. After any
// other failure, what was made of the copy is removed again as far as possible.
Status copyTree(int fromParentFd, const std::string& fromName, const std::string& fromPath,
                int toParentFd, const std::string& toName, const std::string& toPath,
                TreeCopyMode mode);

// Whether the folder open at folderFd is the object (device, inode) or lies anywhere below it,
// found by walking ".." up to the root.
Result<bool> folderLiesWithin(int folderFd, dev_t device, ino_t inode);

}  // namespace krv
