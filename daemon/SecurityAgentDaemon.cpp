// SecurityAgentDaemon: start-up and the event loop. The serving of one connection is in
// ConnectionHandler.cpp, the check-in with the service manager in CheckIn.cpp.

#include <signal.h>
#include <sys/epoll.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <limits>
#include <thread>

#include "daemon/SecurityAgentDaemon.h"
#include "executor/KRVCommandExecutor.h"
#include "foundation/Assert.h"
#include "foundation/System.h"
#include "foundation/UniqueFd.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVSecurityAgentMain";

// Walks over large trees keep up to 500 directories open each; allow what the hard limit allows.
constexpr std::uint64_t kAllDescriptors = std::numeric_limits<std::uint64_t>::max();

bool meansVanished(const Error& error) {
  const auto code = error.code();
  return code == EAGAIN || code == EWOULDBLOCK || code == ECONNABORTED || code == EINTR;
}

}  // namespace

Status setSocketMode(int fd, bool nonBlocking) {
  if (fd < 0) return Error::posix(EINVAL, "fcntl");
  return sys::setNonBlocking(fd, nonBlocking);
}

SecurityAgentDaemon::SecurityAgentDaemon(bool debug)
    : m_debug(debug),
      m_log(kDaemonIdentification, kDaemonFacility, debug ? SystemLog::kCopyToStandardError : 0) {}

int SecurityAgentDaemon::setupFailure(std::string_view message) {
  m_log.log(SystemLog::Level::Error, message);
  m_log.log(SystemLog::Level::Info, "Agent is shutting down.");
  return kExitSetupFailure;
}

int SecurityAgentDaemon::setupFailure(LogTemplate message, const Error& error) {
  m_log.log(SystemLog::Level::Error, message, error);
  m_log.log(SystemLog::Level::Info, "Agent is shutting down.");
  return kExitSetupFailure;
}

int SecurityAgentDaemon::run() {
  m_log.log(SystemLog::Level::Info, "Agent is starting up.");
  if (!allRightsDefined() && !setupRightDefinitions()) {
    return setupFailure("Could not setup right definitions");
  }
  const auto startTime = std::chrono::system_clock::now();  // kept for diagnostics
  (void)startTime;
  if (Result<struct sigaction> ignored = sys::setSignalHandler(SIGPIPE, SIG_IGN); !ignored) {
    return setupFailure("Could not setup signals (%m)", ignored.error());
  }
  (void)sys::raiseDescriptorLimit(kAllDescriptors);

  m_listeningSocket = socketFromLaunchDCheckIn();
  if (m_listeningSocket < 0) return setupFailure("Socket failure.");
  UniqueFd listening(m_listeningSocket);

  Result<UniqueFd> queue = sys::epollCreate();
  if (!queue) return setupFailure("Could not create kernel event queue (%m)", queue.error());
  if (Status added = sys::epollAdd(queue->get(), m_listeningSocket, EPOLLIN); !added) {
    return setupFailure("Could not add listening socket to kernel event queue (%m)", added.error());
  }
  if (Status mode = setSocketMode(m_listeningSocket, true); !mode) {
    return setupFailure("Could not change socket mode (%m)", mode.error());
  }

  // Serve; after a timeout, an error or a shutdown, serve again for as long as a command runs:
  // a shutdown never cuts a running command short. While shutting down the loop returns at once,
  // so this waits for the last command thread (with a short nap instead of spinning a core).
  // After an error the loop would return at once again (a connection the daemon cannot accept
  // stays pending): a longer nap keeps that from spinning a core while commands finish.
  do {
    runUsingQueue(queue->get());
    if (KRVCommandExecutor::numberOfRunningExecutorThreads() != 0) {
      std::this_thread::sleep_for(std::chrono::milliseconds(m_shutdown ? 1 : 100));
    }
  } while (KRVCommandExecutor::numberOfRunningExecutorThreads() != 0);

  m_log.log(SystemLog::Level::Info, "Agent is shutting down.");
  return kExitNormal;
}

void SecurityAgentDaemon::runUsingQueue(int queue) {
  KRV_ASSERT(queue > 0, kUnit);
  for (;;) {
    if (m_shutdown) return;
    epoll_event event{};
    Result<std::size_t> count = sys::epollWait(queue, {&event, 1}, kIdleTimeoutSeconds * 1000);
    if (count && *count == 0) return;
    if (!count) {
      if (count.error().code() == EINTR) continue;
      m_log.log(SystemLog::Level::Error,
                "Unexpected operating system error while waiting for events (%m)", count.error());
      return;
    }

    // No handler is installed for SIGALRM: a request that takes longer ends the process.
    sys::setAlarm(kWatchdogSeconds);
    Result<UniqueFd> client = sys::accept(m_listeningSocket);
    if (!client) {
      if (meansVanished(client.error())) {
        m_log.log(SystemLog::Level::Info,
                  "WARNING: A connection disappeared before we could accept it");
        sys::setAlarm(0);
        continue;
      }
      m_log.log(SystemLog::Level::Error,
                "Unexpected operating system error while accepting a connection request (%m)",
                client.error());
      // The loop is entered again while commands run: an armed watchdog would end them there.
      sys::setAlarm(0);
      return;
    }

    m_log.log(SystemLog::Level::Debug, "Request started.");
    if (Status mode = setSocketMode(client->get(), false); !mode) {
      client->reset();
      m_log.log(SystemLog::Level::Error, "Request failure (%m)", mode.error());
    } else {
      Status served = handleConnectionRequest(client->get());
      client->reset();
      if (served) {
        m_log.log(SystemLog::Level::Debug, "Request completed.");
      } else {
        m_log.log(SystemLog::Level::Error, "Request failure (%m)", served.error());
      }
    }
    sys::setAlarm(0);
  }
}

}  // namespace krv
