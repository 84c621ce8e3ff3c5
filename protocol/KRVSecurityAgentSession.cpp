// The client side of one exchange with the daemon (the instance half of KRVSecurityAgent).

#include <sys/socket.h>

#include <cerrno>

#include "foundation/Archiver.h"
#include "foundation/Assert.h"
#include "foundation/DataBlock.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVSecurityAgent";
// The request socket's path must fit the address structure the clients were written for.
constexpr std::size_t kMaximumSocketPathLength = 104;

bool isInteractionNeeded(const Error& reply) {
  if (!reply.is(kCommandErrorDomain, KRVPrivilegedCommand::kAuthorizationFailedCode)) return false;
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
    Result<Value> reply = readObjectFromPipe(socket->get(), *m_responseClasses);
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
  Result<Value> message = readObjectFromPipe(fd, *m_responseClasses);
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
  while (isContinuingCommandExecutionViaPipe(pipe->get(), &status)) {
    if (m_reportHandler) m_reportHandler(status);
  }
  closePipe(std::move(*pipe), *path);
  command.discardAuthorization();
  return status;
}

}  // namespace krv
