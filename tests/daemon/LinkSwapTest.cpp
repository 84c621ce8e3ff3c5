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

// One attack: what the user makes in /tmp/att (dated long ago), the path the age search lists and
// the administrator then deletes with `code`, and what the user swaps for a link to /run/vault,
// root's own folder, which holds objects of the same names.
struct Attack {
  const char* made;
  const char* listed;
  std::uint32_t code;
  Array arguments;
  const char* swapped;
  const char* survivor;
};

class LinkSwapTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(::mkdir("/tmp/att", 0755), 0) << errno;
    ASSERT_EQ(::chown("/tmp/att", kUser, kUser), 0) << errno;
    ProgramRun vault =
        runProgram("/bin/sh", {"-c",
                               "mkdir -m 700 /run/vault /run/vault/dir /run/vault/box && "
                               "touch /run/vault/secret /run/vault/dir/file /run/vault/box/file"});
    ASSERT_EQ(vault.exitCode, 0) << vault.standardError;
  }
  void TearDown() override {
    (void)runProgram("/bin/rm", {"-rf", "/tmp/att", "/tmp/system-link", "/run/vault"});
    DaemonTest::TearDown();
  }

  // A shell script run by the unprivileged user.
  static void asUser(const std::string& script) {
    ProgramRun run = runProgram("/bin/sh", {"-c", script}, kUser, kUser);
    ASSERT_EQ(run.exitCode, 0) << script << ": " << run.standardError;
  }

  // What the administrator's cleaner sees: the paths the age search lists below /tmp/att.
  std::vector<std::string> agedPaths() {
    std::vector<Error> reports;
    Error result = runCommand(kCommandSearchAgedFiles,
                              {Value("/tmp/att"), Value::integer(30), Value::integer(0)}, &reports);
    EXPECT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
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

  // The attack fails: POSIX 13 naming the listed path, root's object is still there, and the log
  // names the link and both owners.
  void expectRefused(const Attack& attack) {
    asUser(std::string("cd /tmp/att && mkdir -p ") + attack.made + " && touch -d 2000-01-01 " +
           attack.listed);
    std::vector<std::string> listed = agedPaths();
    ASSERT_NE(std::find(listed.begin(), listed.end(), attack.listed), listed.end());
    asUser(std::string("cd /tmp/att && mv ") + attack.swapped + " was && ln -s /run/vault " +
           attack.swapped);

    Error result = runCommand(attack.code, attack.arguments);
    EXPECT_TRUE(result.is(kPosixErrorDomain, EACCES)) << result.description();
    const Value* failing = result.userInfo().find("FailingPath");
    ASSERT_TRUE(failing != nullptr && failing->asString() != nullptr) << result.description();
    EXPECT_EQ(*failing->asString(), attack.listed);
    struct stat status {};
    EXPECT_EQ(::lstat(attack.survivor, &status), 0) << attack.survivor;
    EXPECT_TRUE(waitForLog(std::string("Refused to follow the symbolic link \"/tmp/att/") +
                               attack.swapped + "\" of user 1000 to \"/run/vault\" of user 0",
                           5s))
        << daemonLog();
    // The daemon stays up and serves the next request.
    EXPECT_TRUE(runCommand(kCommandGetVersion, {}).is(kCommandErrorDomain, kResultSuccess));
  }
};

TEST_F(LinkSwapTest, DeletingAListedFileRefusesAFolderSwappedForALink) {
  expectRefused({"sub/secret",
                 "/tmp/att/sub/secret",
                 7,
                 {Value("1"), Value("/tmp/att/sub/secret")},
                 "sub",
                 "/run/vault/secret"});
}

TEST_F(LinkSwapTest, EmptyingAListedFolderRefusesTheFolderSwappedForALink) {
  expectRefused(
      {"box/file", "/tmp/att/box", 49, {Value("/tmp/att/box")}, "box", "/run/vault/box/file"});
}

TEST_F(LinkSwapTest, DeletingAListedTreeRefusesALinkInTheMiddleOfItsPath) {
  expectRefused({"sub/dir/file",
                 "/tmp/att/sub/dir",
                 8,
                 {Value("/tmp/att/sub/dir")},
                 "sub",
                 "/run/vault/dir/file"});
}

// Root's own links (as the system has them) and a user's links inside her own files lead on.
TEST_F(LinkSwapTest, RootsLinksAndLinksWithinAUsersOwnFilesStillLead) {
  ASSERT_EQ(::symlink("/run/vault", "/tmp/system-link"), 0);
  Error deleted =
      runCommand(kCommandDeleteFileObjects, {Value("1"), Value("/tmp/system-link/secret")});
  EXPECT_TRUE(deleted.is(kCommandErrorDomain, kResultSuccess)) << deleted.description();
  EXPECT_NE(::access("/run/vault/secret", F_OK), 0);

  asUser("mkdir -p /tmp/att/real/tree/deeper && ln -s real /tmp/att/mine");
  deleted = runCommand(kCommandDeleteFileSubtree, {Value("/tmp/att/mine/tree")});
  EXPECT_TRUE(deleted.is(kCommandErrorDomain, kResultSuccess)) << deleted.description();
  EXPECT_NE(::access("/tmp/att/real/tree", F_OK), 0);
  EXPECT_EQ(daemonLog().find("Refused"), std::string::npos) << daemonLog();
}

}  // namespace
}  // namespace krv::test
