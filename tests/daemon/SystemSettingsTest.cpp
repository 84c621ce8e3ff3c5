// System setting commands end to end: the real daemon changes a kernel value and an MTU inside a
// private network namespace, writes a test user's preferences and the system configuration,
// signals processes through run files, and mounts and unmounts a file system inside the sandbox's
// mount namespace. Nothing of the host is changed: /etc, /var/lib, /run and /tmp are the sandbox's,
// and the network is a namespace of its own holding one veth pair.

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "foundation/PropertyList.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/support/Sandbox.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

std::string contentsOf(const std::string& path) {
  std::ifstream stream(path, std::ios::binary);
  std::stringstream contents;
  contents << stream.rdbuf();
  return contents.str();
}

std::string linkOf(const char* path) {
  char buffer[256];
  ssize_t length = ::readlink(path, buffer, sizeof buffer);
  return length > 0 ? std::string(buffer, static_cast<std::size_t>(length)) : std::string();
}

bool hasCode(const Error& result, std::string_view domain, std::int64_t code) {
  return result.is(domain, code);
}

// The daemon and this process in a network namespace of their own, with a veth pair v0/v1.
class NetworkSettingsTest : public DaemonTest {
 protected:
  void SetUp() override {
    Status sandbox = enterPrivateSandbox();
    if (!sandbox) GTEST_SKIP() << "no private sandbox: " << sandbox.error().description();
    const std::string hostNetwork = linkOf("/proc/thread-self/ns/net");
    if (::unshare(CLONE_NEWNET) != 0) GTEST_SKIP() << "no network namespace: " << errno;
    // Never go on in the host's network.
    if (hostNetwork.empty() || linkOf("/proc/thread-self/ns/net") == hostNetwork) {
      GTEST_SKIP() << "the network namespace is not private";
    }
    ProgramRun veth =
        runProgram("/sbin/ip", {"link", "add", "v0", "type", "veth", "peer", "name", "v1"});
    if (veth.exitCode != 0) GTEST_SKIP() << "no veth pair: " << veth.standardError;
    DaemonTest::SetUp();
    ASSERT_EQ(linkOf(("/proc/" + std::to_string(daemon().pid()) + "/ns/net").c_str()),
              linkOf("/proc/thread-self/ns/net"));
  }
  static int mtuOf(const char* interface) {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strncpy(request.ifr_name, interface, IFNAMSIZ - 1);
    int result = ::ioctl(fd, SIOCGIFMTU, &request);
    ::close(fd);
    return result == 0 ? request.ifr_mtu : -1;
  }
};

TEST_F(NetworkSettingsTest, KernelValuesAndTheMtuChangeInThePrivateNetwork) {
  const char* forwarding = "/proc/sys/net/ipv4/ip_forward";
  ASSERT_EQ(contentsOf(forwarding), "0\n");
  Error result = runCommand(20, {Value("net.ipv4.ip_forward"), Value::integer(1)});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description() << daemonLog();
  EXPECT_EQ(contentsOf(forwarding), "1\n");

  ProgramRun client = runClient({"set-kernel-value", "net.ipv4.conf.v0.forwarding", "1"});
  EXPECT_EQ(client.exitCode, 0) << client.standardError;
  EXPECT_EQ(contentsOf("/proc/sys/net/ipv4/conf/v0/forwarding"), "1\n");
  EXPECT_TRUE(
      hasCode(runCommand(20, {Value("net..ipv4"), Value::integer(1)}), kPosixErrorDomain, ENOENT));
  // The kernel checks the value: a time to live is 1 to 255.
  EXPECT_TRUE(hasCode(runCommand(20, {Value("net.ipv4.ip_default_ttl"), Value::integer(300)}),
                      kPosixErrorDomain, EINVAL));

  result = runCommand(22, {Value("v0"), Value::integer(1400)});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description();
  EXPECT_EQ(mtuOf("v0"), 1400);
  EXPECT_TRUE(
      hasCode(runCommand(22, {Value("v0"), Value::integer(70000)}), kPosixErrorDomain, EINVAL));
  EXPECT_TRUE(
      hasCode(runCommand(22, {Value("v9"), Value::integer(1400)}), kPosixErrorDomain, ENODEV));
  EXPECT_TRUE(hasCode(runCommand(22, {Value("v0"), Value::integer(0)}), kCommandErrorDomain, 3));
  EXPECT_EQ(mtuOf("v0"), 1400);
}

class LocalSettingsTest : public DaemonTest {
 protected:
  void SetUp() override {
    Status sandbox = enterPrivateSandbox();
    if (!sandbox) GTEST_SKIP() << "no private sandbox: " << sandbox.error().description();
    DaemonTest::SetUp();
  }
};

constexpr uid_t kTestUser = 4242;

TEST_F(LocalSettingsTest, PreferencesAndConfigurationAreWrittenForTheirOwners) {
  // A user of the sandbox's own /etc/passwd, with her home in the sandbox's /tmp.
  const std::string home = "/tmp/krv-prefs-home";
  ASSERT_EQ(::mkdir(home.c_str(), 0755), 0);
  ASSERT_EQ(::chown(home.c_str(), kTestUser, kTestUser), 0);
  std::ofstream("/etc/passwd", std::ios::app)
      << "krvprefs:x:" << kTestUser << ":" << kTestUser << "::" << home << ":/bin/sh\n";

  ProgramRun client = runClient({"set-system-preference", "Volume", "com.example.player",
                                 "krvprefs", "kCFPreferencesAnyHost", "<integer>7</integer>"});
  EXPECT_EQ(client.exitCode, 0) << client.standardError << daemonLog();
  const std::string file = home + "/.config/preferences/com.example.player.plist";
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kTestUser);
  EXPECT_EQ(status.st_mode & 0777, 0600u);
  const std::string bytes = contentsOf(file);
  Result<Value> stored = plist::readXml(Data(bytes.begin(), bytes.end()));
  ASSERT_TRUE(stored && stored->asDictionary());
  EXPECT_EQ(*stored->asDictionary()->find("Volume"), Value::integer(7));

  Error result = runCommand(24, {Value("Volume"), Value("com.example.player"), Value("krvprefs"),
                                 Value("kCFPreferencesAnyHost"), Value("{")});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 14)) << result.description();

  result = runCommand(
      25, {Value("com.example.admin"), Value(""), Value("Proxy"), Value("<string>none</string>")});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description();
  EXPECT_NE(contentsOf("/var/lib/com.tavorin.system.securityagent3/SystemConfiguration/"
                       "preferences.plist")
                .find("<key>Proxy</key>"),
            std::string::npos);
}

TEST_F(LocalSettingsTest, PowerSettingsAreStoredAndAMissingKeyIsLogged) {
  // The host's power supplies are only read; the store lives in the sandbox's /var/lib.
  Error result = runCommand(19, {Value::integer(12)});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description() << daemonLog();
  EXPECT_NE(contentsOf("/var/lib/com.tavorin.system.securityagent3/PowerManagement.plist")
                .find("<integer>12</integer>"),
            std::string::npos);
  result = runCommand(18, {Value("No Such\nKey"), Value::integer(1)});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 12)) << result.description();
  EXPECT_TRUE(waitForLog(
      "Key 'No Such\\nKey' expected but not found in power management settings for source ", 5s))
      << daemonLog();
}

TEST_F(LocalSettingsTest, WithoutFirmwareVariablesTheFirmwareCommandDoesNothing) {
  struct stat status {};
  if (::stat("/sys/firmware/efi", &status) == 0) GTEST_SKIP() << "the host has firmware variables";
  ProgramRun client = runClient({"set-nvram", "krv-test", "value"});
  EXPECT_EQ(client.exitCode, 0) << client.standardError;
}

// A child that waits for a signal.
pid_t pausingChild() {
  pid_t pid = ::fork();
  if (pid == 0) {
    for (;;) ::pause();
  }
  return pid;
}

int endingSignalOf(pid_t pid) {
  int status = 0;
  ::waitpid(pid, &status, 0);
  return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
}

TEST_F(LocalSettingsTest, ProcessesAreSignalledThroughTheirRunFiles) {
  // The run file must land in the sandbox's /run, never in a /var/run of the host's.
  char runFolder[PATH_MAX];
  if (::realpath("/var/run", runFolder) == nullptr || std::string(runFolder) != "/run") {
    GTEST_SKIP() << "/var/run is not /run here";
  }
  EXPECT_TRUE(hasCode(runCommand(27, {}), kCommandErrorDomain, 18));
  const pid_t server = pausingChild();
  std::ofstream("/var/run/nfsd.pid") << server << "\n";
  Error result = runCommand(27, {});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description();
  EXPECT_EQ(endingSignalOf(server), SIGHUP);

  const pid_t other = pausingChild();
  ProgramRun client = runClient({"stop-process", std::to_string(other)});
  EXPECT_EQ(client.exitCode, 0) << client.standardError;
  EXPECT_EQ(endingSignalOf(other), SIGTERM);
}

TEST_F(LocalSettingsTest, AFileSystemIsMountedAndUnmountedInTheSandbox) {
  const std::string point = "/tmp/krv-mount-point";
  ASSERT_EQ(::mkdir(point.c_str(), 0755), 0);
  const auto mounted = [&] {
    return contentsOf("/proc/self/mountinfo").find(" " + point + " ") != std::string::npos;
  };
  Error result = runCommand(38, {Value("-t"), Value("tmpfs"), Value("-o"), Value("size=1m"),
                                 Value("krv-e2e"), Value(point)});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description() << daemonLog();
  EXPECT_TRUE(mounted());
  result = runCommand(50, {Value(point)});
  EXPECT_TRUE(hasCode(result, kCommandErrorDomain, 0)) << result.description();
  EXPECT_FALSE(mounted());
}

}  // namespace
}  // namespace krv::test
