// File and program commands end to end: the real daemon runs a tool program and deletes files,
// driven through the client library and the real command-line client.

#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include <chrono>
#include <fstream>

#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/support/Sandbox.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr const char* kDiskUtility = "/usr/sbin/diskutil";

// The disk utility's fixed path holds, inside this process's private sandbox only, a safe program
// that prints, pauses and prints again. /usr/sbin gets an overlay whose writable layer lives in
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
  std::ofstream(kDiskUtility) << "#!/bin/sh\nprintf 'first %s\\n' \"$1\"\n/bin/sleep 1\n"
                                 "printf 'second\\n'\nprintf oops >&2\n";
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
  std::vector<std::pair<Clock::time_point, Error>> reports;
  agent->setReportHandler([&](const Error& report) { reports.emplace_back(Clock::now(), report); });
  auto command =
      KRVPrivilegedCommand::privilegedCommandWithCode(kCommandExecuteDiskutil, {Value("a b")});
  Error result = agent->executeAtomicPrivilegedCommand(*command, false);
  const Clock::time_point finished = Clock::now();

  ASSERT_TRUE(result.is(kCommandErrorDomain, kResultSuccess))
      << result.description() << daemonLog();
  EXPECT_EQ(bytesOf(result, "OutputChannel"), "first a b\nsecond\n");
  EXPECT_EQ(bytesOf(result, "ErrorChannel"), "oops");
  ASSERT_FALSE(reports.empty());
  EXPECT_EQ(bytesOf(reports.front().second, "OutputChannel"), "first a b\n");
  EXPECT_GE(finished - reports.front().first, 800ms);
  std::string relayed, relayedErrors;
  for (const auto& [when, report] : reports) {
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
