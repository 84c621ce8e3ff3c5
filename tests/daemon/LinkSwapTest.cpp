// A user who swaps a folder of a path for a symbolic link, between an administrator's listing and
// the deletion that follows it, must not make the daemon delete anything the link leads to. The
// user's steps run as a real unprivileged process; the administrator's commands go through the
// real daemon.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

constexpr uid_t kUser = 1000;
// Root's own folder, out of the user's reach, with things named as in the user's tree.
constexpr const char* kVault = "/run/vault";

class LinkSwapTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(::mkdir("/tmp/att", 0755), 0) << errno;
    ASSERT_EQ(::chown("/tmp/att", kUser, kUser), 0) << errno;
    ASSERT_EQ(::mkdir(kVault, 0700), 0) << errno;
    for (const char* folder : {"/run/vault/dir", "/run/vault/box"}) {
      ASSERT_EQ(::mkdir(folder, 0700), 0) << errno;
    }
    for (const char* file : {"/run/vault/secret", "/run/vault/dir/file", "/run/vault/box/file"}) {
      UniqueFd fd(::open(file, O_CREAT | O_WRONLY | O_CLOEXEC, 0600));
      ASSERT_TRUE(fd.valid()) << file;
    }
  }
  void TearDown() override {
    (void)runProgram("/bin/rm", {"-rf", "/tmp/att", "/tmp/system-link", kVault});
    DaemonTest::TearDown();
  }

  // A shell script run by the unprivileged user.
  static void asUser(const std::string& script) {
    ProgramRun run = runProgram("/bin/sh", {"-c", script}, kUser, kUser);
    ASSERT_EQ(run.exitCode, 0) << script << ": " << run.standardError;
  }

  // What the administrator's cleaner sees: the paths the age search lists below the folder.
  std::vector<std::string> agedPaths(const char* folder) {
    std::vector<Error> reports;
    Error result = runCommand(14, {Value(folder), Value::integer(30), Value::integer(0)}, &reports);
    EXPECT_TRUE(result.is(kCommandErrorDomain, 0)) << result.description();
    std::vector<std::string> paths;
    for (const Error& report : reports) {
      const Value* records = report.userInfo().find("FileSystemObjects");
      if (records == nullptr || records->asArray() == nullptr) continue;
      for (const Value& record : *records->asArray()) {
        paths.push_back(*record.asDictionary()->find("Path")->asString());
      }
    }
    return paths;
  }

  static bool listed(const std::vector<std::string>& paths, const std::string& path) {
    return std::find(paths.begin(), paths.end(), path) != paths.end();
  }
  static bool exists(const char* path) {
    struct stat status {};
    return ::lstat(path, &status) == 0;
  }

  // The refusal the daemon answers with, and the log line that names the link and both owners.
  void expectRefusal(const Error& result, const std::string& path, const std::string& link) {
    EXPECT_TRUE(result.is(kPosixErrorDomain, EACCES)) << result.description();
    const Value* failing = result.userInfo().find("FailingPath");
    ASSERT_NE(failing, nullptr) << result.description();
    ASSERT_NE(failing->asString(), nullptr);
    EXPECT_EQ(*failing->asString(), path);
    EXPECT_TRUE(waitForLog("Refused to follow the symbolic link \"" + link +
                               "\" of user 1000 to \"" + kVault + "\" of user 0",
                           5s))
        << daemonLog();
  }
};

TEST_F(LinkSwapTest, DeletingAListedFileRefusesAFolderSwappedForALink) {
  asUser(
      "mkdir /tmp/att/sub && echo mine > /tmp/att/sub/secret &&"
      " touch -d 2000-01-01 /tmp/att/sub/secret");
  ASSERT_TRUE(listed(agedPaths("/tmp/att"), "/tmp/att/sub/secret"));
  asUser("mv /tmp/att/sub /tmp/att/was && ln -s /run/vault /tmp/att/sub");

  expectRefusal(runCommand(7, {Value("1"), Value("/tmp/att/sub/secret")}), "/tmp/att/sub/secret",
                "/tmp/att/sub");
  EXPECT_TRUE(exists("/run/vault/secret"));
  // The daemon stays up and serves the next request.
  EXPECT_TRUE(runCommand(1, {}).is(kCommandErrorDomain, 0));
}

TEST_F(LinkSwapTest, EmptyingAListedFolderRefusesTheFolderSwappedForALink) {
  asUser("mkdir /tmp/att/box && touch -d 2000-01-01 /tmp/att/box/file /tmp/att/box");
  ASSERT_TRUE(listed(agedPaths("/tmp/att"), "/tmp/att/box"));
  asUser("mv /tmp/att/box /tmp/att/was && ln -s /run/vault /tmp/att/box");

  expectRefusal(runCommand(49, {Value("/tmp/att/box")}), "/tmp/att/box", "/tmp/att/box");
  EXPECT_TRUE(exists("/run/vault/secret") && exists("/run/vault/box/file"));
}

TEST_F(LinkSwapTest, DeletingAListedTreeRefusesALinkInTheMiddleOfItsPath) {
  asUser("mkdir -p /tmp/att/sub/dir && touch -d 2000-01-01 /tmp/att/sub/dir/file /tmp/att/sub/dir");
  ASSERT_TRUE(listed(agedPaths("/tmp/att"), "/tmp/att/sub/dir"));
  asUser("mv /tmp/att/sub /tmp/att/was && ln -s /run/vault /tmp/att/sub");

  expectRefusal(runCommand(8, {Value("/tmp/att/sub/dir")}), "/tmp/att/sub/dir", "/tmp/att/sub");
  EXPECT_TRUE(exists("/run/vault/dir/file"));
}

// Root's own links (as the system has them) and a user's links inside her own files lead on.
TEST_F(LinkSwapTest, RootsLinksAndLinksWithinAUsersOwnFilesStillLead) {
  ASSERT_EQ(::symlink(kVault, "/tmp/system-link"), 0);
  Error deleted = runCommand(7, {Value("1"), Value("/tmp/system-link/secret")});
  EXPECT_TRUE(deleted.is(kCommandErrorDomain, 0)) << deleted.description();
  EXPECT_FALSE(exists("/run/vault/secret"));

  asUser(
      "mkdir -p /tmp/att/real/tree && touch /tmp/att/real/tree/file && "
      "ln -s real /tmp/att/mine");
  deleted = runCommand(8, {Value("/tmp/att/mine/tree")});
  EXPECT_TRUE(deleted.is(kCommandErrorDomain, 0)) << deleted.description();
  EXPECT_FALSE(exists("/tmp/att/real/tree"));
  EXPECT_EQ(daemonLog().find("Refused"), std::string::npos) << daemonLog();
}

}  // namespace
}  // namespace krv::test
