// Searches end to end: the real daemon walks trees in the test's private /tmp, driven through the
// client library and the real command-line client. Each search's results and reports in detail
// are tested on the executor.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <ctime>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/System.h"
#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

class SearchCommandsTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(::mkdir(kBase, 0755), 0) << errno;
  }
  void TearDown() override {
    if (m_mounted) ::umount2(kVolume, MNT_DETACH);
    (void)runProgram("/bin/rm", {"-rf", kBase});
    DaemonTest::TearDown();
  }

  static std::string path(const std::string& relative) {
    return std::string(kBase) + "/" + relative;
  }
  static void makeFile(const std::string& relative, time_t modified = 0) {
    int fd = ::open(path(relative).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << relative;
    ::close(fd);
    if (modified != 0) {
      struct timespec times[2] = {{modified, 0}, {modified, 0}};
      ASSERT_EQ(::utimensat(AT_FDCWD, path(relative).c_str(), times, 0), 0);
    }
  }
  void mountVolume() {
    ASSERT_EQ(::mkdir(kVolume, 0755), 0);
    ASSERT_EQ(::mount("tmpfs", kVolume, "tmpfs", 0, "size=1m"), 0) << errno;
    m_mounted = true;
  }

  // runCommand for a command that might never end: when no final message has come within `limit`,
  // the daemon is ended, which ends the command's pipe and so the wait for it.
  Error runCommandWithin(std::chrono::seconds limit, std::uint32_t code, Array arguments,
                         std::vector<Error>* reports = nullptr) {
    std::mutex mutex;
    std::condition_variable answered;
    bool finished = false;
    std::thread watchdog([&] {
      std::unique_lock<std::mutex> lock(mutex);
      if (answered.wait_for(lock, limit, [&] { return finished; })) return;
      lock.unlock();
      ADD_FAILURE() << "command " << code << " still running after " << limit.count() << " s";
      daemon().terminate();
    });
    Error result = runCommand(code, std::move(arguments), reports);
    {
      std::lock_guard<std::mutex> lock(mutex);
      finished = true;
    }
    answered.notify_one();
    watchdog.join();
    return result;
  }

  // The paths of all records the reports carry, below the base, sorted.
  static std::vector<std::string> foundPaths(const std::vector<Error>& reports) {
    std::vector<std::string> paths;
    for (const Error& report : reports) {
      const Array* records = recordsOf(report);
      if (records == nullptr) continue;
      for (const Value& record : *records) {
        paths.push_back(
            record.asDictionary()->find("Path")->asString()->substr(std::string(kBase).size() + 1));
      }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  static double progressOf(const Error& report) {
    const Value* progress = report.userInfo().find("CurrentProgress");
    return progress != nullptr ? progress->asNumber()->doubleValue() : -1.0;
  }
  static const Array* recordsOf(const Error& report) {
    const Value* records = report.userInfo().find("FileSystemObjects");
    return records != nullptr ? records->asArray() : nullptr;
  }
  static std::uint64_t sizeOf(const Error& result) {
    const Value* size = result.userInfo().find("Size");
    return size != nullptr ? size->asNumber()->unsignedIntegerValue() : ~0ULL;
  }

  static constexpr const char* kBase = "/tmp/search";
  static constexpr const char* kVolume = "/tmp/search/volume";
  bool m_mounted = false;
};

TEST_F(SearchCommandsTest, CountThroughTheClientStopsAtTheMarker) {
  for (int i = 0; i < 999; ++i) makeFile("f" + std::to_string(i));
  std::vector<Error> reports;
  Error result =
      runCommand(kCommandCountFileObjects, {Value(kBase), Value("/tmp/marker")}, &reports);
  ASSERT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
  EXPECT_EQ(sizeOf(result), 1000u);
  ASSERT_EQ(reports.size(), 2u) << "signs of life at 500 and 1,000";
  EXPECT_EQ(progressOf(reports[0]), 0.0);
  EXPECT_EQ(progressOf(reports[1]), 0.0);

  // With the marker in place the count ends after the 499th entry.
  ASSERT_EQ(::mkdir("/tmp/marker", 0755), 0);
  ProgramRun run = runClient({"--json", "count-file-objects", kBase, "/tmp/marker"});
  ASSERT_EQ(run.exitCode, 0) << run.standardError;
  EXPECT_NE(run.standardOutput.find("\"Size\":500"), std::string::npos) << run.standardOutput;
  ::rmdir("/tmp/marker");
}

TEST_F(SearchCommandsTest, AgeSearchArrivesInChunksAfterItsFirstProgress) {
  const time_t old = ::time(nullptr) - 40 * 86400;
  for (int i = 0; i < 250; ++i) makeFile("old" + std::to_string(i), old);
  makeFile("new");
  std::vector<Error> reports;
  Error result = runCommand(kCommandSearchAgedFiles,
                            {Value(kBase), Value::integer(30), Value::integer(0)}, &reports);
  ASSERT_TRUE(result.is(kCommandErrorDomain, kResultSuccess))
      << result.description() << daemonLog();
  ASSERT_EQ(reports.size(), 4u);
  EXPECT_EQ(progressOf(reports[0]), 0.05);
  EXPECT_EQ(recordsOf(reports[0]), nullptr);
  const std::pair<std::size_t, double> chunks[] = {
      {100, 0.05}, {100, (1.0 / 3.0) * 0.95 + 0.05}, {50, 0.05}};
  for (std::size_t i = 0; i < 3; ++i) {
    const Array* records = recordsOf(reports[i + 1]);
    ASSERT_NE(records, nullptr);
    EXPECT_EQ(records->size(), chunks[i].first);
    EXPECT_EQ(progressOf(reports[i + 1]), chunks[i].second);
    for (const Value& record : *records) {
      const Dictionary& fields = *record.asDictionary();
      EXPECT_EQ(fields.find("Path")->asString()->rfind(std::string(kBase) + "/old", 0), 0u);
      EXPECT_EQ(fields.find("ModificationDate")->asDate()->secondsSince1970,
                static_cast<double>(old));
    }
  }
}

TEST_F(SearchCommandsTest, WalksStayOnTheVolumeWhenAsked) {
  makeFile("inside-base");
  mountVolume();
  makeFile("volume/inside-volume");

  // The paths of all records a search sends, below the base.
  auto found = [&](std::uint32_t code, Array arguments) {
    std::vector<Error> reports;
    Error result = runCommand(code, std::move(arguments), &reports);
    EXPECT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
    return foundPaths(reports);
  };
  using Paths = std::vector<std::string>;
  auto patterns = [](const char* stay) {
    return Array{Value(kBase), Value(stay), Value("1"), Value("inside")};
  };
  EXPECT_EQ(found(46, patterns("1")), (Paths{"inside-base"}));
  EXPECT_EQ(found(46, patterns("0")), (Paths{"inside-base", "volume/inside-volume"}));
  auto age = [](int stay) { return Array{Value(kBase), Value::integer(0), Value::integer(stay)}; };
  EXPECT_EQ(found(14, age(1)), (Paths{"inside-base", "volume"}));
  EXPECT_EQ(found(14, age(0)), (Paths{"inside-base", "volume", "volume/inside-volume"}));

  // The count always stays: the base, its file and the mount point.
  Error count = runCommand(kCommandCountFileObjects, {Value(kBase), Value("/tmp/marker")});
  EXPECT_EQ(sizeOf(count), 3u);
}

// Two folders with 255-byte names: below the first level such a name adds nothing to the walk's
// relative path, so entering one reopens its parent. Without the walk guard every walk over this
// tree branched in two at every level down to the nesting limit and never ended.
TEST_F(SearchCommandsTest, FoldersThatReopenTheirParentEndEveryWalkWithExactlyTheTree) {
  const std::string a(255, 'a');
  const std::string b(255, 'b');
  ASSERT_EQ(::mkdir(path("x").c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(path("x/" + a).c_str(), 0755), 0);
  ASSERT_EQ(::mkdir(path("x/" + b).c_str(), 0755), 0);
  using Paths = std::vector<std::string>;
  const Paths tree{"x", "x/" + a, "x/" + b};
  constexpr std::chrono::seconds kLimit(30);

  Error count = runCommandWithin(kLimit, 51, {Value(kBase), Value("/tmp/marker")});
  ASSERT_TRUE(count.is(kCommandErrorDomain, kResultSuccess)) << count.description();
  EXPECT_EQ(sizeOf(count), 4u) << "the base and the three folders";

  std::vector<Error> reports;
  Error age =
      runCommandWithin(kLimit, 14, {Value(kBase), Value::integer(0), Value::integer(1)}, &reports);
  ASSERT_TRUE(age.is(kCommandErrorDomain, kResultSuccess)) << age.description();
  EXPECT_EQ(foundPaths(reports), tree);

  reports.clear();
  Error patterns = runCommandWithin(kLimit, 46,
                                    {Value(kBase), Value("0"), Value("0"), Value("x"), Value("1"),
                                     Value("a"), Value("1"), Value("b")},
                                    &reports);
  ASSERT_TRUE(patterns.is(kCommandErrorDomain, kResultSuccess)) << patterns.description();
  EXPECT_EQ(foundPaths(reports), tree);

  EXPECT_EQ(daemonLog().find("maximum number of nested directories"), std::string::npos);
}

}  // namespace
}  // namespace krv::test
