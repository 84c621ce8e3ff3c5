#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <thread>

#include "authorization/PromptHandler.h"
#include "tests/support/ChildProcess.h"

namespace krv::auth {
namespace {

using namespace std::chrono_literals;

// A pseudo-terminal that becomes the controlling terminal of a child, so that the child's
// /dev/tty is the terminal the test types into.
class PromptHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    int master = -1;
    int slave = -1;
    ASSERT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    m_master.reset(master);
    m_slave.reset(slave);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
  }

  // Starts the child in its own session with the terminal as its controlling terminal.
  test::ChildProcess startOnTerminal(const test::ChildProcess::Body& body) {
    const int slave = m_slave.get();
    Result<test::ChildProcess> child = test::ChildProcess::start(
        {::getuid(), ::getgid()}, [slave, body](test::LineChannel& parent) {
          if (::setsid() < 0 || ::ioctl(slave, TIOCSCTTY, 0) != 0) return 90;
          return body(parent);
        });
    EXPECT_TRUE(child.ok());
    return std::move(child).value();
  }

  // Reads what the child writes to the terminal until `expected` shows up (or 5 s pass) and
  // returns it; the next call starts after it.
  std::string readUntil(std::string_view expected) {
    const auto deadline = std::chrono::steady_clock::now() + 5s;
    std::size_t found = std::string::npos;
    while ((found = m_screen.find(expected)) == std::string::npos &&
           std::chrono::steady_clock::now() < deadline) {
      pollfd entry{m_master.get(), POLLIN, 0};
      if (::poll(&entry, 1, 100) <= 0) continue;
      char buffer[256];
      ssize_t count = ::read(m_master.get(), buffer, sizeof buffer);
      if (count > 0) m_screen.append(buffer, static_cast<std::size_t>(count));
    }
    EXPECT_NE(found, std::string::npos) << "waiting for '" << expected << "'";
    const std::size_t end = found == std::string::npos ? m_screen.size() : found + expected.size();
    std::string seen = m_screen.substr(0, end);
    m_screen.erase(0, end);
    return seen;
  }

  void type(std::string_view text) {
    ASSERT_EQ(::write(m_master.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  bool echoing() {
    termios attributes{};
    EXPECT_EQ(::tcgetattr(m_slave.get(), &attributes), 0);
    return (attributes.c_lflag & ECHO) != 0;
  }

  UniqueFd m_master;
  UniqueFd m_slave;
  std::string m_screen;
};

std::string lineFrom(test::ChildProcess& child) {
  Result<std::string> line = child.channel().receive(5s);
  return line ? *line : "<" + line.error().description() + ">";
}

int exitCodeOf(test::ChildProcess& child) {
  Result<int> code = child.wait(5s);
  return code ? *code : -1;
}

int askAndReport(test::LineChannel& parent) {
  TerminalPromptHandler handler;
  if (!handler.canAsk()) return 91;
  Answer answer = handler.ask(Prompt{PromptStyle::Secret, "Password:"});
  std::string kind = answer.kind == AnswerKind::Response ? "response"
                     : answer.kind == AnswerKind::Cancel ? "cancel"
                                                         : "unavailable";
  (void)parent.send(kind + ":" + std::string(answer.response.view()));
  return 0;
}

TEST_F(PromptHandlerTest, ReadsThePasswordFromTheTerminalWithoutEcho) {
  ASSERT_TRUE(echoing());
  test::ChildProcess child = startOnTerminal(askAndReport);
  readUntil("Password:");
  EXPECT_FALSE(echoing()) << "echo is off while the user types";
  type("s3cret words\n");
  EXPECT_EQ(lineFrom(child), "response:s3cret words");
  EXPECT_EQ(exitCodeOf(child), 0);
  EXPECT_TRUE(echoing()) << "the terminal is restored";
  EXPECT_EQ(readUntil("\n").find("s3cret"), std::string::npos) << "the password was never shown";
}

TEST_F(PromptHandlerTest, AnInterruptRestoresTheTerminalAndStillReachesTheProgram) {
  test::ChildProcess child = startOnTerminal([](test::LineChannel& parent) {
    static volatile sig_atomic_t interrupted = 0;
    ::signal(SIGINT, [](int) { interrupted = 1; });
    int code = askAndReport(parent);
    (void)parent.send(interrupted ? "interrupted" : "not interrupted");
    return code;
  });
  readUntil("Password:");
  ASSERT_FALSE(echoing());
  type("half-typed");
  ::kill(child.pid(), SIGINT);
  EXPECT_EQ(lineFrom(child), "cancel:");
  EXPECT_EQ(lineFrom(child), "interrupted") << "the signal was delivered again";
  EXPECT_EQ(exitCodeOf(child), 0);
  EXPECT_TRUE(echoing());
}

TEST_F(PromptHandlerTest, EndOfInputAndOverlongLinesCancel) {
  test::ChildProcess child = startOnTerminal(askAndReport);
  readUntil("Password:");
  type("\x04");  // ^D on an empty line
  EXPECT_EQ(lineFrom(child), "cancel:");
  EXPECT_EQ(exitCodeOf(child), 0);

  test::ChildProcess again = startOnTerminal(askAndReport);
  readUntil("Password:");
  type(std::string(Secret::kCapacity + 10, 'x') + "\n");
  EXPECT_EQ(lineFrom(again), "cancel:");
  EXPECT_EQ(exitCodeOf(again), 0);
  EXPECT_TRUE(echoing());
}

TEST(PromptHandlerWithoutTerminalTest, SaysItCannotAsk) {
  // A child without a controlling terminal has no /dev/tty, whatever its standard input is.
  Result<int> code = test::runAs({::getuid(), ::getgid()}, [] {
    if (::setsid() < 0) return 90;
    TerminalPromptHandler handler;
    if (handler.canAsk()) return 1;
    Answer answer = handler.ask(Prompt{PromptStyle::Secret, "Password:"});
    return answer.kind == AnswerKind::Unavailable ? 0 : 2;
  });
  ASSERT_TRUE(code.ok());
  EXPECT_EQ(*code, 0);
  TerminalPromptHandler notATerminal("/dev/null");
  EXPECT_FALSE(notATerminal.canAsk());
}

TEST(PromptHandlerSelectionTest, TheInstalledCallbackAnswers) {
  setPromptHandler(std::make_shared<CallbackPromptHandler>([](const Prompt& prompt) {
    Answer answer;
    answer.kind = AnswerKind::Response;
    answer.response.append(prompt.message == "Password:" ? "from the dialog" : "?");
    return answer;
  }));
  std::shared_ptr<PromptHandler> handler = currentPromptHandler();
  EXPECT_TRUE(handler->canAsk());
  EXPECT_EQ(handler->ask(Prompt{PromptStyle::Secret, "Password:"}).response.view(),
            "from the dialog");
  setPromptHandler(nullptr);
  EXPECT_NE(dynamic_cast<TerminalPromptHandler*>(currentPromptHandler().get()), nullptr);
  CallbackPromptHandler empty(nullptr);
  EXPECT_FALSE(empty.canAsk());
  EXPECT_EQ(empty.ask(Prompt{}).kind, AnswerKind::Unavailable);
}

}  // namespace
}  // namespace krv::auth
