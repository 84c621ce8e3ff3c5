// The permission commands end to end: the real daemon propagates a folder's settings through a tree
// in the test's private /tmp and sets a list that a real unprivileged process then reads with,
// driven through the client library and the real command-line client. Each mask setting and
// failure in detail is tested on the executor.

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>
#include <vector>

#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

constexpr uid_t kUser = 4242;

class PermissionCommandsTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(::mkdir(kBase, 0755), 0) << errno;
  }
  void TearDown() override {
    (void)runProgram("/bin/rm", {"-rf", kBase});
    DaemonTest::TearDown();
  }

  static std::string path(const std::string& relative) {
    return std::string(kBase) + "/" + relative;
  }
  static void makeFile(const std::string& relative, mode_t mode) {
    std::ofstream(path(relative)) << "data";
    ASSERT_EQ(::chmod(path(relative).c_str(), mode), 0) << relative;
  }
  static uid_t ownerOf(const std::string& relative) {
    struct stat status {};
    EXPECT_EQ(::lstat(path(relative).c_str(), &status), 0) << relative;
    return status.st_uid;
  }

  static constexpr const char* kBase = "/tmp/permissions";
};

TEST_F(PermissionCommandsTest, PropagationReportsItsCountAndResult) {
  ASSERT_EQ(::mkdir(path("tree").c_str(), 0750), 0);
  ASSERT_EQ(::chown(path("tree").c_str(), kUser, kUser), 0);
  for (int i = 0; i < 250; ++i) makeFile("tree/f" + std::to_string(i), 0600);

  // Told to expect no objects, the daemon reports the count itself.
  std::vector<Error> reports;
  Error result = runCommand(
      kCommandPropagatePermissions,
      {Value(path("tree")), Value::integer(0), Value::boolean(false), Value::integer(0x3E)},
      &reports);
  ASSERT_TRUE(result.is(kCommandErrorDomain, kResultSuccess)) << result.description();
  std::vector<double> progress;
  for (const Error& report : reports) {
    const Value* value = report.userInfo().find("CurrentProgress");
    progress.push_back(value != nullptr ? value->asNumber()->doubleValue() : -1.0);
  }
  EXPECT_EQ(progress, (std::vector<double>{100.0, 200.0, 1.0}));
  struct stat status {};
  ASSERT_EQ(::stat(path("tree/f249").c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kUser);
  EXPECT_EQ(status.st_mode & 07777, 0640u);

  // A set-user-id program stops a change of owner, named in the client's report.
  makeFile("tree/tool", 04755);
  ProgramRun refused = runClient({"propagate-permissions", path("tree"), "250", "0", "0x20"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(refused.standardError.rfind("securityagentctl: cannot propagate the permissions of '" +
                                            path("tree/tool") + "': an argument is invalid\n",
                                        0),
            0u)
      << refused.standardError;
  EXPECT_NE(refused.standardError.find("FailingPath: " + path("tree/tool")), std::string::npos)
      << refused.standardError;
  EXPECT_EQ(ownerOf("tree/tool"), 0u);

  ProgramRun missing = runClient({"--json", "propagate-permissions", path("none"), "0", "0", "1"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.standardOutput.find("\"domain\":\"NSPOSIXErrorDomain\",\"code\":2"),
            std::string::npos)
      << missing.standardOutput;
}

TEST_F(PermissionCommandsTest, ListSetThroughTheClientLetsAUserRead) {
  makeFile("secret", 0600);
  // The byte form as a client writes it: the header (magic, two zero GUIDs, one entry, no flags),
  // then an entry allowing user 4242 (0x1092) to read data.
  const std::string form = "012cc16d" + std::string(64, '0') + "00000001" + "00000000" +
                           "ffffeeeeddddccccbbbbaaaa00001092" + "00000001" + "00000002";
  ASSERT_NE(runProgram("/bin/cat", {path("secret")}, kUser, kUser).exitCode, 0);

  ProgramRun set = runClient({"modify-acl-permissions", path("secret"), "hex:" + form});
  ASSERT_EQ(set.exitCode, 0) << set.standardError;
  EXPECT_NE(set.standardOutput.find("UnderlyingErrorCode: 0"), std::string::npos)
      << set.standardOutput;
  ProgramRun read = runProgram("/bin/cat", {path("secret")}, kUser, kUser);
  EXPECT_EQ(read.exitCode, 0) << read.standardError;
  EXPECT_EQ(read.standardOutput, "data");

  ProgramRun malformed = runClient({"modify-acl-permissions", path("secret"), "hex:012cc16d"});
  EXPECT_EQ(malformed.exitCode, 1);
  EXPECT_NE(malformed.standardError.find("code 3"), std::string::npos) << malformed.standardError;
  std::ofstream(path("list")) << "hex:" + form;  // a file holds the text, not the bytes
  ProgramRun text = runClient({"modify-acl-permissions", path("secret"), "@" + path("list")});
  EXPECT_EQ(text.exitCode, 1);
  EXPECT_NE(text.standardError.find("code 3"), std::string::npos) << text.standardError;
  ProgramRun below = runClient({"modify-acl-permissions", path("secret/below"), "hex:" + form});
  EXPECT_EQ(below.exitCode, 1);
  EXPECT_NE(below.standardError.find("': the access control list could not be set: Not a "
                                     "directory\n  "),
            std::string::npos)
      << below.standardError;
  EXPECT_NE(below.standardError.find("Result: com.tavorin.privilegedCommand code 20\n"),
            std::string::npos)
      << below.standardError;
  EXPECT_NE(below.standardError.find("UnderlyingErrorCode: " + std::to_string(ENOTDIR)),
            std::string::npos)
      << below.standardError;
}

}  // namespace
}  // namespace krv::test
