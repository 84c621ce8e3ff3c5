#pragma once
// What the hostile-client and fault tests check after each scenario: the daemon's descriptors and
// threads (from /proc), the response pipes left in /tmp; raw requests that break the rules the
// client library keeps; and the scenarios' fixture.

#include <dirent.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "foundation/Archivable.h"
#include "foundation/Coding.h"
#include "foundation/Value.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/support/Sandbox.h"

namespace krv::test {

// The number of entries of a /proc folder of a process ("fd", "task"); -1 when it cannot be read.
inline int countProcessEntries(pid_t pid, const char* folder) {
  std::string path = "/proc/" + std::to_string(pid) + "/" + folder;
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = ::readdir(directory)) {
    if (entry->d_name[0] != '.') ++count;
  }
  ::closedir(directory);
  return count;
}

struct ProcessResources {
  int descriptors = -1;
  int threads = -1;
  bool operator==(const ProcessResources&) const = default;
};

inline ProcessResources resourcesOf(pid_t pid) {
  return {countProcessEntries(pid, "fd"), countProcessEntries(pid, "task")};
}

// Waits until the process holds no more descriptors and threads than `baseline` (commands that end
// count themselves out a moment after their final message); what it holds at the end.
inline ProcessResources settledResources(pid_t pid, const ProcessResources& baseline,
                                         std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    ProcessResources now = resourcesOf(pid);
    if ((now.descriptors <= baseline.descriptors && now.threads <= baseline.threads) ||
        std::chrono::steady_clock::now() >= deadline) {
      return now;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
}

// A fresh, empty /tmp for one scenario, over the sandbox's own (the daemon shares the mount
// namespace and sees it too); true when it is mounted. The test removes it at its end.
inline bool mountFreshTmp() {
  return ::mount("krv-scenario", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") == 0;
}
inline void unmountFreshTmp() { ::umount2("/tmp", MNT_DETACH); }

// The daemon's response pipes present in /tmp.
inline std::vector<std::string> responsePipesInTmp() {
  std::vector<std::string> names;
  const std::string prefix = KRVSecurityAgent::bundleIdentifier() + "-";
  DIR* directory = ::opendir("/tmp");
  if (directory == nullptr) return names;
  while (const dirent* entry = ::readdir(directory)) {
    if (std::string(entry->d_name).rfind(prefix, 0) == 0) names.emplace_back(entry->d_name);
  }
  ::closedir(directory);
  return names;
}

// A request object written field by field, so that it can carry what the real class never sends:
// any code, any arguments, any token and user.
class RawRequest final : public Archivable {
 public:
  RawRequest(std::int64_t code, Array arguments, Data token = Data(32, 0), std::uint64_t user = 0)
      : m_code(code), m_arguments(std::move(arguments)), m_token(std::move(token)), m_user(user) {}
  std::string_view className() const override { return "KRVPrivilegedCommand"; }
  void encode(Encoder& encoder) const override {
    encoder.encodeInteger("Version", 310);
    encoder.encodeInteger("CommandCode", m_code);
    encoder.encodeArray("Arguments", m_arguments);
    encoder.encodeData("AuthorizationToken", m_token);
    encoder.encodeUnsigned("UserIdentification", m_user);
    encoder.encodeInteger("DeauthorizesAfterExecution", 0);
  }

 private:
  std::int64_t m_code;
  Array m_arguments;
  Data m_token;
  std::uint64_t m_user;
};

// The fixture of the hostile-client and fault scenarios: the sandbox's services with a fresh /tmp
// of the scenario's own, and what the daemon held once it had started.
class ScenarioTest : public DaemonTest {
 protected:
  void TearDown() override {
    DaemonTest::TearDown();
    unmountFreshTmp();
  }

  void SetUp() override {
    Status sandbox = enterPrivateSandbox();
    if (!sandbox) GTEST_SKIP() << "no private sandbox: " << sandbox.error().description();
    ASSERT_TRUE(mountFreshTmp());
    DaemonTest::SetUp();
    if (HasFatalFailure() || IsSkipped()) return;
    // The start-up's version command has counted itself out once its thread has ended.
    takeBaseline();
  }

  // What the daemon holds now that its start-up's version command has counted itself out.
  void takeBaseline() {
    ASSERT_TRUE(waitForLog("servicing request type 1 exited.", std::chrono::seconds(5)))
        << daemonLog();
    m_baseline = resourcesOf(daemon().pid());
    ASSERT_GT(m_baseline.descriptors, 0);
  }

  // The daemon serves the next client from the same process, holds no more descriptors and
  // threads than before the scenario, and no response pipe is left.
  void expectUnharmed(std::size_t instances = 1) {
    Error version = runCommand(kCommandGetVersion, {});
    EXPECT_TRUE(version.is(kCommandErrorDomain, kResultSuccess)) << version.description();
    EXPECT_EQ(daemon().instancesStarted(), instances) << daemonLog();
    if (instances == 1) {
      ProcessResources now = settledResources(daemon().pid(), m_baseline, std::chrono::seconds(10));
      EXPECT_LE(now.descriptors, m_baseline.descriptors);
      EXPECT_LE(now.threads, m_baseline.threads);
    }
    EXPECT_EQ(responsePipesInTmp(), std::vector<std::string>{});
  }

  ProcessResources m_baseline;
};

}  // namespace krv::test
