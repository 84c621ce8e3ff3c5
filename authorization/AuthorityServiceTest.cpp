// The service and its server in process, with a scripted authenticator, a made-up user directory
// and a clock the tests set. What real PAM, real users and the real binary decide is tested end to
// end (tests/authority); here: what depends on time, flags, root-only operations and limits.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <future>
#include <thread>

#include "authorization/AuthorityServer.h"
#include "authorization/AuthorityService.h"
#include "authorization/MessageChannel.h"
#include "foundation/System.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ServiceProcess.h"

namespace krv::auth {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kAlice = 1001;  // administrator
constexpr uid_t kBob = 1002;    // ordinary user
constexpr const char* kRight = "com.test.right";

class FakeDirectory final : public UserDirectory {
 public:
  Result<std::optional<UserAccount>> accountOf(uid_t uid) const override {
    if (failing) return Error::posix(EMFILE, "getpwuid_r");
    if (uid == kAlice)
      return std::optional<UserAccount>(UserAccount{"alice", kAlice, kAlice, "/home/alice"});
    if (uid == kBob) return std::optional<UserAccount>(UserAccount{"bob", kBob, kBob, "/home/bob"});
    return std::optional<UserAccount>();
  }
  Result<std::optional<UserAccount>> accountNamed(const std::string& name) const override {
    if (name == "alice") return accountOf(kAlice);
    if (name == "bob") return accountOf(kBob);
    if (failing) return Error::posix(EMFILE, "getpwnam_r");
    return std::optional<UserAccount>();
  }
  Result<bool> isAdministrator(const UserAccount& account) const override {
    if (failing) return Error::posix(EMFILE, "getgrnam_r");
    return account.name == "alice";
  }
  using UserDirectory::isAdministrator;

  // The name services are out of descriptors.
  bool failing = false;
};

// Asks once for a password; each account's password is its name followed by "-password".
class ScriptedAuthenticator final : public Authenticator {
 public:
  AuthenticationResult authenticate(const std::string& account, const std::string&,
                                    PromptChannel& channel) override {
    ++attempts;
    AuthenticationResult result;
    std::optional<Answer> answer = channel.ask(Prompt{PromptStyle::Secret, "Password: "});
    if (!answer) {
      result.outcome = AuthenticationOutcome::Disconnected;
    } else if (answer->kind == AnswerKind::Cancel) {
      result.outcome = AuthenticationOutcome::Cancelled;
    } else if (answer->kind == AnswerKind::Unavailable) {
      result.outcome = AuthenticationOutcome::NoInteraction;
    } else if (answer->response.view() != account + "-password") {
      result.outcome = AuthenticationOutcome::Failed;
    } else {
      result.outcome = AuthenticationOutcome::Authenticated;
      result.account = account;
    }
    return result;
  }
  int attempts = 0;
};

struct Exchange {
  std::int32_t status = 1;  // 1: no reply at all
  std::size_t prompts = 0;
  ExternalForm token{};  // of a create
};

// The answers the test's client sends to the prompts, in order; when they run out it hangs up.
using Script = std::vector<Data>;

Script typing(std::vector<std::string> passwords) {
  Script script;
  for (const std::string& password : passwords) {
    script.push_back(encodeAnswer(AnswerKind::Response, password));
  }
  return script;
}

class AuthorityServiceTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the rights store accepts only root-owned files";
    char pattern[] = "/tmp/krv-service-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_base = pattern;
    ASSERT_EQ(::chmod(m_base.c_str(), 0755), 0);
    m_rights = std::make_unique<RightsStore>(m_base + "/rights.d");
    ASSERT_TRUE(m_rights->set(kRight, {"default", ""}));
    BackOffLimits backOffLimits;
    backOffLimits.initialDelay = 300ms;
    m_backOff = std::make_unique<BackOff>(m_clock, backOffLimits);
    useRequestTimeout(500ms);
  }
  // A new service whose connections wait this long for their request.
  void useRequestTimeout(std::chrono::milliseconds request) {
    ServiceTimeouts timeouts;
    timeouts.request = request;
    timeouts.answer = 5s;
    timeouts.send = 2s;
    m_service = std::make_unique<AuthorityService>(m_clock, m_tokens, *m_rights, m_authenticator,
                                                   m_directory, *m_backOff, m_log, timeouts);
  }
  void TearDown() override {
    if (!m_base.empty()) std::system(("rm -rf '" + m_base + "'").c_str());
  }

  // Runs one request through the service as `uid`, answering prompts from the script.
  Exchange run(uid_t uid, const Request& request, const Script& script = {}) {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    UniqueFd client(ends[0]);
    UniqueFd server(ends[1]);
    std::thread serving([&] {
      Peer peer;
      peer.uid = uid;
      peer.gid = uid;
      peer.pid = ::getpid();
      peer.process = sys::pidfdOpen(::getpid()).valueOr(UniqueFd());
      peer.session = 1;
      m_service->serve(server.get(), peer);
      server.reset();
    });
    Exchange exchange;
    EXPECT_TRUE(sendMessage(client.get(), encodeRequest(request), deadlineAfter(2s)).ok());
    std::size_t next = 0;
    for (;;) {
      Result<Data> received =
          receiveMessage(client.get(), kMaximumReplyPayload, deadlineAfter(10s));
      if (!received) break;
      Result<ServiceMessage> message = decodeServiceMessage(*received);
      EXPECT_TRUE(message.ok());
      if (!message) break;
      if (!message->prompt) {
        exchange.status = message->status;
        const Value* token = message->results.find("Token");
        if (token != nullptr && token->asData() != nullptr && token->asData()->size() == 32) {
          std::copy(token->asData()->begin(), token->asData()->end(), exchange.token.begin());
        }
        break;
      }
      ++exchange.prompts;
      if (!expectsAnswer(message->prompt->style)) continue;
      if (next == script.size()) break;  // hang up in the middle of the prompt
      EXPECT_TRUE(sendMessage(client.get(), script[next++], deadlineAfter(2s)).ok());
    }
    client.reset();
    serving.join();
    return exchange;
  }

  ExternalForm create(uid_t uid) {
    Request request;
    request.operation = Operation::Create;
    Exchange exchange = run(uid, request);
    EXPECT_EQ(exchange.status, kStatusSuccess);
    return exchange.token;
  }

  Request copyRightsRequest(const ExternalForm& token,
                            std::uint32_t flags = kFlagInteractionAllowed | kFlagExtendRights |
                                                  kFlagPreAuthorize) {
    Request request;
    request.operation = Operation::CopyRights;
    request.token = token;
    request.right = kRight;
    request.flags = flags;
    return request;
  }

  Exchange copyRights(uid_t uid, const ExternalForm& token, const Script& script = {}) {
    return run(uid, copyRightsRequest(token), script);
  }

  std::int32_t validate(const ExternalForm& token, uid_t claimed, uid_t caller = 0) {
    Request request = copyRightsRequest(token, kFlagExtendRights);
    request.operation = Operation::Validate;
    request.user = claimed;
    return run(caller, request).status;
  }

  std::string m_base;
  ManualClock m_clock;
  TokenStore m_tokens{m_clock};
  std::unique_ptr<RightsStore> m_rights;
  FakeDirectory m_directory;
  ScriptedAuthenticator m_authenticator;
  SystemLog m_log{"authority-test", "Auth", 0, "/nonexistent/log"};
  std::unique_ptr<BackOff> m_backOff;
  std::unique_ptr<AuthorityService> m_service;
};

TEST_F(AuthorityServiceTest, ACredentialLastsItsRuleTimeFromWhenItWasObtained) {
  ExternalForm token = create(kAlice);
  ASSERT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
  const Instant obtained = m_clock.now();
  EXPECT_EQ(copyRights(kAlice, token).prompts, 0u) << "a second copy asks nothing";
  EXPECT_EQ(validate(token, kAlice, kBob), kStatusDenied) << "only root validates";

  m_clock.set(obtained + 299s);
  EXPECT_EQ(validate(token, kAlice), kStatusSuccess);
  m_clock.set(obtained + 300s);
  EXPECT_EQ(validate(token, kAlice), kStatusInteractionNotAllowed);
  m_clock.set(obtained + 301s);
  EXPECT_EQ(validate(token, kAlice), kStatusInteractionNotAllowed);
  // The client answers -60007 by authenticating again with the same token.
  EXPECT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
  EXPECT_EQ(validate(token, kAlice), kStatusSuccess);
}

TEST_F(AuthorityServiceTest, TimeoutZeroRuleAsksForEveryUseWithoutLooping) {
  ASSERT_TRUE(m_rights->set(kRight, {"authenticate-admin", ""}));
  ExternalForm token = create(kAlice);
  for (int use = 0; use < 2; ++use) {
    ASSERT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
    EXPECT_EQ(validate(token, kAlice), kStatusSuccess) << "use " << use;
    EXPECT_EQ(validate(token, kAlice), kStatusInteractionNotAllowed) << "use " << use;
  }
  EXPECT_EQ(m_authenticator.attempts, 2);
}

TEST_F(AuthorityServiceTest, TheFlagsAndTheAnswerDecideWhetherTheUserIsAsked) {
  struct Case {
    const char* scenario;
    std::uint32_t flags;
    Script script;
    std::int32_t status;
    std::size_t prompts;
  };
  const Case cases[] = {
      {"cancelled",
       kFlagInteractionAllowed | kFlagExtendRights,
       {encodeAnswer(AnswerKind::Cancel)},
       kStatusCanceled,
       1},
      {"no way to ask",
       kFlagInteractionAllowed | kFlagExtendRights,
       {encodeAnswer(AnswerKind::Unavailable)},
       kStatusInteractionNotAllowed,
       1},
      {"interaction not allowed", kFlagExtendRights, {}, kStatusInteractionNotAllowed, 0},
      {"rights not extended", kFlagInteractionAllowed, {}, kStatusDenied, 0},
      {"destroy rights", kFlagDestroyRights, {}, kStatusInvalidFlags, 0},
  };
  ExternalForm token = create(kAlice);
  for (const Case& c : cases) {
    Exchange exchange = run(kAlice, copyRightsRequest(token, c.flags), c.script);
    EXPECT_EQ(exchange.status, c.status) << c.scenario;
    EXPECT_EQ(exchange.prompts, c.prompts) << c.scenario;
  }
}

TEST_F(AuthorityServiceTest, OperationsOnOthersBehalfAndRightDefinitionsAreForRootOnly) {
  const ExternalForm token = create(kAlice);
  bool defined = false;
  for (Operation operation : {Operation::Validate, Operation::DestroyRights, Operation::RightSet,
                              Operation::RightGet, Operation::RightRemove}) {
    Request request;
    request.operation = operation;
    request.token = token;
    request.user = kAlice;
    request.flags = kFlagExtendRights;
    request.right = "com.test.new";
    request.definition = Value("allow");
    SCOPED_TRACE(operationName(operation));
    EXPECT_EQ(run(kAlice, request).status, kStatusDenied);
    EXPECT_EQ(*m_rights->exists("com.test.new"), defined) << "nothing changed";
    if (operation == Operation::DestroyRights || operation == Operation::RightSet) {
      EXPECT_EQ(run(0, request).status, kStatusSuccess);
      defined = defined || operation == Operation::RightSet;
    }
  }
}

TEST_F(AuthorityServiceTest, AnAdministratorMayAuthenticateForAnotherUserByName) {
  Request request = copyRightsRequest(create(kBob));
  request.account = "alice";
  EXPECT_EQ(run(kBob, request, typing({"alice-password"})).status, kStatusSuccess);
}

TEST_F(AuthorityServiceTest, AnUnknownRuleDeniesWithoutAsking) {
  // An administrator's typo in a file; the service itself refuses to write one.
  ASSERT_TRUE(m_rights->set(kRight, {"alow", ""}));
  Exchange exchange = copyRights(kAlice, create(kAlice), typing({"alice-password"}));
  EXPECT_EQ(exchange.status, kStatusDenied);
  EXPECT_EQ(exchange.prompts, 0u);
  Request set;
  set.operation = Operation::RightSet;
  set.right = kRight;
  set.definition = Value("alow");
  EXPECT_EQ(run(0, set).status, kStatusInvalidSet);
}

TEST_F(AuthorityServiceTest, RepeatedFailuresDelayTheNextAttempt) {
  ExternalForm token = create(kAlice);
  ASSERT_EQ(copyRights(kAlice, token, typing({"a", "b", "c"})).status, kStatusDenied);
  EXPECT_EQ(m_authenticator.attempts, 3);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);

  // A client that leaves during the delay is not kept waiting for.
  ASSERT_TRUE(m_rights->set(kRight, {"authenticate-admin", ""}));
  ASSERT_EQ(copyRights(kAlice, token, typing({"a", "b", "c"})).status, kStatusDenied);
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  UniqueFd client(ends[0]);
  UniqueFd server(ends[1]);
  ASSERT_TRUE(
      sendMessage(client.get(), encodeRequest(copyRightsRequest(token)), deadlineAfter(1s)).ok());
  client.reset();
  start = std::chrono::steady_clock::now();
  Peer peer;
  peer.uid = kAlice;
  m_service->serve(server.get(), peer);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 250ms);
}

TEST_F(AuthorityServiceTest, NameServicesThatCannotAnswerFailTheRequestInsteadOfDenyingIt) {
  const ExternalForm token = create(kAlice);
  m_directory.failing = true;
  Exchange exchange = copyRights(kAlice, token, typing({"alice-password"}));
  EXPECT_EQ(exchange.status, kStatusInternal) << "her account name could not be had";
  EXPECT_EQ(exchange.prompts, 0u);
  ASSERT_TRUE(m_rights->set(kRight, {"is-admin", ""}));
  EXPECT_EQ(copyRights(kAlice, token).status, kStatusInternal) << "her groups could not be had";
  m_directory.failing = false;
  EXPECT_EQ(copyRights(kAlice, token).status, kStatusSuccess);
}

// The server: connections, limits and lifetime, on a socket of the test.
class AuthorityServerTest : public AuthorityServiceTest {
 protected:
  void TearDown() override {
    if (m_exit.valid()) {
      m_server->stop();
      m_exit.wait();
    }
    m_server.reset();
    AuthorityServiceTest::TearDown();
  }

  void startServer(ServerLimits limits) {
    m_socketPath = m_base + "/socket";
    Result<UniqueFd> listening = test::listenOnUnixSocket(m_socketPath, 0666);
    ASSERT_TRUE(listening.ok());
    m_listening = std::move(listening).value();
    m_server = std::make_unique<AuthorityServer>(*m_service, m_tokens, m_log, limits);
    // The exit status is handed over by the runner's future: read only once the runner is done.
    m_exit = std::async(std::launch::async, [this] { return m_server->run(m_listening.get()); });
  }

  UniqueFd connect() const {
    UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_socketPath.data(), m_socketPath.size());
    if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return UniqueFd();
    }
    return socket;
  }

  std::string m_socketPath;
  UniqueFd m_listening;
  std::unique_ptr<AuthorityServer> m_server;
  std::future<int> m_exit;
};

// True when the server closed the connection without a word (within 2 s).
bool closedAtOnce(int socket) {
  std::uint8_t byte = 0;
  struct timeval timeout {
    2, 0
  };
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return ::recv(socket, &byte, 1, 0) == 0;
}

TEST_F(AuthorityServerTest, ExitsWhenIdleOnlyWithoutLiveTokens) {
  ServerLimits limits;
  limits.idleTimeout = 300ms;
  limits.sweepInterval = 50ms;
  startServer(limits);
  setServiceSocketPath(m_socketPath);
  std::unique_ptr<Authorization> authorization;
  ASSERT_EQ(Authorization::create(authorization), kStatusSuccess);
  // More than twice the idle timeout passes without the service ending.
  EXPECT_EQ(m_exit.wait_for(700ms), std::future_status::timeout)
      << "a live token keeps the service";
  ASSERT_EQ(authorization->free(kFlagDefaults), kStatusSuccess);
  const auto freed = std::chrono::steady_clock::now();
  EXPECT_EQ(m_exit.get(), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - freed, 250ms);
  setServiceSocketPath(std::string(kServiceSocketPath));
}

TEST_F(AuthorityServerTest, BoundsConnectionsPerUserAndKeepsRootsOwnAllowance) {
  ServerLimits limits;
  limits.connectionsPerUser = 2;
  limits.connections = 3;
  limits.rootConnections = 1;
  // Idle connections stay counted for the whole test, however slowly it runs.
  useRequestTimeout(60s);
  startServer(limits);

  // Two idle connections of uid 1001 are kept; the third is closed at once. The server accepts
  // connections in the order they were made, so the third is counted after the other two.
  Result<test::ChildProcess> alice =
      test::ChildProcess::start({kAlice, kAlice}, [this](test::LineChannel& parent) {
        std::vector<UniqueFd> held;
        for (int i = 0; i < 2; ++i) held.push_back(connect());
        UniqueFd third = connect();
        (void)parent.send(closedAtOnce(third.get()) ? "refused" : "accepted");
        (void)parent.receive(10s);
        return 0;
      });
  ASSERT_TRUE(alice.ok());
  EXPECT_EQ(alice->channel().receive(10s).valueOr("<nothing>"), "refused");

  // Another user still gets the last place in all; the next user does not.
  Result<int> bob = test::runAs({kBob, kBob}, [this] {
    UniqueFd first = connect();
    UniqueFd second = connect();
    return closedAtOnce(second.get()) ? 0 : 1;
  });
  EXPECT_EQ(std::move(bob).valueOr(-1), 0);

  // Root (the daemon) is served although the users hold every place.
  UniqueFd root = connect();
  Request create;
  create.operation = Operation::Create;
  ASSERT_TRUE(sendMessage(root.get(), encodeRequest(create), deadlineAfter(2s)).ok());
  Result<Data> reply = receiveMessage(root.get(), kMaximumReplyPayload, deadlineAfter(5s));
  ASSERT_TRUE(reply.ok()) << reply.error().description();
  EXPECT_EQ(decodeServiceMessage(*reply)->status, kStatusSuccess);
  (void)alice->channel().send("done");
  EXPECT_EQ(alice->wait().valueOr(-1), 0);
}

TEST_F(AuthorityServerTest, AStalledClientIsDroppedAfterTheRequestDeadline) {
  startServer(ServerLimits{});
  UniqueFd stalled = connect();
  // Half a header, then nothing.
  const std::uint8_t partial[10] = {'*', '*', '*'};
  ASSERT_EQ(::send(stalled.get(), partial, sizeof partial, MSG_NOSIGNAL), 10);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(closedAtOnce(stalled.get()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
}

}  // namespace
}  // namespace krv::auth
