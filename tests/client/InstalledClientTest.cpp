// The installed client library as an application meets it: `cmake --install` into a prefix, the C
// example compiled against that prefix once with pkg-config and once with find_package, and both
// the compiled example and the Python client run as an ordinary user against the real daemon, for
// a command whose right an administrator set to "allow".

#include <string>
#include <vector>

#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

constexpr uid_t kNobody = 65534;
constexpr gid_t kNogroup = 65534;

class InstalledClientTest : public DaemonTest {
 protected:
  static ProgramRun shell(const std::string& script) {
    return runProgram("/bin/sh", {"-c", script}, 0, 0, std::chrono::seconds(280));
  }
};

std::string quoted(const std::string& text) {
  std::string result = "'";
  for (char c : text) {
    if (c == '\'') {
      result += "'\\''";
    } else {
      result += c;
    }
  }
  return result + "'";
}

void expectRunWithProgress(const ProgramRun& run, const std::string& resultLine) {
  EXPECT_EQ(run.exitCode, 0) << run.standardOutput << run.standardError;
  EXPECT_NE(run.standardOutput.find("progress   0%"), std::string::npos) << run.standardOutput;
  EXPECT_NE(run.standardOutput.find("progress  50%"), std::string::npos) << run.standardOutput;
  EXPECT_NE(run.standardOutput.find("root"), std::string::npos) << run.standardOutput;
  EXPECT_NE(run.standardOutput.find(resultLine), std::string::npos) << run.standardOutput;
}

TEST_F(InstalledClientTest, ExamplesBuildAgainstTheInstalledTreeAndRunACommand) {
  if (KRV_SANITIZED_BUILD) GTEST_SKIP() << "an instrumented library cannot serve plain programs";
  const std::string prefix = std::string(KRV_BUILD_DIR) + "/client-install-test";
  const std::string source = KRV_SOURCE_DIR;
  const std::string libdir = prefix + "/" + KRV_INSTALL_LIBDIR;

  ProgramRun install =
      shell("set -e; rm -rf " + quoted(prefix) + "; for component in library development; do " +
            quoted(KRV_CMAKE_COMMAND) + " --install " + quoted(KRV_BUILD_DIR) + " --prefix " +
            quoted(prefix) + " --component $component; done");
  ASSERT_EQ(install.exitCode, 0) << install.standardOutput << install.standardError;

  // pkg-config
  ProgramRun withPkgConfig =
      shell("set -e; export PKG_CONFIG_PATH=" + quoted(libdir + "/pkgconfig") + "; " +
            quoted(KRV_C_COMPILER) + " -std=c99 -Wall -Wextra -Werror -o " +
            quoted(prefix + "/example-pkg-config") + " " +
            quoted(source + "/examples/c/securityagent-example.c") +
            " $(pkg-config --cflags --libs securityagent)" +
            " -Wl,-rpath,$(pkg-config --variable=libdir securityagent)");
  ASSERT_EQ(withPkgConfig.exitCode, 0) << withPkgConfig.standardError;

  // find_package
  ProgramRun withCMake = shell(
      "set -e; " + quoted(KRV_CMAKE_COMMAND) + " -S " + quoted(source + "/examples/c") + " -B " +
      quoted(prefix + "/example-build") + " -G Ninja -DCMAKE_C_COMPILER=" + quoted(KRV_C_COMPILER) +
      " -DCMAKE_PREFIX_PATH=" + quoted(prefix) + "; " + quoted(KRV_CMAKE_COMMAND) + " --build " +
      quoted(prefix + "/example-build"));
  ASSERT_EQ(withCMake.exitCode, 0) << withCMake.standardOutput << withCMake.standardError;

  const std::vector<std::string> examples = {prefix + "/example-pkg-config",
                                             prefix + "/example-build/securityagent-example"};
  const std::string python = source + "/examples/python/securityagent-client.py";

  // Before: an ordinary user would need an administrator's password, and nobody can be asked.
  ProgramRun refused = runProgram(examples[0], {"3", "i:2"}, kNobody, kNogroup);
  EXPECT_EQ(refused.exitCode, 1) << refused.standardOutput << refused.standardError;
  EXPECT_NE(refused.standardOutput.find("result com.tavorin.privilegedCommand 2"),
            std::string::npos)
      << refused.standardOutput;

  ProgramRun allowed = runProgram(
      KRV_AUTHORITYCTL_BINARY, {"write", "com.tavorin.whoami.diagnostic", "allow", "For tests."});
  ASSERT_EQ(allowed.exitCode, 0) << allowed.standardError;

  for (const std::string& example : examples) {
    SCOPED_TRACE(example);
    expectRunWithProgress(runProgram(example, {"3", "i:2"}, kNobody, kNogroup),
                          "result com.tavorin.privilegedCommand 0");
  }
  expectRunWithProgress(runProgram("/usr/bin/python3", {python, "whoami", "2"}, kNobody, kNogroup),
                        "result: com.tavorin.privilegedCommand 0");
}

}  // namespace
}  // namespace krv::test
