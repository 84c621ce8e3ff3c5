// The daemon end to end: the real binary behind a socket handed over as the service manager does,
// driven through the real client library and the real command-line client.

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "authorization/Authorization.h"
#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

double progressOf(const Error& report) {
  const Value* progress = report.userInfo().find("CurrentProgress");
  return progress && progress->asNumber() ? progress->asNumber()->doubleValue() : -1.0;
}

std::unique_ptr<KRVPrivilegedCommand> command(std::uint32_t code, Array arguments = {}) {
  return KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
}

// A request object written item by item, so that it can break the rules the real class keeps.
class RawRequest final : public Archivable {
 public:
  RawRequest(std::int64_t code, Array arguments)
      : m_code(code), m_arguments(std::move(arguments)) {}
  std::string_view className() const override { return "KRVPrivilegedCommand"; }
  void encode(Encoder& encoder) const override {
    encoder.encodeInteger("Version", 310);
    encoder.encodeInteger("CommandCode", m_code);
    encoder.encodeArray("Arguments", m_arguments);
    encoder.encodeData("AuthorizationToken", Data(32, 0));
    encoder.encodeUnsigned("UserIdentification", 0);
    encoder.encodeInteger("DeauthorizesAfterExecution", 0);
  }

 private:
  std::int64_t m_code;
  Array m_arguments;
};

const Error* asError(const Result<Value>& reply) {
  return reply ? reply->objectAs<Error>() : nullptr;
}

TEST_F(DaemonTest, AnswersVersionAndNoneThroughTheClient) {
  ProgramRun version = runClient({"version"});
  EXPECT_EQ(version.exitCode, 0) << version.standardError;
  EXPECT_NE(version.standardOutput.find("CommandImplementationVersion: 310"), std::string::npos);
  EXPECT_NE(version.standardOutput.find("AgentVersionBuild: 121004"), std::string::npos);

  ProgramRun none = runClient({"--json", "0"});
  EXPECT_EQ(none.exitCode, 0);
  EXPECT_EQ(none.standardOutput,
            "{\"domain\":\"com.tavorin.privilegedCommand\",\"code\":0,\"userInfo\":{}}\n");
  EXPECT_TRUE(waitForLog("Agent is starting up.", 1s));
  EXPECT_TRUE(waitForLog("Request completed.", 1s));
}

TEST_F(DaemonTest, WhoAmIReportsItsProgressThenTheProgramsOutput) {
  std::vector<Error> reports;
  auto started = std::chrono::steady_clock::now();
  Error result = runCommand(kCommandWhoAmI, {Value::integer(3)}, &reports);
  EXPECT_GE(std::chrono::steady_clock::now() - started, 3s);
  ASSERT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
  EXPECT_EQ(*result.userInfo().find("OutputChannel")->asData(), (Data{'r', 'o', 'o', 't', '\n'}));
  EXPECT_EQ(result.userInfo().find("UnderlyingErrorCode")->asNumber()->integerValue(), 0);
  ASSERT_EQ(reports.size(), 3u);
  EXPECT_EQ(progressOf(reports[0]), 0.0);
  EXPECT_EQ(progressOf(reports[1]), 1.0 / 3.0);
  EXPECT_EQ(progressOf(reports[2]), 2.0 / 3.0);
}

TEST_F(DaemonTest, BadRequestsAreAnsweredByAClosedConnection) {
  const Data garbage = {0xD8, 0x1B, 0x81, 0x63, 'F', 'o', 'o'};
  Result<Value> reply = exchange(garbage);
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().code(), EPIPE);

  // The age search with two arguments where its signature has three.
  RawRequest mismatched(kCommandSearchAgedFiles, {Value("/"), Value::integer(1)});
  Result<Value> second = exchange(archiveSequential(mismatched));
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code(), EPIPE);

  // The daemon goes on serving.
  EXPECT_TRUE(runCommand(kCommandGetVersion, {}).is(kCommandErrorDomain, kResultSuccess));
  EXPECT_TRUE(waitForLog("Request failure (Input/output error)", 1s)) << daemonLog();
}

TEST_F(DaemonTest, RefusesAuthorizationThatTheServiceDoesNotConfirm) {
  auto shutdown = command(kCommandShutdown);
  auth::ExternalForm guessed;
  guessed.fill(0x5A);
  shutdown->setAuthorizationToken(guessed);
  Result<Value> reply = exchange(*shutdown);
  const Error* error = asError(reply);
  ASSERT_NE(error, nullptr);
  EXPECT_TRUE(error->is(kCommandErrorDomain, kResultAuthorizationFailed));
  EXPECT_EQ(error->userInfo().find("UnderlyingErrorCode")->asNumber()->integerValue(), -60007);
  EXPECT_TRUE(waitForLog("Could not get required authorization.", 1s));

  // A refused shutdown leaves the daemon serving.
  EXPECT_TRUE(runCommand(kCommandNone, {}).is(kCommandErrorDomain, kResultSuccess));
  EXPECT_TRUE(daemon().running());
}

TEST_F(DaemonTest, CreatesTheResponsePipeForTheRequestingUser) {
  auto version = command(kCommandGetVersion);
  version->setUserIdentification(4242);
  Result<Value> reply = exchange(*version);
  const Error* acknowledgement = asError(reply);
  ASSERT_NE(acknowledgement, nullptr);
  std::optional<std::string> path =
      KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(*acknowledgement);
  ASSERT_TRUE(path);
  EXPECT_EQ(path->rfind("/tmp/com.tavorin.system.securityagent3-", 0), 0u);
  Result<struct stat> status = sys::lstat(*path);
  ASSERT_TRUE(status);
  EXPECT_TRUE(S_ISFIFO(status->st_mode));
  EXPECT_EQ(status->st_mode & 07777, 0600u);
  EXPECT_EQ(status->st_uid, 4242u);
  EXPECT_EQ(status->st_gid, 1u);

  Result<UniqueFd> pipe = KRVSecurityAgent::openResponsePipeAtPath(*path);
  ASSERT_TRUE(pipe);
  Result<Value> final = KRVSecurityAgent::readObject(pipe->get());
  ASSERT_TRUE(final);
  EXPECT_TRUE(final->objectAs<Error>()->is(kCommandErrorDomain, kResultSuccess));
  ::unlink(path->c_str());
}

TEST_F(DaemonTest, ShutdownLetsARunningCommandFinishThenExits) {
  auto whoami = std::async(std::launch::async,
                           [this] { return runCommand(kCommandWhoAmI, {Value::integer(2)}); });
  ASSERT_TRUE(waitForLog("running for request type 3.", 5s));
  Error acknowledgement = runCommand(kCommandShutdown, {});
  EXPECT_TRUE(acknowledgement.is("com.tavorin.securityagent", 0)) << acknowledgement.description();
  EXPECT_TRUE(acknowledgement.userInfo().empty());

  Error result = whoami.get();
  EXPECT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
  std::optional<int> status = daemon().waitForExit(5s);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0) << *status;
  // The log reaches the test through a pipe that another thread reads: wait for its last line.
  EXPECT_TRUE(waitForLog("Agent is shutting down.", 5s)) << daemonLog();
}

TEST_F(DaemonTest, PreparingUninstallationRemovesEveryRightThenEnds) {
  const char* legacy = "com.tavorin.remove.system-protecton";
  ASSERT_EQ(auth::rightSet(legacy, Value("default")), auth::kStatusSuccess);
  // An administrator's change survives a restart: defined rights are never rewritten.
  ASSERT_EQ(auth::rightSet("com.tavorin.get.storage-size", Value("allow")), auth::kStatusSuccess);
  startDaemon();
  Value definition("");
  ASSERT_EQ(auth::rightGet("com.tavorin.get.storage-size", &definition), auth::kStatusSuccess);
  EXPECT_EQ(definition, Value("allow"));

  Error acknowledgement = runCommand(kCommandPrepareUninstallation, {});
  EXPECT_TRUE(acknowledgement.is("com.tavorin.securityagent", 0)) << acknowledgement.description();
  EXPECT_TRUE(acknowledgement.userInfo().empty());
  for (const auto& command : KRVPrivilegedCommand::allImplementedCommandsNeedingAuthorization()) {
    EXPECT_EQ(auth::rightExists(command->rightName()), auth::kStatusDenied) << command->rightName();
  }
  EXPECT_EQ(auth::rightExists(legacy), auth::kStatusDenied);
  std::optional<int> status = daemon().waitForExit(5s);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  std::string log = daemonLog();
  EXPECT_NE(log.find("Preparing v3 uninstallation procedure."), std::string::npos);
  EXPECT_NE(log.find("Removing right definition 'com.tavorin.shutdown.krv-security-tool'"),
            std::string::npos);
  EXPECT_NE(log.find("Removing right definition 'com.tavorin.remove.system-protecton'"),
            std::string::npos);
  EXPECT_NE(log.find("Handling right definitions succeeded."), std::string::npos);
}

TEST_F(DaemonTest, ASilentClientIsEndedByTheWatchdog) {
  Result<UniqueFd> socket = KRVSecurityAgent::openRequestSocketAtPath(kDaemonSocketPath);
  ASSERT_TRUE(socket);
  std::optional<int> status = daemon().waitForExit(8s);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGALRM) << *status;
}

TEST_F(DaemonTest, AClientThatDisappearsEndsOnlyItsCommand) {
  auto whoami = command(kCommandWhoAmI, {Value::integer(4)});
  whoami->setUserIdentification(0);
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
  ASSERT_TRUE(agent);
  Error acknowledgement = agent->startExecutionOfPrivilegedCommand(*whoami, false);
  std::optional<std::string> path =
      KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(acknowledgement);
  ASSERT_TRUE(path) << acknowledgement.description();
  {
    Result<UniqueFd> pipe = KRVSecurityAgent::openResponsePipeAtPath(*path);
    ASSERT_TRUE(pipe);
    Error report = KRVSecurityAgent::transportError(0);
    EXPECT_TRUE(agent->isContinuingCommandExecutionViaPipe(pipe->get(), &report));
    KRVSecurityAgent::closePipe(std::move(*pipe), *path);
  }
  EXPECT_TRUE(waitForLog("Could not transfer progress data back to client (Broken pipe).", 5s))
      << daemonLog();
  EXPECT_TRUE(waitForLog("servicing request type 3 exited.", 2s));
  // The daemon serves on, and a shutdown ends it at once: no command thread is left.
  EXPECT_TRUE(runCommand(kCommandGetVersion, {}).is(kCommandErrorDomain, kResultSuccess));
  EXPECT_TRUE(runCommand(kCommandShutdown, {}).is("com.tavorin.securityagent", 0));
  EXPECT_TRUE(daemon().waitForExit(2s));
}

TEST_F(DaemonTest, ThrottlesOnceElevenCommandsRun) {
  std::vector<std::future<Error>> commands;
  for (std::size_t i = 0; i < 12; ++i) {
    commands.push_back(std::async(
        std::launch::async, [this] { return runCommand(kCommandWhoAmI, {Value::integer(3)}); }));
    // Each command must be counted before the next request arrives.
    EXPECT_TRUE(waitForLog("running for request type 3.", 3s, i + 1)) << i;
  }
  for (auto& result : commands) EXPECT_TRUE(result.get().is(kCommandErrorDomain, kResultSuccess));
  std::string log = daemonLog();
  EXPECT_NE(log.find("Number of concurrent threads seems high. Throttling is in effect (100000)."),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("Throttling is in effect (200000)."), std::string::npos);
}

TEST_F(DaemonTest, EndsAfterTwoMinutesWithoutAConnection) {
  std::optional<int> status = daemon().waitForExit(135s);
  ASSERT_TRUE(status);
  EXPECT_TRUE(WIFEXITED(*status) && WEXITSTATUS(*status) == 0);
  // The log reaches the test through a pipe that another thread reads: wait for its last line.
  EXPECT_TRUE(waitForLog("Agent is shutting down.", 5s)) << daemonLog();
}

}  // namespace
}  // namespace krv::test
