// File object commands that create, replace, rename, protect, label, link and touch one object.
// The deleting commands are in FileDeletionCommands.cpp, the primitives both build on in
// FileObjectPrimitives.cpp.

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <limits>

#include "executor/FileObjectPrimitives.h"
#include "executor/KRVCommandExecutor.h"
#include "filesystem/FileManager.h"
#include "filesystem/FileManagerAdditions.h"
#include "filesystem/PathNames.h"
#include "foundation/System.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

constexpr std::uint32_t kPlainFileMode = 0644;
constexpr std::uint32_t kFolderMode = 0755;
constexpr std::uint32_t kExecutableFileMode = 0755;

// Whether anything is at the path, a dangling symbolic link included.
bool objectExists(const std::string& path) { return checkPath(path) && sys::lstat(path).ok(); }

Error toError(Status status) { return std::move(status).error(); }

}  // namespace

Error KRVCommandExecutor::overwriteSystemFileAtPath(const std::string& path, const Data& content,
                                                    bool removeBackup) {
  if (path.empty()) return commandError(kFileCommandBadArgument);
  bool isDirectory = false;
  if (!FileManager::fileExists(path, isDirectory)) return FileManager::error(ENOENT, path);
  if (isDirectory) return FileManager::error(EISDIR, path);

  const std::string resolved = FileManager::resolvingSymlinksInPath(path);
  const std::string backup = resolved + ".backup";
  if (objectExists(backup)) {
    bool backupIsDirectory = false;
    if (FileManager::fileExists(backup, backupIsDirectory) && backupIsDirectory) {
      return commandErrorWithFailingPath(kFileCommandBackupIsFolder, backup);
    }
    // A file or a link (dangling or not) of that name makes way for the new backup.
    if (Status removed = FileManager::removeItem(backup); !removed) return toError(removed);
  }

  Result<FileAttributes> attributes = FileManager::attributesOfItem(resolved);
  if (!attributes) return std::move(attributes).error();
  const FileAttributeChanges kept = FileAttributeChanges::reapplying(*attributes);
  if (Status moved = FileManager::moveItem(resolved, backup); !moved) return toError(moved);
  // The new file is made here, never opened: anything else found at the name once the old file
  // is gone (a user's file linked in, say) receives neither the content nor the attributes. It
  // stays private to root until the attributes are in place.
  Result<UniqueFd> file =
      sys::open(resolved, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0600);
  if (!file) return FileManager::error(file.error(), resolved);
  // A failed write is deliberately not reported: the attributes are applied and the command
  // succeeds all the same, whatever the file now holds. Clients rely on this outcome.
  (void)sys::writeAll(file->get(), content);
  Result<PathHandle> written = PathHandle::adopt(std::move(*file));
  if (!written) return FileManager::error(written.error(), resolved);
  if (Status applied = FileManager::setAttributes(kept, *written); !applied) {
    return FileManager::error(applied.error(), resolved);
  }
  if (removeBackup) (void)FileManager::removeItem(backup);
  return commandSuccess();
}

Error KRVCommandExecutor::createFileSystemObjectAtPath(const std::string& path,
                                                       const std::string& typeCode) {
  if (path.empty() || typeCode.size() != 1) return commandError(kFileCommandBadArgument);
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
      return commandError(kFileCommandBadArgument);
  }
  if (objectExists(path)) return FileManager::error(EEXIST, path);

  FileAttributeChanges attributes;
  attributes.posixPermissions = mode;
  attributes.ownerAccountId = 0;
  attributes.groupOwnerAccountId = 0;
  if (typeCode[0] == 'D') {
    if (Status made = FileManager::createDirectory(path, attributes); !made) return toError(made);
  } else if (!FileManager::createFile(path, {}, attributes)) {
    return commandErrorWithFailingPath(kFileCommandNotWritten, path);
  }
  // Owner and group were set through the new object's own descriptor. Nothing is done by path
  // afterwards: whatever replaced the new object meanwhile is not the daemon's to give to root.
  return commandSuccess();
}

Error KRVCommandExecutor::renameFileSystemObjectAtPath(const std::string& path,
                                                       const std::string& newPath) {
  if (Status moved = FileManager::moveItem(path, newPath); !moved) return toError(moved);
  return commandSuccess();
}

Error KRVCommandExecutor::changeProtectionAttributeAtPath(const std::string& path, bool protect,
                                                          bool recursively, bool stayOnFileSystem) {
  if (path.empty()) return commandError(kFileCommandBadArgument);
  if (!FileManager::fileExists(path)) return FileManager::error(ENOENT, path);
  // The walk goes on from the folder whose flag was just set, whatever the path names by now.
  std::optional<PathHandle> object;
  if (Status set = setImmutableFlag(protect, path, LinkTargetCheck::On, &object); !set) {
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
  if (path.empty()) return commandError(kFileCommandBadArgument);
  if (!FileManager::fileExists(path)) return FileManager::error(ENOENT, path);
  if (Status valid = checkPath(path); !valid) return FileManager::error(valid.error(), path);
  // The flags of the object itself, written with chflags semantics (through a final link). The
  // object is pinned, so a path swapped between the read and the write cannot carry these flags
  // to another object.
  Result<PathHandle> object = PathHandle::open(path, LinkHandling::NoFollow);
  if (!object) return FileManager::error(object.error(), path);
  Result<std::uint32_t> flags = readFileFlags(*object);
  if (!flags) return FileManager::error(flags.error(), path);
  if (object->isSymbolicLink()) {
    object = PathHandle::open(path, LinkHandling::Follow);
    if (!object) return commandErrorWithFailingPath(kFileCommandFlagsNotChanged, path);
  }
  const std::uint32_t wanted = *flags & ~(kUserProtectionFlags | kSystemProtectionFlags);
  if (!writeFileFlags(*object, wanted & ~kCompressedFlag)) {
    return commandErrorWithFailingPath(kFileCommandFlagsNotChanged, path);
  }
  return commandSuccess();
}

Error KRVCommandExecutor::setAtPath(const std::string& path, std::uint64_t typeCode,
                                    std::uint64_t creatorCode, bool visibility) {
  if (path.empty()) return commandError(kFileCommandBadArgument);
  // The codes are four bytes each; a larger number would be cut to a different code.
  constexpr std::uint64_t kLargestCode = std::numeric_limits<std::uint32_t>::max();
  if (typeCode > kLargestCode || creatorCode > kLargestCode) {
    return commandError(kFileCommandBadArgument);
  }
  FileAttributeChanges codes;
  codes.hfsTypeCode = static_cast<std::uint32_t>(typeCode);
  codes.hfsCreatorCode = static_cast<std::uint32_t>(creatorCode);
  if (Status applied = FileManager::setAttributes(codes, path); !applied) return toError(applied);
  if (Status hidden = setHidden(!visibility, path); !hidden) return toError(hidden);
  return commandSuccess();
}

Error KRVCommandExecutor::createLinkAtPath(const std::string& path, const std::string& targetPath,
                                           bool hard) {
  Status made = hard ? FileManager::linkItem(targetPath, path)
                     : FileManager::createSymbolicLink(path, targetPath);
  if (!made) return toError(made);
  return commandSuccess();
}

Error KRVCommandExecutor::touchFileSystemObjectAtPath(const std::string& path) {
  if (path.empty()) return commandError(kFileCommandBadArgument);
  const std::string resolved = FileManager::resolvingSymlinksInPath(path);
  if (!FileManager::fileExists(resolved)) return FileManager::error(ENOENT, path);
  if (Status touched = sys::utimensAt(AT_FDCWD, resolved.c_str(), nullptr, 0); !touched) {
    return FileManager::error(touched.error(), path);
  }
  return commandSuccess();
}

}  // namespace krv
