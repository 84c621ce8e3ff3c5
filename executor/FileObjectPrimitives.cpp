#include "executor/FileObjectPrimitives.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <climits>

#include "executor/KRVCommandExecutor.h"
#include "filesystem/FileManager.h"
#include "filesystem/FileTrees.h"
#include "filesystem/PathNames.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"
#include "platform/SafePathResolver.h"

namespace krv {

namespace {

// The status of what the path names with links followed, never past a NUL in the path.
Result<struct statx> statusOf(int folderFd, const char* name) {
  return sys::statxAt(folderFd, name, 0, STATX_TYPE);
}

// What no removal may be asked to do, refused before any flag is touched: "/" and a last
// component "." or ".." name a folder whose removal fails anyway, after its protection (and, for a
// tree, the protection of everything below it) would already have been lifted.
Status checkRemovable(const std::string& path) {
  const std::string last = lastPathComponent(path);
  if (last == "/") return FileManager::error(EBUSY, path);
  if (last == "." || last == "..") return FileManager::error(EINVAL, path);
  return {};
}

// Sets or clears UF_IMMUTABLE of the pinned object, reading and writing its own flags.
Status changeImmutableFlag(bool set, const PathHandle& object) {
  KRV_TRY(std::uint32_t flags, readFileFlags(object));
  const std::uint32_t wanted = set ? (flags | kUserImmutableFlag) : (flags & ~kUserImmutableFlag);
  // Asked for what is already there: nothing is written, not even the flags record.
  if (wanted == flags) return {};
  Status written = writeFileFlags(object, wanted);
  // Nothing to clear where flags do not exist.
  if (!written && !set && written.error().code() == EOPNOTSUPP) return {};
  return written;
}

std::uint32_t deviceOf(const PathHandle& object) {
  return static_cast<std::uint32_t>(
      makedev(object.status().stx_dev_major, object.status().stx_dev_minor));
}

// An error of the enumerator, whose FailingPath is relative to the walked folder.
Error walkError(const std::string& base, const Error& error) {
  const Value* relative = error.userInfo().find(key::kFailingPath);
  std::optional<std::string> bytes = relative != nullptr ? nameBytes(*relative) : std::nullopt;
  return FileManager::error(error, bytes ? appendingPathComponent(base, *bytes) : base);
}

}  // namespace

Error notThere(const Error& failure, const std::string& path) {
  return FileManager::error(SafePathResolver::isRefusal(failure) ? EACCES : ENOENT, path);
}

Status enforcedDeleteOfFileSystemObjectAtPath(const SafePathResolver& resolver,
                                              const std::string& givenPath) {
  if (givenPath.empty()) return commandError(kResultBadArgument);
  // "link/" names the link: the slash must not lead the flag change to the link's target.
  const std::string path(withoutTrailingSlashes(givenPath));
  KRV_TRY_VOID(checkRemovable(path));
  // The object itself, pinned in the folder that holds it: its flags are read, lifted and checked
  // on this one inode, and the removal goes through that folder. A link carries no kernel flags on
  // Linux, so a link is never unprotected, only removed.
  Result<PinnedEntry> entry = resolver.entry(path, LinkHandling::NoFollow);
  if (!entry) return FileManager::error(entry.error(), path);
  if (!entry->object) return FileManager::error(ENOENT, path);
  const PathHandle& object = *entry->object;
  // Linux has no whiteout entries, so kResultWhiteout never comes up here.
  Result<std::uint32_t> flags = readFileFlags(object);
  if (!flags) return FileManager::error(flags.error(), path);

  if ((*flags & kUserProtectionFlags) != 0 && (*flags & kSystemProtectionFlags) == 0) {
    if (!writeFileFlags(object, *flags & ~kUserProtectionFlags)) {
      return commandErrorWithFailingPath(kResultFlagsNotChanged, path);
    }
  }
  if ((*flags & kSystemProtectionFlags) != 0) {
    return commandErrorWithFailingPath(kResultSystemProtected, path);
  }
  Status removed = sys::unlinkAt(entry->folder.fd(), entry->name.c_str(),
                                 object.isDirectory() ? AT_REMOVEDIR : 0);
  if (!removed) return FileManager::error(removed.error(), path);
  return {};
}

Status setImmutableFlag(const SafePathResolver& resolver, bool set, const std::string& path,
                        LinkTargetCheck check, std::optional<PathHandle>* actedOn) {
  if (path.empty()) return commandError(kResultBadArgument);
  Result<PinnedEntry> entry = resolver.entry(path, LinkHandling::NoFollow);
  if (!entry) return notThere(entry.error(), path);
  if (!entry->object) return FileManager::error(ENOENT, path);
  // In a walk, links are left alone, and so are FIFOs, sockets and devices, which cannot carry
  // kernel flags on Linux: a socket somewhere in a tree must not stop its protection.
  if (check == LinkTargetCheck::LeaveLinks && !entry->object->isRegularFile() &&
      !entry->object->isDirectory()) {
    return {};
  }
  Result<PathHandle> object = resolver.follow(*entry, path);
  if (!object) {
    if (SafePathResolver::isRefusal(object.error())) return FileManager::error(EACCES, path);
    // A dangling link (or a loop of links): nothing to protect or unprotect.
    if (check == LinkTargetCheck::Off) return {};
    return FileManager::error(ENOENT, path);
  }
  if (Status changed = changeImmutableFlag(set, *object); !changed) {
    return FileManager::error(changed.error(), path);
  }
  if (actedOn != nullptr) actedOn->emplace(std::move(*object));
  return {};
}

Status setImmutableFlagBelow(bool set, const PathHandle& folder, const std::string& path,
                             std::optional<std::uint32_t> device, bool reportUnreadable) {
  // The walk starts from the pinned folder, not from its path, which may name another by now.
  Result<FileManagerEnumerator> walk = FileManager::enumerator(folder.procPath());
  if (!walk) return reportUnreadable ? FileManager::error(walk.error(), path) : Status();
  while (std::optional<std::string_view> entry = walk->nextRelativePath()) {
    const std::string objectPath = appendingPathComponent(path, *entry);
    if (objectPath.size() >= PATH_MAX) return FileManager::error(ENAMETOOLONG, objectPath);
    // Opened in the folder the walk holds, without following a link: a folder of the tree that
    // was swapped for a link cannot lead the change outside.
    Result<PathHandle> object = PathHandle::openAt(
        walk->currentDirectoryFd(), walk->currentName().data(), LinkHandling::NoFollow);
    if (device && (!object || deviceOf(*object) != *device)) {
      walk->skipDescendents();
      continue;
    }
    if (!object) return FileManager::error(object.error(), objectPath);
    if (!object->isRegularFile() && !object->isDirectory()) continue;
    if (Status changed = changeImmutableFlag(set, *object); !changed) {
      return FileManager::error(changed.error(), objectPath);
    }
  }
  // A folder below that could not be read was passed over: its contents did not change, and the
  // administrator learns which one it was.
  if (reportUnreadable && walk->firstError()) return walkError(path, *walk->firstError());
  return {};
}

Status enforcedRecursiveDeleteOfFileSystemObjectAtPath(const SafePathResolver& resolver,
                                                       const std::string& givenPath) {
  if (givenPath.empty()) return commandError(kResultBadArgument);
  // As above: the slash must not lead the flag changes into the folder the link points to.
  const std::string path(withoutTrailingSlashes(givenPath));
  Result<PinnedEntry> entry = resolver.entry(path, LinkHandling::NoFollow);
  if (!entry) {
    if (SafePathResolver::isRefusal(entry.error())) return FileManager::error(EACCES, path);
    // Nothing that can be reached there: nothing to delete.
    return {};
  }
  if (!entry->object) return {};
  KRV_TRY_VOID(checkRemovable(path));
  return enforcedRecursiveDeleteInFolder(entry->folder.fd(), entry->name, path);
}

Status enforcedRecursiveDeleteInFolder(int folderFd, const std::string& name,
                                       const std::string& path) {
  Result<PathHandle> object = PathHandle::openAt(folderFd, name.c_str(), LinkHandling::NoFollow);
  if (!object) {
    // Gone meanwhile: nothing to delete.
    if (object.error().code() == ENOENT) return {};
    return FileManager::error(object.error(), path);
  }
  if (object->isSymbolicLink()) {
    // A dangling link is nothing to delete; any other link goes, its target's flags untouched.
    if (!statusOf(folderFd, name.c_str())) return {};
    return removeTree(folderFd, name, path);
  }
  if (Status cleared = changeImmutableFlag(false, *object); !cleared) {
    return FileManager::error(cleared.error(), path);
  }
  // A folder that cannot be walked is left to the removal, which reports why.
  if (object->isDirectory()) KRV_TRY_VOID(setImmutableFlagBelow(false, *object, path, {}, false));
  return removeTree(folderFd, name, path);
}

}  // namespace krv
