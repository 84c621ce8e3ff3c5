// SecurityAgentDaemon: start-up and the event loop. The serving of one connection is in
// ConnectionHandler.cpp, the check-in with the service manager in CheckIn.cpp.

#include <fcntl.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
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
void raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_NOFILE, &limit);
  }
}

}  // namespace

int setSocketMode(int fd, bool nonBlocking) {
  if (fd < 0) return EINVAL;
  Status status = sys::setNonBlocking(fd, nonBlocking);
  return status ? 0 : static_cast<int>(status.error().code());
}

SecurityAgentDaemon::SecurityAgentDaemon(bool debug)
    : m_debug(debug),
      m_log(kDaemonIdentification, kDaemonFacility, debug ? SystemLog::kCopyToStandardError : 0) {}

int SecurityAgentDaemon::setupFailure(const char* message) {
  m_log.log(SystemLog::Level::Error, message);
  m_log.log(SystemLog::Level::Info, "Agent is shutting down.");
  return kExitSetupFailure;
}

int SecurityAgentDaemon::run() {
  m_log.log(SystemLog::Level::Info, "Agent is starting up.");
  if (!allRightsDefined() && !setupRightDefinitions()) {
    return setupFailure("Could not setup right definitions");
  }
  timeval startTime{};
  ::gettimeofday(&startTime, nullptr);  // kept for diagnostics
  (void)startTime;
  if (::signal(SIGPIPE, SIG_IGN) == SIG_ERR) return setupFailure("Could not setup signals (%m)");
  raiseDescriptorLimit();

  m_listeningSocket = socketFromLaunchDCheckIn();
  if (m_listeningSocket < 0) return setupFailure("Socket failure.");
  UniqueFd listening(m_listeningSocket);

  int queueFd = ::epoll_create1(EPOLL_CLOEXEC);
  if (queueFd < 0) return setupFailure("Could not create kernel event queue (%m)");
  UniqueFd queue(queueFd);
  epoll_event interest{};
  interest.events = EPOLLIN;
  interest.data.fd = m_listeningSocket;
  if (::epoll_ctl(queueFd, EPOLL_CTL_ADD, m_listeningSocket, &interest) != 0) {
    return setupFailure("Could not add listening socket to kernel event queue (%m)");
  }
  if (int error = setSocketMode(m_listeningSocket, true); error != 0) {
    errno = error;
    return setupFailure("Could not change socket mode (%m)");
  }

  // Serve; after a timeout, an error or a shutdown, serve again for as long as a command runs:
  // a shutdown never cuts a running command short. While shutting down the loop returns at once,
  // so this waits for the last command thread (with a short nap instead of spinning a core).
  // After an error the loop would return at once again (a connection the daemon cannot accept
  // stays pending): a longer nap keeps that from spinning a core while commands finish.
  do {
    runUsingQueue(queueFd);
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
    int count = ::epoll_wait(queue, &event, 1, kIdleTimeoutSeconds * 1000);
    if (count == 0) return;
    if (count < 0) {
      if (errno == EINTR) continue;
      m_log.log(SystemLog::Level::Error,
                "Unexpected operating system error while waiting for events (%m)");
      return;
    }

    // No handler is installed for SIGALRM: a request that takes longer ends the process.
    ::alarm(kWatchdogSeconds);
    std::uint8_t address[16];
    socklen_t addressLength = sizeof address;
    int connection = ::accept4(m_listeningSocket, reinterpret_cast<sockaddr*>(address),
                               &addressLength, SOCK_CLOEXEC);
    if (connection < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED || errno == EINTR) {
        m_log.log(SystemLog::Level::Info,
                  "WARNING: A connection disappeared before we could accept it");
        ::alarm(0);
        continue;
      }
      m_log.log(SystemLog::Level::Error,
                "Unexpected operating system error while accepting a connection request (%m)");
      // The loop is entered again while commands run: an armed watchdog would end them there.
      ::alarm(0);
      return;
    }

    UniqueFd client(connection);
    m_log.log(SystemLog::Level::Debug, "Request started.");
    if (int error = setSocketMode(connection, false); error != 0) {
      client.reset();
      errno = error;
      m_log.log(SystemLog::Level::Error, "Request failure (%m)");
    } else {
      int result = handleConnectionRequest(connection);
      client.reset();
      if (result == 0) {
        m_log.log(SystemLog::Level::Debug, "Request completed.");
      } else {
        errno = result;
        m_log.log(SystemLog::Level::Error, "Request failure (%m)");
      }
    }
    ::alarm(0);
  }
}

}  // namespace krv
