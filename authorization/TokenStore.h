#pragma once
// TokenStore: the live authorizations of the service, the credentials they obtained and the
// credentials shared within a login session.
//
// An authorization is named by its token, 32 random bytes (getrandom) minted by create() and
// handed to the client once; the store keeps only their SHA-256 and compares digests in constant
// time, scanning every record so that a lookup takes the same time wherever (or whether) it
// matches. The token carries no structure: nothing about it can be guessed or forged. An
// all-zero token is never minted.
//
// Each authorization records its creator (uid from SO_PEERCRED, a process descriptor of the
// creating process, the login session), the credentials it obtained and its pre-authorizations.
// It ends on free(), when the creating process exits, or after `idleLifetime` without use.
//
// Credentials (Rules.h): a credential obtained under a shared rule is also placed in the pool of
// the creator's (uid, session); destroying an authorization's rights removes its own credentials,
// its pre-authorizations and its copies in the pool. A pre-authorization is recorded when a client
// that asked for kFlagPreAuthorize obtains a right whose rule has timeout 0: it lets exactly one
// later validation of that right succeed, within `preAuthorizationLifetime`. This is what lets a
// command guarded by "authenticate-admin" run once per password instead of sending the client
// round in circles.
//
// Memory is bounded: at most `perUser` live authorizations per uid and `total` in all (create
// answers kStatusInternal beyond), a few credentials per authorization and per session pool (the
// oldest gives way), and the pool itself is capped.
//
// Thread-safe: one mutex guards everything; no call blocks on anything but the mutex.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authorization/Authorization.h"
#include "authorization/Clock.h"
#include "authorization/Rules.h"
#include "foundation/Sha256.h"
#include "foundation/UniqueFd.h"

namespace krv::auth {

// The audit session of a process without one.
inline constexpr std::uint32_t kNoSession = 0xffffffffu;

struct Creator {
  uid_t uid = 0;
  UniqueFd process;  // pidfd of the creating process; none = only the idle limit ends the token
  std::uint32_t session = kNoSession;
};

struct TokenLimits {
  std::size_t perUser = 64;
  std::size_t total = 4096;
  Instant idleLifetime = std::chrono::minutes(15);
  std::size_t credentialsPerAuthorization = 8;
  std::size_t preAuthorizationsPerAuthorization = 8;
  std::size_t sharedPerSession = 8;
  std::size_t sharedTotal = 4096;
  Instant preAuthorizationLifetime = std::chrono::seconds(60);
};

// The requester a rule is evaluated for.
struct Subject {
  uid_t uid = 0;
  bool administrator = false;
};

enum class Verdict : std::uint8_t { Granted, NeedsAuthentication, Denied, Gone };

// Whether an evaluation may use up a pre-authorization (only the daemon's validation does).
enum class Use : std::uint8_t { Client, Validation };

class TokenStore {
 public:
  struct Entry {
    std::uint64_t id = 0;
    uid_t creatorUid = 0;
    std::uint32_t session = kNoSession;
  };

  explicit TokenStore(const Clock& clock, TokenLimits limits = {});

  // Mints a token for a new authorization. kStatusInternal when a limit is reached or the kernel
  // gives no random bytes.
  std::int32_t create(Creator creator, ExternalForm& token);
  // The live authorization a token names (and marks it used), or nothing.
  std::optional<Entry> find(const ExternalForm& token);

  // Evaluates a rule (null = unknown rule) for one right of an authorization.
  Verdict evaluate(std::uint64_t id, std::string_view right, const Rule* rule,
                   const Subject& subject, Use use);
  // Records a credential just obtained for `right` under `rule`. False when the authorization
  // ended in the meantime.
  bool addCredential(std::uint64_t id, std::string_view right, const Rule& rule,
                     const Credential& credential, bool preAuthorize);

  // Ends an authorization; with destroyRights its shared copies go too. False when unknown.
  bool free(std::uint64_t id, bool destroyRights);
  // Removes what an authorization obtained (own credentials, pre-authorizations, shared copies);
  // the authorization itself stays. False when unknown.
  bool destroyRights(std::uint64_t id);

  // Ends authorizations whose creator exited or that went unused for too long, and drops expired
  // credentials and pre-authorizations.
  void sweep();
  std::size_t liveCount() const;

 private:
  struct PreAuthorization {
    std::string right;
    Credential credential;
  };
  struct Record {
    std::uint64_t id = 0;
    Sha256::Digest tokenHash{};
    uid_t creatorUid = 0;
    std::uint32_t session = kNoSession;
    UniqueFd process;
    Instant lastUsed{};
    std::vector<Credential> credentials;
    std::vector<PreAuthorization> preAuthorizations;
  };
  struct SharedCredential {
    uid_t creatorUid = 0;
    std::uint32_t session = kNoSession;
    Credential credential;
  };

  Record* recordLocked(std::uint64_t id);
  void eraseLocked(std::uint64_t id, bool destroyRights);
  void dropSharedLocked(std::uint64_t origin);
  void expireLocked(Instant now);

  const Clock& m_clock;
  const TokenLimits m_limits;
  mutable std::mutex m_mutex;
  std::vector<Record> m_records;
  std::vector<SharedCredential> m_shared;
  std::uint64_t m_nextId = 1;
};

// True when the process behind a pidfd has exited (or the descriptor is unusable); false when the
// system cannot tell for now.
bool processHasExited(int pidfd);

}  // namespace krv::auth
