#include <signal.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "authorization/PromptHandler.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/PseudoTerminal.h"

namespace krv::auth {
namespace {

using namespace std::chrono_literals;

// In a child on its own terminal: asks once for a password and reports the answer, then whether
// an interrupt reached the program.
int askAndReport(test::LineChannel& parent) {
  static volatile sig_atomic_t interrupted = 0;
  ::signal(SIGINT, [](int) { interrupted = 1; });
  TerminalPromptHandler handler;
  if (!handler.canAsk()) return 91;
  Answer answer = handler.ask(Prompt{PromptStyle::Secret, "Password:"});
  const char* kind = answer.kind == AnswerKind::Response ? "response:"
                     : answer.kind == AnswerKind::Cancel ? "cancel:"
                                                         : "unavailable:";
  (void)parent.send(kind + std::string(answer.response.view()));
  (void)parent.send(interrupted ? "interrupted" : "not interrupted");
  return 0;
}

TEST(PromptHandlerTest, ReadsFromTheTerminalWithoutEchoAndAlwaysRestoresIt) {
  struct Case {
    const char* scenario;
    std::string typed;
    bool interrupt;
    const char* answer;
  };
  const Case cases[] = {
      {"a line", "s3cret words\n", false, "response:s3cret words"},
      {"end of input on an empty line", "\x04", false, "cancel:"},
      {"a line longer than a secret", std::string(Secret::kCapacity + 10, 'x') + "\n", false,
       "cancel:"},
      // The interrupt is delivered again once the terminal is restored.
      {"an interrupt", "half-typed", true, "cancel:"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    test::PseudoTerminal terminal;
    ASSERT_TRUE(terminal.valid());
    ASSERT_TRUE(terminal.echoing());
    Result<test::ChildProcess> child =
        test::ChildProcess::start({::getuid(), ::getgid()}, [&terminal](test::LineChannel& parent) {
          return terminal.becomeControllingTerminal() ? askAndReport(parent) : 90;
        });
    ASSERT_TRUE(child.ok());
    ASSERT_TRUE(terminal.readUntil("Password:", 5s));
    EXPECT_FALSE(terminal.echoing()) << "echo is off while the user types";
    ASSERT_TRUE(terminal.type(c.typed));
    if (c.interrupt) ::kill(child->pid(), SIGINT);
    EXPECT_EQ(child->channel().receive(5s).valueOr("<nothing>"), c.answer);
    EXPECT_EQ(child->channel().receive(5s).valueOr("<nothing>"),
              c.interrupt ? "interrupted" : "not interrupted");
    EXPECT_EQ(child->wait(5s).valueOr(-1), 0);
    EXPECT_TRUE(terminal.echoing()) << "the terminal is restored";
    EXPECT_EQ(terminal.screen().find(c.typed.substr(0, 4)), std::string::npos)
        << "what was typed is never shown";
  }
}

TEST(PromptHandlerTest, WithoutATerminalOrACallbackNothingCanBeAsked) {
  // A child without a controlling terminal has no /dev/tty, whatever its standard input is.
  Result<int> code = test::runAs({::getuid(), ::getgid()}, [] {
    if (::setsid() < 0) return 90;
    TerminalPromptHandler handler;
    if (handler.canAsk()) return 1;
    return handler.ask(Prompt{PromptStyle::Secret, "Password:"}).kind == AnswerKind::Unavailable
               ? 0
               : 2;
  });
  EXPECT_EQ(std::move(code).valueOr(-1), 0);
  EXPECT_FALSE(TerminalPromptHandler("/dev/null").canAsk());
  CallbackPromptHandler empty(nullptr);
  EXPECT_FALSE(empty.canAsk());
  EXPECT_EQ(empty.ask(Prompt{}).kind, AnswerKind::Unavailable);

  // Removing an installed handler brings the terminal back.
  setPromptHandler(std::make_shared<CallbackPromptHandler>(nullptr));
  setPromptHandler(nullptr);
  EXPECT_NE(dynamic_cast<TerminalPromptHandler*>(currentPromptHandler().get()), nullptr);
}

}  // namespace
}  // namespace krv::auth
