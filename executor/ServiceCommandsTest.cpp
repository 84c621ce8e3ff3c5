// Service and process commands through the executor: run files in a temporary tree, real child
// processes to signal, and fake service programs in the tree.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/SettingsTestSupport.h"

namespace krv {
namespace {

using test::number;
using test::text;

constexpr const char* kNFSRunFile = "var/run/nfsd.pid";
constexpr const char* kMarker = "tmp/.KnobwerkStartupSound.txt";
// Above the kernel's highest process id (at most 2^22): never a process, never one reused.
constexpr const char* kNoProcess = "2147483647";

// A child that waits for a signal; reaped by the test.
class Child {
 public:
  Child() {
    m_pid = ::fork();
    if (m_pid == 0) {
      for (;;) ::pause();
    }
  }
  ~Child() {
    if (m_pid > 0 && !m_reaped) {
      ::kill(m_pid, SIGKILL);
      ::waitpid(m_pid, nullptr, 0);
    }
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  pid_t pid() const { return m_pid; }
  // The signal that ended the child (waits for its end).
  int endingSignal() {
    int status = 0;
    ::waitpid(m_pid, &status, 0);
    m_reaped = true;
    return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
  }
  bool isRunning() const {
    int status = 0;
    return ::waitpid(m_pid, &status, WNOHANG) == 0;
  }

 private:
  pid_t m_pid = -1;
  bool m_reaped = false;
};

class ServiceCommandTest : public test::SettingsCommandTest {
 protected:
  void program(const std::string& relative, const std::string& body) {
    file(relative, "#!/bin/sh\n" + body + "\n", 0755);
  }
};

TEST_F(ServiceCommandTest, RunFilesNameTheProcessThatIsSignalled) {
  expectCode(run(27, {}), 18);  // no run file
  Child server;
  file(kNFSRunFile, " " + std::to_string(server.pid()) + "\n");
  expectCode(run(27, {}), 0);
  EXPECT_EQ(server.endingSignal(), SIGHUP);
  // A process that does not exist (above any process id the kernel gives).
  file(kNFSRunFile, kNoProcess);
  expectCode(run(27, {}), 19);

  Child tool;
  file(kMarker, std::to_string(tool.pid()));
  expectCode(run(28, {}), 0);
  EXPECT_EQ(tool.endingSignal(), SIGKILL);

  // Only the low 32 bits are a process id: 2^32 names process 0, which is no process.
  for (const char* contents : {"0", "none", "4294967296", "\xff\xfe"}) {
    file(kMarker, contents);
    expectCode(run(28, {}), 18);
  }
  file(kMarker, "-1");  // all processes: never
  expectCode(run(28, {}), 19);
}

TEST_F(ServiceCommandTest, AUsersRunFileNamesOnlyHerProcessesAndNeverADevice) {
  Child rootProcess;
  file(kMarker, std::to_string(rootProcess.pid()));
  (void)::chown(path(kMarker).c_str(), 4101, 4101);
  expectCode(run(28, {}), 19);
  EXPECT_TRUE(rootProcess.isRunning());

  ::unlink(path(kMarker).c_str());
  m_tree.makeLink(kMarker, "/dev/zero");
  (void)::lchown(path(kMarker).c_str(), 4101, 4101);
  expectCode(run(28, {}), 18);
  ::unlink(path(kMarker).c_str());
  // A FIFO in the marker's place never holds the command up.
  m_tree.makeFifo(kMarker);
  expectCode(run(28, {}), 18);
}

TEST_F(ServiceCommandTest, TerminationAsksTheProcessToEnd) {
  expectCode(run(29, {number(0)}), 3);
  expectCode(run(29, {number(-4)}), 3);
  Child child;
  expectCode(run(29, {number(child.pid())}), 0);
  EXPECT_EQ(child.endingSignal(), SIGTERM);
  expectCode(run(29, {number(std::stoll(kNoProcess))}), 19);
}

TEST_F(ServiceCommandTest, LookupCacheFlushRunsTheCounterpartThatIsThere) {
  CommandResult result = run(30, {});
  expectCode(result, 5);
  EXPECT_EQ(test::textOf(*result, "FailingPath"), "/usr/bin/dscacheutil");

  program("usr/sbin/nscd", "echo nscd \"$@\"");
  result = run(30, {});
  expectCode(result, 0);
  EXPECT_EQ(test::textOf(*result, "OutputChannel"), "nscd --invalidate hosts\n");

  // The resolver service runs: its tool is preferred.
  program("usr/bin/resolvectl", "echo resolvectl \"$@\"");
  EXPECT_EQ(test::textOf(*run(30, {}), "OutputChannel"), "nscd --invalidate hosts\n");
  folders("run/systemd/resolve");
  EXPECT_EQ(test::textOf(*run(30, {}), "OutputChannel"), "resolvectl flush-caches\n");
}

TEST_F(ServiceCommandTest, AutomounterRefreshNeedsTheAutomountersUnit) {
  program("usr/bin/systemctl", "echo systemctl \"$@\"; exit 3");
  CommandResult result = run(26, {});
  expectCode(result, 5);
  EXPECT_EQ(test::textOf(*result, "FailingPath"), "/usr/sbin/automount");
  file("lib/systemd/system/autofs.service", "[Service]\n");
  result = run(26, {});
  expectCode(result, 6);
  EXPECT_EQ(test::textOf(*result, "OutputChannel"), "systemctl reload autofs\n");
  EXPECT_EQ(test::textOf(*result, "UnderlyingErrorCode"), "3");
}

TEST_F(ServiceCommandTest, ToolCommandsRunTheLinuxCounterpartOfAMissingProgram) {
  CommandResult result = run(38, {text("-t"), text("tmpfs")});
  expectCode(result, 5);
  EXPECT_EQ(test::textOf(*result, "FailingPath"), "/sbin/mount");

  program("bin/mount", "echo bin \"$@\"");
  EXPECT_EQ(test::textOf(*run(38, {text("-a")}), "OutputChannel"), "bin -a\n");
  program("usr/bin/mount", "echo usr \"$@\"");
  EXPECT_EQ(test::textOf(*run(38, {text("-a")}), "OutputChannel"), "usr -a\n");
  // The constant path itself, where it exists, comes first.
  program("sbin/mount", "echo sbin \"$@\"");
  EXPECT_EQ(test::textOf(*run(38, {text("-a")}), "OutputChannel"), "sbin -a\n");

  // The safety rule applies to whatever runs.
  program("usr/bin/umount", "echo umount");
  ::chmod(path("usr/bin/umount").c_str(), 0777);
  result = run(50, {text("/mnt")});
  expectCode(result, 5);
  EXPECT_EQ(test::textOf(*result, "FailingPath"), path("usr/bin/umount"));

  program("bin/chown", "echo chown \"$@\"");
  EXPECT_EQ(test::textOf(*run(33, {text("1:1"), text("f")}), "OutputChannel"), "chown 1:1 f\n");
}

}  // namespace
}  // namespace krv
