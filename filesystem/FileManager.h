#pragma once
// FileManager: the file manager operations the commands are built on - existence tests, attribute
// reading and re-applying, moving (also across file systems), recursive removal, folder listing,
// its enumerator, symbolic-link resolution, creation of folders, files and links.
//
// Errors: every failure is an error of the POSIX domain whose code is the errno of the failed call
// and whose user information is {"FailingPath": path}, the path of the object the failure concerns
// (for a walk, the object inside the tree). Nothing is rolled back after a partial failure unless
// an operation says so.
//
// Symbolic links: the object at a path is examined and changed without following a final link
// (attributesOfItem, setAttributes, removeItem, moveItem, linkItem), except where an operation
// says it follows (fileExists, contentsOfDirectory, the enumerator's base folder). Operations that
// change an object pin it first with an O_PATH descriptor, so each step reaches the same inode.
//
// Paths are used as given; one with an embedded NUL character is EINVAL. The forms that take a
// PinnedEntry (platform/SafePathResolver.h) act in the folder the entry pinned instead of looking
// a path up: the commands resolve a client's path safely first and hand over what they pinned;
// the path they pass along only names the object in errors. Stateless; all functions are
// thread-safe.

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "filesystem/FileAttributes.h"
#include "filesystem/FileManagerEnumerator.h"
#include "foundation/Result.h"

namespace krv {

class PathHandle;
struct PinnedEntry;

// Whether attributesOfItem follows a final symbolic link, one level deep.
enum class LinkTraversal : std::uint8_t { None, OneLevel };

class FileManager final {
 public:
  FileManager() = delete;

  // A POSIX error with {"FailingPath": path}; the second form keeps the code (and operation) of
  // `cause` when it is a POSIX error and is EIO otherwise.
  static Error error(int errnoValue, const std::string& path);
  static Error error(const Error& cause, const std::string& path);

  // Whether something exists at `path`, following symbolic links (a dangling link does not exist).
  static bool fileExists(const std::string& path);
  // The same; isDirectory says whether it is a folder (false when nothing exists).
  static bool fileExists(const std::string& path, bool& isDirectory);

  // The attributes of the object itself (a final symbolic link is not followed).
  static Result<FileAttributes> attributesOfItem(const std::string& path);
  // With OneLevel, a symbolic link is replaced by its destination - relative destinations are read
  // from the link's folder - whose attributes are read without following it again: a link to a
  // link answers the second link. A link that cannot be read answers its error; an empty
  // destination is ENOENT. An object that is no link is simply read (again).
  static Result<FileAttributes> attributesOfItem(const std::string& path, LinkTraversal traversal);
  // The attributes of a pinned object (a link is the link itself); errors carry no FailingPath.
  static Result<FileAttributes> attributesOfItem(const PathHandle& object);

  // Applies the changes to the object itself (a final link is not followed), in this order:
  // flags when they lift an immutable or append-only protection the object holds, owner and
  // group, permission bits, modification date, HFS codes, and otherwise flags last (an immutable
  // object refuses every other change). A permission change aimed at a symbolic link succeeds and
  // changes nothing; flags and HFS codes that a link cannot carry fail (EOPNOTSUPP, EPERM) unless
  // they equal what the link has. The creation date is ignored. Stops at the first failure.
  static Status setAttributes(const FileAttributeChanges& changes, const std::string& path);
  // The same for an object already pinned; errors carry no FailingPath.
  static Status setAttributes(const FileAttributeChanges& changes, const PathHandle& object);

  // Renames `from` to `to`; an existing object at `to` is EEXIST and is never replaced. Across
  // file systems the object (a whole tree for a folder) is copied - owner, group, mode, times,
  // flags and extended attributes where the destination can hold them, links as links, special
  // files recreated, hard links within the tree become separate files - and then the source is
  // removed. A failed copy is removed again and the source stays; if the source cannot be removed
  // completely, the copy stays and the removal's error is returned.
  static Status moveItem(const std::string& from, const std::string& to);
  static Status moveItem(const PinnedEntry& from, const std::string& fromPath,
                         const PinnedEntry& to, const std::string& toPath);

  // Removes the object and, for a folder, everything below it; no symbolic link is followed (a
  // link is removed, never what it points to). Trailing slashes are ignored. Stops at the first
  // failure. "/" is EBUSY; a last component "." or ".." is EINVAL.
  static Status removeItem(const std::string& path);

  // The names in a folder (a final link is followed), without "." and "..", in the kernel's order.
  static Result<std::vector<std::string>> contentsOfDirectory(const std::string& path);

  static Result<FileManagerEnumerator> enumerator(const std::string& path) {
    return FileManagerEnumerator::open(path);
  }

  // See filesystem/PathNames.h.
  static std::string resolvingSymlinksInPath(const std::string& path);

  // Creates one folder (no intermediate folders) and applies the attributes. Without permissions
  // the mode is 0777 less the file-creation mask.
  static Status createDirectory(const std::string& path, const FileAttributeChanges& attributes);
  static Status createDirectory(const PinnedEntry& at, const std::string& path,
                                const FileAttributeChanges& attributes);
  // Creates a new file with the contents and applies the attributes; anything already at `path`
  // (a dangling link included) is EEXIST. Without permissions: 0666 less the file-creation mask.
  static Status createFile(const std::string& path, std::span<const std::uint8_t> contents,
                           const FileAttributeChanges& attributes);
  static Status createFile(const PinnedEntry& at, const std::string& path,
                           std::span<const std::uint8_t> contents,
                           const FileAttributeChanges& attributes);
  // Writes the data to the file at `path`, not atomically: opened for writing (created with mode
  // 0600 when missing), truncated, written. A final symbolic link is refused (ELOOP), a folder is
  // EISDIR and any other non-regular object EINVAL.
  static Status writeContents(const std::string& path, std::span<const std::uint8_t> data);

  // Makes `newPath` a hard link of `existing` (a symbolic link itself is linked, not followed). A
  // folder is recreated at newPath with its attributes, and everything in it is hard-linked
  // likewise.
  static Status linkItem(const std::string& existing, const std::string& newPath);
  static Status linkItem(const PinnedEntry& existing, const std::string& existingPath,
                         const PinnedEntry& newEntry, const std::string& newPath);
  static Status createSymbolicLink(const std::string& path, const std::string& destination);
  static Status createSymbolicLink(const PinnedEntry& at, const std::string& path,
                                   const std::string& destination);
  static Result<std::string> destinationOfSymbolicLink(const std::string& path);
};

}  // namespace krv
