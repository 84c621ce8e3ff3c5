// Hostile clients against the real daemon and authorization service: requests that break the
// command table, blocks that lie about themselves, clients that go silent or vanish at each step,
// forged and replayed tokens, floods, and names at and past the system's limits. After each
// scenario the daemon still serves (or ended exactly as designed), holds no more descriptors or
// threads than before, and left no response pipe behind.

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <future>
#include <limits>
#include <string>
#include <vector>

#include "authorization/Authorization.h"
#include "foundation/Archiver.h"
#include "foundation/Crc16.h"
#include "foundation/DataBlock.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/CommandTable.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/daemon/DaemonProbe.h"
#include "tests/support/Sandbox.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

// A data block as written by hand: any marker, any length claim, any checksum.
Data block(const Data& payload, std::optional<std::uint32_t> claimedLength = std::nullopt,
           std::optional<std::uint16_t> checksum = std::nullopt,
           std::string_view marker = kDataBlockMarker) {
  Data bytes(marker.begin(), marker.end());
  const std::uint32_t length = claimedLength.value_or(static_cast<std::uint32_t>(payload.size()));
  const std::uint32_t crc = checksum.value_or(crc16(payload));
  for (int shift = 0; shift < 32; shift += 8) bytes.push_back((length >> shift) & 0xFF);
  for (int shift = 0; shift < 32; shift += 8) bytes.push_back((crc >> shift) & 0xFF);
  bytes.insert(bytes.end(), payload.begin(), payload.end());
  return bytes;
}

Data requestPayload(std::int64_t code, Array arguments, Data token = Data(32, 0),
                    std::uint64_t user = 0) {
  return archiveSequential(RawRequest(code, std::move(arguments), std::move(token), user));
}

// Writes the bytes as they are, ends the sending side and reads the reply object.
Result<Value> rawExchange(const Data& bytes) {
  KRV_TRY(UniqueFd socket, KRVSecurityAgent::openRequestSocketAtPath(kDaemonSocketPath));
  std::size_t sent = 0;
  while (sent < bytes.size()) {
    ssize_t count = ::send(socket.get(), bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) break;  // the daemon may refuse a block before it is complete
    sent += static_cast<std::size_t>(count);
  }
  ::shutdown(socket.get(), SHUT_WR);
  return KRVSecurityAgent::readObject(socket.get());
}

const Error* asError(const Result<Value>& reply) {
  return reply ? reply->objectAs<Error>() : nullptr;
}

std::int64_t underlyingCode(const Error& error) {
  const Value* code = error.userInfo().find("UnderlyingErrorCode");
  return code != nullptr && code->asNumber() != nullptr ? code->asNumber()->integerValue() : 0;
}

class HostileClientTest : public ScenarioTest {
 protected:
  // A folder of `count` files with long names and a started search that finds them all: far
  // more results than the response pipe holds. Answers the search's pipe path.
  std::optional<std::string> startSearchOfManyFiles(int count,
                                                    std::optional<KRVSecurityAgent>& agent) {
    EXPECT_EQ(::mkdir("/tmp/many", 0755), 0);
    for (int i = 0; i < count; ++i) {
      std::string name = "/tmp/many/match-" + std::to_string(i) + "-" + std::string(120, 'x');
      EXPECT_TRUE(sys::open(name, O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
    }
    m_search = KRVPrivilegedCommand::privilegedCommandWithCode(
        kCommandSearchFilenamePattern,
        {Value("/tmp/many"), Value("match"), Value(""), Value::boolean(false)});
    agent = KRVSecurityAgent::init(kDaemonSocketPath);
    if (!agent) return std::nullopt;
    Error acknowledgement = agent->startExecutionOfPrivilegedCommand(*m_search, false);
    std::optional<std::string> path =
        KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(acknowledgement);
    EXPECT_TRUE(path) << acknowledgement.description();
    return path;
  }

  std::unique_ptr<KRVPrivilegedCommand> m_search;
};

TEST_F(HostileClientTest, TheReservedCodeAnswersUnknownAndCodesPast54AreNoRequests) {
  // 23 is a request like any other: it gets its pipe and the final answer "unknown command".
  Error reserved = runCommand(kCommandReserved, {});
  EXPECT_TRUE(reserved.is(kCommandErrorDomain, kResultUnknownCommand)) << reserved.description();
  EXPECT_TRUE(reserved.userInfo().empty());
  // With an argument it does not match its table record: no answer at all.
  EXPECT_FALSE(exchange(requestPayload(kCommandReserved, {Value("x")})));

  const std::int64_t codes[] = {55,
                                56,
                                60,
                                255,
                                1000,
                                std::numeric_limits<std::int32_t>::max(),
                                -1,
                                std::numeric_limits<std::int32_t>::min(),
                                std::int64_t{1} << 32,
                                (std::int64_t{1} << 32) + 1,  // 1 once cut to 32 bits
                                std::numeric_limits<std::int64_t>::max(),
                                std::numeric_limits<std::int64_t>::min()};
  for (std::int64_t code : codes) {
    Result<Value> reply = exchange(requestPayload(code, {}));
    ASSERT_FALSE(reply) << code;
    EXPECT_EQ(reply.error().code(), EPIPE) << code;
  }
  // The client library does not even build such a command.
  EXPECT_EQ(KRVPrivilegedCommand::privilegedCommandWithCode(55, {}), nullptr);
  expectUnharmed();
}

TEST_F(HostileClientTest, EveryCodeWithAnArgumentOfTheWrongClassGetsAClosedConnection) {
  auto valid = [](char letter) {
    switch (letter) {
      case 'S':
        return Value("/nonexistent");
      case 'N':
        return Value::integer(0);
      default:
        return Value(Data{1, 2, 3});
    }
  };
  auto wrongKinds = [](char letter) {
    std::vector<Value> kinds = {Value(Array{}), Value(Dictionary{}), Value(Date{0.0})};
    if (letter != 'S') kinds.push_back(Value("text"));
    if (letter != 'N') {
      kinds.push_back(Value::integer(7));
      kinds.push_back(Value::boolean(true));
    }
    // Bytes that are valid UTF-8 are no name: a name that is text travels as text.
    if (letter != 'D') kinds.push_back(Value(Data{'a', 'b'}));
    return kinds;
  };
  std::size_t refused = 0;
  for (const CommandRecord& record : commandTable()) {
    const std::string signature = record.signature != nullptr ? record.signature : "";
    const bool anyCount = record.numberOfArguments == kAnyNumberOfArguments;
    Array arguments;
    if (anyCount) {
      arguments = {valid(signature[0]), valid(signature[0])};
    } else {
      for (char letter : signature) arguments.push_back(valid(letter));
    }
    std::vector<Array> cases;
    for (std::size_t slot = 0; slot < arguments.size(); ++slot) {
      for (const Value& wrong : wrongKinds(anyCount ? signature[0] : signature[slot])) {
        Array changed = arguments;
        changed[slot] = wrong;
        cases.push_back(std::move(changed));
      }
    }
    if (!anyCount) {
      Array longer = arguments;
      longer.push_back(Value("extra"));
      cases.push_back(std::move(longer));
      if (!arguments.empty()) cases.emplace_back(arguments.begin(), arguments.end() - 1);
    }
    for (const Array& candidate : cases) {
      Result<Value> reply = exchange(requestPayload(record.code, candidate));
      ASSERT_FALSE(reply) << "code " << record.code << " was answered";
      EXPECT_EQ(reply.error().code(), EPIPE) << record.code;
      ++refused;
    }
  }
  EXPECT_GT(refused, 55u * 3u);
  EXPECT_TRUE(waitForLog("Request failure (Input/output error)", 5s, refused));
  expectUnharmed();
}

TEST_F(HostileClientTest, BlocksThatLieAboutThemselvesAreRefusedWithoutHarm) {
  const Data request = requestPayload(kCommandGetVersion, {});
  Data trailing = request;
  trailing.push_back(0x00);
  const Data hugeArray = {0x9B, 0x00, 0x00, 0x00, 0x01, 0x00, 0x00, 0x00, 0x00};
  const Data hugeBytes = {0x5B, 0x40, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
  const Data hugeMap = {0xBA, 0x7F, 0xFF, 0xFF, 0xFF};
  Data deep(100000, 0x81);  // arrays nested a hundred thousand deep
  deep.push_back(0x00);
  const Data fullOfNoise(kDataBlockMaximumPayload, 0xFF);
  const Data notARequest = archiveSequential(Error("com.tavorin.privilegedCommand", 0, {}));
  const Data shortToken = requestPayload(kCommandGetVersion, {}, Data(31, 1));
  const Data bigUser = requestPayload(kCommandGetVersion, {}, Data(32, 0), std::uint64_t{1} << 33);

  const Data whole = block(request);
  const std::vector<std::pair<const char*, Data>> cases = {
      {"nothing at all", Data{}},
      {"half a header", Data(whole.begin(), whole.begin() + 20)},
      {"a wrong marker",
       block(request, std::nullopt, std::nullopt, "***KRVSecurityAgentDataBlocK")},
      {"a length claim of 4 GiB", block({}, 0xFFFFFFFFu)},
      {"a length claim one past the limit", block({}, kDataBlockMaximumSize + 1)},
      {"a payload cut short", block(Data(10, 0xA1), kDataBlockMaximumPayload)},
      {"a checksum that does not match", block(request, std::nullopt, crc16(request) ^ 1)},
      {"a byte after the request", block(trailing)},
      {"an array of four billion items", block(hugeArray)},
      {"a byte string of 2^62 bytes", block(hugeBytes)},
      {"a map of two billion pairs", block(hugeMap)},
      {"deep nesting", block(deep)},
      {"a largest block of noise", block(fullOfNoise)},
      {"an error object as request", block(notARequest)},
      {"a token of 31 bytes", block(shortToken)},
      {"a user past 32 bits", block(bigUser)},
  };
  for (const auto& [what, bytes] : cases) {
    Result<Value> reply = rawExchange(bytes);
    EXPECT_FALSE(reply) << what;
  }
  EXPECT_TRUE(waitForLog("Request failure", 5s, cases.size() - 1)) << daemonLog();
  expectUnharmed();
}

TEST_F(HostileClientTest, SilentClientsEndTheDaemonByItsWatchdogAndTheNextConnectionStartsAnew) {
  // Nothing after connecting, then half a header and silence: each ends the daemon by its alarm.
  const Data header = block(requestPayload(kCommandGetVersion, {}));
  for (std::size_t bytesSent : {std::size_t{0}, std::size_t{20}}) {
    const pid_t before = daemon().pid();
    Result<UniqueFd> socket = KRVSecurityAgent::openRequestSocketAtPath(kDaemonSocketPath);
    ASSERT_TRUE(socket);
    if (bytesSent > 0) {
      ASSERT_TRUE(sys::write(socket->get(), std::span(header.data(), bytesSent)));
    }
    std::optional<int> status = daemon().waitForExit(10s);
    ASSERT_TRUE(status) << bytesSent;
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGALRM) << *status;
    socket->reset();
    // The next client is served by a new instance, started for its connection.
    Error version = runCommand(kCommandGetVersion, {});
    EXPECT_TRUE(version.is(kCommandErrorDomain, kResultSuccess)) << version.description();
    EXPECT_NE(daemon().pid(), before);
  }
  expectUnharmed(3);
}

TEST_F(HostileClientTest, ClientsThatVanishWhileSendingOrReadingEndOnlyTheirOwnRequest) {
  const Data request = block(requestPayload(kCommandGetVersion, {}));
  // Gone before sending, and gone mid-block: the daemon reads the end of the connection.
  for (std::size_t bytesSent : {std::size_t{0}, std::size_t{10}, request.size() - 3}) {
    Result<UniqueFd> socket = KRVSecurityAgent::openRequestSocketAtPath(kDaemonSocketPath);
    ASSERT_TRUE(socket);
    if (bytesSent > 0) {
      ASSERT_TRUE(sys::write(socket->get(), std::span(request.data(), bytesSent)));
    }
  }
  EXPECT_TRUE(waitForLog("Request failure", 5s, 3)) << daemonLog();

  // Gone in the middle of a large search's results: its command ends at the next report.
  std::optional<KRVSecurityAgent> agent;
  std::optional<std::string> path = startSearchOfManyFiles(4000, agent);
  ASSERT_TRUE(path);
  {
    Result<UniqueFd> pipe = KRVSecurityAgent::openResponsePipeAtPath(*path);
    ASSERT_TRUE(pipe);
    Error report = KRVSecurityAgent::transportError(0);
    EXPECT_TRUE(agent->isContinuingCommandExecutionViaPipe(pipe->get(), &report))
        << report.description();
    KRVSecurityAgent::closePipe(std::move(*pipe), *path);
  }
  EXPECT_TRUE(waitForLog("Broken pipe", 10s)) << daemonLog();
  EXPECT_TRUE(waitForLog("servicing request type 16 exited.", 10s)) << daemonLog();
  m_search->discardAuthorization();
  expectUnharmed();
}

TEST_F(HostileClientTest, ClientsThatNeverOpenOrNeverReadTheirPipeAreGivenUpWithinAMinute) {
  // One client leaves before it reads the acknowledgement, one reads it and never opens the pipe.
  const Data request = block(requestPayload(kCommandGetVersion, {}));
  {
    Result<UniqueFd> socket = KRVSecurityAgent::openRequestSocketAtPath(kDaemonSocketPath);
    ASSERT_TRUE(socket);
    ASSERT_TRUE(sys::write(socket->get(), request));
  }
  Result<Value> acknowledgement = exchange(requestPayload(kCommandGetVersion, {}));
  ASSERT_NE(asError(acknowledgement), nullptr);
  std::optional<std::string> path =
      KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(*asError(acknowledgement));
  ASSERT_TRUE(path);
  EXPECT_TRUE(sys::lstat(*path));

  // A third opens the pipe of a search with far more results than the pipe holds, and then reads
  // nothing: the command's thread must not wait on it for ever.
  std::optional<KRVSecurityAgent> agent;
  std::optional<std::string> stalledPath = startSearchOfManyFiles(2000, agent);
  ASSERT_TRUE(stalledPath);
  Result<UniqueFd> stalled = KRVSecurityAgent::openResponsePipeAtPath(*stalledPath);
  ASSERT_TRUE(stalled);

  // Meanwhile the daemon serves others.
  EXPECT_TRUE(runCommand(kCommandGetVersion, {}).is(kCommandErrorDomain, kResultSuccess));
  EXPECT_TRUE(waitForLog("Could not open pipe for client communication", 90s, 2)) << daemonLog();
  EXPECT_TRUE(waitForLog("servicing request type 1 exited.", 10s, 4)) << daemonLog();
  EXPECT_FALSE(sys::lstat(*path));
  EXPECT_TRUE(
      waitForLog("Could not transfer progress data back to client (Connection timed out).", 30s))
      << daemonLog();
  EXPECT_TRUE(waitForLog("servicing request type 16 exited.", 10s)) << daemonLog();
  KRVSecurityAgent::closePipe(std::move(*stalled), *stalledPath);
  m_search->discardAuthorization();
  expectUnharmed();
}

TEST_F(HostileClientTest, ForgedReplayedAndFreedTokensAreRefusedAndStartNothing) {
  const Array inspect = {Value("/")};
  Data random(32);
  for (std::size_t i = 0; i < random.size(); ++i) random[i] = static_cast<std::uint8_t>(i * 37 + 5);
  auto refusal = [](const Data& payload) -> std::int64_t {
    Result<Value> reply = exchange(payload);
    const Error* error = asError(reply);
    if (error == nullptr || !error->is(kCommandErrorDomain, kResultAuthorizationFailed)) return 0;
    return underlyingCode(*error);
  };
  // Made up, and all zero (no token).
  EXPECT_EQ(refusal(requestPayload(kCommandInspectFileObject, inspect, random)),
            auth::kStatusInteractionNotAllowed);
  EXPECT_NE(refusal(requestPayload(kCommandInspectFileObject, inspect, Data(32, 0))), 0);

  // A live token of this (root) process, replayed in a request that names another user.
  auto command =
      KRVPrivilegedCommand::privilegedCommandWithCode(kCommandInspectFileObject, inspect);
  ASSERT_TRUE(command->preAuthorizeOnClient());
  const auto& form = command->authorizationToken();
  const Data token(form.begin(), form.end());
  EXPECT_EQ(refusal(requestPayload(kCommandInspectFileObject, inspect, token, 4242)),
            auth::kStatusDenied);
  // With its own user it works, and again: a token serves until it is freed.
  for (int run = 0; run < 2; ++run) {
    Result<Value> reply = exchange(requestPayload(kCommandInspectFileObject, inspect, token, 0));
    ASSERT_NE(asError(reply), nullptr);
    std::optional<std::string> path =
        KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(*asError(reply));
    ASSERT_TRUE(path) << asError(reply)->description();
    Result<UniqueFd> pipe = KRVSecurityAgent::openResponsePipeAtPath(*path);
    ASSERT_TRUE(pipe);
    Result<Value> final = KRVSecurityAgent::readObject(pipe->get());
    ASSERT_NE(asError(final), nullptr);
    EXPECT_TRUE(asError(final)->is(kCommandErrorDomain, kResultSuccess));
    KRVSecurityAgent::closePipe(std::move(*pipe), *path);
  }
  // Freed (and its rights destroyed): unknown from then on.
  command->setDeauthorizesAfterExecution(true);
  command->discardAuthorization();
  EXPECT_EQ(refusal(requestPayload(kCommandInspectFileObject, inspect, token, 0)),
            auth::kStatusInteractionNotAllowed);
  EXPECT_TRUE(waitForLog("Could not get required authorization.", 5s, 4));
  expectUnharmed();
}

TEST_F(HostileClientTest, AFloodFromOneUserIsThrottledAndEveryRequestIsServed) {
  // Forty commands at once from one user, authorized beforehand (the authorization service bounds
  // a user's concurrent connections on its own): the daemon delays, and serves every one.
  constexpr std::size_t kClients = 40;
  std::vector<std::unique_ptr<KRVPrivilegedCommand>> commands;
  for (std::size_t i = 0; i < kClients; ++i) {
    commands.push_back(KRVPrivilegedCommand::privilegedCommandWithCode(
        i % 4 == 0 ? kCommandGetVersion : kCommandWhoAmI,
        i % 4 == 0 ? Array{} : Array{Value::integer(1)}));
    if (commands.back()->isNeedingAuthorization()) {
      ASSERT_TRUE(commands.back()->preAuthorizeOnClient()) << i;
    }
  }
  std::vector<std::future<Error>> results;
  for (auto& command : commands) {
    results.push_back(std::async(std::launch::async, [&command] {
      std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
      return agent ? agent->executeAtomicPrivilegedCommand(*command, true)
                   : Error::posix(ENOENT, "no daemon socket");
    }));
  }
  for (auto& result : results) {
    Error error = result.get();
    EXPECT_TRUE(error.is(kCommandErrorDomain, kResultSuccess)) << error.description();
  }
  EXPECT_NE(daemonLog().find("Throttling is in effect (100000)."), std::string::npos)
      << daemonLog();
  expectUnharmed();
}

TEST_F(HostileClientTest, PathsAtAndPastTheLimitsAndNamesThatAreNotText) {
  ASSERT_EQ(::mkdir("/tmp/names", 0755), 0);
  // What is at a path: 0 nothing, 1 a folder, 2 anything else.
  auto existence = [this](const std::string& path) -> std::int64_t {
    Error result = runCommand(kCommandInspectFileObject, {nameValue(path)});
    const Value* info = result.userInfo().find("ExistenceInfo");
    if (!result.is(kCommandErrorDomain, kResultSuccess) || info == nullptr) return -1;
    return info->asNumber()->integerValue();
  };
  // A file that cannot be created is code 8 naming the path; a folder answers its errno.
  auto createFile = [this](const std::string& path) {
    Error result = runCommand(kCommandCreateFileObject, {nameValue(path), Value("F")});
    if (result.is(kCommandErrorDomain, kResultNotWritten)) {
      const Value* failing = result.userInfo().find("FailingPath");
      EXPECT_TRUE(failing != nullptr && nameBytes(*failing) == path);
    }
    return result.code();
  };
  auto createFolder = [this](const std::string& path) -> std::int64_t {
    Error result = runCommand(kCommandCreateFileObject, {nameValue(path), Value("D")});
    return result.is(kCommandErrorDomain, kResultSuccess) ? 0
           : result.isPosix()                             ? result.code()
                                                          : -1;
  };

  // Components of 255 bytes are names; 256 is too long.
  const std::string name255 = "/tmp/names/" + std::string(255, 'n');
  const std::string name256 = name255 + "n";
  EXPECT_EQ(createFile(name255), kResultSuccess);
  EXPECT_EQ(existence(name255), 2);
  EXPECT_EQ(createFile(name256), kResultNotWritten);
  EXPECT_EQ(createFolder(name256), ENAMETOOLONG);
  EXPECT_EQ(existence(name256), 0);

  // Whole paths: 4,095 bytes through real folders is a path, 4,096 is not.
  std::string deep = "/tmp/names";
  while (deep.size() + 1 + 200 < 4095) {
    deep += "/" + std::string(200, 'd');
    ASSERT_EQ(::mkdir(deep.c_str(), 0755), 0) << deep.size();
  }
  const std::string atLimit = deep + "/" + std::string(4095 - deep.size() - 1, 'f');
  ASSERT_EQ(atLimit.size(), 4095u);
  EXPECT_EQ(existence(atLimit), 0);
  EXPECT_EQ(createFile(atLimit), kResultSuccess);
  EXPECT_EQ(existence(atLimit), 2);
  EXPECT_EQ(createFile(atLimit + "g"), kResultNotWritten);
  EXPECT_EQ(createFolder(atLimit + "g"), ENAMETOOLONG);
  EXPECT_EQ(existence(atLimit + "g"), 0);
  EXPECT_EQ(existence(std::string(70000, '/')), 1);
  EXPECT_EQ(createFolder("/tmp/names/" + std::string(60000, 'x')), ENAMETOOLONG);
  // The recursive delete walks the deep tree and takes it all.
  EXPECT_TRUE(runCommand(kCommandDeleteFileSubtree, {Value("/tmp/names/" + std::string(200, 'd'))})
                  .is(kCommandErrorDomain, kResultSuccess));
  EXPECT_FALSE(sys::lstat(atLimit));

  // Names that are no text are created, found and removed byte for byte.
  const std::string bytes = std::string("/tmp/names/\xff\xfe-\xc3(-") + std::string(1, '\x01');
  EXPECT_EQ(createFile(bytes), kResultSuccess);
  Result<struct stat> made = sys::lstat(bytes);
  ASSERT_TRUE(made);
  EXPECT_TRUE(S_ISREG(made->st_mode));
  EXPECT_EQ(existence(bytes), 2);
  EXPECT_TRUE(runCommand(kCommandDeleteFileObjects, {Value("1"), nameValue(bytes)})
                  .is(kCommandErrorDomain, kResultSuccess));
  EXPECT_FALSE(sys::lstat(bytes));
  // A NUL byte inside a name is never cut short to another path.
  const std::string withNul("/tmp/names/a\0b", 14);
  EXPECT_EQ(createFile(withNul), kResultNotWritten);
  EXPECT_EQ(createFolder(withNul), EINVAL);
  EXPECT_EQ(existence(withNul), 0);
  EXPECT_FALSE(sys::lstat("/tmp/names/a"));
  expectUnharmed();
}

}  // namespace
}  // namespace krv::test
