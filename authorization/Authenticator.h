#pragma once
// Authenticator: proves that the person at the other end of a connection knows an account's
// password, asking them through a PromptChannel. PamAuthenticator does it with PAM; tests use
// scripted authenticators.
//
// One call is one attempt: a PAM transaction with the service "com.tavorin.system.authority",
// pam_authenticate and pam_acct_mgmt with PAM_DISALLOW_NULL_AUTHTOK, and a re-check that PAM_USER
// still names the account asked for. PAM's prompts travel through the channel; an empty answer to
// a password prompt is refused before PAM sees it. Retries, back-off and group membership are the
// caller's business.
//
// Responses are copied only into buffers PAM frees itself, and every buffer of ours that held one
// is wiped. Each call runs its own PAM transaction, so calls on different threads are independent
// (as far as the configured PAM modules are); the object itself holds no state.

#include <optional>
#include <string>

#include "authorization/AuthorityProtocol.h"
#include "authorization/Clock.h"

namespace krv::auth {

inline constexpr const char* kPamServiceName = "com.tavorin.system.authority";

// The client side of an authentication, as the authenticator sees it.
class PromptChannel {
 public:
  virtual ~PromptChannel() = default;
  // Shows a prompt that expects an answer; nothing when the client is gone or broke the protocol.
  virtual std::optional<Answer> ask(const Prompt& prompt) = 0;
  // Shows a message; false when the client is gone.
  virtual bool tell(const Prompt& prompt) = 0;
  // Waits for `duration`; false when the client hung up meanwhile.
  virtual bool pause(Instant duration) = 0;
};

enum class AuthenticationOutcome : std::uint8_t {
  Authenticated,
  Failed,         // wrong password, unknown account, empty password: worth another try
  Refused,        // the account may not be used now (expired, locked, not permitted)
  Cancelled,      // the user cancelled
  NoInteraction,  // the client has no way to ask
  Disconnected,   // the client went away or answered nonsense
  Error,          // PAM or a module could not do its work (no verdict on password or account)
};

struct AuthenticationResult {
  AuthenticationOutcome outcome = AuthenticationOutcome::Error;
  std::string account;  // the account PAM authenticated (Authenticated only)
};

class Authenticator {
 public:
  virtual ~Authenticator() = default;
  // `requester` is the name of the user asking (for PAM_RUSER), possibly empty.
  virtual AuthenticationResult authenticate(const std::string& account,
                                            const std::string& requester,
                                            PromptChannel& channel) = 0;
};

class PamAuthenticator final : public Authenticator {
 public:
  explicit PamAuthenticator(std::string service = kPamServiceName);
  AuthenticationResult authenticate(const std::string& account, const std::string& requester,
                                    PromptChannel& channel) override;

 private:
  std::string m_service;
};

}  // namespace krv::auth
