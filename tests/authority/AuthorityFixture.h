#pragma once
// The fixture of the authorization service's end-to-end tests: a private sandbox (once per test
// process), a made-up user database (nss_wrapper) and password database (pam_matrix through
// pam_wrapper), and the real service binary started by socket activation at its real path,
// "/run/com.tavorin.system.authority.socket", with the wrappers preloaded into it only.
//
// The accounts:
//   alice  1001  administrator (group "sudo")   password "alice-password"
//   bob    1002  ordinary user                  password "bob-password"
//   carol  1003  administrator                  password "carol-password", but PAM's account
//                                               check refuses her for this service
//   dave   1004  administrator                  empty password
//   erin   1005  ordinary user                  unknown to PAM
//   uid 1009 has no account at all.

#include <sys/resource.h>
#include <sys/types.h>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authorization/AuthorityProtocol.h"
#include "authorization/Authorization.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ServiceProcess.h"

namespace krv::test {

inline constexpr uid_t kAlice = 1001;
inline constexpr uid_t kBob = 1002;
inline constexpr uid_t kCarol = 1003;
inline constexpr uid_t kDave = 1004;
inline constexpr uid_t kErin = 1005;
inline constexpr uid_t kNobodyKnown = 1009;

inline constexpr const char* kDefaultRight = "com.test.default";

// The flags of an interactive client: ask the user if needed, obtain the right, pre-authorize.
inline constexpr std::uint32_t kClientFlags =
    auth::kFlagInteractionAllowed | auth::kFlagExtendRights | auth::kFlagPreAuthorize;

class AuthorityFixture : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Defines a right through the service, as root.
  void defineRight(const std::string& right, const std::string& rule);
  std::string rightFile(const std::string& right) const;

  // Runs `body` in a child as the user and returns the lines it sent (until it exits).
  std::vector<std::string> asUser(uid_t uid, const std::function<void(LineChannel&)>& body);

  ServiceProcess& service() { return *m_service; }
  std::string serviceLog() const { return m_service ? m_service->standardError() : ""; }
  // Waits until the service's log holds the text.
  bool waitForLog(std::string_view text, std::chrono::milliseconds timeout);

  // The soft descriptor limit the service is started with (by default the test's own).
  std::optional<rlim_t> m_launchDescriptorLimit;
  // Where the made-up user and password databases and the PAM configuration are written; the
  // service must see the folder (a private /tmp hides the test's).
  std::string m_scratch = "/tmp/krv-authority";
  // The confinement the service is started under, when a test mirrors its unit's.
  std::optional<ServiceConfinement> m_launchConfinement;

 private:
  std::optional<ServiceProcess> m_service;
};

// One connection driven by hand, as a hostile client would.
class RawConnection {
 public:
  // Connects to the service and sends the request; false when either fails.
  bool open(const auth::Request& request);
  // The next message of the service; nothing once the connection ended or after the timeout.
  std::optional<auth::ServiceMessage> next(
      std::chrono::milliseconds timeout = std::chrono::seconds(30));
  bool answer(auth::AnswerKind kind, std::string_view response = {});
  // Stops sending and waits until the service closes the connection; true when it closed it
  // without a word.
  bool hangUpAndWaitForClose(std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  UniqueFd m_socket;
};

// A copy-rights request of an interactive client for the right, with the authorization's token.
auth::Request copyRightsRequest(auth::Authorization& authorization, const std::string& right,
                                const std::string& account = {});

// Creates an authorization and obtains the right with the given answers (nothing = cancel); sends
// the parent the status, the number of prompts and the token. The token lives as long as the
// returned authorization.
std::unique_ptr<auth::Authorization> obtainRight(LineChannel& parent, const std::string& right,
                                                 std::vector<std::optional<std::string>> answers);

// The daemon's part: validates a token for the user its client claims to be.
std::int32_t validate(const auth::ExternalForm& token, uid_t claimed,
                      const std::string& right = kDefaultRight);

// Installs a prompt handler that answers the prompts with these responses in order (nothing =
// cancel) and counts the questions in *asked; once the script is used up it cancels.
void answerPrompts(std::vector<std::optional<std::string>> responses, int* asked = nullptr);

// In a child: replaces the process by the program command[0] with the arguments; 127 if it
// cannot.
int execute(const std::vector<std::string>& command);
// The same, with the test's accounts visible to the program (alice is a name, not just 1001).
int executeSeeingTestUsers(const std::vector<std::string>& command);

// A service status as a line.
inline std::string line(std::int32_t status) { return std::to_string(status); }

// A token from its hex text (Sha256::hex writes it).
auth::ExternalForm tokenFromHex(const std::string& text);

}  // namespace krv::test
