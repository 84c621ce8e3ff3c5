// Serving one request: read, check, throttle, authorize, then start the command or handle the
// daemon-control commands here.

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <thread>

#include "daemon/SecurityAgentDaemon.h"
#include "executor/KRVCommandExecutor.h"
#include "foundation/Assert.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/UniqueFd.h"
#include "platform/FileSystemCalls.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVSecurityAgentMain";
// The group of the response pipe: the system's daemon group.
constexpr gid_t kPipeGroup = 1;
constexpr std::int64_t kThrottleThreshold = 11;
constexpr std::uint32_t kThrottleFirstDelay = 100000;
constexpr std::uint32_t kThrottleMaximumDelay = 2000000;

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
  std::string path = KRVSecurityAgent::pathForResponsePipe();
  KRV_ASSERT(!path.empty(), kUnit);
  // mkfifo never follows a link: a file planted under the name makes it fail, and the owner is
  // then changed through a descriptor of the very FIFO that was created.
  const mode_t savedMask = sys::setFileCreationMask(0);
  Status created = sys::mkfifo(path, S_IRUSR | S_IWUSR);
  sys::setFileCreationMask(savedMask);
  if (!created) {
    m_log.log(SystemLog::Level::Error, "Could not create pipe for client communication (%m)",
              created.error());
    return std::nullopt;
  }

  auto discard = [&](const Error& error) -> std::optional<ResponsePipe> {
    m_log.log(SystemLog::Level::Error, "Could not change owner of client communication pipe (%m)",
              error);
    (void)sys::unlink(path);
    return std::nullopt;
  };
  Result<UniqueFd> pipe = sys::open(path, O_PATH | O_NOFOLLOW);
  if (!pipe) return discard(pipe.error());
  Result<struct stat> status = sys::fstat(pipe->get());
  if (!status) return discard(status.error());
  if (!S_ISFIFO(status->st_mode) || status->st_uid != 0) {
    return discard(Error::posix(EPERM, "open pipe"));
  }
  if (Status owned = sys::fchownAt(pipe->get(), "", uid, kPipeGroup, AT_EMPTY_PATH); !owned) {
    return discard(owned.error());
  }
  return ResponsePipe{path, status->st_dev, status->st_ino};
}

Status SecurityAgentDaemon::handleConnectionRequest(int socket) {
  KRV_ASSERT(socket > 0, kUnit);
  KRV_TRY(Value object, KRVSecurityAgent::readObject(socket));
  const ObjectRef* reference = object.asObject();
  std::shared_ptr<const KRVPrivilegedCommand> command =
      reference ? std::dynamic_pointer_cast<const KRVPrivilegedCommand>(*reference) : nullptr;
  if (!command || !command->isValid()) return Error::posix(EIO, "read command");

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
        sys::setAlarm(0);
        if (removeRightDefinitions(m_log)) {
          m_log.log(SystemLog::Level::Info, "Handling right definitions succeeded.");
          m_shutdown = true;
          command->discardAuthorization();
          response = KRVSecurityAgent::transportError(kTransportAccepted);
        } else {
          m_log.log(SystemLog::Level::Info, "Handling right definitions failed.");
          response = KRVSecurityAgent::transportError(kTransportRightRemovalFailed);
        }
        sys::setAlarm(kWatchdogSeconds);
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
        auto executor = std::make_unique<KRVCommandExecutor>();
        executor->useAppleSystemLoggingWithIdentification(
            kDaemonIdentification, kDaemonFacility, m_debug ? SystemLog::kCopyToStandardError : 0);
        executor->setPathOfClientCommunicationPipe(pipe->path);
        executor->setExpectedPipeIdentity(pipe->device, pipe->inode);
        // Acknowledged only once the thread that will open the pipe exists: otherwise the client
        // would wait at a pipe nobody writes. Without a thread the pipe is gone again, and the
        // client hears that none could be made.
        if (!KRVCommandExecutor::startThread(std::move(executor), std::move(command))) {
          response = KRVSecurityAgent::transportError(kTransportPipeNotCreated);
          break;
        }
        Dictionary userInfo;
        userInfo.set(KRVSecurityAgent::keyForClientSocket(), nameValue(pipe->path));
        response = KRVSecurityAgent::transportError(kTransportAccepted, std::move(userInfo));
        break;
      }
    }
  }
  return KRVSecurityAgent::writeObject(&*response, socket);
}

}  // namespace krv
