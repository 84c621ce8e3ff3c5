// A person at a terminal: authorityctl, run as alice on a pseudo-terminal, asks for her password
// through the service and PAM; the test types it like a user would.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "tests/authority/AuthorityFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

class TerminalPromptTest : public AuthorityFixture {
 protected:
  // Starts `authorityctl authorize RIGHT` as alice with the terminal as its controlling terminal
  // and its standard input, output and error.
  ChildProcess startAuthorize(const std::string& right) {
    return startOnTerminal({KRV_AUTHORITYCTL_BINARY, "authorize", right});
  }

  // Starts a program as alice on a new pseudo-terminal, its controlling terminal and its standard
  // input, output and error.
  ChildProcess startOnTerminal(std::vector<std::string> command) {
    int master = -1;
    int slave = -1;
    EXPECT_EQ(::openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    m_master.reset(master);
    UniqueFd slaveEnd(slave);
    Result<ChildProcess> child =
        ChildProcess::start({kAlice, kAlice}, [slave, command](LineChannel&) {
          if (::setsid() < 0 || ::ioctl(slave, TIOCSCTTY, 0) != 0) return 90;
          for (int fd = 0; fd < 3; ++fd) ::dup2(slave, fd);
          std::vector<char*> argv;
          for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
          argv.push_back(nullptr);
          ::execv(argv[0], argv.data());
          return 127;
        });
    EXPECT_TRUE(child.ok());
    m_slave = std::move(slaveEnd);
    return std::move(child).value();
  }

  // Reads the terminal until `expected` appears or the program closes it.
  bool readUntil(std::string_view expected, std::chrono::milliseconds timeout = 20s) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_screen.find(expected, m_consumed) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      pollfd entry{m_master.get(), POLLIN, 0};
      if (::poll(&entry, 1, 100) <= 0) continue;
      char buffer[512];
      ssize_t count = ::read(m_master.get(), buffer, sizeof buffer);
      if (count <= 0) return false;  // EIO: every writer of the terminal is gone
      m_screen.append(buffer, static_cast<std::size_t>(count));
    }
    m_consumed = m_screen.find(expected, m_consumed) + expected.size();
    return true;
  }

  void type(std::string_view text) {
    ASSERT_EQ(::write(m_master.get(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }

  bool echoing() {
    termios attributes{};
    return ::tcgetattr(m_slave.get(), &attributes) == 0 && (attributes.c_lflag & ECHO) != 0;
  }

  UniqueFd m_master;
  UniqueFd m_slave;
  std::string m_screen;
  std::size_t m_consumed = 0;
};

TEST_F(TerminalPromptTest, AUserTypesHerPasswordIntoTheClient) {
  ChildProcess client = startAuthorize(kDefaultRight);
  ASSERT_TRUE(readUntil("assword")) << m_screen;
  EXPECT_FALSE(echoing()) << "the terminal does not echo the password";
  type("alice-password\n");
  ASSERT_TRUE(readUntil("right 'com.test.default' obtained")) << m_screen;
  EXPECT_EQ(client.wait(10s).valueOr(-1), 0);
  EXPECT_EQ(m_screen.find("alice-password"), std::string::npos) << m_screen;
  EXPECT_TRUE(echoing()) << "and is restored afterwards";
}

TEST_F(TerminalPromptTest, ThreeWrongPasswordsEndInDenial) {
  ChildProcess client = startAuthorize(kDefaultRight);
  for (const char* guess : {"first-guess\n", "second-guess\n", "third-guess\n"}) {
    ASSERT_TRUE(readUntil("assword")) << m_screen;
    type(guess);
  }
  ASSERT_TRUE(readUntil("not obtained: denied")) << m_screen;
  EXPECT_EQ(client.wait(10s).valueOr(-1), 1);
  EXPECT_NE(m_screen.find("Sorry, try again."), std::string::npos) << m_screen;
  EXPECT_EQ(m_screen.find("guess"), std::string::npos) << m_screen;
}

TEST_F(TerminalPromptTest, TheCommandLineClientAsksForThePasswordAndRunsTheCommand) {
  // The daemon, started as the service manager would, defines its rights with the service.
  Result<ServiceProcess> daemon = ServiceProcess::start(
      {"/run/com.tavorin.system.securityagent3.socket", KRV_DAEMON_BINARY, {"d"}, {}, 0666});
  ASSERT_TRUE(daemon.ok());
  ChildProcess client = startOnTerminal({KRV_CLIENT_BINARY, "whoami", "1"});
  ASSERT_TRUE(readUntil("assword")) << m_screen;
  EXPECT_FALSE(echoing());
  type("alice-password\n");
  // The diagnostic's progress, then the program's output: the daemon's user.
  ASSERT_TRUE(readUntil("OK")) << m_screen << daemon->standardError();
  ASSERT_TRUE(readUntil("OutputChannel: root")) << m_screen;
  EXPECT_EQ(client.wait(10s).valueOr(-1), 0);
  EXPECT_EQ(m_screen.find("alice-password"), std::string::npos) << m_screen;
}

}  // namespace
}  // namespace krv::test
