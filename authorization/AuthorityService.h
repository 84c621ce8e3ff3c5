#pragma once
// AuthorityService: serves one connection to the authorization service: reads one request, carries
// it out and writes the reply (with the prompts of an authentication in between).
//
// The caller's identity is the Peer built from the connection (SO_PEERCRED), never anything the
// request says; the uid in a validation or destroy-rights request is only the identity the root
// daemon claims for its own client, and such requests are refused unless the peer is root. The
// operations and their statuses are those of docs/authorization-protocol.md.
//
// Authentication (copy rights with interaction allowed) asks for the password of the requesting
// user, or of the account the request names, at most three times; after repeated failures every
// attempt first waits its turn (BackOff: failures for accounts the system does not know count
// against the requesting uid), and a client that hangs up meanwhile ends the attempt at once and
// gives its turn back. Wrong three times, or authenticated but not entitled by the rule: denied.
// An attempt whose turn would lie beyond the largest delay is refused with kStatusInternal.
//
// Running short of something is a failure of the service, never a verdict: when the rights store,
// the name services or the identification of the peer fail for want of descriptors or memory or
// with an input/output error, the request is answered kStatusInternal, never kStatusDenied.
//
// Every step has a deadline (ServiceTimeouts), so a client that stalls releases its thread. The
// service logs decisions (right names, uids and account names, never passwords or tokens).
//
// Thread-safety: serve() may run on many threads at once; the shared parts (TokenStore, BackOff,
// SystemLog) are synchronised, the others are read-only.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "authorization/Authenticator.h"
#include "authorization/AuthorityProtocol.h"
#include "authorization/BackOff.h"
#include "authorization/Clock.h"
#include "authorization/RightsStore.h"
#include "authorization/TokenStore.h"
#include "authorization/UserDirectory.h"
#include "foundation/SystemLog.h"
#include "foundation/UniqueFd.h"

namespace krv::auth {

inline constexpr int kMaximumPasswordAttempts = 3;

// Who is at the other end of a connection.
struct Peer {
  uid_t uid = 0;
  gid_t gid = 0;
  pid_t pid = 0;
  UniqueFd process;  // pidfd of the peer process, when it could be had
  std::uint32_t session = kNoSession;
  // False when a shortage of descriptors or memory kept the process or the session from being
  // had (as opposed to a kernel or a process without them).
  bool identified = true;
};

struct ServiceTimeouts {
  std::chrono::milliseconds request{10'000};  // for the request to arrive
  std::chrono::milliseconds answer{300'000};  // for the user to answer a prompt
  std::chrono::milliseconds send{10'000};     // for the client to take a message
};

class AuthorityService {
 public:
  AuthorityService(const Clock& clock, TokenStore& tokens, const RightsStore& rights,
                   Authenticator& authenticator, const UserDirectory& users, BackOff& backOff,
                   SystemLog& log, ServiceTimeouts timeouts = {});

  // Serves the one request of a connection; returns when it is answered or the client is gone.
  // The caller closes the connection afterwards.
  void serve(int connection, Peer& peer);

 private:
  struct Reply {
    std::int32_t status = kStatusSuccess;
    Dictionary results;
  };

  Reply create(Peer& peer);
  Reply copyRights(int connection, const Peer& peer, const Request& request, bool& clientGone);
  Reply freeAuthorization(const Peer& peer, const Request& request);
  Reply validate(const Peer& peer, const Request& request);
  Reply destroyRights(const Peer& peer, const Request& request);
  Reply rightGet(const Peer& peer, const Request& request);
  Reply rightSet(const Peer& peer, const Request& request);
  Reply rightRemove(const Peer& peer, const Request& request);

  struct Evaluation {
    const Rule* rule = nullptr;
    Verdict verdict = Verdict::Denied;
  };

  // The rule a right is defined with (null: deny), logging unsafe and broken definitions; nothing
  // when the definition cannot be read now.
  std::optional<const Rule*> ruleOf(const std::string& right);
  Result<Subject> subjectOf(uid_t uid, const Rule* rule) const;
  // The right's rule evaluated for uid with the authorization's credentials; nothing (logged) when
  // the rule or the user's groups cannot be had now.
  std::optional<Evaluation> evaluate(std::uint64_t id, const std::string& right, uid_t uid,
                                     Use use);
  std::int32_t authenticate(int connection, const Peer& peer, const Request& request,
                            std::uint64_t id, const Rule& rule, bool& clientGone);

  void log(SystemLog::Level level, const std::string& message) { m_log.log(level, message); }

  const Clock& m_clock;
  TokenStore& m_tokens;
  const RightsStore& m_rights;
  Authenticator& m_authenticator;
  const UserDirectory& m_users;
  BackOff& m_backOff;
  SystemLog& m_log;
  const ServiceTimeouts m_timeouts;
};

}  // namespace krv::auth
