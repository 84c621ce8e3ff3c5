// The authorization service end to end: the real binary, real PAM (pam_wrapper and pam_matrix),
// clients as real processes of other users.

#include <grp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

#include "authorization/AuthorityProtocol.h"
#include "authorization/MessageChannel.h"
#include "authorization/PromptHandler.h"
#include "foundation/System.h"
#include "tests/authority/AuthorityFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;
using auth::Authorization;

constexpr std::uint32_t kClientFlags =
    auth::kFlagInteractionAllowed | auth::kFlagExtendRights | auth::kFlagPreAuthorize;

UniqueFd connectToService() {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = auth::serviceSocketPath();
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return UniqueFd();
  }
  return socket;
}

// One request without the client library; the first message of the reply (a prompt or a status).
struct RawReply {
  UniqueFd connection;
  std::optional<auth::ServiceMessage> message;
};

RawReply rawRequest(const auth::Request& request) {
  RawReply reply;
  reply.connection = connectToService();
  if (!reply.connection) return reply;
  if (!auth::sendMessage(reply.connection.get(), auth::encodeRequest(request),
                         auth::deadlineAfter(5s))) {
    return reply;
  }
  Result<Data> payload = auth::receiveMessage(reply.connection.get(), auth::kMaximumReplyPayload,
                                              auth::deadlineAfter(30s));
  if (!payload) return reply;
  Result<auth::ServiceMessage> message = auth::decodeServiceMessage(*payload);
  if (message) reply.message = std::move(message).value();
  return reply;
}

std::int32_t rawStatus(const auth::Request& request) {
  RawReply reply = rawRequest(request);
  if (!reply.message || reply.message->prompt) return 1;
  return reply.message->status;
}

// Creates an authorization and obtains the default right with the given answers; sends the status
// and the token to the parent. The token lives as long as the returned authorization.
std::unique_ptr<Authorization> obtainDefaultRight(LineChannel& parent,
                                                  std::vector<std::optional<std::string>> answers,
                                                  int* asked = nullptr) {
  answerPrompts(std::move(answers), asked);
  std::unique_ptr<Authorization> authorization;
  if (Authorization::create(authorization) != auth::kStatusSuccess) {
    (void)parent.send("create failed");
    return authorization;
  }
  (void)parent.send(line(authorization->copyRights(kDefaultRight, kClientFlags)));
  auth::ExternalForm token{};
  (void)authorization->makeExternalForm(token);
  (void)parent.send(hex(token));
  return authorization;
}

std::int32_t validate(const auth::ExternalForm& token, uid_t claimed,
                      const std::string& right = kDefaultRight) {
  std::unique_ptr<Authorization> authorization;
  EXPECT_EQ(Authorization::createFromExternalForm(token, claimed, authorization),
            auth::kStatusSuccess);
  return authorization->copyRights(right, auth::kFlagExtendRights);
}

std::size_t residentKilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stoul(line.substr(6));
  }
  return 0;
}

class AuthorityEndToEndTest : public AuthorityFixture {};

TEST_F(AuthorityEndToEndTest, TheRightPasswordGrantsTheRightAndTheDaemonValidatesIt) {
  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    int asked = 0;
    auto authorization = obtainDefaultRight(parent, {"alice-password"}, &asked);
    (void)parent.send(std::to_string(asked));
    // Stay alive (the token ends with its creator) until the daemon's part is done.
    (void)parent.receive(60s);
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  EXPECT_EQ(alice->channel().receive().valueOr(""), "0");
  const auth::ExternalForm token = tokenFromHex(alice->channel().receive().valueOr(""));
  EXPECT_EQ(alice->channel().receive().valueOr(""), "1") << "one password prompt";

  EXPECT_EQ(validate(token, kAlice), auth::kStatusSuccess);
  EXPECT_EQ(validate(token, kBob), auth::kStatusDenied) << "replayed for another user";
  // An undefined right falls back to the rule "default", which Alice's fresh credential meets.
  EXPECT_EQ(validate(token, kAlice, "com.test.undefined"), auth::kStatusSuccess);

  // The creating process ends: so does its token.
  (void)alice->channel().send("done");
  EXPECT_EQ(alice->wait().valueOr(-1), 0);
  EXPECT_EQ(validate(token, kAlice), auth::kStatusInteractionNotAllowed);

  const std::string log = serviceLog();
  EXPECT_NE(log.find("granted to uid 1001 after authentication as 'alice'"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("alice-password"), std::string::npos);
}

TEST_F(AuthorityEndToEndTest, WrongPasswordsThreeTimesAreDenied) {
  auto lines = asUser(kAlice, [](LineChannel& parent) {
    int asked = 0;
    obtainDefaultRight(parent, {"guess-1", "guess-2", "guess-3", "alice-password"}, &asked);
    (void)parent.send(std::to_string(asked));
  });
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], line(auth::kStatusDenied));
  EXPECT_EQ(lines[2], "3") << "exactly three attempts";
  EXPECT_EQ(serviceLog().find("guess-"), std::string::npos) << "passwords are never logged";
}

TEST_F(AuthorityEndToEndTest, UnknownUsersAreDenied) {
  auto erin = asUser(kErin, [](LineChannel& parent) {
    obtainDefaultRight(parent, {"erin-password", "erin-password", "erin-password"});
  });
  ASSERT_FALSE(erin.empty());
  EXPECT_EQ(erin[0], line(auth::kStatusDenied)) << "PAM does not know erin";

  int asked = 0;
  auto nobody = asUser(kNobodyKnown, [&asked](LineChannel& parent) {
    obtainDefaultRight(parent, {"anything"}, &asked);
    (void)parent.send(std::to_string(asked));
  });
  ASSERT_EQ(nobody.size(), 3u);
  EXPECT_EQ(nobody[0], line(auth::kStatusDenied)) << "uid without an account";
  EXPECT_EQ(nobody[2], "0") << "and nobody was asked";
}

TEST_F(AuthorityEndToEndTest, AnAccountPamRefusesIsDenied) {
  auto carol = asUser(kCarol, [](LineChannel& parent) {
    int asked = 0;
    obtainDefaultRight(parent, {"carol-password", "carol-password", "carol-password"}, &asked);
    (void)parent.send(std::to_string(asked));
  });
  ASSERT_EQ(carol.size(), 3u);
  EXPECT_EQ(carol[0], line(auth::kStatusDenied));
  EXPECT_EQ(carol[2], "1") << "a refused account is not asked again";
  EXPECT_NE(serviceLog().find("Account 'carol' may not be used now"), std::string::npos);
}

TEST_F(AuthorityEndToEndTest, AnEmptyPasswordIsRefused) {
  auto dave = asUser(kDave, [](LineChannel& parent) { obtainDefaultRight(parent, {"", "", ""}); });
  ASSERT_FALSE(dave.empty());
  EXPECT_EQ(dave[0], line(auth::kStatusDenied));
}

TEST_F(AuthorityEndToEndTest, AnAuthenticatedUserWhoIsNoAdministratorIsDenied) {
  auto bob = asUser(kBob, [](LineChannel& parent) {
    int asked = 0;
    obtainDefaultRight(parent, {"bob-password", "bob-password"}, &asked);
    (void)parent.send(std::to_string(asked));
  });
  ASSERT_EQ(bob.size(), 3u);
  EXPECT_EQ(bob[0], line(auth::kStatusDenied));
  EXPECT_EQ(bob[2], "1");

  defineRight("com.test.own", "authenticate-session-owner-or-admin");
  auto owner = asUser(kBob, [](LineChannel& parent) {
    answerPrompts({"bob-password"});
    std::unique_ptr<Authorization> authorization;
    (void)Authorization::create(authorization);
    (void)parent.send(line(authorization->copyRights("com.test.own", kClientFlags)));
  });
  ASSERT_FALSE(owner.empty());
  EXPECT_EQ(owner[0], line(auth::kStatusSuccess));
}

TEST_F(AuthorityEndToEndTest, CancellingOrHavingNoWayToAskEndsTheRequest) {
  auto lines = asUser(kAlice, [](LineChannel& parent) {
    obtainDefaultRight(parent, {std::nullopt});
    // A process without a terminal and without a handler of its own cannot ask at all.
    auth::setPromptHandler(nullptr);
    if (::setsid() < 0) return;
    std::unique_ptr<Authorization> authorization;
    (void)Authorization::create(authorization);
    (void)parent.send(line(authorization->copyRights(kDefaultRight, kClientFlags)));
  });
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], line(auth::kStatusCanceled));
  EXPECT_EQ(lines[2], line(auth::kStatusInteractionNotAllowed));
}

TEST_F(AuthorityEndToEndTest, GuessedZeroAndForeignTokensAreRefused) {
  auth::ExternalForm zero{};
  EXPECT_EQ(validate(zero, kAlice), auth::kStatusInteractionNotAllowed);
  auth::ExternalForm guessed{};
  ASSERT_TRUE(sys::getRandom(guessed));
  EXPECT_EQ(validate(guessed, kAlice), auth::kStatusInteractionNotAllowed);

  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    auto authorization = obtainDefaultRight(parent, {"alice-password"});
    (void)parent.receive(60s);
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  ASSERT_EQ(alice->channel().receive().valueOr(""), "0");
  const std::string token = alice->channel().receive().valueOr("");

  // Bob got hold of alice's token: it is nothing to him, whichever way he presents it.
  auto bob = asUser(kBob, [&token](LineChannel& parent) {
    auth::Request request;
    request.operation = auth::Operation::CopyRights;
    request.token = tokenFromHex(token);
    request.right = kDefaultRight;
    request.flags = auth::kFlagExtendRights;
    (void)parent.send(line(rawStatus(request)));
    request.operation = auth::Operation::Free;
    request.flags = auth::kFlagDestroyRights;
    (void)parent.send(line(rawStatus(request)));
    std::unique_ptr<Authorization> asDaemon;
    (void)Authorization::createFromExternalForm(tokenFromHex(token), kBob, asDaemon);
    (void)parent.send(line(asDaemon->copyRights(kDefaultRight, auth::kFlagExtendRights)));
  });
  EXPECT_EQ(bob,
            (std::vector<std::string>{line(auth::kStatusInvalidRef), line(auth::kStatusInvalidRef),
                                      line(auth::kStatusDenied)}));
  EXPECT_EQ(validate(tokenFromHex(token), kAlice), auth::kStatusSuccess) << "still alice's";
  (void)alice->channel().send("done");
}

TEST_F(AuthorityEndToEndTest, HostileRightNamesAndUnsafeDefinitionsAreRefused) {
  auto names = asUser(kAlice, [](LineChannel& parent) {
    answerPrompts({"alice-password"});
    std::unique_ptr<Authorization> authorization;
    (void)Authorization::create(authorization);
    for (const char* right : {"../../etc/shadow", "com.test/x", "..", ""}) {
      (void)parent.send(line(authorization->copyRights(right, kClientFlags)));
    }
  });
  EXPECT_EQ(names, std::vector<std::string>(4, line(auth::kStatusInvalidSet)));
  EXPECT_EQ(auth::rightSet("../escape", Value("allow")), auth::kStatusInvalidSet);

  defineRight("com.test.foreign", "allow");
  ASSERT_EQ(::chown(rightFile("com.test.foreign").c_str(), kAlice, kAlice), 0);
  defineRight("com.test.open", "allow");
  ASSERT_EQ(::chmod(rightFile("com.test.open").c_str(), 0666), 0);
  int asked = 0;
  auto unsafe = asUser(kAlice, [&asked](LineChannel& parent) {
    answerPrompts({"alice-password", "alice-password"}, &asked);
    std::unique_ptr<Authorization> authorization;
    (void)Authorization::create(authorization);
    (void)parent.send(line(authorization->copyRights("com.test.foreign", kClientFlags)));
    (void)parent.send(line(authorization->copyRights("com.test.open", kClientFlags)));
    (void)parent.send(std::to_string(asked));
  });
  EXPECT_EQ(unsafe,
            (std::vector<std::string>{line(auth::kStatusDenied), line(auth::kStatusDenied), "0"}));
  EXPECT_NE(serviceLog().find("is not owned by root"), std::string::npos);
  EXPECT_NE(serviceLog().find("writable by group or others"), std::string::npos);

  // The administrator's files still count as existing, so nothing overwrites them.
  EXPECT_EQ(auth::rightExists("com.test.open"), auth::kStatusSuccess);
  std::string problem;
  Value definition("");
  EXPECT_EQ(auth::rightGet("com.test.open", &definition, &problem), auth::kStatusSuccess);
  EXPECT_FALSE(problem.empty());
}

TEST_F(AuthorityEndToEndTest, ClientsThatHangUpDuringThePromptDoNotWearTheServiceDown) {
  // More hang-ups than the per-user connection limit: a leaked conversation would show.
  auto lines = asUser(kAlice, [](LineChannel& parent) {
    std::unique_ptr<Authorization> authorization;
    if (Authorization::create(authorization) != auth::kStatusSuccess) return;
    auth::ExternalForm token{};
    (void)authorization->makeExternalForm(token);
    int prompted = 0;
    for (int i = 0; i < 20; ++i) {
      auth::Request request;
      request.operation = auth::Operation::CopyRights;
      request.token = token;
      request.right = kDefaultRight;
      request.flags = kClientFlags;
      RawReply reply = rawRequest(request);
      prompted += reply.message && reply.message->prompt ? 1 : 0;
      // The connection closes here, in the middle of the prompt.
    }
    (void)parent.send(std::to_string(prompted));
    obtainDefaultRight(parent, {"alice-password"});
  });
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0], "20");
  EXPECT_EQ(lines[1], line(auth::kStatusSuccess));
  EXPECT_TRUE(service().running());
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitizedBuild = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool kSanitizedBuild = true;
#else
constexpr bool kSanitizedBuild = false;
#endif
#else
constexpr bool kSanitizedBuild = false;
#endif

TEST_F(AuthorityEndToEndTest, AFloodOfCreationsIsBounded) {
  Result<ChildProcess> flood = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    auth::Request create;
    create.operation = auth::Operation::Create;
    int created = 0;
    int refused = 0;
    for (int i = 0; i < 100; ++i) {
      std::int32_t status = rawStatus(create);
      created += status == auth::kStatusSuccess ? 1 : 0;
      refused += status == auth::kStatusInternal ? 1 : 0;
    }
    (void)parent.send(std::to_string(created) + " " + std::to_string(refused));
    (void)parent.receive(60s);
    for (int i = 0; i < 2000; ++i) (void)rawStatus(create);
    (void)parent.send("flooded");
    (void)parent.receive(60s);
    return 0;
  });
  ASSERT_TRUE(flood.ok());
  EXPECT_EQ(flood->channel().receive().valueOr(""), "64 36");
  const std::size_t before = residentKilobytes(service().pid());
  (void)flood->channel().send("more");
  EXPECT_EQ(flood->channel().receive(120s).valueOr(""), "flooded");
  const std::size_t after = residentKilobytes(service().pid());
  // The address sanitizer's allocator keeps freed memory around on its own terms: resident memory
  // says nothing about the service there, only in ordinary builds.
  if (!kSanitizedBuild) {
    EXPECT_LT(after, before + 4096)
        << "resident memory grew from " << before << " to " << after << " KiB";
  }

  auto bob = asUser(kBob, [](LineChannel& parent) {
    std::unique_ptr<Authorization> authorization;
    (void)parent.send(line(Authorization::create(authorization)));
  });
  EXPECT_EQ(bob, std::vector<std::string>{line(auth::kStatusSuccess)}) << "others are not affected";
  (void)flood->channel().send("done");
}

// Runs authorityctl as root; its exit code and standard output.
std::pair<int, std::string> authorityctl(const std::vector<std::string>& arguments, uid_t uid = 0) {
  Result<sys::PipeEnds> output = sys::pipe();
  EXPECT_TRUE(output.ok());
  pid_t pid = ::fork();
  if (pid == 0) {
    ::dup2(output->writeEnd.get(), STDOUT_FILENO);
    ::dup2(output->writeEnd.get(), STDERR_FILENO);
    if (uid != 0 && (::setgroups(0, nullptr) != 0 || ::setresgid(uid, uid, uid) != 0 ||
                     ::setresuid(uid, uid, uid) != 0)) {
      ::_exit(126);
    }
    std::vector<char*> argv{const_cast<char*>(KRV_AUTHORITYCTL_BINARY)};
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execv(argv[0], argv.data());
    ::_exit(127);
  }
  output->writeEnd.reset();
  std::string text;
  std::uint8_t buffer[1024];
  while (Result<std::size_t> count = sys::read(output->readEnd.get(), buffer)) {
    if (*count == 0) break;
    text.append(reinterpret_cast<const char*>(buffer), *count);
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, text};
}

TEST_F(AuthorityEndToEndTest, TheAdministrationToolChangesRightsWithImmediateEffect) {
  EXPECT_EQ(authorityctl({"write", "com.test.tool", "allow", "Opened for the test"}).first, 0);
  EXPECT_EQ(authorityctl({"read", "com.test.tool"}),
            (std::pair<int, std::string>{0, "rule: allow\ncomment: Opened for the test\n"}));
  auto open = asUser(kBob, [](LineChannel& parent) {
    auth::setPromptHandler(std::make_shared<auth::CallbackPromptHandler>(nullptr));
    std::unique_ptr<Authorization> authorization;
    (void)Authorization::create(authorization);
    (void)parent.send(line(authorization->copyRights("com.test.tool", kClientFlags)));
  });
  EXPECT_EQ(open, std::vector<std::string>{line(auth::kStatusSuccess)});

  EXPECT_EQ(authorityctl({"write", "com.test.tool", "authenticate-admin"}).first, 0);
  auto closed = asUser(kBob, [](LineChannel& parent) {
    auth::setPromptHandler(std::make_shared<auth::CallbackPromptHandler>(nullptr));
    std::unique_ptr<Authorization> authorization;
    (void)Authorization::create(authorization);
    (void)parent.send(line(authorization->copyRights("com.test.tool", kClientFlags)));
  });
  EXPECT_EQ(closed, std::vector<std::string>{line(auth::kStatusInteractionNotAllowed)});

  EXPECT_EQ(authorityctl({"write", "com.test.tool", "alow"}).first, 1) << "unknown rule";
  EXPECT_EQ(authorityctl({"write", "com.test.tool", "allow"}, kBob).first, 1) << "root only";
  EXPECT_EQ(authorityctl({"read", "../x"}).first, 2);
  EXPECT_EQ(authorityctl({"remove", "com.test.tool"}).first, 0);
  EXPECT_EQ(authorityctl({"remove", "com.test.tool"}).first, 1);
  EXPECT_EQ(authorityctl({"read", "com.test.tool"}).first, 1);
  EXPECT_NE(authorityctl({"rules"}).second.find("authenticate-session-owner-or-admin"),
            std::string::npos);
}

}  // namespace
}  // namespace krv::test
