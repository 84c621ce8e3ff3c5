// The service short of descriptors, end to end: the limit it gives itself, and what a right check
// answers when descriptors run out anyway (the test lowers the running service's limit).

#include <sys/resource.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "tests/authority/AuthorityFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

rlimit descriptorLimitOf(pid_t pid) {
  rlimit limit{};
  EXPECT_EQ(::prlimit(pid, RLIMIT_NOFILE, nullptr, &limit), 0);
  return limit;
}

// The numbered entries of a folder of /proc (tasks, descriptors).
std::vector<int> numericEntries(const std::string& folder) {
  std::vector<int> numbers;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
    numbers.push_back(std::atoi(entry.path().filename().c_str()));
  }
  return numbers;
}

// The service's open descriptors once it serves nobody: the threads of earlier connections, which
// close their descriptors as they end, are gone.
std::vector<int> descriptorsWhenIdle(pid_t pid) {
  const std::string process = "/proc/" + std::to_string(pid);
  const auto deadline = std::chrono::steady_clock::now() + 10s;
  while (numericEntries(process + "/task").size() > 1 &&
         std::chrono::steady_clock::now() < deadline) {
    std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(numericEntries(process + "/task").size(), 1u) << "the service did not become idle";
  return numericEntries(process + "/fd");
}

// The descriptor limit under which exactly `free` descriptor numbers are unused.
rlim_t limitLeaving(std::vector<int> open, int free) {
  std::sort(open.begin(), open.end());
  int unused = 0;
  std::size_t next = 0;
  for (int number = 0;; ++number) {
    if (next < open.size() && open[next] == number) {
      ++next;
    } else if (++unused > free) {
      return static_cast<rlim_t>(number);
    }
  }
}

class DescriptorExhaustionTest : public AuthorityFixture {
 protected:
  // The common default soft limit, which 4,096 tokens (one descriptor each) would exceed.
  DescriptorExhaustionTest() { m_launchDescriptorLimit = 1024; }
};

TEST_F(DescriptorExhaustionTest, RunningOutOfDescriptorsFailsARightCheckAndNeverDeniesIt) {
  const pid_t pid = service().pid();
  EXPECT_GE(descriptorLimitOf(pid).rlim_cur,
            std::min<rlim_t>(8192, descriptorLimitOf(pid).rlim_max))
      << "the service raises its limit to cover its tokens and connections";

  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    auto authorization = obtainRight(parent, kDefaultRight, {"alice-password"});
    (void)parent.receive(60s);  // the token lives as long as its creator
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  ASSERT_EQ(alice->channel().receive().valueOr(""), line(auth::kStatusSuccess));
  (void)alice->channel().receive();
  const auth::ExternalForm token = tokenFromHex(alice->channel().receive().valueOr(""));
  ASSERT_EQ(validate(token, kAlice), auth::kStatusSuccess);

  // One free descriptor: enough to accept a connection, not to read the right's definition.
  const rlimit saved = descriptorLimitOf(pid);
  const rlimit tight{limitLeaving(descriptorsWhenIdle(pid), 1), saved.rlim_max};
  ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &tight, nullptr), 0);
  EXPECT_EQ(validate(token, kAlice), auth::kStatusInternal);
  std::string problem;
  EXPECT_EQ(auth::rightGet(kDefaultRight, nullptr, &problem), auth::kStatusInternal) << problem;
  std::unique_ptr<auth::Authorization> untraceable;
  EXPECT_EQ(auth::Authorization::create(untraceable), auth::kStatusInternal)
      << "no token whose creator cannot be followed";

  ASSERT_EQ(::prlimit(pid, RLIMIT_NOFILE, &saved, nullptr), 0);
  EXPECT_EQ(validate(token, kAlice), auth::kStatusSuccess) << "nothing was lost meanwhile";
  EXPECT_TRUE(waitForLog("Too many open files", 1s));
  (void)alice->channel().send("done");
  EXPECT_EQ(alice->wait().valueOr(-1), 0);
}

}  // namespace
}  // namespace krv::test
