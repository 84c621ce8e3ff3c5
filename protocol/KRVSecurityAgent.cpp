#include "protocol/KRVSecurityAgent.h"

#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdlib>

#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "foundation/Format.h"

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
  struct stat status {};
  if (::stat(kComputerLibrary, &status) != 0 || !S_ISDIR(status.st_mode)) return std::nullopt;
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
  timeval now{};
  ::gettimeofday(&now, nullptr);
  const std::string identifier = bundleIdentifier();
  for (;;) {
    ::srandom(static_cast<unsigned>(now.tv_usec));
    const auto number = static_cast<std::uint32_t>(::random());
    std::string path = format("/tmp/%s-%u.pipe", identifier.c_str(), number);
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return path;
  }
}

Error KRVSecurityAgent::transportError(std::int64_t code, Dictionary userInfo) {
  return Error(std::string(kTransportErrorDomain), code, std::move(userInfo));
}

int KRVSecurityAgent::writeData(const Data* data, int fd) {
  if (data == nullptr || fd < 0) return EINVAL;
  return writeDataBlock(fd, *data);
}

Result<Data> KRVSecurityAgent::readDataFromPipe(int fd) { return readDataBlock(fd); }

int KRVSecurityAgent::writeObject(const Archivable* object, int fd) {
  if (object == nullptr || fd < 0) {
    errno = EINVAL;
    return EINVAL;
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
