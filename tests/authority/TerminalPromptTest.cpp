// A person at a terminal: the clients, run as alice on a pseudo-terminal, ask for her password
// through the service and PAM; the test types it like a user would.

#include <fcntl.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/authority/AuthorityFixture.h"
#include "tests/support/PseudoTerminal.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

class TerminalPromptTest : public AuthorityFixture {
 protected:
  // Starts a program as alice with the terminal as its controlling terminal and its standard
  // input, output and error.
  // With `seeingUsers`, the program sees the test's accounts by name; with `outputToNull`, its
  // standard output goes to /dev/null instead of the terminal.
  ChildProcess startOnTerminal(std::vector<std::string> command, bool seeingUsers = false,
                               bool outputToNull = false) {
    Result<ChildProcess> child = ChildProcess::start(
        {kAlice, kAlice}, [this, command, seeingUsers, outputToNull](LineChannel&) {
          if (!m_terminal.becomeControllingTerminal()) return 90;
          for (int fd = 0; fd < 3; ++fd) ::dup2(m_terminal.slave(), fd);
          if (outputToNull) {
            const int null = ::open("/dev/null", O_WRONLY | O_CLOEXEC);
            if (null < 0 || ::dup2(null, 1) < 0) return 91;
          }
          return seeingUsers ? executeSeeingTestUsers(command) : execute(command);
        });
    EXPECT_TRUE(child.ok());
    return std::move(child).value();
  }

  PseudoTerminal m_terminal;
};

TEST_F(TerminalPromptTest, AUserTypesAWrongAndThenHerRightPasswordIntoTheAdministrationTool) {
  ChildProcess client = startOnTerminal({KRV_AUTHORITYCTL_BINARY, "authorize", kDefaultRight});
  ASSERT_TRUE(m_terminal.readUntil("assword")) << m_terminal.screen();
  EXPECT_FALSE(m_terminal.echoing()) << "the terminal does not echo the password";
  ASSERT_TRUE(m_terminal.type("first-guess\n"));
  ASSERT_TRUE(m_terminal.readUntil("Sorry, try again.")) << m_terminal.screen();
  ASSERT_TRUE(m_terminal.readUntil("assword")) << m_terminal.screen();
  ASSERT_TRUE(m_terminal.type("alice-password\n"));
  ASSERT_TRUE(m_terminal.readUntil("right 'com.test.default' obtained")) << m_terminal.screen();
  EXPECT_EQ(client.wait(10s).valueOr(-1), 0);
  EXPECT_EQ(m_terminal.screen().find("guess"), std::string::npos) << m_terminal.screen();
  EXPECT_EQ(m_terminal.screen().find("alice-password"), std::string::npos) << m_terminal.screen();
  EXPECT_TRUE(m_terminal.echoing()) << "and is restored afterwards";
}

TEST_F(TerminalPromptTest, TheCommandLineClientAsksForThePasswordAndRunsTheCommand) {
  // The daemon, started as the service manager would, defines its rights with the service.
  Result<ServiceProcess> daemon = ServiceProcess::start(
      {"/run/com.tavorin.system.securityagent3.socket", KRV_DAEMON_BINARY, {"d"}, {}, 0666});
  ASSERT_TRUE(daemon.ok());
  ChildProcess client = startOnTerminal({KRV_CLIENT_BINARY, "whoami", "1"}, true);
  // The prompt says what the password is for and whose it is; a wrong one is asked again.
  ASSERT_TRUE(
      m_terminal.readUntil("Authentication is needed to run diagnostics as the "
                           "administrator. Password for alice: "))
      << m_terminal.screen();
  EXPECT_FALSE(m_terminal.echoing());
  ASSERT_TRUE(m_terminal.type("wrong-guess\n"));
  ASSERT_TRUE(m_terminal.readUntil("Sorry, try again.")) << m_terminal.screen();
  ASSERT_TRUE(m_terminal.readUntil("Password for alice: ")) << m_terminal.screen();
  ASSERT_TRUE(m_terminal.type("alice-password\n"));
  // The diagnostic's progress as a bar (a terminal), then the program's output: the daemon's user.
  ASSERT_TRUE(m_terminal.readUntil("] 100%")) << m_terminal.screen() << daemon->standardError();
  ASSERT_TRUE(m_terminal.readUntil("OK")) << m_terminal.screen() << daemon->standardError();
  ASSERT_TRUE(m_terminal.readUntil("OutputChannel: root")) << m_terminal.screen();
  EXPECT_EQ(client.wait(10s).valueOr(-1), 0);
  EXPECT_EQ(m_terminal.screen().find("alice-password"), std::string::npos) << m_terminal.screen();
  EXPECT_EQ(m_terminal.screen().find("guess"), std::string::npos) << m_terminal.screen();

  // Its output into a file: no bar on the terminal, although standard error is still one. (The
  // credential just obtained still serves; should the service ask again, she answers.)
  const std::size_t before = m_terminal.screen().size();
  ChildProcess quiet = startOnTerminal({KRV_CLIENT_BINARY, "whoami", "1"}, true, true);
  if (m_terminal.readUntil("Password for alice: ", 2s)) {
    ASSERT_TRUE(m_terminal.type("alice-password\n"));
  }
  EXPECT_EQ(quiet.wait(10s).valueOr(-1), 0) << m_terminal.screen();
  (void)m_terminal.readUntil("never shown", 200ms);  // collects what else the terminal got
  EXPECT_EQ(m_terminal.screen().find('%', before), std::string::npos) << m_terminal.screen();
}

}  // namespace
}  // namespace krv::test
