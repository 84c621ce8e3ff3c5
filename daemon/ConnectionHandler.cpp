// Serving one request: read, check, throttle, authorize, then start the command or handle the
// daemon-control commands here.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "daemon/SecurityAgentDaemon.h"
#include "executor/KRVCommandExecutor.h"
#include "foundation/Assert.h"
#include "foundation/Format.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVSecurityAgentMain";
// The group of the response pipe: the system's daemon group.
constexpr gid_t kPipeGroup = 1;
constexpr std::int64_t kThrottleThreshold = 11;
constexpr std::uint32_t kThrottleFirstDelay = 100000;
constexpr std::uint32_t kThrottleMaximumDelay = 2000000;
// Names of the response pipe tried before giving up; with 32 random bits a clash is already rare,
// so several in a row mean that somebody fills /tmp on purpose.
constexpr int kPipeNameAttempts = 16;
// (uid_t)-1 tells chown to leave the owner alone; it names no user.
constexpr std::uint32_t kNoUser = 0xFFFFFFFFu;

// The response pipe's path: the daemon's identification and a number nobody can predict, so that
// no other user can plant a file or link under the next name.
Result<std::string> randomPipePath() {
  std::uint32_t number = 0;
  KRV_TRY_VOID(sys::getRandom(
      std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(&number), sizeof number)));
  return format("/tmp/%s-%u.pipe", kDaemonIdentification, number);
}

// The uid of the connected process, from the kernel.
std::optional<uid_t> peerUid(int socket) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    return std::nullopt;
  }
  if (length != sizeof credentials) {
    errno = EPROTO;
    return std::nullopt;
  }
  return credentials.uid;
}

}  // namespace

void SecurityAgentDaemon::throttleIfBusy() {
  if (KRVCommandExecutor::numberOfRunningExecutorThreads() < kThrottleThreshold) {
    m_throttleDelay = 0;
  } else {
    // The stored delay runs 100000, 200000, ... 1600000, 3200000, 2000000, 2000000: the one
    // stored value above the cap is kept on purpose; the sleep never exceeds the cap.
    if (m_throttleDelay == 0) {
      m_throttleDelay = kThrottleFirstDelay;
    } else if (m_throttleDelay < kThrottleMaximumDelay) {
      m_throttleDelay *= 2;
    } else {
      m_throttleDelay = kThrottleMaximumDelay;
    }
    m_log.log(SystemLog::Level::Warning,
              format("Number of concurrent threads seems high. Throttling is in effect (%u).",
                     m_throttleDelay));
  }
  std::this_thread::sleep_for(
      std::chrono::microseconds(std::min(m_throttleDelay, kThrottleMaximumDelay)));
}

std::optional<ResponsePipe> SecurityAgentDaemon::createClientPipeReadableByUID(uid_t uid) {
  // The pipe lives in /tmp, where every user may create entries: the name is random and taken
  // only when mkfifo creates it (a planted file or link makes it fail, never followed), and the
  // owner is changed through a descriptor of the very FIFO that was created.
  mode_t savedMask = ::umask(0);
  std::string path;
  int made = -1;
  for (int attempt = 0; attempt < kPipeNameAttempts && made != 0; ++attempt) {
    Result<std::string> candidate = randomPipePath();
    if (!candidate) {
      errno = static_cast<int>(candidate.error().code());
      break;
    }
    path = std::move(candidate).value();
    KRV_ASSERT(!path.empty(), kUnit);
    made = ::mkfifo(path.c_str(), S_IRUSR | S_IWUSR);
    if (made != 0 && errno != EEXIST) break;
  }
  const int mkfifoError = errno;
  ::umask(savedMask);
  if (made != 0) {
    errno = mkfifoError;
    m_log.log(SystemLog::Level::Error, "Could not create pipe for client communication (%m)");
    return std::nullopt;
  }

  auto discard = [&]() -> std::optional<ResponsePipe> {
    m_log.log(SystemLog::Level::Error, "Could not change owner of client communication pipe (%m)");
    const int error = errno;
    ::unlink(path.c_str());
    errno = error;
    return std::nullopt;
  };
  const int fd = ::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return discard();
  UniqueFd pipe(fd);
  struct stat status {};
  if (::fstat(pipe.get(), &status) != 0) return discard();
  if (!S_ISFIFO(status.st_mode) || status.st_uid != 0) {
    errno = EPERM;
    return discard();
  }
  if (::fchownat(pipe.get(), "", uid, kPipeGroup, AT_EMPTY_PATH) != 0) return discard();
  return ResponsePipe{path, status.st_dev, status.st_ino};
}

int SecurityAgentDaemon::handleConnectionRequest(int socket) {
  KRV_ASSERT(socket > 0, kUnit);
  Result<Value> object = KRVSecurityAgent::readObjectFromPipe(socket);
  if (!object) return static_cast<int>(object.error().code());
  const ObjectRef* reference = object->asObject();
  std::shared_ptr<const KRVPrivilegedCommand> command =
      reference ? std::dynamic_pointer_cast<const KRVPrivilegedCommand>(*reference) : nullptr;
  if (!command || !command->isValid()) return EIO;

  // The request names its user, and that user will own the response pipe and is the one whose
  // authorization must match. Only the kernel knows who is really connected: a user may speak for
  // herself only; root (a system tool acting for a user) may name any real user.
  const std::optional<uid_t> peer = peerUid(socket);
  if (!peer) return errno;
  if (command->userIdentification() == kNoUser ||
      (*peer != 0 && *peer != static_cast<uid_t>(command->userIdentification()))) {
    m_log.log(SystemLog::Level::Error,
              format("Request of uid %u names uid %u: refused.", static_cast<unsigned>(*peer),
                     static_cast<unsigned>(command->userIdentification())));
    return EPERM;
  }

  throttleIfBusy();

  std::optional<Error> response;
  if (command->isNeedingAuthorization()) {
    if (Status authorized = command->authorizeOnServer(); !authorized) {
      m_log.log(SystemLog::Level::Error, "Could not get required authorization.");
      response = authorized.error();
    }
  }

  if (!response) {
    switch (command->commandCode()) {
      case kCommandPrepareUninstallation:
        m_log.log(SystemLog::Level::Info, "Preparing v3 uninstallation procedure.");
        // Removing the definitions may take longer than a request may.
        ::alarm(0);
        if (removeRightDefinitions(m_log)) {
          m_log.log(SystemLog::Level::Info, "Handling right definitions succeeded.");
          m_shutdown = true;
          command->discardAuthorization();
          response = KRVSecurityAgent::transportError(kTransportAccepted);
        } else {
          m_log.log(SystemLog::Level::Info, "Handling right definitions failed.");
          response = KRVSecurityAgent::transportError(kTransportRightRemovalFailed);
        }
        ::alarm(kWatchdogSeconds);
        break;
      case kCommandShutdown:
        m_shutdown = true;
        command->discardAuthorization();
        response = KRVSecurityAgent::transportError(kTransportAccepted);
        break;
      default: {
        std::optional<ResponsePipe> pipe =
            createClientPipeReadableByUID(static_cast<uid_t>(command->userIdentification()));
        if (!pipe) {
          response = KRVSecurityAgent::transportError(kTransportPipeNotCreated);
          break;
        }
        Dictionary userInfo;
        userInfo.set(KRVSecurityAgent::keyForClientSocket(), Value(pipe->path));
        response = KRVSecurityAgent::transportError(kTransportAccepted, std::move(userInfo));
        auto executor = std::make_unique<KRVCommandExecutor>();
        executor->useAppleSystemLoggingWithIdentification(
            kDaemonIdentification, kDaemonFacility, m_debug ? SystemLog::kCopyToStandardError : 0);
        executor->setPathOfClientCommunicationPipe(pipe->path);
        executor->setExpectedPipeIdentity(pipe->device, pipe->inode);
        KRVCommandExecutor::startThread(std::move(executor), std::move(command));
        break;
      }
    }
  }
  return KRVSecurityAgent::writeObject(&*response, socket);
}

}  // namespace krv
