#include "authorization/AuthorityServer.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>

#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>

#include "foundation/Format.h"
#include "foundation/System.h"

namespace krv::auth {

namespace {

using Level = SystemLog::Level;
using SteadyClock = std::chrono::steady_clock;

// The audit session of a process; kNoSession when it has none (or the kernel keeps none).
Result<std::uint32_t> sessionOf(pid_t pid) {
  Result<std::string> text = sys::readFile("/proc/" + std::to_string(pid) + "/sessionid", 32);
  if (!text) {
    if (sys::isResourceExhaustion(static_cast<int>(text.error().code()))) {
      return std::move(text).error();
    }
    return kNoSession;
  }
  std::uint32_t session = kNoSession;
  const char* begin = text->data();
  std::from_chars(begin, begin + text->size(), session);
  return session;
}

}  // namespace

std::size_t tokensWithin(std::uint64_t descriptorLimit, const ServerLimits& limits) {
  const std::uint64_t reserved =
      (limits.connections + limits.rootConnections) * kDescriptorsPerConnection + kOwnDescriptors;
  return descriptorLimit > reserved ? static_cast<std::size_t>(descriptorLimit - reserved) : 0;
}

static_assert((ServerLimits{}.connections + ServerLimits{}.rootConnections) *
                      kDescriptorsPerConnection +
                  kOwnDescriptors + TokenLimits{}.total <=
              kDescriptorLimit);

AuthorityServer::AuthorityServer(AuthorityService& service, TokenStore& tokens, SystemLog& log,
                                 ServerLimits limits)
    : m_service(service),
      m_tokens(tokens),
      m_log(log),
      m_limits(limits),
      m_wake(sys::eventFd(EFD_NONBLOCK).valueOr(UniqueFd())) {}

AuthorityServer::~AuthorityServer() {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_allDone.wait(lock, [this] { return m_userConnections == 0 && m_rootConnections == 0; });
}

void AuthorityServer::stop() {
  std::uint8_t one[sizeof(std::uint64_t)];
  const std::uint64_t value = 1;
  std::memcpy(one, &value, sizeof one);  // an eventfd counts in the host's byte order
  if (m_wake.valid()) (void)sys::write(m_wake.get(), one);
}

Result<Peer> AuthorityServer::identify(int connection) {
  KRV_TRY(ucred credentials, sys::peerCredentials(connection));
  Peer peer;
  peer.uid = credentials.uid;
  peer.gid = credentials.gid;
  peer.pid = credentials.pid;
  if (Result<UniqueFd> peerProcess = sys::peerProcess(connection)) {
    peer.process = std::move(peerProcess).value();
  } else if (peer.pid > 0) {
    // Older kernels: the pid could in principle be reused between connect() and here, but the
    // peer is blocked waiting for our answer, so it is alive and still the same process.
    Result<UniqueFd> process = sys::pidfdOpen(peer.pid);
    if (process) {
      peer.process = std::move(process).value();
    } else if (sys::isResourceExhaustion(static_cast<int>(process.error().code()))) {
      peer.identified = false;
    }
  }
  if (peer.process.valid() && peer.pid > 0) {
    const Result<std::uint32_t> session = sessionOf(peer.pid);
    // Only trust what was read if the process was still the same one afterwards.
    if (!session) {
      peer.identified = false;
    } else if (!processHasExited(peer.process.get())) {
      peer.session = *session;
    }
  }
  return peer;
}

void AuthorityServer::finished(uid_t uid) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (uid == 0) {
    --m_rootConnections;
  } else {
    --m_userConnections;
    if (--m_perUser[uid] == 0) m_perUser.erase(uid);
  }
  if (m_userConnections == 0 && m_rootConnections == 0) m_allDone.notify_all();
}

void AuthorityServer::accept(int listeningSocket) {
  Result<UniqueFd> accepted = sys::accept(listeningSocket);
  if (!accepted) {
    // Out of descriptors or memory, the pending connection keeps the socket readable: pause
    // rather than spin a processor until a connection ends and frees what accept needs.
    const auto error = accepted.error().code();
    if (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return;
  }
  UniqueFd connection = std::move(accepted).value();
  Result<Peer> identified = identify(connection.get());
  if (!identified) return;
  const uid_t uid = identified->uid;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (uid == 0) {
      if (m_rootConnections >= m_limits.rootConnections) {
        m_log.log(Level::Warning, "Too many connections of root: connection refused");
        return;
      }
      ++m_rootConnections;
    } else {
      std::size_t& ofUser = m_perUser[uid];
      if (m_userConnections >= m_limits.connections || ofUser >= m_limits.connectionsPerUser) {
        if (ofUser == 0) m_perUser.erase(uid);
        m_log.log(Level::Warning, format("Too many connections (uid %u): connection refused", uid));
        return;
      }
      ++ofUser;
      ++m_userConnections;
    }
  }
  try {
    std::thread([this, connection = std::move(connection),
                 peer = std::move(identified).value()]() mutable {
      try {
        m_service.serve(connection.get(), peer);
      } catch (...) {
        m_log.log(Level::Error, "Unexpected failure while serving a connection");
      }
      const uid_t peerUid = peer.uid;
      connection.reset();
      finished(peerUid);
    }).detach();
  } catch (...) {
    m_log.log(Level::Error, "Could not start a thread for a connection");
    finished(uid);
  }
}

int AuthorityServer::run(int listeningSocket) {
  auto lastActivity = SteadyClock::now();
  auto nextSweep = SteadyClock::now() + m_limits.sweepInterval;
  for (;;) {
    const auto now = SteadyClock::now();
    bool busy = false;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      busy = m_userConnections + m_rootConnections > 0;
    }
    if (now >= nextSweep) {
      m_tokens.sweep();
      nextSweep = now + m_limits.sweepInterval;
    }
    if (busy || m_tokens.liveCount() > 0) lastActivity = now;
    if (now - lastActivity >= m_limits.idleTimeout) {
      m_log.log(Level::Debug, "Idle: exiting");
      return 0;
    }
    const auto wakeAt = std::min(nextSweep, lastActivity + m_limits.idleTimeout);
    const auto wait = std::chrono::duration_cast<std::chrono::milliseconds>(wakeAt - now);
    pollfd entries[2] = {{listeningSocket, POLLIN, 0}, {m_wake.get(), POLLIN, 0}};
    Result<std::size_t> ready =
        sys::poll(entries, static_cast<int>(std::max<std::int64_t>(wait.count(), 1)));
    if (!ready) {
      if (ready.error().code() == EINTR) continue;
      m_log.log(Level::Error, "Waiting for connections failed (%m)", ready.error());
      return 1;
    }
    if (entries[1].revents != 0) return 0;
    if ((entries[0].revents & (POLLERR | POLLNVAL)) != 0) {
      m_log.log(Level::Error, "The listening socket failed");
      return 1;
    }
    if ((entries[0].revents & POLLIN) != 0) {
      lastActivity = SteadyClock::now();
      accept(listeningSocket);
    }
  }
}

}  // namespace krv::auth
