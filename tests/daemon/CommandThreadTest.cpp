// A command whose thread cannot be created, end to end: the real daemon runs with the kernel
// refusing it every new thread (see ServiceLaunch::refuseNewThreads), and its clients must get an
// answer instead of a pipe that nobody will ever write.

#include <dirent.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

// The response pipes the daemon left in /tmp.
std::vector<std::string> responsePipesInTmp() {
  std::vector<std::string> pipes;
  DIR* folder = ::opendir("/tmp");
  if (folder == nullptr) return pipes;
  const std::string prefix = KRVSecurityAgent::bundleIdentifier() + "-";
  while (const dirent* entry = ::readdir(folder)) {
    const std::string name = entry->d_name;
    if (name.rfind(prefix, 0) == 0 && name.ends_with(".pipe")) pipes.push_back(name);
  }
  ::closedir(folder);
  return pipes;
}

TEST_F(DaemonTest, ACommandWhoseThreadCannotStartIsRefusedAndLeavesNoPipe) {
  startDaemon(ThreadCreation::Refused);

  auto version = KRVPrivilegedCommand::privilegedCommandWithCode(kCommandGetVersion, {});
  Result<Value> reply = exchange(*version);
  ASSERT_TRUE(reply) << reply.error().description() << daemonLog();
  const Error* answer = reply->objectAs<Error>();
  ASSERT_NE(answer, nullptr);
  EXPECT_TRUE(answer->is(kTransportErrorDomain, kTransportPipeNotCreated)) << answer->description();
  EXPECT_TRUE(answer->userInfo().empty());
  EXPECT_EQ(responsePipesInTmp(), std::vector<std::string>{});
  EXPECT_TRUE(waitForLog("Could not start a command thread", 1s)) << daemonLog();

  // The real client ends with the error instead of waiting for ever, and the daemon stays up.
  ProgramRun run = runProgram(binary("client"), {"version"}, 0, 0, 20s);
  EXPECT_EQ(run.exitCode, 1) << run.standardError;
  EXPECT_NE(run.standardError.find("could not create the response pipe"), std::string::npos)
      << run.standardError;
  EXPECT_EQ(responsePipesInTmp(), std::vector<std::string>{});
  EXPECT_TRUE(daemon().running());
}

}  // namespace
}  // namespace krv::test
