// File and program commands end to end: the real daemon runs a tool program and deletes files,
// driven through the client library and the real command-line client.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include <chrono>
#include <fstream>

#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/support/Sandbox.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

constexpr const char* kDiskUtility = "/usr/sbin/diskutil";
// The pausing tool waits here for a line from the test before it goes on.
constexpr const char* kToolGate = "/run/krv-diskutil-gate";

// The disk utility's fixed path holds, inside this process's private sandbox only, a safe program
// that prints, waits until the test has seen that output (a line through a FIFO, given up after
// 30 seconds) and prints again. /usr/sbin gets an overlay whose writable layer lives in
// the sandbox's /run, so the host's folder is never written. Done once per process, before the
// daemon starts (it inherits the mounts).
Status installPausingTool() {
  static bool installed = false;
  if (installed) return {};
  for (const char* folder : {"/run/krv-usr-sbin", "/run/krv-usr-sbin-work"}) {
    if (::mkdir(folder, 0755) != 0 && errno != EEXIST) return Error::fromErrno("mkdir");
  }
  if (::mount("overlay", "/usr/sbin", "overlay", 0,
              "lowerdir=/usr/sbin,upperdir=/run/krv-usr-sbin,workdir=/run/krv-usr-sbin-work") !=
      0) {
    return Error::fromErrno("mount overlay /usr/sbin");
  }
  if (::mkfifo(kToolGate, 0600) != 0) return Error::fromErrno("mkfifo");
  // Programs run without PATH: every path is absolute.
  std::ofstream(kDiskUtility)
      << "#!/bin/sh\nprintf 'first %s\\n' \"$1\"\n"
      << "if /usr/bin/timeout 30 /bin/sh -c 'read line < " << kToolGate << "'; then\n"
      << "  printf 'second\\n'\nelse\n  printf 'never released\\n'\nfi\nprintf oops >&2\n";
  if (::chown(kDiskUtility, 0, 0) != 0 || ::chmod(kDiskUtility, 0755) != 0) {
    return Error::fromErrno("chmod");
  }
  installed = true;
  return {};
}

class FileCommandsTest : public DaemonTest {
 protected:
  void SetUp() override {
    Status sandbox = enterPrivateSandbox();
    if (!sandbox) GTEST_SKIP() << "no private sandbox: " << sandbox.error().description();
    Status tool = installPausingTool();
    ASSERT_TRUE(tool) << tool.error().description();
    DaemonTest::SetUp();
  }
};

std::string bytesOf(const Error& message, const char* key) {
  const Value* value = message.userInfo().find(key);
  const Data* data = value != nullptr ? value->asData() : nullptr;
  return data != nullptr ? std::string(data->begin(), data->end()) : "<none>";
}

TEST_F(FileCommandsTest, ToolOutputArrivesWhileTheProgramRuns) {
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
  ASSERT_TRUE(agent);
  // The tool goes on only once its first output has reached the client, so that output arrived
  // while the program ran. Held open for reading and writing, the gate takes the line whether or
  // not the tool has opened it yet.
  Result<UniqueFd> gate = sys::open(kToolGate, O_RDWR | O_NONBLOCK);
  ASSERT_TRUE(gate) << gate.error().description();
  std::vector<Error> reports;
  agent->setReportHandler([&](const Error& report) {
    reports.push_back(report);
    if (reports.size() != 1) return;
    EXPECT_TRUE(sys::writeAll(gate->get(), {reinterpret_cast<const std::uint8_t*>("go\n"), 3}));
  });
  auto command =
      KRVPrivilegedCommand::privilegedCommandWithCode(kCommandExecuteDiskutil, {Value("a b")});
  Error result = agent->executeAtomicPrivilegedCommand(*command, false);

  ASSERT_TRUE(result.is(kCommandErrorDomain, kResultSuccess))
      << result.description() << daemonLog();
  EXPECT_EQ(bytesOf(result, "OutputChannel"), "first a b\nsecond\n");
  EXPECT_EQ(bytesOf(result, "ErrorChannel"), "oops");
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(bytesOf(reports.front(), "OutputChannel"), "first a b\n");
  std::string relayed, relayedErrors;
  for (const Error& report : reports) {
    EXPECT_TRUE(report.is("com.tavorin.securityagent", 1));
    const Value* progress = report.userInfo().find("CurrentProgress");
    EXPECT_TRUE(progress && progress->asNumber() && progress->asNumber()->doubleValue() == 0.0);
    if (bytesOf(report, "OutputChannel") != "<none>") relayed += bytesOf(report, "OutputChannel");
    if (bytesOf(report, "ErrorChannel") != "<none>")
      relayedErrors += bytesOf(report, "ErrorChannel");
  }
  EXPECT_EQ(relayed, "first a b\nsecond\n");
  EXPECT_EQ(relayedErrors, "oops");
}

TEST_F(FileCommandsTest, MultiPathDeleteReportsItsProgress) {
  ASSERT_TRUE(::mkdir("/tmp/delete", 0755) == 0 || errno == EEXIST);
  for (const char* file : {"/tmp/delete/a", "/tmp/delete/c", "/tmp/delete/d"}) {
    std::ofstream(file) << "x";
  }
  std::vector<Error> reports;
  Error result = runCommand(
      kCommandDeleteFileObjects,
      {Value("0"), Value("/tmp/delete/a"), Value("/tmp/delete/b"), Value("/tmp/delete/c")},
      &reports);
  EXPECT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
  std::vector<double> progress;
  for (const Error& report : reports) {
    const Value* value = report.userInfo().find("CurrentProgress");
    progress.push_back(value != nullptr ? value->asNumber()->doubleValue() : -1.0);
  }
  EXPECT_EQ(progress, (std::vector<double>{0.0, 1.0 / 3.0, 2.0 / 3.0}));
  EXPECT_NE(::access("/tmp/delete/a", F_OK), 0);
  EXPECT_NE(::access("/tmp/delete/c", F_OK), 0);

  // The real client: stopping at the first error, the missing object ends the command.
  ProgramRun client = runClient({"7", "1", "/tmp/delete/b", "/tmp/delete/d"});
  EXPECT_EQ(client.exitCode, 1) << client.standardOutput << client.standardError;
  EXPECT_EQ(::access("/tmp/delete/d", F_OK), 0);
  client = runClient({"7", "1", "/tmp/delete/d"});
  EXPECT_EQ(client.exitCode, 0) << client.standardOutput << client.standardError;
  EXPECT_NE(::access("/tmp/delete/d", F_OK), 0);
}

}  // namespace
}  // namespace krv::test
