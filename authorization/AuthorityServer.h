#pragma once
// AuthorityServer: the accept loop of the authorization service.
//
// run() accepts connections on the listening socket and serves each on a thread of its own
// (AuthorityService::serve), so that a user typing a password holds up nobody else. Concurrency is
// bounded: at most `connectionsPerUser` connections per uid and `connections` in all; connections
// of root (the daemon's validations) have a separate allowance of `rootConnections`, so that
// users cannot starve the daemon. A connection over a limit is closed at once, unanswered.
//
// The peer of each connection is identified by SO_PEERCRED; the server also obtains a process
// descriptor of the peer (SO_PEERPIDFD where the kernel has it, else pidfd_open) to notice when a
// token's creator exits, and the peer's audit session (/proc/<pid>/sessionid, read while the
// descriptor proves the process is still the same) to scope shared credentials.
//
// Every `sweepInterval` the token store is swept. run() returns 0 once it has been idle for
// `idleTimeout` — no connection open or accepted and no live token — (socket activation starts
// the service again on the next connection), 0 after stop(), and 1 when the listening socket
// fails. Threads still running when run() returns are waited for.
//
// run() is called on one thread; stop() may be called from any thread.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <map>
#include <mutex>

#include "authorization/AuthorityService.h"
#include "authorization/TokenStore.h"
#include "foundation/SystemLog.h"
#include "foundation/UniqueFd.h"

namespace krv::auth {

struct ServerLimits {
  std::size_t connections = 64;
  std::size_t connectionsPerUser = 8;
  std::size_t rootConnections = 16;
  std::chrono::milliseconds idleTimeout{60'000};
  std::chrono::milliseconds sweepInterval{10'000};
};

// Descriptors: the service holds one per live token (its creator's process) and, per connection,
// at most kDescriptorsPerConnection at once (the socket, the peer's process, the folder and file of
// a right's definition, or PAM's and the name services' files), plus kOwnDescriptors of its own.
// It raises its limit to kDescriptorLimit, which covers the most tokens and connections the
// default limits allow; under a lower hard limit it creates fewer tokens (tokensWithin), so that
// held tokens can never leave a connection without descriptors.
inline constexpr std::size_t kDescriptorsPerConnection = 8;
inline constexpr std::size_t kOwnDescriptors = 32;
inline constexpr std::uint64_t kDescriptorLimit = 8192;

// How many tokens a descriptor limit leaves room for beside the connections and the service.
std::size_t tokensWithin(std::uint64_t descriptorLimit, const ServerLimits& limits);

class AuthorityServer {
 public:
  AuthorityServer(AuthorityService& service, TokenStore& tokens, SystemLog& log,
                  ServerLimits limits = {});
  ~AuthorityServer();

  int run(int listeningSocket);
  void stop();

  // The identity of a connected peer (exposed for tests).
  static Result<Peer> identify(int connection);

 private:
  void accept(int listeningSocket);
  void finished(uid_t uid);

  AuthorityService& m_service;
  TokenStore& m_tokens;
  SystemLog& m_log;
  const ServerLimits m_limits;
  UniqueFd m_wake;  // eventfd written by stop()

  std::mutex m_mutex;
  std::condition_variable m_allDone;
  std::map<uid_t, std::size_t> m_perUser;
  std::size_t m_userConnections = 0;
  std::size_t m_rootConnections = 0;
};

}  // namespace krv::auth
