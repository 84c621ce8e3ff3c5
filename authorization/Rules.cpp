#include "authorization/Rules.h"

namespace krv::auth {

namespace {

using std::chrono::seconds;

constexpr Rule kRules[] = {
    {"allow", RuleClass::Allow, seconds(0), false},
    {"deny", RuleClass::Deny, seconds(0), false},
    {"is-root", RuleClass::IsRoot, seconds(0), false},
    {"is-admin", RuleClass::IsAdministrator, seconds(0), false},
    {"default", RuleClass::AuthenticateAdministrator, seconds(300), true},
    {"authenticate-admin", RuleClass::AuthenticateAdministrator, seconds(0), false},
    {"authenticate-admin-30", RuleClass::AuthenticateAdministrator, seconds(30), true},
    {"authenticate-admin-nonshared", RuleClass::AuthenticateAdministrator, seconds(300), false},
    {"authenticate-session-owner-or-admin", RuleClass::AuthenticateSessionOwnerOrAdministrator,
     seconds(300), false},
};

}  // namespace

std::span<const Rule> builtInRules() { return kRules; }

const Rule* findRule(std::string_view name) {
  for (const Rule& rule : kRules) {
    if (rule.name == name) return &rule;
  }
  return nullptr;
}

bool isAuthenticationRule(const Rule& rule) {
  return rule.ruleClass == RuleClass::AuthenticateAdministrator ||
         rule.ruleClass == RuleClass::AuthenticateSessionOwnerOrAdministrator;
}

bool credentialQualifies(const Rule& rule, const Credential& credential, uid_t requester) {
  if (credential.uid == 0 || credential.administrator) return isAuthenticationRule(rule);
  return rule.ruleClass == RuleClass::AuthenticateSessionOwnerOrAdministrator &&
         credential.uid == requester;
}

bool credentialSatisfies(const Rule& rule, const Credential& credential, uid_t requester,
                         Instant now) {
  if (!credentialQualifies(rule, credential, requester)) return false;
  // A credential from the future cannot come from this clock; refuse it rather than trust it.
  if (now < credential.obtained) return false;
  return now - credential.obtained < rule.timeout;
}

}  // namespace krv::auth
