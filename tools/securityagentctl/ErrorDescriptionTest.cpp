#include "tools/securityagentctl/ErrorDescription.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "authorization/Authorization.h"
#include "protocol/CommandCodes.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"
#include "tools/securityagentctl/PasswordPrompt.h"

namespace krv::ctl {
namespace {

Error commandResult(std::int64_t code, Dictionary info = {}) {
  return Error(std::string(kCommandErrorDomain), code, std::move(info));
}

Dictionary entry(std::string_view key, Value value) {
  Dictionary info;
  info.set(key, std::move(value));
  return info;
}

TEST(ErrorDescriptionTest, NamesThePathTheResultOrTheArgumentsGive) {
  // FailingPath wins, shown escaped whatever its bytes.
  const Error gone(std::string(kPosixErrorDomain), ENOENT,
                   entry(key::kFailingPath, Value(Data{'/', 't', '\n', 0xff})));
  EXPECT_EQ(
      describeFailure(kCommandDeleteFileObjects, {Value("1"), Value("/a"), Value("/b")}, gone),
      "securityagentctl: cannot delete '/t\\n\\xff': No such file or directory");
  // Without one: the only path among the arguments, also inside a repeated group ...
  const Error plain(std::string(kPosixErrorDomain), ENOTDIR);
  EXPECT_EQ(describeFailure(
                kCommandSearchNamePatterns,
                {Value("/srv"), Value("1"), Value("0"), Value("a"), Value("2"), Value("b")}, plain),
            "securityagentctl: cannot search '/srv': Not a directory");
  EXPECT_EQ(describeFailure(kCommandDeleteFileObjects, {Value("1"), Value("/only")}, plain),
            "securityagentctl: cannot delete '/only': Not a directory");
  // ... and none when several paths could be meant.
  EXPECT_EQ(
      describeFailure(kCommandDeleteFileObjects, {Value("1"), Value("/a"), Value("/b")}, plain),
      "securityagentctl: cannot delete: Not a directory");
  EXPECT_EQ(describeFailure(kCommandRenameFileObject, {Value("/a"), Value("/b")}, plain),
            "securityagentctl: cannot rename: Not a directory");
}

TEST(ErrorDescriptionTest, ExplainsEveryKindOfResult) {
  const auto authorization = [](std::int32_t status) {
    return describeFailure(kCommandDeleteFileObjects, {},
                           commandResult(kResultAuthorizationFailed,
                                         entry(key::kUnderlyingErrorCode, Value::integer(status))));
  };
  EXPECT_EQ(authorization(auth::kStatusCanceled),
            "securityagentctl: not authorized to delete file objects: authorization canceled");
  EXPECT_NE(authorization(auth::kStatusDenied).find("authorization denied"), std::string::npos);
  EXPECT_NE(authorization(auth::kStatusInteractionNotAllowed).find("none could be asked"),
            std::string::npos);
  EXPECT_NE(authorization(-60099).find("authorization failed (-60099)"), std::string::npos);

  EXPECT_EQ(describeFailure(kCommandExecuteCupsctl, {Value("-x")},
                            commandResult(kResultProgramFailed,
                                          entry(key::kUnderlyingErrorCode, Value::integer(3)))),
            "securityagentctl: cannot run cupsctl: the program failed (exit status 3)");
  EXPECT_EQ(describeFailure(kCommandNone, {},
                            Error(std::string(kTransportErrorDomain), kTransportPipeNotCreated)),
            "securityagentctl: cannot reach the daemon: the daemon could not create the response "
            "pipe");
  EXPECT_EQ(describeFailure(kCommandSetSystemConfig, {},
                            commandResult(kResultNotAPropertyList,
                                          entry(key::kUnderlyingErrorMessage,
                                                Value("line 1: unterminated dictionary")))),
            "securityagentctl: cannot set the configuration value: the value is not a property "
            "list: line 1: unterminated dictionary");
  // A domain or code nobody knows is shown as it came, escaped.
  EXPECT_EQ(describeFailure(kCommandNone, {}, Error("odd\ndomain", 77)),
            "securityagentctl: cannot reach the daemon: odd\\ndomain code 77");
  // Not a command this client knows: still one line.
  EXPECT_EQ(describeFailure(99, {}, Error(std::string(kPosixErrorDomain), EIO)),
            "securityagentctl: cannot run the command: Input/output error");
  // ENOSYS: a command this daemon does not carry out.
  EXPECT_NE(describeFailure(kCommandExecuteLipo, {}, Error(std::string(kPosixErrorDomain), ENOSYS))
                .find("does not carry out"),
            std::string::npos);
}

// A terminal that records what it was asked.
class RecordingHandler final : public auth::PromptHandler {
 public:
  bool canAsk() override { return true; }
  auth::Answer ask(const auth::Prompt& prompt) override {
    asked.push_back(prompt.message);
    return {};
  }
  void show(const auth::Prompt& prompt) override { shown.push_back(prompt.message); }
  std::vector<std::string> asked;
  std::vector<std::string> shown;
};

TEST(PasswordPromptTest, SaysWhatIsAuthorizedAndWhosePasswordIsAsked) {
  auto terminal = std::make_shared<RecordingHandler>();
  CommandPromptHandler handler("delete file objects", "alice", terminal);
  handler.ask({auth::PromptStyle::Secret, "Password: "});
  handler.show({auth::PromptStyle::Error, "Sorry, try again."});
  handler.ask({auth::PromptStyle::Secret, "password:"});
  handler.ask({auth::PromptStyle::Secret, "Verification code: "});
  handler.ask({auth::PromptStyle::Visible, "Password: "});  // echoed questions are PAM's own
  EXPECT_EQ(terminal->asked, (std::vector<std::string>{
                                 "Authentication is needed to delete file objects as the "
                                 "administrator. Password for alice: ",
                                 "Password for alice: ", "Verification code: ", "Password: "}));
  EXPECT_EQ(terminal->shown, std::vector<std::string>{"Sorry, try again."});

  // Another first question, or a user without a name: PAM's question after the first line.
  auto other = std::make_shared<RecordingHandler>();
  CommandPromptHandler unnamed("compare folders", "", other);
  unnamed.ask({auth::PromptStyle::Secret, "Password: "});
  EXPECT_EQ(other->asked, std::vector<std::string>{"Authentication is needed to compare folders "
                                                   "as the administrator.\nPassword: "});
}

}  // namespace
}  // namespace krv::ctl
