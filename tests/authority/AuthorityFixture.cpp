#include "tests/authority/AuthorityFixture.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

#include "authorization/MessageChannel.h"
#include "authorization/PromptHandler.h"
#include "foundation/Sha256.h"
#include "foundation/System.h"
#include "tests/support/Sandbox.h"

namespace krv::test {

namespace {

// The default folder of the made-up databases (AuthorityFixture::m_scratch).
constexpr const char* kScratch = "/tmp/krv-authority";
constexpr const char* kServiceSocket = "/run/com.tavorin.system.authority.socket";

// The sandbox is entered once per test process, before gtest starts any thread.
class SandboxEnvironment final : public ::testing::Environment {
 public:
  void SetUp() override { m_status = enterPrivateSandbox(); }
  static const Status& status() { return m_status; }

 private:
  static inline Status m_status;
};

[[maybe_unused]] ::testing::Environment* const kSandbox =
    ::testing::AddGlobalTestEnvironment(new SandboxEnvironment);

void writeText(const std::string& path, const std::string& text) {
  Result<UniqueFd> file = sys::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0644);
  ASSERT_TRUE(file.ok()) << path;
  ASSERT_TRUE(sys::writeAll(file->get(),
                            {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()}));
}

}  // namespace

void AuthorityFixture::SetUp() {
  if (::geteuid() != 0) GTEST_SKIP() << "needs root for the sandbox and the service";
  if (!SandboxEnvironment::status()) {
    GTEST_SKIP() << "no private sandbox: " << SandboxEnvironment::status().error().description();
  }
  if (std::string(KRV_PAM_WRAPPER_LIBRARY).empty() ||
      std::string(KRV_NSS_WRAPPER_LIBRARY).empty() || std::string(KRV_PAM_MATRIX_MODULE).empty()) {
    GTEST_SKIP() << "pam_wrapper, pam_matrix or nss_wrapper is not installed";
  }
  const std::string& scratch = m_scratch;
  ::mkdir(scratch.c_str(), 0755);
  ::mkdir((scratch + "/pam.d").c_str(), 0755);
  writeText(scratch + "/passwd",
            "root:x:0:0:root:/root:/bin/sh\n"
            "alice:x:1001:1001:Alice:/home/alice:/bin/sh\n"
            "bob:x:1002:1002:Bob:/home/bob:/bin/sh\n"
            "carol:x:1003:1003:Carol:/home/carol:/bin/sh\n"
            "dave:x:1004:1004:Dave:/home/dave:/bin/sh\n"
            "erin:x:1005:1005:Erin:/home/erin:/bin/sh\n");
  writeText(scratch + "/group",
            "root:x:0:\n"
            "sudo:x:27:alice,carol,dave\n"
            "alice:x:1001:\n"
            "bob:x:1002:\n"
            "carol:x:1003:\n"
            "dave:x:1004:\n"
            "erin:x:1005:\n");
  writeText(scratch + "/passdb",
            "alice:alice-password:com.tavorin.system.authority\n"
            "bob:bob-password:com.tavorin.system.authority\n"
            "carol:carol-password:another.service\n"
            "dave::com.tavorin.system.authority\n");
  const std::string module = std::string(KRV_PAM_MATRIX_MODULE) + " passdb=" + scratch + "/passdb";
  writeText(scratch + "/pam.d/com.tavorin.system.authority",
            "auth required " + module + "\naccount required " + module + "\n");

  ServiceLaunch launch;
  launch.socketPath = kServiceSocket;
  launch.executable = KRV_AUTHORITY_BINARY;
  launch.arguments = {"d"};  // the log on standard error, for the tests to read
  launch.environment = {
      std::string("LD_PRELOAD=") + KRV_PAM_WRAPPER_LIBRARY + ":" + KRV_NSS_WRAPPER_LIBRARY,
      "PAM_WRAPPER=1",
      "PAM_WRAPPER_SERVICE_DIR=" + scratch + "/pam.d",
      // Deep binding does not mix with the sanitizers' interceptors. (Some pam_wrapper releases
      // read the switch under uid_wrapper's name.)
      "PAM_WRAPPER_DISABLE_DEEPBIND=1",
      "UID_WRAPPER_DISABLE_DEEPBIND=1",
      "NSS_WRAPPER_DISABLE_DEEPBIND=1",
      "NSS_WRAPPER_PASSWD=" + scratch + "/passwd",
      "NSS_WRAPPER_GROUP=" + scratch + "/group",
  };
  // In sanitizer builds freed memory waits in a quarantine, which the flood test would take for
  // growth; elsewhere the variable means nothing.
  const char* sanitizerOptions = std::getenv("ASAN_OPTIONS");
  launch.environment.push_back(
      std::string("ASAN_OPTIONS=") +
      (sanitizerOptions != nullptr ? std::string(sanitizerOptions) + ":" : std::string()) +
      "quarantine_size_mb=0:thread_local_quarantine_size_kb=0");
  // The service inherits the limit at the fork; the test's own is restored at once.
  rlimit saved{};
  ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
  if (m_launchDescriptorLimit) {
    const rlimit lowered{*m_launchDescriptorLimit, saved.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
  }
  launch.confinement = m_launchConfinement;
  Result<ServiceProcess> started = ServiceProcess::start(launch);
  ::setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_TRUE(started.ok()) << started.error().description();
  m_service.emplace(std::move(started).value());
  defineRight(kDefaultRight, "default");
}

void AuthorityFixture::TearDown() {
  if (!m_service) return;
  const std::string log = serviceLog();
  EXPECT_EQ(log.find("Sanitizer"), std::string::npos) << "the service hit a sanitizer";
  EXPECT_EQ(log.find("runtime error:"), std::string::npos) << "the service hit a sanitizer";
  if (HasFailure()) std::fprintf(stderr, "service log:\n%s\n", serviceLog().c_str());
  m_service->terminate();
}

void AuthorityFixture::defineRight(const std::string& right, const std::string& rule) {
  ASSERT_EQ(auth::rightSet(right, Value(rule)), auth::kStatusSuccess) << right;
}

bool AuthorityFixture::waitForLog(std::string_view text, std::chrono::milliseconds timeout) {
  if (!m_service) return false;
  return m_service->waitForStandardError(
      [text](const std::string& log) { return log.find(text) != std::string::npos; }, timeout);
}

std::string AuthorityFixture::rightFile(const std::string& right) const {
  return "/etc/com.tavorin.system.authority/rights.d/" + right + ".plist";
}

std::vector<std::string> AuthorityFixture::asUser(uid_t uid,
                                                  const std::function<void(LineChannel&)>& body) {
  std::vector<std::string> lines;
  Result<ChildProcess> child = ChildProcess::start({uid, uid}, [&body](LineChannel& parent) {
    body(parent);
    return 0;
  });
  if (!child) {
    ADD_FAILURE() << child.error().description();
    return lines;
  }
  for (;;) {
    Result<std::string> received = child->channel().receive(std::chrono::seconds(60));
    if (!received) break;
    lines.push_back(*received);
  }
  Result<int> code = child->wait();
  EXPECT_TRUE(code.ok() && *code == 0) << "the child as uid " << uid << " failed";
  return lines;
}

void answerPrompts(std::vector<std::optional<std::string>> responses, int* asked) {
  auto remaining = std::make_shared<std::vector<std::optional<std::string>>>(std::move(responses));
  auth::setPromptHandler(
      std::make_shared<auth::CallbackPromptHandler>([remaining, asked](const auth::Prompt&) {
        if (asked != nullptr) ++*asked;
        auth::Answer answer;
        answer.kind = auth::AnswerKind::Cancel;
        if (!remaining->empty()) {
          std::optional<std::string> next = remaining->front();
          remaining->erase(remaining->begin());
          if (next) {
            answer.kind = auth::AnswerKind::Response;
            answer.response.append(*next);
          }
        }
        return answer;
      }));
}

int execute(const std::vector<std::string>& command) {
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  ::execv(argv[0], argv.data());
  return 127;
}

int executeSeeingTestUsers(const std::vector<std::string>& command) {
  const std::string scratch = kScratch;
  std::vector<std::string> environment = {
      std::string("LD_PRELOAD=") + KRV_NSS_WRAPPER_LIBRARY, "NSS_WRAPPER_DISABLE_DEEPBIND=1",
      "NSS_WRAPPER_PASSWD=" + scratch + "/passwd", "NSS_WRAPPER_GROUP=" + scratch + "/group"};
  if (const char* options = std::getenv("ASAN_OPTIONS")) {
    environment.push_back(std::string("ASAN_OPTIONS=") + options);
  }
  std::vector<char*> argv;
  for (const std::string& word : command) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  std::vector<char*> variables;
  for (std::string& variable : environment) variables.push_back(variable.data());
  variables.push_back(nullptr);
  ::execve(argv[0], argv.data(), variables.data());
  return 127;
}

bool RawConnection::open(const auth::Request& request) {
  m_socket.reset(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = auth::serviceSocketPath();
  std::memcpy(address.sun_path, path.data(), std::min(path.size(), sizeof address.sun_path - 1));
  return m_socket.valid() &&
         ::connect(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
         auth::sendMessage(m_socket.get(), auth::encodeRequest(request),
                           auth::deadlineAfter(std::chrono::seconds(5)));
}

std::optional<auth::ServiceMessage> RawConnection::next(std::chrono::milliseconds timeout) {
  Result<Data> payload = auth::receiveMessage(m_socket.get(), auth::kMaximumReplyPayload,
                                              auth::deadlineAfter(timeout));
  if (!payload) return std::nullopt;
  Result<auth::ServiceMessage> message = auth::decodeServiceMessage(*payload);
  if (!message) return std::nullopt;
  return std::move(message).value();
}

bool RawConnection::answer(auth::AnswerKind kind, std::string_view response) {
  return auth::sendMessage(m_socket.get(), auth::encodeAnswer(kind, response),
                           auth::deadlineAfter(std::chrono::seconds(5)))
      .ok();
}

bool RawConnection::hangUpAndWaitForClose(std::chrono::milliseconds timeout) {
  ::shutdown(m_socket.get(), SHUT_WR);
  const bool silent = !next(timeout).has_value();
  std::uint8_t byte = 0;
  return silent && ::recv(m_socket.get(), &byte, 1, MSG_DONTWAIT) == 0;
}

auth::Request copyRightsRequest(auth::Authorization& authorization, const std::string& right,
                                const std::string& account) {
  auth::Request request;
  request.operation = auth::Operation::CopyRights;
  (void)authorization.makeExternalForm(request.token);
  request.right = right;
  request.flags = kClientFlags;
  request.account = account;
  return request;
}

std::unique_ptr<auth::Authorization> obtainRight(LineChannel& parent, const std::string& right,
                                                 std::vector<std::optional<std::string>> answers) {
  int asked = 0;
  answerPrompts(std::move(answers), &asked);
  std::unique_ptr<auth::Authorization> authorization;
  if (auth::Authorization::create(authorization) != auth::kStatusSuccess) {
    (void)parent.send("create failed");
    return authorization;
  }
  (void)parent.send(line(authorization->copyRights(right, kClientFlags)));
  (void)parent.send(std::to_string(asked));
  auth::ExternalForm token{};
  (void)authorization->makeExternalForm(token);
  (void)parent.send(Sha256::hex(token));
  return authorization;
}

std::int32_t validate(const auth::ExternalForm& token, uid_t claimed, const std::string& right) {
  std::unique_ptr<auth::Authorization> authorization;
  EXPECT_EQ(auth::Authorization::createFromExternalForm(token, claimed, authorization),
            auth::kStatusSuccess);
  return authorization->copyRights(right, auth::kFlagExtendRights);
}

auth::ExternalForm tokenFromHex(const std::string& text) {
  auth::ExternalForm token{};
  for (std::size_t i = 0; i < token.size() && 2 * i + 1 < text.size(); ++i) {
    token[i] = static_cast<std::uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
  }
  return token;
}

}  // namespace krv::test
