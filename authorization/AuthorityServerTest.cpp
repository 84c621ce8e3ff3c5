#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "authorization/AuthorityServer.h"
#include "authorization/MessageChannel.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ServiceProcess.h"

namespace krv::auth {
namespace {

using namespace std::chrono_literals;

// Authenticates nobody; the server tests never get that far.
class NoAuthenticator final : public Authenticator {
 public:
  AuthenticationResult authenticate(const std::string&, const std::string&,
                                    PromptChannel&) override {
    return {};
  }
};

class NoDirectory final : public UserDirectory {
 public:
  std::optional<UserAccount> accountOf(uid_t) const override { return std::nullopt; }
  std::optional<UserAccount> accountNamed(const std::string&) const override {
    return std::nullopt;
  }
  bool isAdministrator(const UserAccount&) const override { return false; }
  using UserDirectory::isAdministrator;
};

UniqueFd connectTo(const std::string& path) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.data(), path.size());
  if (::connect(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    return UniqueFd();
  }
  return socket;
}

// True when the server closed the connection without a word.
bool closedAtOnce(int socket) {
  std::uint8_t byte = 0;
  struct timeval timeout {
    2, 0
  };
  ::setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
  return ::recv(socket, &byte, 1, 0) == 0;
}

class AuthorityServerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/krv-server-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_base = pattern;
    ASSERT_EQ(::chmod(m_base.c_str(), 0755), 0);
    m_socketPath = m_base + "/socket";
    Result<UniqueFd> listening = test::listenOnUnixSocket(m_socketPath, 0666);
    ASSERT_TRUE(listening.ok());
    m_listening = std::move(listening).value();
    m_service = std::make_unique<AuthorityService>(m_clock, m_tokens, m_rights, m_authenticator,
                                                   m_directory, m_backOff, m_log);
  }
  void TearDown() override {
    if (m_runner.joinable()) {
      m_server->stop();
      m_runner.join();
    }
    m_server.reset();
    if (!m_base.empty()) std::system(("rm -rf '" + m_base + "'").c_str());
  }

  void startServer(ServerLimits limits) {
    m_server = std::make_unique<AuthorityServer>(*m_service, m_tokens, m_log, limits);
    m_runner = std::thread([this] { m_exitCode = m_server->run(m_listening.get()); });
  }

  std::string m_base;
  std::string m_socketPath;
  UniqueFd m_listening;
  BootClock m_clock;
  TokenStore m_tokens{m_clock};
  RightsStore m_rights{"/nonexistent/rights.d"};
  NoAuthenticator m_authenticator;
  NoDirectory m_directory;
  BackOff m_backOff{m_clock};
  SystemLog m_log{"authority-test", "Auth", 0, "/nonexistent/log"};
  std::unique_ptr<AuthorityService> m_service;
  std::unique_ptr<AuthorityServer> m_server;
  std::thread m_runner;
  int m_exitCode = -1;
};

TEST_F(AuthorityServerTest, IdentifiesPeersByTheirCredentials) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  UniqueFd first(ends[0]);
  UniqueFd second(ends[1]);
  Result<Peer> peer = AuthorityServer::identify(first.get());
  ASSERT_TRUE(peer.ok());
  EXPECT_EQ(peer->uid, ::getuid());
  EXPECT_EQ(peer->pid, ::getpid());
  EXPECT_TRUE(peer->process.valid());
}

TEST_F(AuthorityServerTest, ExitsWhenIdleOnlyWithoutLiveTokens) {
  ServerLimits limits;
  limits.idleTimeout = 300ms;
  limits.sweepInterval = 50ms;
  startServer(limits);
  setServiceSocketPath(m_socketPath);
  std::unique_ptr<Authorization> authorization;
  ASSERT_EQ(Authorization::create(authorization), kStatusSuccess);
  std::this_thread::sleep_for(700ms);
  EXPECT_EQ(m_exitCode, -1) << "a live token keeps the service";
  ASSERT_EQ(authorization->free(kFlagDefaults), kStatusSuccess);
  const auto freed = std::chrono::steady_clock::now();
  m_runner.join();
  EXPECT_EQ(m_exitCode, 0);
  EXPECT_GE(std::chrono::steady_clock::now() - freed, 250ms);
  setServiceSocketPath(std::string(kServiceSocketPath));
}

TEST_F(AuthorityServerTest, BoundsConnectionsPerUserAndKeepsRootsOwnAllowance) {
  ServerLimits limits;
  limits.connectionsPerUser = 2;
  limits.connections = 3;
  limits.rootConnections = 1;
  startServer(limits);

  // Two idle connections of uid 1001 are kept; the third is closed at once.
  Result<test::ChildProcess> alice =
      test::ChildProcess::start({1001, 1001}, [this](test::LineChannel& parent) {
        std::vector<UniqueFd> held;
        for (int i = 0; i < 2; ++i) held.push_back(connectTo(m_socketPath));
        std::this_thread::sleep_for(200ms);
        UniqueFd third = connectTo(m_socketPath);
        (void)parent.send(closedAtOnce(third.get()) ? "refused" : "accepted");
        (void)parent.receive(10s);
        return 0;
      });
  ASSERT_TRUE(alice.ok());
  EXPECT_EQ(alice->channel().receive(10s).valueOr("<nothing>"), "refused");

  // Another user still gets the last place in all; the next user does not.
  Result<int> bob = test::runAs({1002, 1002}, [this] {
    UniqueFd first = connectTo(m_socketPath);
    std::this_thread::sleep_for(200ms);
    UniqueFd second = connectTo(m_socketPath);
    return closedAtOnce(second.get()) ? 0 : 1;
  });
  ASSERT_TRUE(bob.ok());
  EXPECT_EQ(*bob, 0);

  // Root (the daemon) is served although the users hold every place.
  UniqueFd root = connectTo(m_socketPath);
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
  ServiceTimeouts timeouts;
  timeouts.request = 200ms;
  m_service = std::make_unique<AuthorityService>(m_clock, m_tokens, m_rights, m_authenticator,
                                                 m_directory, m_backOff, m_log, timeouts);
  startServer(ServerLimits{});
  UniqueFd stalled = connectTo(m_socketPath);
  // Half a header, then nothing.
  const std::uint8_t partial[10] = {'*', '*', '*'};
  ASSERT_EQ(::send(stalled.get(), partial, sizeof partial, MSG_NOSIGNAL), 10);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_TRUE(closedAtOnce(stalled.get()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, 1500ms);
}

}  // namespace
}  // namespace krv::auth
