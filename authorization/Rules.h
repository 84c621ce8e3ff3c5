#pragma once
// Rules: the built-in rules a right definition names, and what each asks of the requesting user.
//
//   "allow"                                 always granted
//   "deny"                                  never granted
//   "is-root"                               granted when the requester is uid 0
//   "is-admin"                              granted when the requester is an administrator (a
//                                           member of the administrators group), no password
//   "default"                               an administrator authenticates; the credential is
//                                           shared and lasts 300 s from when it was obtained
//   "authenticate-admin"                    an administrator authenticates at every use
//                                           (timeout 0)
//   "authenticate-admin-30"                 as "default", lasting 30 s
//   "authenticate-admin-nonshared"          as "default", not shared
//   "authenticate-session-owner-or-admin"   the requesting user or an administrator
//                                           authenticates; not shared, 300 s
//
// A name not in the table is unknown and evaluates to deny. A requester of uid 0 satisfies every
// rule except "deny" without being asked.
//
// A credential lasts for the rule's timeout measured from when it was obtained: obtained at t, it
// satisfies the rule at any time in [t, t + timeout). A timeout of 0 means that it satisfies only
// the evaluation that obtained it (and one later validation when the client pre-authorized, see
// TokenStore.h). Shared credentials are visible to every authorization of the same user in the
// same login session; the others only to the authorization that obtained them.
//
// Plain data and pure functions; thread-safe.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string_view>

#include "authorization/Clock.h"

namespace krv::auth {

enum class RuleClass : std::uint8_t {
  Allow,
  Deny,
  IsRoot,
  IsAdministrator,
  AuthenticateAdministrator,
  AuthenticateSessionOwnerOrAdministrator,
};

struct Rule {
  std::string_view name;
  RuleClass ruleClass;
  std::chrono::seconds timeout;  // authenticate rules only
  bool shared;                   // authenticate rules only
};

inline constexpr std::string_view kDefaultRuleName = "default";

std::span<const Rule> builtInRules();
// The rule of that name, or null when it is unknown.
const Rule* findRule(std::string_view name);

bool isAuthenticationRule(const Rule& rule);

// Proof that a user authenticated.
struct Credential {
  uid_t uid = 0;               // the account that authenticated
  bool administrator = false;  // a member of the administrators group when it authenticated
  Instant obtained{};
  std::uint64_t origin = 0;  // the authorization that obtained it
};

// True when the credential satisfies the authenticate rule for a request by `requester` at `now`.
bool credentialSatisfies(const Rule& rule, const Credential& credential, uid_t requester,
                         Instant now);
// True when the credential (freshly obtained) meets the rule's demand on who authenticated,
// whatever the time.
bool credentialQualifies(const Rule& rule, const Credential& credential, uid_t requester);

}  // namespace krv::auth
