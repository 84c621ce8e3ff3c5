#include "protocol/KRVSecurityAgent.h"

#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "foundation/Format.h"
#include "foundation/System.h"

namespace krv {

namespace {

constexpr const char* kComputerLibrary = "/etc/systemd";

}  // namespace

std::string KRVSecurityAgent::pathOfBundledExecutable(std::string_view applicationPrefix) {
  std::string path(applicationPrefix);
  if (path.empty() || path.back() != '/') path += '/';
  return path + "libexec/" + bundleIdentifier();
}

std::optional<std::string> KRVSecurityAgent::pathOfComputerLibrary() {
  Result<struct stat> status = sys::stat(kComputerLibrary);
  if (!status || !S_ISDIR(status->st_mode)) return std::nullopt;
  return std::string(kComputerLibrary);
}

std::string KRVSecurityAgent::pathOfDaemonFolder() {
  std::optional<std::string> library = pathOfComputerLibrary();
  return library ? *library + "/system" : std::string();
}

std::string KRVSecurityAgent::pathForDaemonDescription() {
  std::string folder = pathOfDaemonFolder();
  return folder.empty() ? folder : folder + "/" + bundleIdentifier() + ".service";
}

std::string KRVSecurityAgent::pathForLegacyDaemonDescription() {
  std::string folder = pathOfDaemonFolder();
  return folder.empty() ? folder : folder + "/" + legacyBundleIdentifier() + ".service";
}

std::string KRVSecurityAgent::pathForCommunicationSocket() {
  return "/var/run/" + bundleIdentifier() + ".socket";
}

std::string KRVSecurityAgent::pathForResponsePipe() {
  // The microseconds within the current second of the time of day.
  const auto sinceEpoch = std::chrono::system_clock::now().time_since_epoch();
  const auto microseconds =
      std::chrono::duration_cast<std::chrono::microseconds>(sinceEpoch).count() % 1000000;
  const std::string identifier = bundleIdentifier();
  for (;;) {
    ::srandom(static_cast<unsigned>(microseconds));
    const auto number = static_cast<std::uint32_t>(::random());
    std::string path = format("/tmp/%s-%u.pipe", identifier.c_str(), number);
    if (!sys::lstat(path)) return path;
  }
}

Error KRVSecurityAgent::transportError(std::int64_t code, Dictionary userInfo) {
  return Error(std::string(kTransportErrorDomain), code, std::move(userInfo));
}

Status KRVSecurityAgent::writeData(const Data* data, int fd) {
  if (data == nullptr || fd < 0) return Error::posix(EINVAL, "write data");
  return writeDataBlock(fd, *data);
}

Result<Data> KRVSecurityAgent::readDataFromPipe(int fd) { return readDataBlock(fd); }

Status KRVSecurityAgent::writeObject(const Archivable* object, int fd) {
  if (object == nullptr || fd < 0) {
    errno = EINVAL;
    return Error::posix(EINVAL, "write object");
  }
  Data payload = archiveSequential(*object);
  return writeData(&payload, fd);
}

Result<Value> KRVSecurityAgent::readObjectFromPipe(int fd, const ClassRegistry& classes) {
  KRV_TRY(Data payload, readDataFromPipe(fd));
  Result<Value> object = unarchiveSequential(payload, classes);
  if (!object) {
    errno = EIO;
    return Error::posix(EIO, object.error().operation());
  }
  return object;
}

bool KRVSecurityAgent::isObjectAcceptableForResponse(const Archivable* object) {
  if (object == nullptr) return true;
  return sequentialArchiveSize(*object) + kDataBlockHeaderSize <= kDataBlockMaximumSize;
}

}  // namespace krv
