#include "protocol/KRVSecurityAgent.h"

#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>

#include "foundation/Archiver.h"
#include "foundation/Assert.h"
#include "foundation/DataBlock.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"

namespace krv {

namespace {

constexpr const char* kComputerLibrary = "/etc/systemd";
constexpr const char* kUnit = "KRVSecurityAgent";
// The request socket's path must fit the address structure the clients were written for.
constexpr std::size_t kMaximumSocketPathLength = 104;

}  // namespace

// ---- Endpoints and paths ----

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

// ---- Data blocks and object transfer ----

Status KRVSecurityAgent::writeData(const Data* data, int fd) {
  if (data == nullptr || fd < 0) return Error::posix(EINVAL, "write data");
  return writeDataBlock(fd, *data);
}

Result<Data> KRVSecurityAgent::readData(int fd) { return readDataBlock(fd); }

Status KRVSecurityAgent::writeObject(const Archivable* object, int fd) {
  if (object == nullptr || fd < 0) {
    errno = EINVAL;
    return Error::posix(EINVAL, "write object");
  }
  Data payload = archiveSequential(*object);
  return writeData(&payload, fd);
}

Result<Value> KRVSecurityAgent::readObject(int fd, const ClassRegistry& classes) {
  KRV_TRY(Data payload, readData(fd));
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

// ---- Client session ----

namespace {

bool isInteractionNeeded(const Error& reply) {
  if (!reply.is(kCommandErrorDomain, kResultAuthorizationFailed)) return false;
  const Value* status = reply.userInfo().find(key::kUnderlyingErrorCode);
  return status != nullptr && status->asNumber() != nullptr && status->asNumber()->isInteger() &&
         status->asNumber()->integerValue() == auth::kStatusInteractionNotAllowed;
}

}  // namespace

std::optional<KRVSecurityAgent> KRVSecurityAgent::init(std::string socketPath) {
  if (!sys::stat(socketPath)) return std::nullopt;
  return KRVSecurityAgent(std::move(socketPath));
}

Result<UniqueFd> KRVSecurityAgent::openRequestSocketAtPath(const std::string& path) {
  if (path.empty() || path.size() >= kMaximumSocketPathLength) {
    return Error::posix(EINVAL, "socket path");
  }
  return sys::connectLocalSocket(path, SOCK_STREAM);
}

Result<UniqueFd> KRVSecurityAgent::openResponsePipeAtPath(const std::string& path) {
  if (path.empty()) return Error::posix(EINVAL, "pipe path");
  // Blocks until the command's thread opens the write end.
  return sys::open(path, O_RDONLY | O_NOCTTY);
}

std::optional<std::string> KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(
    const Error& acknowledgement) {
  if (!acknowledgement.is(kTransportErrorDomain, kTransportAccepted)) return std::nullopt;
  const Value* path = acknowledgement.userInfo().find(keyForClientSocket());
  if (path == nullptr) return std::nullopt;
  return nameBytes(*path);
}

Error KRVSecurityAgent::startExecutionOfPrivilegedCommand(KRVPrivilegedCommand& command,
                                                          bool deauthorizeAfterCompletion) {
  command.setDeauthorizesAfterExecution(deauthorizeAfterCompletion);
  if (!command.isValid()) return transportError(kTransportCommandInvalid);
  if (command.isNeedingAuthorization() && !command.hasAuthorizationToken()) {
    if (Status status = command.preAuthorizeOnClient(); !status) return status.error();
  }

  for (int attempts = 0;;) {
    Result<UniqueFd> socket = openRequestSocketAtPath(m_socketPath);
    if (!socket) return socket.error();
    // Sent with MSG_NOSIGNAL: a daemon that closes the connection must not kill the client.
    Data payload = archiveSequential(command);
    if (Status sent = writeDataBlock(socket->get(), payload, BlockSink::Socket); !sent) {
      return Error::posix(static_cast<int>(sent.error().code()), "write request");
    }
    Result<Value> reply = readObject(socket->get(), *m_responseClasses);
    socket->reset();
    if (!reply) return Error::posix(static_cast<int>(reply.error().code()), "read acknowledgement");
    const Error* acknowledgement = reply->objectAs<Error>();
    if (acknowledgement == nullptr) return transportError(kTransportReplyNotAnError);
    if (!isInteractionNeeded(*acknowledgement)) return *acknowledgement;

    // The daemon could not obtain the right without the user: ask again, then resend once.
    if (Status status = command.preAuthorizeOnClient(); !status) return status.error();
    if (++attempts >= 2) return *acknowledgement;
  }
}

bool KRVSecurityAgent::isContinuingCommandExecutionViaPipe(int fd, Error* status) const {
  KRV_ASSERT(status != nullptr, kUnit);
  if (fd < 0) {
    *status = Error::posix(EINVAL, "pipe");
    return false;
  }
  return isContinuingWithMessage(readData(fd), status);
}

bool KRVSecurityAgent::isContinuingWithMessage(const Result<Data>& payload, Error* status) const {
  Result<Value> message =
      payload ? unarchiveSequential(*payload, *m_responseClasses) : Result<Value>(payload.error());
  const Error* error = message ? message->objectAs<Error>() : nullptr;
  if (error == nullptr) {
    *status = transportError(kTransportPipeMessageInvalid);
    return false;
  }
  *status = *error;
  return error->is(kTransportErrorDomain, kTransportIntermediateReport);
}

void KRVSecurityAgent::closePipe(UniqueFd fd, const std::string& path) {
  KRV_ASSERT(fd.valid() && !path.empty(), kUnit);
  fd.reset();
  (void)sys::unlink(path);
}

Error KRVSecurityAgent::executeAtomicPrivilegedCommand(KRVPrivilegedCommand& command,
                                                       bool deauthorizeAfterCompletion) {
  Error status = startExecutionOfPrivilegedCommand(command, deauthorizeAfterCompletion);
  std::optional<std::string> path = pathForResponsePipeFromExecutionAcknowledgeError(status);
  if (!path) return status;
  Result<UniqueFd> pipe = openResponsePipeAtPath(*path);
  if (!pipe) return pipe.error();
  std::vector<ObjectRecordView> records;
  for (;;) {
    Result<Data> payload = readData(pipe->get());
    double progress = 0;
    if (payload && m_recordChunkHandler && readObjectRecordChunk(*payload, progress, records)) {
      m_recordChunkHandler(progress, records);
      continue;
    }
    if (!isContinuingWithMessage(payload, &status)) break;
    if (m_reportHandler) m_reportHandler(status);
  }
  closePipe(std::move(*pipe), *path);
  command.discardAuthorization();
  return status;
}

}  // namespace krv
