#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <map>
#include <thread>

#include "authorization/AuthorityService.h"
#include "authorization/MessageChannel.h"
#include "foundation/Archiver.h"
#include "foundation/Sha256.h"
#include "foundation/System.h"

namespace krv::auth {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kAlice = 1001;  // administrator
constexpr uid_t kBob = 1002;    // ordinary user
constexpr const char* kRight = "com.test.right";

class FakeDirectory final : public UserDirectory {
 public:
  std::optional<UserAccount> accountOf(uid_t uid) const override {
    for (const UserAccount& account : kAccounts) {
      if (account.uid == uid) return account;
    }
    return std::nullopt;
  }
  std::optional<UserAccount> accountNamed(const std::string& name) const override {
    for (const UserAccount& account : kAccounts) {
      if (account.name == name) return account;
    }
    return std::nullopt;
  }
  bool isAdministrator(const UserAccount& account) const override {
    return account.name == "alice" || account.name == "carol";
  }
  using UserDirectory::isAdministrator;

 private:
  const std::vector<UserAccount> kAccounts = {
      {"root", 0, 0}, {"alice", kAlice, kAlice}, {"bob", kBob, kBob}, {"carol", 1003, 1003}};
};

// Asks once for a password and compares it with its table; "carol" is refused by the account
// check whatever she types.
class ScriptedAuthenticator final : public Authenticator {
 public:
  AuthenticationResult authenticate(const std::string& account, const std::string&,
                                    PromptChannel& channel) override {
    ++attempts;
    AuthenticationResult result;
    std::optional<Answer> answer =
        channel.ask(Prompt{PromptStyle::Secret, "Password for " + account + ": "});
    if (!answer) {
      result.outcome = AuthenticationOutcome::Disconnected;
    } else if (answer->kind == AnswerKind::Cancel) {
      result.outcome = AuthenticationOutcome::Cancelled;
    } else if (answer->kind == AnswerKind::Unavailable) {
      result.outcome = AuthenticationOutcome::NoInteraction;
    } else if (m_passwords.count(account) == 0 ||
               m_passwords.at(account) != answer->response.view()) {
      result.outcome = AuthenticationOutcome::Failed;
    } else if (account == "carol") {
      result.outcome = AuthenticationOutcome::Refused;
    } else {
      result.outcome = AuthenticationOutcome::Authenticated;
      result.account = account;
    }
    return result;
  }
  int attempts = 0;

 private:
  const std::map<std::string, std::string> m_passwords = {
      {"alice", "alice-password"}, {"bob", "bob-password"}, {"carol", "carol-password"}};
};

struct Exchange {
  std::int32_t status = 1;  // 1: no reply at all
  Dictionary results;
  std::vector<Prompt> prompts;
};

// What the test's client answers to the prompts, in order; when the script runs out the client
// hangs up.
struct Script {
  std::vector<std::string> passwords;
  std::optional<AnswerKind> finally = std::nullopt;  // after the passwords, instead of hanging up
};

Script typing(std::vector<std::string> passwords) { return Script{std::move(passwords)}; }
Script answering(AnswerKind kind) { return Script{{}, kind}; }

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

    // The service's log goes to a datagram socket of the test, so that it can be read back.
    m_logPath = m_base + "/log";
    m_logSocket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, m_logPath.data(), m_logPath.size());
    ASSERT_EQ(::bind(m_logSocket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    m_log = std::make_unique<SystemLog>("authority-test", "Auth", 0, m_logPath);

    BackOffLimits backOffLimits;
    backOffLimits.initialDelay = 300ms;
    m_backOff = std::make_unique<BackOff>(m_clock, backOffLimits);
    ServiceTimeouts timeouts;
    timeouts.request = 2s;
    timeouts.answer = 5s;
    timeouts.send = 2s;
    m_service = std::make_unique<AuthorityService>(m_clock, m_tokens, *m_rights, m_authenticator,
                                                   m_directory, *m_backOff, *m_log, timeouts);
  }
  void TearDown() override {
    if (!m_base.empty()) std::system(("rm -rf '" + m_base + "'").c_str());
  }

  // Runs one request through the service as `uid`, answering prompts from the script.
  Exchange run(uid_t uid, const Request& request, const Script& script = {}) {
    return runPayload(uid, encodeRequest(request), script);
  }

  Exchange runPayload(uid_t uid, const Data& payload, const Script& script = {}) {
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
    EXPECT_TRUE(sendMessage(client.get(), payload, deadlineAfter(2s)).ok());
    std::size_t nextPassword = 0;
    bool finallyUsed = false;
    for (;;) {
      Result<Data> received =
          receiveMessage(client.get(), kMaximumReplyPayload, deadlineAfter(10s));
      if (!received) break;
      Result<ServiceMessage> message = decodeServiceMessage(*received);
      EXPECT_TRUE(message.ok());
      if (!message) break;
      if (!message->prompt) {
        exchange.status = message->status;
        exchange.results = message->results;
        break;
      }
      exchange.prompts.push_back(*message->prompt);
      if (!expectsAnswer(message->prompt->style)) continue;
      Data answer;
      if (nextPassword < script.passwords.size()) {
        answer = encodeAnswer(AnswerKind::Response, script.passwords[nextPassword++]);
      } else if (script.finally && !finallyUsed) {
        answer = encodeAnswer(*script.finally);
        finallyUsed = true;
      } else {
        client.reset();  // hang up in the middle of the prompt
        break;
      }
      EXPECT_TRUE(sendMessage(client.get(), answer, deadlineAfter(2s)).ok());
    }
    serving.join();
    return exchange;
  }

  ExternalForm create(uid_t uid) {
    Request request;
    request.operation = Operation::Create;
    Exchange exchange = run(uid, request);
    EXPECT_EQ(exchange.status, kStatusSuccess);
    ExternalForm token{};
    const Value* value = exchange.results.find("Token");
    if (value != nullptr && value->asData() != nullptr && value->asData()->size() == 32) {
      std::copy(value->asData()->begin(), value->asData()->end(), token.begin());
    } else {
      ADD_FAILURE() << "no token";
    }
    return token;
  }

  Exchange copyRights(uid_t uid, const ExternalForm& token, const Script& script = {},
                      std::uint32_t flags = kFlagInteractionAllowed | kFlagExtendRights |
                                            kFlagPreAuthorize,
                      const std::string& right = kRight) {
    Request request;
    request.operation = Operation::CopyRights;
    request.token = token;
    request.right = right;
    request.flags = flags;
    return run(uid, request, script);
  }

  std::int32_t validate(const ExternalForm& token, uid_t claimed, uid_t caller = 0,
                        const std::string& right = kRight) {
    Request request;
    request.operation = Operation::Validate;
    request.token = token;
    request.right = right;
    request.flags = kFlagExtendRights;
    request.user = claimed;
    return run(caller, request).status;
  }

  std::int32_t rightRequest(uid_t uid, Operation operation, const std::string& right,
                            std::optional<Value> definition = std::nullopt) {
    Request request;
    request.operation = operation;
    request.right = right;
    request.definition = std::move(definition);
    return run(uid, request).status;
  }

  std::string logText() {
    std::string text;
    char buffer[2048];
    for (;;) {
      ssize_t count = ::recv(m_logSocket.get(), buffer, sizeof buffer, 0);
      if (count <= 0) return text;
      text.append(buffer, static_cast<std::size_t>(count));
      text += '\n';
    }
  }

  std::string m_base;
  std::string m_logPath;
  UniqueFd m_logSocket;
  ManualClock m_clock;
  TokenStore m_tokens{m_clock};
  std::unique_ptr<RightsStore> m_rights;
  FakeDirectory m_directory;
  ScriptedAuthenticator m_authenticator;
  std::unique_ptr<SystemLog> m_log;
  std::unique_ptr<BackOff> m_backOff;
  std::unique_ptr<AuthorityService> m_service;
};

TEST_F(AuthorityServiceTest, AdministratorPasswordGrantsTheRightAndTheDaemonValidatesIt) {
  ExternalForm token = create(kAlice);
  Exchange exchange = copyRights(kAlice, token, typing({"alice-password"}));
  EXPECT_EQ(exchange.status, kStatusSuccess);
  ASSERT_EQ(exchange.prompts.size(), 1u);
  EXPECT_EQ(exchange.prompts[0].style, PromptStyle::Secret);
  EXPECT_EQ(exchange.prompts[0].message, "Password for alice: ");

  EXPECT_EQ(validate(token, kAlice), kStatusSuccess);
  // A second copy within the credential's life asks nothing.
  EXPECT_EQ(copyRights(kAlice, token).prompts.size(), 0u);
}

TEST_F(AuthorityServiceTest, ThreeWrongPasswordsAreDenied) {
  ExternalForm token = create(kAlice);
  Exchange exchange = copyRights(kAlice, token, typing({"guess1", "guess2", "guess3"}));
  EXPECT_EQ(exchange.status, kStatusDenied);
  EXPECT_EQ(m_authenticator.attempts, 3);
  int retries = 0;
  for (const Prompt& prompt : exchange.prompts) {
    retries += prompt.style == PromptStyle::Error && prompt.message == "Sorry, try again." ? 1 : 0;
  }
  EXPECT_EQ(retries, 2);
  EXPECT_EQ(validate(token, kAlice), kStatusInteractionNotAllowed);
}

TEST_F(AuthorityServiceTest, OnlyAdministratorsAndEntitledAccountsAreGranted) {
  ExternalForm bobs = create(kBob);
  EXPECT_EQ(copyRights(kBob, bobs, typing({"bob-password"})).status, kStatusDenied)
      << "bob authenticated but is no administrator";
  EXPECT_EQ(m_authenticator.attempts, 1) << "a right password is not retried";

  ASSERT_TRUE(m_rights->set(kRight, {"authenticate-session-owner-or-admin", ""}));
  EXPECT_EQ(copyRights(kBob, bobs, typing({"bob-password"})).status, kStatusSuccess);

  // An administrator may authenticate for bob by naming her account.
  ASSERT_TRUE(m_rights->set(kRight, {"default", ""}));
  Request request;
  request.operation = Operation::CopyRights;
  request.token = create(kBob);
  request.right = kRight;
  request.flags = kFlagInteractionAllowed | kFlagExtendRights;
  request.account = "alice";
  EXPECT_EQ(run(kBob, request, typing({"alice-password"})).status, kStatusSuccess);
  // An account whose use PAM refuses is denied at once.
  ASSERT_TRUE(m_rights->set(kRight, {"authenticate-admin-nonshared", ""}));
  request.token = create(kBob);
  request.account = "carol";
  EXPECT_EQ(run(kBob, request, typing({"carol-password"})).status, kStatusDenied);
  // A requester without an account name cannot authenticate as themselves.
  EXPECT_EQ(copyRights(4242, create(4242), typing({"x"})).status, kStatusDenied);
}

TEST_F(AuthorityServiceTest, CancelAndMissingInteractionEndTheAuthentication) {
  ExternalForm token = create(kAlice);
  EXPECT_EQ(copyRights(kAlice, token, answering(AnswerKind::Cancel)).status, kStatusCanceled);
  EXPECT_EQ(copyRights(kAlice, token, answering(AnswerKind::Unavailable)).status,
            kStatusInteractionNotAllowed);
  Exchange quiet = copyRights(kAlice, token, {}, kFlagExtendRights);
  EXPECT_EQ(quiet.status, kStatusInteractionNotAllowed);
  EXPECT_TRUE(quiet.prompts.empty());
  EXPECT_EQ(copyRights(kAlice, token, {}, kFlagInteractionAllowed).status, kStatusDenied)
      << "without extend rights nothing new is obtained";
  EXPECT_EQ(copyRights(kAlice, token, {}, kFlagDestroyRights).status, kStatusInvalidFlags);
}

TEST_F(AuthorityServiceTest, ValidationHonoursTheClaimedUserAndTheCredentialAge) {
  ExternalForm token = create(kAlice);
  ASSERT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
  const Instant obtained = m_clock.now();

  EXPECT_EQ(validate(token, kBob), kStatusDenied) << "replayed for another user";
  EXPECT_EQ(validate(token, kAlice, kBob), kStatusDenied) << "only root validates";
  ExternalForm zero{};
  EXPECT_EQ(validate(zero, kAlice), kStatusInteractionNotAllowed);
  ExternalForm guessed = token;
  guessed[5] ^= 0x01;
  EXPECT_EQ(validate(guessed, kAlice), kStatusInteractionNotAllowed);

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

TEST_F(AuthorityServiceTest, TokensBelongToTheirCreator) {
  ExternalForm alices = create(kAlice);
  EXPECT_EQ(copyRights(kBob, alices, typing({"bob-password"})).status, kStatusInvalidRef);
  Request free;
  free.operation = Operation::Free;
  free.token = alices;
  EXPECT_EQ(run(kBob, free).status, kStatusInvalidRef);
  EXPECT_EQ(run(kAlice, free).status, kStatusSuccess);
  EXPECT_EQ(run(kAlice, free).status, kStatusInvalidRef);
  EXPECT_EQ(validate(alices, kAlice), kStatusInteractionNotAllowed);

  Request destroy;
  destroy.operation = Operation::DestroyRights;
  destroy.token = create(kAlice);
  destroy.user = kAlice;
  EXPECT_EQ(run(kBob, destroy).status, kStatusDenied) << "only root destroys on behalf";
  EXPECT_EQ(run(0, destroy).status, kStatusSuccess);
}

TEST_F(AuthorityServiceTest, UnsafeOrUnusableDefinitionsDenyWithoutAsking) {
  ExternalForm token = create(kAlice);
  const std::string file = m_base + "/rights.d/" + kRight + ".plist";
  ASSERT_EQ(::chmod(file.c_str(), 0666), 0);
  Exchange exchange = copyRights(kAlice, token, typing({"alice-password"}));
  EXPECT_EQ(exchange.status, kStatusDenied);
  EXPECT_TRUE(exchange.prompts.empty());
  EXPECT_NE(logText().find("is unsafe"), std::string::npos);

  // A rule name nobody knows (an administrator's typo) denies as well; the service itself
  // refuses to write one.
  ASSERT_TRUE(m_rights->set(kRight, {"alow", ""}));
  EXPECT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusDenied);
  EXPECT_NE(logText().find("unknown rule 'alow'"), std::string::npos);
  EXPECT_EQ(rightRequest(0, Operation::RightSet, kRight, Value("alow")), kStatusInvalidSet);
  // A right nobody defined is not denied outright: the rule "default" applies, which needs an
  // administrator's password that cannot be asked for here.
  EXPECT_EQ(copyRights(kAlice, token, {}, kFlagExtendRights, "com.test.undefined").status,
            kStatusInteractionNotAllowed);
}

TEST_F(AuthorityServiceTest, RightDefinitionsAreForRootOnly) {
  EXPECT_EQ(rightRequest(kAlice, Operation::RightSet, "com.test.new", Value("allow")),
            kStatusDenied);
  EXPECT_EQ(rightRequest(kAlice, Operation::RightGet, kRight), kStatusDenied);
  EXPECT_EQ(rightRequest(kAlice, Operation::RightRemove, kRight), kStatusDenied);
  EXPECT_FALSE(*m_rights->exists("com.test.new"));

  EXPECT_EQ(rightRequest(0, Operation::RightSet, "com.test.new", Value("allow")), kStatusSuccess);
  EXPECT_EQ(m_rights->lookup("com.test.new").definition.rule, "allow");
  ExternalForm token = create(kBob);
  EXPECT_EQ(copyRights(kBob, token, {}, kFlagExtendRights, "com.test.new").status, kStatusSuccess)
      << "a change takes effect with the next request";
  EXPECT_EQ(rightRequest(0, Operation::RightRemove, "com.test.new"), kStatusSuccess);
  EXPECT_EQ(rightRequest(0, Operation::RightRemove, "com.test.new"), kStatusDenied);
  EXPECT_EQ(rightRequest(0, Operation::RightGet, "com.test.new"), kStatusDenied);

  Dictionary hostile;
  hostile.append("Operation", Value("RightSet"));
  hostile.append("Right", Value("../../etc/sudoers.d/x"));
  hostile.append("Definition", Value("allow"));
  EXPECT_EQ(runPayload(0, archiveSequential(Value(hostile))).status, kStatusInvalidSet);
}

TEST_F(AuthorityServiceTest, AClientThatHangsUpDuringThePromptEndsTheConversation) {
  ExternalForm token = create(kAlice);
  const auto start = std::chrono::steady_clock::now();
  Exchange exchange = copyRights(kAlice, token, {});  // no answer: hangs up at the prompt
  EXPECT_EQ(exchange.status, 1) << "nobody left to answer";
  EXPECT_LT(std::chrono::steady_clock::now() - start, 2s);
  EXPECT_EQ(m_authenticator.attempts, 1);
  EXPECT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
}

TEST_F(AuthorityServiceTest, RepeatedFailuresDelayTheNextAttempt) {
  ExternalForm token = create(kAlice);
  ASSERT_EQ(copyRights(kAlice, token, typing({"a", "b", "c"})).status, kStatusDenied);
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(copyRights(kAlice, token, typing({"alice-password"})).status, kStatusSuccess);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 300ms);

  // A client that leaves during the delay is not kept waiting for.
  ASSERT_TRUE(m_rights->set(kRight, {"authenticate-admin", ""}));
  ASSERT_EQ(copyRights(kAlice, token, typing({"a", "b", "c"})).status, kStatusDenied);
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  UniqueFd client(ends[0]);
  Request request;
  request.operation = Operation::CopyRights;
  request.token = token;
  request.right = kRight;
  request.flags = kFlagInteractionAllowed | kFlagExtendRights;
  ASSERT_TRUE(sendMessage(client.get(), encodeRequest(request), deadlineAfter(1s)).ok());
  client.reset();
  start = std::chrono::steady_clock::now();
  Peer peer;
  peer.uid = kAlice;
  m_service->serve(ends[1], peer);
  ::close(ends[1]);
  EXPECT_LT(std::chrono::steady_clock::now() - start, 250ms);
}

TEST_F(AuthorityServiceTest, PasswordsAndTokensNeverReachTheLog) {
  ExternalForm token = create(kAlice);
  ASSERT_EQ(copyRights(kAlice, token, typing({"wrong-guess", "alice-password"})).status,
            kStatusSuccess);
  ASSERT_EQ(validate(token, kBob), kStatusDenied);
  const std::string log = logText();
  EXPECT_NE(log.find("failed (attempt 1 of 3)"), std::string::npos) << log;
  EXPECT_EQ(log.find("wrong-guess"), std::string::npos);
  EXPECT_EQ(log.find("alice-password"), std::string::npos);
  const std::string raw(token.begin(), token.end());
  EXPECT_EQ(log.find(raw.substr(0, 8)), std::string::npos);
  std::string hex = Sha256::hex(token);
  EXPECT_EQ(log.find(hex.substr(0, 16)), std::string::npos);
}

TEST_F(AuthorityServiceTest, MalformedRequestsAreRefused) {
  EXPECT_EQ(runPayload(kAlice, Data{0x00, 0x01, 0x02}).status, kStatusInvalidSet);
  Dictionary create;
  create.append("Operation", Value("Create"));
  create.append("Token", Value(Data(32, 1)));
  EXPECT_EQ(runPayload(kAlice, archiveSequential(Value(create))).status, kStatusInvalidSet);
  EXPECT_EQ(m_tokens.liveCount(), 0u);
}

}  // namespace
}  // namespace krv::auth
