#include "executor/FileObjectPrimitives.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>

#include "executor/KRVCommandExecutor.h"
#include "filesystem/FileManager.h"
#include "filesystem/PathNames.h"
#include "foundation/System.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

// The status of the object itself or of what a link points to, never past a NUL in the path.
Result<struct statx> statusOf(const std::string& path, LinkHandling links) {
  KRV_TRY_VOID(checkPath(path));
  return sys::statxAt(AT_FDCWD, path.c_str(),
                      links == LinkHandling::NoFollow ? AT_SYMLINK_NOFOLLOW : 0, STATX_TYPE);
}

// The flags word of the object that `status` describes, read the same way.
Result<std::uint32_t> flagsOf(const std::string& path, const struct statx& status,
                              LinkHandling links) {
  KRV_TRY(std::optional<std::uint32_t> record, readFlagsRecord(path, links));
  return composeFileFlags(status.stx_attributes, record);
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

}  // namespace

Status enforcedDeleteOfFileSystemObjectAtPath(const std::string& givenPath) {
  if (givenPath.empty()) return commandError(kFileCommandBadArgument);
  // "link/" names the link: the slash must not lead the flag change to the link's target.
  const std::string path(withoutTrailingSlashes(givenPath));
  KRV_TRY_VOID(checkRemovable(path));
  Result<struct statx> status = statusOf(path, LinkHandling::NoFollow);
  if (!status) return FileManager::error(status.error(), path);
  // Linux has no whiteout entries, so kFileCommandWhiteout never comes up here.
  Result<std::uint32_t> flags = flagsOf(path, *status, LinkHandling::NoFollow);
  if (!flags) return FileManager::error(flags.error(), path);

  if ((*flags & kUserProtectionFlags) != 0 && (*flags & kSystemProtectionFlags) == 0) {
    // Read from the object itself, cleared through a final link as chflags does. A link never
    // carries kernel flags on Linux, so both name the same object whenever this runs.
    if (!writeFileFlags(path, *flags & ~kUserProtectionFlags)) {
      return commandErrorWithFailingPath(kFileCommandFlagsNotChanged, path);
    }
  }
  if ((*flags & kSystemProtectionFlags) != 0) {
    return commandErrorWithFailingPath(kFileCommandSystemProtected, path);
  }
  Status removed = S_ISDIR(status->stx_mode) ? sys::rmdir(path) : sys::unlink(path);
  if (!removed) return FileManager::error(removed.error(), path);
  return {};
}

Status setImmutableFlag(bool set, const std::string& path, LinkTargetCheck check) {
  if (path.empty()) return commandError(kFileCommandBadArgument);
  Result<struct statx> object = statusOf(path, LinkHandling::NoFollow);
  if (!object) return FileManager::error(object.error(), path);
  // In a walk, links are left alone, and so are FIFOs, sockets and devices, which cannot carry
  // kernel flags on Linux: a socket somewhere in a tree must not stop its protection.
  if (check == LinkTargetCheck::LeaveLinks && !S_ISREG(object->stx_mode) &&
      !S_ISDIR(object->stx_mode)) {
    return {};
  }
  Result<struct statx> target = statusOf(path, LinkHandling::Follow);
  if (!target) {
    // A dangling link (or a loop of links): nothing to protect or unprotect.
    if (check == LinkTargetCheck::Off) return {};
    return FileManager::error(ENOENT, path);
  }
  Result<std::uint32_t> flags = flagsOf(path, *target, LinkHandling::Follow);
  if (!flags) return FileManager::error(flags.error(), path);
  const std::uint32_t wanted = set ? (*flags | kUserImmutableFlag) : (*flags & ~kUserImmutableFlag);
  // Asked for what is already there: nothing is written, not even the flags record.
  if (wanted == *flags) return {};
  Status written = writeFileFlags(path, wanted);
  if (written) return {};
  // Nothing to clear where flags do not exist.
  if (!set && written.error().code() == EOPNOTSUPP) return {};
  return FileManager::error(written.error(), path);
}

Status enforcedRecursiveDeleteOfFileSystemObjectAtPath(const std::string& givenPath) {
  if (givenPath.empty()) return commandError(kFileCommandBadArgument);
  // As above: the slash must not lead the flag changes into the folder the link points to.
  const std::string path(withoutTrailingSlashes(givenPath));
  bool isDirectory = false;
  if (!FileManager::fileExists(path, isDirectory)) return {};
  KRV_TRY_VOID(checkRemovable(path));
  Result<struct statx> object = statusOf(path, LinkHandling::NoFollow);
  if (object && S_ISLNK(object->stx_mode)) return FileManager::removeItem(path);
  KRV_TRY_VOID(setImmutableFlag(false, path, LinkTargetCheck::On));
  if (isDirectory) {
    // A folder that cannot be walked is left to the removal, which reports why.
    Result<FileManagerEnumerator> walk = FileManager::enumerator(path);
    if (walk) {
      while (std::optional<std::string> entry = walk->nextObject()) {
        KRV_TRY_VOID(setImmutableFlag(false, appendingPathComponent(path, *entry),
                                      LinkTargetCheck::LeaveLinks));
      }
    }
  }
  return FileManager::removeItem(path);
}

}  // namespace krv
