#include "platform/PropertyListFile.h"

#include <fcntl.h>

#include <cerrno>

#include "foundation/PropertyList.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

// ".<name>.<16 hex digits>.tmp": a name nobody else picks, hidden from a folder listing.
Result<std::string> temporaryNameFor(const std::string& name) {
  std::uint8_t random[8];
  KRV_TRY_VOID(sys::getRandom(random));
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string temporary = "." + name + ".";
  for (std::uint8_t byte : random) {
    temporary += kDigits[byte >> 4];
    temporary += kDigits[byte & 0xF];
  }
  return temporary + ".tmp";
}

}  // namespace

Result<std::optional<PropertyListFile>> readPropertyListFile(int folderFd, const std::string& name,
                                                             std::size_t maxSize) {
  Result<UniqueFd> file =
      sys::openAt(folderFd, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (!file) {
    if (file.error().code() == ENOENT) return std::optional<PropertyListFile>();
    // A symbolic link in the file's place (O_NOFOLLOW answers ELOOP) is no file of ours.
    if (file.error().code() == ELOOP) return Error::posix(EINVAL, "open");
    return std::move(file).error();
  }
  KRV_TRY(struct stat status, sys::fstat(file->get()));
  if (!S_ISREG(status.st_mode)) return Error::posix(EINVAL, "open");
  Data bytes;
  std::uint8_t buffer[16384];
  for (;;) {
    KRV_TRY(std::size_t count, sys::read(file->get(), buffer));
    if (count == 0) break;
    // The file may grow while it is read: the bound holds whatever it does.
    if (bytes.size() + count > maxSize) return Error::posix(EFBIG, "read");
    bytes.insert(bytes.end(), buffer, buffer + count);
  }
  KRV_TRY(Value value, plist::read(bytes));
  return std::optional<PropertyListFile>(PropertyListFile{std::move(value), status});
}

Status writePropertyListFile(int folderFd, const std::string& name, const Value& value,
                             const FileOwnership& ownership) {
  KRV_TRY(Data contents, plist::writeXml(value));
  KRV_TRY(std::string temporary, temporaryNameFor(name));
  KRV_TRY(UniqueFd file,
          sys::openAt(folderFd, temporary.c_str(),
                      O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, ownership.mode));
  auto discard = [&](Error error) -> Status {
    (void)sys::unlinkAt(folderFd, temporary.c_str(), 0);
    return error;
  };
  // The mode is given again through the descriptor: the creation mask of the moment may have
  // narrowed it.
  if (Status moded =
          sys::chmodPath(("/proc/self/fd/" + std::to_string(file.get())).c_str(), ownership.mode);
      !moded) {
    return discard(std::move(moded).error());
  }
  if (Status owned = sys::fchownAt(file.get(), "", ownership.owner, ownership.group, AT_EMPTY_PATH);
      !owned) {
    return discard(std::move(owned).error());
  }
  if (Status written = sys::writeAll(file.get(), contents); !written) {
    return discard(std::move(written).error());
  }
  if (Status synced = sys::fsync(file.get()); !synced) return discard(std::move(synced).error());
  file.reset();
  if (Status renamed = sys::renameAt(folderFd, temporary.c_str(), folderFd, name.c_str());
      !renamed) {
    return discard(std::move(renamed).error());
  }
  // The new name is durable once the folder is.
  return sys::fsync(folderFd);
}

Result<UniqueFd> openSystemFolder(const std::string& path) {
  if (path.empty() || path.front() != '/') return Error::posix(EINVAL, "open folder");
  for (std::size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    Status made = sys::mkdir(path.substr(0, slash), 0755);
    if (!made && made.error().code() != EEXIST) return std::move(made).error();
  }
  Status made = sys::mkdir(path, 0755);
  if (!made && made.error().code() != EEXIST) return std::move(made).error();
  return sys::open(path, O_RDONLY | O_DIRECTORY | O_NOCTTY);
}

}  // namespace krv
