// The authorization service end to end: the real binary, real PAM (pam_wrapper and pam_matrix),
// clients as real processes of other users.

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
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

// One request without the client library; the first message of the reply (a prompt or a status).
struct RawReply {
  UniqueFd connection;
  std::optional<auth::ServiceMessage> message;
};

RawReply rawRequest(const auth::Request& request) {
  RawReply reply;
  reply.connection.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = auth::serviceSocketPath();
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::connect(reply.connection.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) !=
          0 ||
      !auth::sendMessage(reply.connection.get(), auth::encodeRequest(request),
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

class AuthorityEndToEndTest : public AuthorityFixture {};

TEST_F(AuthorityEndToEndTest, TheRightPasswordGrantsARightToItsTokenAloneUntilTheCreatorExits) {
  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    auto authorization = obtainRight(parent, kDefaultRight, {"alice-password"});
    // Stay alive (the token ends with its creator) until the daemon's part is done.
    (void)parent.receive(60s);
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  EXPECT_EQ(alice->channel().receive().valueOr(""), "0");
  EXPECT_EQ(alice->channel().receive().valueOr(""), "1") << "one password prompt";
  const std::string hexToken = alice->channel().receive().valueOr("");
  const auth::ExternalForm token = tokenFromHex(hexToken);

  EXPECT_EQ(validate(token, kAlice), auth::kStatusSuccess);
  EXPECT_EQ(validate(token, kBob), auth::kStatusDenied) << "replayed for another user";
  // An undefined right falls back to the rule "default", which Alice's fresh credential meets.
  EXPECT_EQ(validate(token, kAlice, "com.test.undefined"), auth::kStatusSuccess);
  auth::ExternalForm guessed{};
  ASSERT_TRUE(sys::getRandom(guessed));
  for (const auth::ExternalForm& forged : {auth::ExternalForm{}, guessed}) {
    EXPECT_EQ(validate(forged, kAlice), auth::kStatusInteractionNotAllowed);
  }

  // Bob got hold of alice's token: it is nothing to him, whichever way he presents it.
  auto bob = asUser(kBob, [&token](LineChannel& parent) {
    auth::Request request;
    request.operation = auth::Operation::CopyRights;
    request.token = token;
    request.right = kDefaultRight;
    request.flags = auth::kFlagExtendRights;
    (void)parent.send(line(rawStatus(request)));
    request.operation = auth::Operation::Free;
    request.flags = auth::kFlagDestroyRights;
    (void)parent.send(line(rawStatus(request)));
    (void)parent.send(line(validate(token, kBob)));
  });
  EXPECT_EQ(bob,
            (std::vector<std::string>{line(auth::kStatusInvalidRef), line(auth::kStatusInvalidRef),
                                      line(auth::kStatusDenied)}));
  EXPECT_EQ(validate(token, kAlice), auth::kStatusSuccess) << "still alice's";

  // The creating process ends: so does its token.
  (void)alice->channel().send("done");
  EXPECT_EQ(alice->wait().valueOr(-1), 0);
  EXPECT_EQ(validate(token, kAlice), auth::kStatusInteractionNotAllowed);

  const std::string log = serviceLog();
  EXPECT_NE(log.find("granted to uid 1001 after authentication as 'alice'"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("alice-password"), std::string::npos);
  EXPECT_EQ(log.find(hexToken.substr(0, 16)), std::string::npos) << "tokens are never logged";
}

TEST_F(AuthorityEndToEndTest, PamAndTheRulesDecideWhoObtainsARight) {
  defineRight("com.test.own", "authenticate-session-owner-or-admin");
  struct Case {
    const char* scenario;
    uid_t uid;
    const char* right;
    std::vector<std::optional<std::string>> answers;
    std::int32_t status;
    int asked;  // -1: not checked
  };
  // One account per failing case: the back-off would delay a fourth attempt of the same account.
  const Case cases[] = {
      {"cancelled", kAlice, kDefaultRight, {std::nullopt}, auth::kStatusCanceled, 1},
      {"three wrong passwords",
       kAlice,
       kDefaultRight,
       {"guess-1", "guess-2", "guess-3", "alice-password"},
       auth::kStatusDenied,
       3},
      {"unknown to PAM",
       kErin,
       kDefaultRight,
       {"erin-pw", "erin-pw", "erin-pw"},
       auth::kStatusDenied,
       -1},
      {"no account at all", kNobodyKnown, kDefaultRight, {"anything"}, auth::kStatusDenied, 0},
      {"account refused by PAM",
       kCarol,
       kDefaultRight,
       {"carol-password", "carol-password"},
       auth::kStatusDenied,
       1},
      {"empty password", kDave, kDefaultRight, {"", "", ""}, auth::kStatusDenied, -1},
      {"authenticated but no administrator",
       kBob,
       kDefaultRight,
       {"bob-password", "bob-password"},
       auth::kStatusDenied,
       1},
      {"the session owner where the rule allows it",
       kBob,
       "com.test.own",
       {"bob-password"},
       auth::kStatusSuccess,
       1},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    auto lines =
        asUser(c.uid, [&c](LineChannel& parent) { obtainRight(parent, c.right, c.answers); });
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], line(c.status));
    if (c.asked >= 0) {
      EXPECT_EQ(lines[1], std::to_string(c.asked));
    }
  }
  const std::string log = serviceLog();
  EXPECT_NE(log.find("Account 'carol' may not be used now"), std::string::npos) << log;
  for (const char* password : {"guess-", "erin-pw", "carol-password", "bob-password"}) {
    EXPECT_EQ(log.find(password), std::string::npos) << "passwords are never logged";
  }
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
  for (const char* right : {"com.test.foreign", "com.test.open"}) {
    auto unsafe = asUser(
        kAlice, [right](LineChannel& parent) { obtainRight(parent, right, {"alice-password"}); });
    ASSERT_GE(unsafe.size(), 2u);
    EXPECT_EQ(unsafe[0], line(auth::kStatusDenied)) << right;
    EXPECT_EQ(unsafe[1], "0") << "nobody is asked for " << right;
  }
  EXPECT_NE(serviceLog().find("is not owned by root"), std::string::npos);
  EXPECT_NE(serviceLog().find("writable by group or others"), std::string::npos);
  // The administrator's files still count as existing, so nothing overwrites them.
  EXPECT_EQ(auth::rightExists("com.test.open"), auth::kStatusSuccess);
  std::string problem;
  EXPECT_EQ(auth::rightGet("com.test.open", nullptr, &problem), auth::kStatusSuccess);
  EXPECT_FALSE(problem.empty());
}

TEST_F(AuthorityEndToEndTest, ClientsThatHangUpDuringThePromptDoNotWearTheServiceDown) {
  // More hang-ups than the per-user connection limit: a leaked conversation would show.
  auto lines = asUser(kAlice, [](LineChannel& parent) {
    std::unique_ptr<Authorization> authorization;
    if (Authorization::create(authorization) != auth::kStatusSuccess) return;
    auth::Request request;
    request.operation = auth::Operation::CopyRights;
    (void)authorization->makeExternalForm(request.token);
    request.right = kDefaultRight;
    request.flags = kClientFlags;
    int prompted = 0;
    for (int i = 0; i < 20; ++i) {
      RawReply reply = rawRequest(request);
      prompted += reply.message && reply.message->prompt ? 1 : 0;
      // The connection closes here, in the middle of the prompt.
    }
    (void)parent.send(std::to_string(prompted));
    obtainRight(parent, kDefaultRight, {"alice-password"});
  });
  ASSERT_GE(lines.size(), 2u);
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

std::size_t residentKilobytes(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string text;
  while (std::getline(status, text)) {
    if (text.rfind("VmRSS:", 0) == 0) return std::stoul(text.substr(6));
  }
  return 0;
}

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

// Runs authorityctl as the user; its exit code and what it wrote.
std::pair<int, std::string> authorityctl(std::vector<std::string> arguments, uid_t uid = 0) {
  Result<sys::PipeEnds> output = sys::pipe();
  EXPECT_TRUE(output.ok());
  const int writeEnd = output->writeEnd.get();
  arguments.insert(arguments.begin(), KRV_AUTHORITYCTL_BINARY);
  Result<ChildProcess> child = ChildProcess::start({uid, uid}, [&](LineChannel&) {
    ::dup2(writeEnd, STDOUT_FILENO);
    ::dup2(writeEnd, STDERR_FILENO);
    return execute(arguments);
  });
  output->writeEnd.reset();
  std::string text;
  std::uint8_t buffer[1024];
  while (Result<std::size_t> count = sys::read(output->readEnd.get(), buffer)) {
    if (*count == 0) break;
    text.append(reinterpret_cast<const char*>(buffer), *count);
  }
  return {child ? child->wait().valueOr(-1) : -1, text};
}

TEST_F(AuthorityEndToEndTest, TheAdministrationToolChangesRightsWithImmediateEffect) {
  // What bob gets for the right when nobody can be asked.
  auto bobsStatus = [this] {
    auto lines = asUser(kBob, [](LineChannel& parent) {
      auth::setPromptHandler(std::make_shared<auth::CallbackPromptHandler>(nullptr));
      std::unique_ptr<Authorization> authorization;
      (void)Authorization::create(authorization);
      (void)parent.send(line(authorization->copyRights("com.test.tool", kClientFlags)));
    });
    return lines.empty() ? std::string() : lines[0];
  };
  EXPECT_EQ(authorityctl({"write", "com.test.tool", "allow", "Opened for the test"}).first, 0);
  EXPECT_EQ(authorityctl({"read", "com.test.tool"}),
            (std::pair<int, std::string>{0, "rule: allow\ncomment: Opened for the test\n"}));
  EXPECT_EQ(bobsStatus(), line(auth::kStatusSuccess));
  EXPECT_EQ(authorityctl({"write", "com.test.tool", "authenticate-admin"}).first, 0);
  EXPECT_EQ(bobsStatus(), line(auth::kStatusInteractionNotAllowed));

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
