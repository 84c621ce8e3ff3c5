// File object commands that create, replace, rename, protect, label, link and touch one object.
// The deleting commands are in FileDeletionCommands.cpp, the primitives both build on in
// FileObjectPrimitives.cpp.
//
// Every client path is resolved safely first (platform/SafePathResolver.h) and the command acts
// on what the resolution pinned: the object, or the folder and name where something is created,
// renamed or linked. A user's symbolic link on the way leads only to her own objects; otherwise
// the command answers POSIX EACCES with the path as FailingPath.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>

#include "executor/FileObjectPrimitives.h"
#include "executor/KRVCommandExecutor.h"
#include "filesystem/FileManager.h"
#include "filesystem/FileManagerAdditions.h"
#include "filesystem/FileTrees.h"
#include "filesystem/PathNames.h"
#include "foundation/System.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

constexpr std::uint32_t kPlainFileMode = 0644;
constexpr std::uint32_t kFolderMode = 0755;
constexpr std::uint32_t kExecutableFileMode = 0755;

Error toError(Status status) { return std::move(status).error(); }

// The path a rename or hard link names when its destination's folder could not be reached, as the
// file manager names its own failures: the destination when it is in the way, refused, or missing
// while the source is there; the source otherwise.
const std::string& unreachableEnd(const Error& failure, bool sourceThere, const std::string& from,
                                  const std::string& to) {
  if (SafePathResolver::isRefusal(failure)) return to;
  const std::int64_t code = failure.code();
  return code == EEXIST || (code == ENOENT && sourceThere) ? to : from;
}

}  // namespace

Error KRVCommandExecutor::overwriteSystemFileAtPath(const std::string& path, const Data& content,
                                                    bool removeBackup) {
  if (path.empty()) return commandError(kResultBadArgument);
  // The file with every link in its path resolved: R below, held in its folder, where the backup
  // R.backup and the new R are made.
  Result<PinnedEntry> resolved = pathResolver().entry(path, LinkHandling::Follow);
  if (!resolved) return notThere(resolved.error(), path);
  if (!resolved->object) return FileManager::error(ENOENT, path);
  if (resolved->object->isDirectory()) return FileManager::error(EISDIR, path);
  const int folder = resolved->folder.fd();
  const std::string& name = resolved->name;
  const std::string& file = resolved->path;
  const std::string backupName = name + ".backup";
  const std::string backup = file + ".backup";

  if (sys::statAt(folder, backupName.c_str(), AT_SYMLINK_NOFOLLOW)) {
    // Only looked at: a link there that leads to a folder counts as a folder, and is left alone.
    Result<struct stat> target = sys::statAt(folder, backupName.c_str(), 0);
    if (target && S_ISDIR(target->st_mode)) {
      return commandErrorWithFailingPath(kResultBackupIsFolder, backup);
    }
    // A file or a link (dangling or not) of that name makes way for the new backup.
    if (Status removed = removeTree(folder, backupName, backup); !removed) return toError(removed);
  }

  Result<FileAttributes> attributes = FileManager::attributesOfItem(*resolved->object);
  if (!attributes) return FileManager::error(attributes.error(), file);
  const FileAttributeChanges kept = FileAttributeChanges::reapplying(*attributes);
  Status moved = sys::renameNoReplace(folder, name.c_str(), folder, backupName.c_str());
  if (!moved) {
    return FileManager::error(moved.error(), moved.error().code() == EEXIST ? backup : file);
  }
  // The new file is made here, never opened: anything else found at the name once the old file
  // is gone (a user's file linked in, say) receives neither the content nor the attributes. It
  // stays private to root until the attributes are in place.
  Result<UniqueFd> made =
      sys::openAt(folder, name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0600);
  if (!made) return FileManager::error(made.error(), file);
  // A failed write is deliberately not reported: the attributes are applied and the command
  // succeeds all the same, whatever the file now holds. Clients rely on this outcome.
  (void)sys::writeAll(made->get(), content);
  Result<PathHandle> written = PathHandle::adopt(std::move(*made));
  if (!written) return FileManager::error(written.error(), file);
  if (Status applied = FileManager::setAttributes(kept, *written); !applied) {
    return FileManager::error(applied.error(), file);
  }
  if (removeBackup) (void)removeTree(folder, backupName, backup);
  return commandSuccess();
}

Error KRVCommandExecutor::createFileSystemObjectAtPath(const std::string& path,
                                                       const std::string& typeCode) {
  if (path.empty() || typeCode.size() != 1) return commandError(kResultBadArgument);
  std::uint32_t mode = 0;
  switch (typeCode[0]) {
    case 'F':
      mode = kPlainFileMode;
      break;
    case 'D':
      mode = kFolderMode;
      break;
    case 'X':
      mode = kExecutableFileMode;
      break;
    default:
      return commandError(kResultBadArgument);
  }
  // The folder to create in; nothing may be at the name, not even a dangling link.
  Result<PinnedEntry> entry = pathResolver().entry(path, LinkHandling::NoFollow);
  if (entry && entry->object) return FileManager::error(EEXIST, path);
  const bool refused = !entry && SafePathResolver::isRefusal(entry.error());
  if (refused) return FileManager::error(EACCES, path);

  FileAttributeChanges attributes;
  attributes.posixPermissions = mode;
  attributes.ownerAccountId = 0;
  attributes.groupOwnerAccountId = 0;
  if (typeCode[0] == 'D') {
    // A folder that cannot be made answers why, also when its folder could not be reached.
    if (!entry) return FileManager::error(entry.error(), path);
    if (Status made = FileManager::createDirectory(*entry, path, attributes); !made) {
      return toError(made);
    }
  } else if (!entry || !FileManager::createFile(*entry, path, {}, attributes)) {
    return commandErrorWithFailingPath(kResultNotWritten, path);
  }
  // Owner and group were set through the new object's own descriptor. Nothing is done by path
  // afterwards: whatever replaced the new object meanwhile is not the daemon's to give to root.
  return commandSuccess();
}

Error KRVCommandExecutor::renameFileSystemObjectAtPath(const std::string& path,
                                                       const std::string& newPath) {
  const SafePathResolver resolver = pathResolver();
  Result<PinnedEntry> from = resolver.entry(path, LinkHandling::NoFollow);
  if (!from) return FileManager::error(from.error(), path);
  Result<PinnedEntry> to = resolver.entry(newPath, LinkHandling::NoFollow);
  if (!to) {
    return FileManager::error(to.error(),
                              unreachableEnd(to.error(), from->object.has_value(), path, newPath));
  }
  if (Status moved = FileManager::moveItem(*from, path, *to, newPath); !moved) {
    return toError(moved);
  }
  return commandSuccess();
}

Error KRVCommandExecutor::changeProtectionAttributeAtPath(const std::string& path, bool protect,
                                                          bool recursively, bool stayOnFileSystem) {
  if (path.empty()) return commandError(kResultBadArgument);
  // The walk goes on from the folder whose flag was just set, whatever the path names by now.
  std::optional<PathHandle> object;
  if (Status set = setImmutableFlag(pathResolver(), protect, path, LinkTargetCheck::On, &object);
      !set) {
    return toError(set);
  }
  if (!recursively || !object || !object->isDirectory()) return commandSuccess();
  std::optional<std::uint32_t> device;
  if (stayOnFileSystem) device = fileSystemIDForPath(path);
  if (Status set = setImmutableFlagBelow(protect, *object, path, device, true); !set) {
    return toError(set);
  }
  return commandSuccess();
}

Error KRVCommandExecutor::removeSystemProtectionForFileSystemObjectAtPath(const std::string& path) {
  if (path.empty()) return commandError(kResultBadArgument);
  const SafePathResolver resolver = pathResolver();
  // The flags of the object itself, written with chflags semantics (through a final link, by the
  // rule). Both objects are pinned, so a path swapped between the read and the write cannot carry
  // these flags to another object.
  Result<PinnedEntry> entry = resolver.entry(path, LinkHandling::NoFollow);
  if (!entry) return notThere(entry.error(), path);
  if (!entry->object) return FileManager::error(ENOENT, path);
  Result<PathHandle> object = resolver.follow(*entry, path);
  if (!object) return notThere(object.error(), path);
  Result<std::uint32_t> flags = readFileFlags(*entry->object);
  if (!flags) return FileManager::error(flags.error(), path);
  const std::uint32_t wanted = *flags & ~(kUserProtectionFlags | kSystemProtectionFlags);
  if (!writeFileFlags(*object, wanted & ~kCompressedFlag)) {
    return commandErrorWithFailingPath(kResultFlagsNotChanged, path);
  }
  return commandSuccess();
}

Error KRVCommandExecutor::setAtPath(const std::string& path, std::uint64_t typeCode,
                                    std::uint64_t creatorCode, bool visibility) {
  if (path.empty()) return commandError(kResultBadArgument);
  // The codes are four bytes each; a larger number would be cut to a different code.
  constexpr std::uint64_t kLargestCode = std::numeric_limits<std::uint32_t>::max();
  if (typeCode > kLargestCode || creatorCode > kLargestCode) {
    return commandError(kResultBadArgument);
  }
  // Both belong to the object itself: a final link is labelled, not what it points to.
  Result<PathHandle> object = pathResolver().object(path, LinkHandling::NoFollow);
  if (!object) return FileManager::error(object.error(), path);
  FileAttributeChanges codes;
  codes.hfsTypeCode = static_cast<std::uint32_t>(typeCode);
  codes.hfsCreatorCode = static_cast<std::uint32_t>(creatorCode);
  if (Status applied = FileManager::setAttributes(codes, *object); !applied) {
    return FileManager::error(applied.error(), path);
  }
  if (Status hidden = setHidden(!visibility, *object); !hidden) {
    return FileManager::error(hidden.error(), path);
  }
  return commandSuccess();
}

Error KRVCommandExecutor::createLinkAtPath(const std::string& path, const std::string& targetPath,
                                           bool hard) {
  const SafePathResolver resolver = pathResolver();
  if (!hard) {
    // The destination is stored as text, never resolved: only the new link's folder is reached.
    Result<PinnedEntry> entry = resolver.entry(path, LinkHandling::NoFollow);
    if (!entry) return FileManager::error(entry.error(), path);
    if (Status made = FileManager::createSymbolicLink(*entry, path, targetPath); !made) {
      return toError(made);
    }
    return commandSuccess();
  }
  // A symbolic link given as the existing object is linked itself, not followed.
  Result<PinnedEntry> existing = resolver.entry(targetPath, LinkHandling::NoFollow);
  if (!existing) return FileManager::error(existing.error(), targetPath);
  if (!existing->object) return FileManager::error(ENOENT, targetPath);
  Result<PinnedEntry> link = resolver.entry(path, LinkHandling::NoFollow);
  if (!link) {
    return FileManager::error(link.error(), unreachableEnd(link.error(), true, targetPath, path));
  }
  if (Status made = FileManager::linkItem(*existing, targetPath, *link, path); !made) {
    return toError(made);
  }
  return commandSuccess();
}

Error KRVCommandExecutor::touchFileSystemObjectAtPath(const std::string& path) {
  if (path.empty()) return commandError(kResultBadArgument);
  Result<PathHandle> object = pathResolver().object(path, LinkHandling::Follow);
  if (!object) return notThere(object.error(), path);
  // The pinned object itself: its /proc path leads to it, not to whatever has its name by now.
  if (Status touched = sys::utimensAt(AT_FDCWD, object->procPath(), nullptr, 0); !touched) {
    return FileManager::error(touched.error(), path);
  }
  return commandSuccess();
}

}  // namespace krv
