// What an administrator reads when a command fails: one line naming what could not be done, the
// path and the reason, from the real client against the real daemon; and no progress bar when
// the output is not a terminal (unless asked for).

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

constexpr uid_t kUser = 1000;

class CommandLineErrorsTest : public DaemonTest {
 protected:
  void TearDown() override {
    (void)runProgram("/bin/rm", {"-rf", "/tmp/cli", "/run/vault"});
    DaemonTest::TearDown();
  }

  // The first line of the client's standard error.
  static std::string firstLine(const ProgramRun& run) {
    return run.standardError.substr(0, run.standardError.find('\n'));
  }
};

TEST_F(CommandLineErrorsTest, AFailureIsOneLineWithThePathAndTheReason) {
  ProgramRun missing = runClient({"delete-file-objects", "1", "/tmp/no\nsuch"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_EQ(firstLine(missing),
            "securityagentctl: cannot delete '/tmp/no\\nsuch': No such file or directory");
  // The details follow: the failing path and the domain and code, for scripts and reports.
  EXPECT_NE(missing.standardError.find("\n  Result: NSPOSIXErrorDomain code 2\n"),
            std::string::npos)
      << missing.standardError;

  // Without a failing path in the result, the one path argument names the object.
  ProgramRun search = runClient({"search-aged-files", "/tmp/nowhere", "0", "0"});
  EXPECT_EQ(search.exitCode, 1);
  EXPECT_EQ(firstLine(search),
            "securityagentctl: cannot search '/tmp/nowhere': No such file or directory");

  // A command refusal of the command's own domain.
  ProgramRun created = runClient({"create-file-object", "/tmp/cli-new", "Q"});
  EXPECT_EQ(created.exitCode, 1);
  EXPECT_EQ(firstLine(created),
            "securityagentctl: cannot create '/tmp/cli-new': an argument is invalid");
  // Not a terminal: no progress bar anywhere.
  EXPECT_EQ(missing.standardError.find('\r'), std::string::npos) << missing.standardError;
  EXPECT_EQ(missing.standardOutput.find('\r'), std::string::npos) << missing.standardOutput;
  EXPECT_EQ(missing.standardError.find("progress"), std::string::npos) << missing.standardError;
  // Unless asked for: then a line per change.
  ProgramRun asked = runClient({"--progress", "delete-file-objects", "0", "/tmp/a", "/tmp/b"});
  EXPECT_EQ(asked.exitCode, 0) << asked.standardError;
  EXPECT_EQ(asked.standardError, "progress: 0%\nprogress: 50%\n");
}

TEST_F(CommandLineErrorsTest, ARefusedLinkIsExplained) {
  ASSERT_EQ(::mkdir("/run/vault", 0700), 0) << errno;
  ASSERT_EQ(::mkdir("/tmp/cli", 0755), 0) << errno;
  ASSERT_EQ(::symlink("/run/vault", "/tmp/cli/link"), 0) << errno;
  ASSERT_EQ(::lchown("/tmp/cli/link", kUser, kUser), 0) << errno;
  ProgramRun refused = runClient({"delete-file-objects", "1", "/tmp/cli/link/secret"});
  EXPECT_EQ(refused.exitCode, 1);
  EXPECT_EQ(firstLine(refused),
            "securityagentctl: cannot delete '/tmp/cli/link/secret': Permission denied (the path "
            "goes through a symbolic link a user owns that leads to somebody else's object)");
}

TEST_F(CommandLineErrorsTest, ADeniedRightSaysWhatWasNotAuthorized) {
  // A user who is no administrator, without a terminal to type a password on.
  ProgramRun denied = runClient({"touch-file-object", "/tmp"}, kUser, kUser);
  EXPECT_EQ(denied.exitCode, 1);
  EXPECT_EQ(firstLine(denied).rfind(
                "securityagentctl: not authorized to touch a file object: authorization ", 0),
            0u)
      << denied.standardError;
  EXPECT_NE(denied.standardError.find("  Result: com.tavorin.privilegedCommand code 2\n"),
            std::string::npos)
      << denied.standardError;
}

}  // namespace
}  // namespace krv::test
