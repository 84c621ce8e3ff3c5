#pragma once
// The three primitives the file object commands are built on: deleting one object even when user
// flags protect it (never when system flags do), deleting a whole tree after lifting the user
// immutable flag everywhere in it, and setting or clearing the user immutable flag of one object.
//
// Links: the single delete reads, unprotects and removes the object itself; the flag setter reads
// and writes what a link given as its path points to; the tree delete asks whether the path exists
// following links (a dangling link is "nothing to delete") and then removes the object itself,
// never a link's target.
//
// Paths: the client's path is resolved by the safe resolution (platform/SafePathResolver.h) of the
// resolver passed in - a user's symbolic link on the way leads only to that user's own objects,
// otherwise the primitive fails with POSIX EACCES and the path as FailingPath - and the primitive
// acts on what it pinned, never on the path again.
//
// Races: each primitive pins the object it examines (an O_PATH descriptor, and for a removal the
// folder holding it) and changes flags through that descriptor, so the object whose flags were
// read is the object whose flags are written. Walks go from open folder to open folder without
// following any link; only the length of the path they build is limited (ENAMETOOLONG past 4095
// bytes), as for any path the daemon names. They are the file manager's walks, with its guard (a
// folder already open further up is not walked again) and its depth: at most 4,096 open levels
// (FileManagerEnumerator::kMaximumDepth). The flag walk passes a deeper folder over, as one it
// cannot read (and reports it where it reports those); the tree delete stops there with ELOOP.
//
// Errors: the command error domain for the file commands' codes (protocol/CommandCodes.h: bad
// argument, flags not changed, system protected, with {"FailingPath": path} where noted),
// otherwise the POSIX domain with the errno of the failed call and {"FailingPath": path}, the path
// of the object the failure is about. Nothing is logged and nothing is rolled back.
//
// Stateless and thread-safe; used on the executor's thread.

#include <cstdint>
#include <optional>
#include <string>

#include "foundation/Result.h"
#include "platform/FileSystemCalls.h"
#include "platform/SafePathResolver.h"
#include "protocol/CommandCodes.h"

namespace krv {

// What the flag setter does with a symbolic link.
enum class LinkTargetCheck : std::uint8_t {
  Off,         // follows it; a dangling link succeeds and nothing changes
  On,          // follows it; a dangling link is POSIX ENOENT
  LeaveLinks,  // leaves it alone: used for the entries of a walk, whose links may point anywhere
               // and whose targets were not asked for; FIFOs, sockets and devices (which have
               // no kernel flags on Linux) are passed over too
};

// Removes one object (a folder must be empty). User immutable and append-only flags are cleared
// first, unless a system flag is present too: then the object is refused with code 11 and left as
// it is, its user flags included.
Status enforcedDeleteOfFileSystemObjectAtPath(const SafePathResolver& resolver,
                                              const std::string& path);

// Removes the object and everything below it after clearing the user immutable flag of the object
// and of every entry below it. A path where nothing exists or can be reached (a dangling link
// included) succeeds and nothing is done; a refused link is EACCES. A symbolic link is removed
// without touching any flag, and links inside the tree keep their targets' flags: only what is
// removed is unprotected. User append-only and all system flags are not touched, so an object
// carrying one makes the removal fail with the file manager's error.
Status enforcedRecursiveDeleteOfFileSystemObjectAtPath(const SafePathResolver& resolver,
                                                       const std::string& path);
// The same for the entry `name` of the folder open at folderFd (path names it in errors); the
// folder stays the one given, whatever its path names meanwhile.
Status enforcedRecursiveDeleteInFolder(int folderFd, const std::string& name,
                                       const std::string& path);

// Sets or clears the user immutable flag (UF_IMMUTABLE) of what the path names, following a final
// link by the resolver's rule. A path that cannot be reached (missing, through a file, too long)
// is ENOENT and a refused link EACCES, whatever the check.
// Clearing where the object or its file system has no flags succeeds (nothing to clear); setting
// there is POSIX EOPNOTSUPP.
// When `actedOn` is given it receives the object whose flag was examined (nothing when a dangling
// link or an entry of a walk was passed over), for a caller that goes on with that same object.
Status setImmutableFlag(const SafePathResolver& resolver, bool set, const std::string& path,
                        LinkTargetCheck check, std::optional<PathHandle>* actedOn = nullptr);

// Sets or clears the user immutable flag of every regular file and folder below the folder
// `folder` pins (named `path` in errors), never through a link; links, FIFOs, sockets and devices
// are passed over. With `device`, an object on another file system (a mount point included) is
// passed over with everything below it. Stops at the first failure. A folder below that cannot be
// entered or read is passed over too and, when reportUnreadable is set, reported after the walk.
Status setImmutableFlagBelow(bool set, const PathHandle& folder, const std::string& path,
                             std::optional<std::uint32_t> device, bool reportUnreadable);

// The answer of a command that asks whether anything is at the path, when the resolution failed:
// a refused link as EACCES, anything else as "nothing there" (ENOENT), with the path as
// FailingPath.
Error notThere(const Error& failure, const std::string& path);

}  // namespace krv
