#include "filesystem/FileManager.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "filesystem/DirectoryReader.h"
#include "filesystem/FileTrees.h"
#include "filesystem/PathNames.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/UserInformationKeys.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"
#include "platform/SafePathResolver.h"

namespace krv {
namespace {

constexpr std::uint32_t kProtectionFlags = kImmutableFlags | kAppendFlags;

bool hasNul(const std::string& path) { return path.find('\0') != std::string::npos; }

FileAttributes attributesFromStatus(const struct statx& status) {
  FileAttributes attributes;
  attributes.type = fileTypeName(status.stx_mode);
  attributes.size = status.stx_size;
  attributes.modificationDate =
      dateFromTimestamp(status.stx_mtime.tv_sec, status.stx_mtime.tv_nsec);
  if ((status.stx_mask & STATX_BTIME) != 0) {
    attributes.creationDate = dateFromTimestamp(status.stx_btime.tv_sec, status.stx_btime.tv_nsec);
  }
  attributes.posixPermissions = status.stx_mode & 07777;
  attributes.ownerAccountId = status.stx_uid;
  attributes.ownerAccountName = userName(status.stx_uid);
  attributes.groupOwnerAccountId = status.stx_gid;
  attributes.groupOwnerAccountName = groupName(status.stx_gid);
  attributes.referenceCount = status.stx_nlink;
  attributes.deviceIdentifier = makedev(status.stx_rdev_major, status.stx_rdev_minor);
  attributes.systemNumber = makedev(status.stx_dev_major, status.stx_dev_minor);
  attributes.systemFileNumber = status.stx_ino;
  return attributes;
}

bool sameTime(const struct statx_timestamp& current, const struct timespec& wanted) {
  return current.tv_sec == wanted.tv_sec && static_cast<long>(current.tv_nsec) == wanted.tv_nsec;
}

Status applyFlags(const PathHandle& object, std::uint32_t current, std::uint32_t wanted) {
  // The compressed bit is read-only: it is neither kept nor asked for.
  if ((current & ~kCompressedFlag) == (wanted & ~kCompressedFlag)) return {};
  return writeFileFlags(object, wanted & ~kCompressedFlag);
}

// Opens the object to be written at `path`: an existing regular file, or a new one (mode 0600).
// Nothing else is ever opened, so no device or FIFO sees an open().
Result<UniqueFd> openForWriting(const std::string& path) {
  for (int attempt = 0; attempt < 3; ++attempt) {
    Result<PathHandle> existing = PathHandle::open(path, LinkHandling::NoFollow);
    if (existing) {
      if (existing->isDirectory()) return Error::posix(EISDIR, "open");
      if (existing->isSymbolicLink()) return Error::posix(ELOOP, "open");
      if (!existing->isRegularFile()) return Error::posix(EINVAL, "open");
      return existing->reopen(O_WRONLY | O_TRUNC | O_NOCTTY);
    }
    if (existing.error().code() != ENOENT) return std::move(existing).error();
    Result<UniqueFd> created =
        sys::open(path, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0600);
    // Someone else created it meanwhile: look again.
    if (created || created.error().code() != EEXIST) return created;
  }
  return Error::posix(EAGAIN, "open");
}

// For a failed rename or link of fromName in the folder fromFd: the destination when it is in the
// way or its folder is missing, the source otherwise.
const std::string& failingPathOfPair(std::int64_t code, int fromFd, const std::string& fromName,
                                     const std::string& from, const std::string& to) {
  if (code == EEXIST) return to;
  if (code == ENOENT && sys::statAt(fromFd, fromName.c_str(), AT_SYMLINK_NOFOLLOW).ok()) return to;
  return from;
}

// The folder holding the last component of `path`, pinned, and that component's name.
Result<UniqueFd> openParentFolder(const std::string& path, std::string& name) {
  name = lastPathComponent(path);
  std::string parent = deletingLastPathComponent(path);
  return sys::open(parent.empty() ? std::string(".") : parent, O_PATH | O_DIRECTORY);
}

bool isSpecialName(const std::string& name) {
  return name.empty() || name == "/" || name == "." || name == "..";
}

// Copies (or hard-links) fromName in fromFd to toName in toFd; a copy then removes its source.
Status copyOrLinkTree(int fromFd, const std::string& fromName, const std::string& from, int toFd,
                      const std::string& toName, const std::string& to, TreeCopyMode mode) {
  if (isSpecialName(fromName)) return FileManager::error(EINVAL, from);
  if (isSpecialName(toName)) return FileManager::error(toName == "/" ? EEXIST : EINVAL, to);
  Result<struct stat> status = sys::statAt(fromFd, fromName.c_str(), AT_SYMLINK_NOFOLLOW);
  if (!status) return FileManager::error(status.error(), from);
  if (S_ISDIR(status->st_mode)) {
    // A folder cannot go inside itself (and removing the source would take the copy with it).
    Result<bool> inside = folderLiesWithin(toFd, status->st_dev, status->st_ino);
    if (!inside) return FileManager::error(inside.error(), to);
    if (*inside) return FileManager::error(EINVAL, to);
  }
  KRV_TRY_VOID(copyTree(fromFd, fromName, from, toFd, toName, to, mode));
  if (mode == TreeCopyMode::Copy) {
    KRV_TRY_VOID(removeTree(fromFd, fromName, from));
  }
  return {};
}

Status copyOrLinkTree(const std::string& from, const std::string& to, TreeCopyMode mode) {
  std::string fromName;
  std::string toName;
  Result<UniqueFd> fromParent = openParentFolder(from, fromName);
  if (!fromParent) return FileManager::error(fromParent.error(), from);
  if (isSpecialName(fromName)) return FileManager::error(EINVAL, from);
  Result<UniqueFd> toParent = openParentFolder(to, toName);
  if (!toParent) return FileManager::error(toParent.error(), to);
  return copyOrLinkTree(fromParent->get(), fromName, from, toParent->get(), toName, to, mode);
}

// The hard link of an object that is no folder.
Status linkLeaf(int fromFd, const std::string& fromName, const std::string& from, int toFd,
                const std::string& toName, const std::string& to) {
  Status linked = sys::linkAt(fromFd, fromName.c_str(), toFd, toName.c_str(), 0);
  if (!linked) {
    std::int64_t code = linked.error().code();
    return FileManager::error(static_cast<int>(code),
                              failingPathOfPair(code, fromFd, fromName, from, to));
  }
  return {};
}

Status makeDirectory(int folderFd, const std::string& name, const std::string& path,
                     const FileAttributeChanges& attributes) {
  mode_t mode = attributes.posixPermissions ? (*attributes.posixPermissions & 07777) : 0777;
  Status made = sys::mkdirAt(folderFd, name.c_str(), mode);
  if (!made) return FileManager::error(made.error(), path);
  Result<PathHandle> folder = PathHandle::openAt(folderFd, name.c_str(), LinkHandling::NoFollow);
  if (!folder) return FileManager::error(folder.error(), path);
  // Replaced by something else already: the attributes are not for that.
  if (!folder->isDirectory()) return FileManager::error(ENOTDIR, path);
  Status applied = FileManager::setAttributes(attributes, *folder);
  if (!applied) return FileManager::error(applied.error(), path);
  return {};
}

Status makeFile(int folderFd, const std::string& name, const std::string& path,
                std::span<const std::uint8_t> contents, const FileAttributeChanges& attributes) {
  // With permissions to come, nobody else may open the file before they are set.
  mode_t mode = attributes.posixPermissions ? 0600 : 0666;
  Result<UniqueFd> file = sys::openAt(folderFd, name.c_str(),
                                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, mode);
  if (!file) return FileManager::error(file.error(), path);
  Status written = sys::writeAll(file->get(), contents);
  if (!written) return FileManager::error(written.error(), path);
  Result<PathHandle> object = PathHandle::adopt(std::move(*file));
  if (!object) return FileManager::error(object.error(), path);
  Status applied = FileManager::setAttributes(attributes, *object);
  if (!applied) return FileManager::error(applied.error(), path);
  return {};
}

}  // namespace

Error FileManager::error(int errnoValue, const std::string& path) {
  Dictionary userInfo;
  userInfo.set(key::kFailingPath, nameValue(path));
  return Error(std::string(kPosixErrorDomain), errnoValue, std::move(userInfo));
}

Error FileManager::error(const Error& cause, const std::string& path) {
  return error(cause.isPosix() ? static_cast<int>(cause.code()) : EIO, path);
}

bool FileManager::fileExists(const std::string& path) {
  bool isDirectory = false;
  return fileExists(path, isDirectory);
}

bool FileManager::fileExists(const std::string& path, bool& isDirectory) {
  isDirectory = false;
  if (hasNul(path)) return false;
  Result<struct stat> status = sys::stat(path);
  if (!status) return false;
  isDirectory = S_ISDIR(status->st_mode);
  return true;
}

Result<FileAttributes> FileManager::attributesOfItem(const std::string& path) {
  if (hasNul(path)) return error(EINVAL, path);
  Result<struct statx> status = sys::statxAt(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW);
  if (!status) return error(status.error(), path);
  FileAttributes attributes = attributesFromStatus(*status);
  Result<std::optional<std::uint32_t>> record = readFlagsRecord(path, LinkHandling::NoFollow);
  if (!record) return error(record.error(), path);
  attributes.flags = composeFileFlags(status->stx_attributes, *record);
  attributes.immutable = (attributes.flags & kImmutableFlags) != 0;
  attributes.appendOnly = (attributes.flags & kAppendFlags) != 0;
  Result<HfsCodes> codes = readHfsCodes(path, LinkHandling::NoFollow);
  if (!codes) return error(codes.error(), path);
  attributes.hfsTypeCode = codes->typeCode;
  attributes.hfsCreatorCode = codes->creatorCode;
  return attributes;
}

Result<FileAttributes> FileManager::attributesOfItem(const PathHandle& object) {
  FileAttributes attributes = attributesFromStatus(object.status());
  KRV_TRY(attributes.flags, readFileFlags(object));
  attributes.immutable = (attributes.flags & kImmutableFlags) != 0;
  attributes.appendOnly = (attributes.flags & kAppendFlags) != 0;
  KRV_TRY(HfsCodes codes, readHfsCodes(object));
  attributes.hfsTypeCode = codes.typeCode;
  attributes.hfsCreatorCode = codes.creatorCode;
  return attributes;
}

Result<FileAttributes> FileManager::attributesOfItem(const std::string& path,
                                                     LinkTraversal traversal) {
  KRV_TRY(FileAttributes attributes, attributesOfItem(path));
  if (traversal == LinkTraversal::None) return attributes;
  if (!attributes.isSymbolicLink()) return attributesOfItem(path);
  KRV_TRY(std::string destination, destinationOfSymbolicLink(path));
  if (destination.empty()) return error(ENOENT, path);
  if (destination.front() != '/') {
    destination = appendingPathComponent(deletingLastPathComponent(path), destination);
  }
  return attributesOfItem(destination);
}

Status FileManager::setAttributes(const FileAttributeChanges& changes, const std::string& path) {
  if (hasNul(path)) return error(EINVAL, path);
  Result<PathHandle> object = PathHandle::open(path, LinkHandling::NoFollow);
  if (!object) return error(object.error(), path);
  Status applied = setAttributes(changes, *object);
  if (!applied) return error(applied.error(), path);
  return {};
}

Status FileManager::setAttributes(const FileAttributeChanges& changes, const PathHandle& object) {
  const struct statx& status = object.status();
  KRV_TRY(std::uint32_t currentFlags, readFileFlags(object));
  bool flagsFirst = changes.flags && (currentFlags & kProtectionFlags) != 0 &&
                    (*changes.flags & kProtectionFlags) == 0;
  if (flagsFirst) KRV_TRY_VOID(applyFlags(object, currentFlags, *changes.flags));

  // Steps that would change nothing are left out: an immutable object refuses even those.
  uid_t owner = changes.ownerAccountId.value_or(static_cast<uid_t>(-1));
  gid_t group = changes.groupOwnerAccountId.value_or(static_cast<gid_t>(-1));
  if (owner == status.stx_uid) owner = static_cast<uid_t>(-1);
  if (group == status.stx_gid) group = static_cast<gid_t>(-1);
  if (owner != static_cast<uid_t>(-1) || group != static_cast<gid_t>(-1)) {
    KRV_TRY_VOID(sys::fchownAt(object.fd(), "", owner, group, AT_EMPTY_PATH));
  }
  // A symbolic link has no permission bits of its own on Linux: nothing to change.
  if (changes.posixPermissions && !object.isSymbolicLink()) {
    mode_t mode = *changes.posixPermissions & 07777;
    // chown just cleared the set-id bits of a file, so the mode is set again after one.
    bool owned = owner != static_cast<uid_t>(-1) || group != static_cast<gid_t>(-1);
    if (owned || mode != (status.stx_mode & 07777)) {
      KRV_TRY_VOID(sys::chmodPath(object.procPath(), mode));
    }
  }
  if (changes.modificationDate) {
    KRV_TRY(struct timespec time, timespecFromDate(*changes.modificationDate));
    if (!sameTime(status.stx_mtime, time)) {
      const struct timespec times[2] = {{0, UTIME_OMIT}, time};
      KRV_TRY_VOID(sys::utimensAt(AT_FDCWD, object.procPath(), times, 0));
    }
  }
  if (changes.hfsTypeCode || changes.hfsCreatorCode) {
    KRV_TRY(HfsCodes codes, readHfsCodes(object));
    if (changes.hfsTypeCode) codes.typeCode = *changes.hfsTypeCode;
    if (changes.hfsCreatorCode) codes.creatorCode = *changes.hfsCreatorCode;
    KRV_TRY_VOID(writeHfsCodes(object, codes));
  }
  if (changes.flags && !flagsFirst) KRV_TRY_VOID(applyFlags(object, currentFlags, *changes.flags));
  return {};
}

Status FileManager::moveItem(const std::string& from, const std::string& to) {
  if (hasNul(from) || hasNul(to)) return error(EINVAL, hasNul(from) ? from : to);
  Status renamed = sys::renameNoReplace(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str());
  if (renamed) return {};
  std::int64_t code = renamed.error().code();
  if (code != EXDEV) {
    return error(static_cast<int>(code), failingPathOfPair(code, AT_FDCWD, from, from, to));
  }
  return copyOrLinkTree(from, to, TreeCopyMode::Copy);
}

Status FileManager::moveItem(const PinnedEntry& from, const std::string& fromPath,
                             const PinnedEntry& to, const std::string& toPath) {
  const int fromFd = from.folder.fd();
  const int toFd = to.folder.fd();
  Status renamed = sys::renameNoReplace(fromFd, from.name.c_str(), toFd, to.name.c_str());
  if (renamed) return {};
  std::int64_t code = renamed.error().code();
  if (code != EXDEV) {
    return error(static_cast<int>(code),
                 failingPathOfPair(code, fromFd, from.name, fromPath, toPath));
  }
  return copyOrLinkTree(fromFd, from.name, fromPath, toFd, to.name, toPath, TreeCopyMode::Copy);
}

Status FileManager::removeItem(const std::string& path) {
  if (hasNul(path)) return error(EINVAL, path);
  std::string name;
  Result<UniqueFd> parent = openParentFolder(path, name);
  if (name == "/") return error(EBUSY, path);
  if (name.empty()) return error(ENOENT, path);
  if (name == "." || name == "..") return error(EINVAL, path);
  if (!parent) return error(parent.error(), path);
  return removeTree(parent->get(), name, std::string(withoutTrailingSlashes(path)));
}

Status FileManager::linkItem(const std::string& existing, const std::string& newPath) {
  if (hasNul(existing) || hasNul(newPath)) {
    return error(EINVAL, hasNul(existing) ? existing : newPath);
  }
  Result<struct statx> status =
      sys::statxAt(AT_FDCWD, existing.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE);
  if (!status) return error(status.error(), existing);
  if (S_ISDIR(status->stx_mode)) return copyOrLinkTree(existing, newPath, TreeCopyMode::HardLink);
  return linkLeaf(AT_FDCWD, existing, existing, AT_FDCWD, newPath, newPath);
}

Status FileManager::linkItem(const PinnedEntry& existing, const std::string& existingPath,
                             const PinnedEntry& newEntry, const std::string& newPath) {
  const int fromFd = existing.folder.fd();
  const int toFd = newEntry.folder.fd();
  Result<struct statx> status =
      sys::statxAt(fromFd, existing.name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_TYPE);
  if (!status) return error(status.error(), existingPath);
  if (S_ISDIR(status->stx_mode)) {
    return copyOrLinkTree(fromFd, existing.name, existingPath, toFd, newEntry.name, newPath,
                          TreeCopyMode::HardLink);
  }
  return linkLeaf(fromFd, existing.name, existingPath, toFd, newEntry.name, newPath);
}

Result<std::vector<std::string>> FileManager::contentsOfDirectory(const std::string& path) {
  if (hasNul(path)) return error(EINVAL, path);
  Result<DirectoryReader> reader = DirectoryReader::listing(path);
  if (!reader) return error(reader.error(), path);
  std::vector<std::string> names;
  while (std::optional<DirectoryReader::Entry> entry = reader->next()) {
    names.emplace_back(entry->name);
  }
  if (std::optional<Error> failure = reader->readError()) return error(*failure, path);
  return names;
}

std::string FileManager::resolvingSymlinksInPath(const std::string& path) {
  return krv::resolvingSymlinksInPath(path);
}

Status FileManager::createDirectory(const std::string& path,
                                    const FileAttributeChanges& attributes) {
  if (hasNul(path)) return error(EINVAL, path);
  return makeDirectory(AT_FDCWD, path, path, attributes);
}

Status FileManager::createDirectory(const PinnedEntry& at, const std::string& path,
                                    const FileAttributeChanges& attributes) {
  return makeDirectory(at.folder.fd(), at.name, path, attributes);
}

Status FileManager::createFile(const std::string& path, std::span<const std::uint8_t> contents,
                               const FileAttributeChanges& attributes) {
  if (hasNul(path)) return error(EINVAL, path);
  return makeFile(AT_FDCWD, path, path, contents, attributes);
}

Status FileManager::createFile(const PinnedEntry& at, const std::string& path,
                               std::span<const std::uint8_t> contents,
                               const FileAttributeChanges& attributes) {
  return makeFile(at.folder.fd(), at.name, path, contents, attributes);
}

Status FileManager::writeContents(const std::string& path, std::span<const std::uint8_t> data) {
  if (hasNul(path)) return error(EINVAL, path);
  Result<UniqueFd> file = openForWriting(path);
  if (!file) return error(file.error(), path);
  Status written = sys::writeAll(file->get(), data);
  if (!written) return error(written.error(), path);
  return {};
}

Status FileManager::createSymbolicLink(const std::string& path, const std::string& destination) {
  if (hasNul(path) || hasNul(destination)) return error(EINVAL, path);
  Status made = sys::symlinkAt(destination.c_str(), AT_FDCWD, path.c_str());
  if (!made) return error(made.error(), path);
  return {};
}

Status FileManager::createSymbolicLink(const PinnedEntry& at, const std::string& path,
                                       const std::string& destination) {
  if (hasNul(destination)) return error(EINVAL, path);
  Status made = sys::symlinkAt(destination.c_str(), at.folder.fd(), at.name.c_str());
  if (!made) return error(made.error(), path);
  return {};
}

Result<std::string> FileManager::destinationOfSymbolicLink(const std::string& path) {
  if (hasNul(path)) return error(EINVAL, path);
  Result<std::string> destination = sys::readLinkAt(AT_FDCWD, path.c_str());
  if (!destination) return error(destination.error(), path);
  return destination;
}

}  // namespace krv
