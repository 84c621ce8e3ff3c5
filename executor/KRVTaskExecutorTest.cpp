#include "executor/KRVTaskExecutor.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>

#include "foundation/NameValue.h"
#include "tests/support/ExecutorTestSupport.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

using Chunks = std::vector<std::pair<bool, std::string>>;  // (is error, bytes)

class Recorder final : public TaskDelegate {
 public:
  void receiveTaskOutput(const Data& data, bool isError) override {
    chunks.emplace_back(isError, std::string(data.begin(), data.end()));
  }
  Chunks chunks;
};

// Programs live in a root-owned folder writable by nobody else. PATH is process-wide: each test
// starts with a known one and puts the original back.
class TaskExecutorTest : public testing::Test {
 protected:
  void SetUp() override {
    ::chmod(m_tree.root().c_str(), 0755);
    const char* path = std::getenv("PATH");
    if (path != nullptr) m_savedPath = path;
    setPath("/usr/bin:/bin");
  }
  void TearDown() override { setPath(m_savedPath); }

  static void setPath(const std::optional<std::string>& value) {
    std::lock_guard<std::mutex> lock(KRVTaskExecutor::environmentLock());
    if (value)
      ::setenv("PATH", value->c_str(), 1);
    else
      ::unsetenv("PATH");
  }
  std::string program(const std::string& name, const std::string& body, mode_t mode = 0755,
                      uid_t owner = 0, gid_t group = 0) {
    std::string path = m_tree.makeFile(name, "#!/bin/sh\n" + body + "\n", mode);
    (void)::chown(path.c_str(), owner, group);
    return path;
  }
  static Chunks chunksOf(const std::string& path, const std::vector<std::string>& arguments = {}) {
    Recorder recorder;
    KRVTaskExecutor task;
    task.setDelegate(&recorder);
    EXPECT_TRUE(task.executeProgramAtPath(path, arguments));
    return recorder.chunks;
  }
  Error run(const std::string& path, std::vector<std::string> arguments = {}, bool keep = false) {
    Array values;
    for (std::string& argument : arguments) values.push_back(Value(std::move(argument)));
    return m_executor.executeSystemProgramAtPath(path, values, keep);
  }

  test::TestFileTree m_tree;
  KRVCommandExecutor m_executor;
  std::optional<std::string> m_savedPath;
};

TEST_F(TaskExecutorTest, SafetyRuleLooksAtTheResolvedProgramAndItsParentOnly) {
  const std::string safe = program("safe", "true");
  ::chmod(m_tree.makeFolder("open").c_str(), 0777);
  ::chmod(m_tree.makeFolder("group").c_str(), 0775);
  m_tree.makeFolder("users", 0755);
  (void)::chown(m_tree.path("users").c_str(), 1000, 0);
  struct Case {
    std::string path;
    bool safe;
  };
  const Case cases[] = {
      {safe, true},
      // Links are resolved: a link anywhere, even in a folder of another user, to a safe program.
      {m_tree.makeLink("users/link", safe), true},
      {m_tree.root() + "/./users/../safe", true},
      {program("not-executable", "", 0644), true},  // execute bits are not examined
      {program("group-writable", "", 0775), false},
      {program("world-writable", "", 0757), false},
      {program("user-owned", "", 0755, 1000), false},
      {program("group-owned", "", 0755, 0, 1000), false},
      {program("open/program", ""), false},
      {program("group/program", ""), false},
      {program("users/program", ""), false},
      {m_tree.makeLink("to-unsafe", m_tree.path("open/program")), false},
      {m_tree.makeFolder("folder"), false},
      {m_tree.path("missing"), false},
      {"", false},
      {safe + std::string(1, '\0') + "x", false},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(KRVTaskExecutor::hasExecutableSafePermissionsAtPath(c.path), c.safe) << c.path;
  }
  // Refused with the path exactly as given, and nothing is run.
  Error refused = run(m_tree.path("to-unsafe"));
  EXPECT_TRUE(refused.is(kCommandErrorDomain, kResultUnsafeProgram));
  EXPECT_EQ(test::textOf(refused, "FailingPath"), m_tree.path("to-unsafe"));
}

TEST_F(TaskExecutorTest, DeliversChunksInArrivalOrderThenDrainsOutputBeforeErrors) {
  const std::string paced =
      program("paced",
              "printf out1; /bin/sleep 0.3; printf err1 >&2; /bin/sleep 0.3; printf out2; "
              "/bin/sleep 0.3");
  EXPECT_EQ(chunksOf(paced),
            (Chunks{{false, "out1"}, {true, "err1"}, {false, "out2"}, {false, ""}, {true, ""}}));

  // Exiting at once: whatever was not read while it ran comes in the final drain, output first.
  const std::string sudden =
      program("sudden", "/usr/bin/head -c 300000 /dev/zero; printf E >&2; exit 3");
  Chunks chunks = chunksOf(sudden);
  ASSERT_GE(chunks.size(), 2u);
  EXPECT_FALSE(chunks[chunks.size() - 2].first);
  EXPECT_TRUE(chunks.back().first);
  std::size_t output = 0;
  std::string errors;
  for (const auto& [isError, bytes] : chunks) {
    if (isError)
      errors += bytes;
    else
      output += bytes.size();
  }
  EXPECT_EQ(output, 300000u);
  EXPECT_EQ(errors, "E");
}

TEST_F(TaskExecutorTest, ResultCarriesAllOutputAndTheExitStatus) {
  struct Case {
    std::string body;
    std::int64_t code, status;
    std::string output, errors;
  };
  const Case cases[] = {
      {"printf o; printf e >&2; exit 1", 6, 1, "o", "e"},
      {"exit 0", 0, 0, "", ""},
      {"printf x; kill -9 $$", 6, 9, "x", ""},  // a signal's number stands for the status
  };
  for (const Case& c : cases) {
    Error result = run(program("p", c.body));
    EXPECT_TRUE(result.is(kCommandErrorDomain, c.code)) << c.body << result.description();
    EXPECT_EQ(test::textOf(result, "UnderlyingErrorCode"), std::to_string(c.status)) << c.body;
    EXPECT_EQ(test::textOf(result, "OutputChannel"), c.output) << c.body;
    EXPECT_EQ(test::textOf(result, "ErrorChannel"), c.errors) << c.body;
  }
  EXPECT_TRUE(run("").is(kCommandErrorDomain, kResultBadArgument));
  EXPECT_TRUE(run("").userInfo().empty());
  // A NUL byte in an argument could not reach the program unchanged.
  EXPECT_TRUE(run(program("q", "true"), {std::string("a\0b", 3)})
                  .is(kCommandErrorDomain, kResultBadArgument));
  EXPECT_TRUE(
      m_executor.executeSystemProgramAtPath(program("q", "true"), {Value(Data{'a', 0, 0xFF})})
          .is(kCommandErrorDomain, kResultBadArgument));
}

TEST_F(TaskExecutorTest, PassesArgumentsUnchangedWithoutAShell) {
  const std::string echo = program("echo", "printf '%s|%s' \"$0\" \"$#\"; printf '[%s]' \"$@\"");
  EXPECT_EQ(
      test::textOf(run(echo, {"a b", "*", "$HOME", "", "; exit 7", "é\xff"}), "OutputChannel"),
      echo + "|6[a b][*][$HOME][][; exit 7][é\xff]");
  EXPECT_EQ(test::textOf(run(echo), "OutputChannel"), echo + "|0[]");
  // An argument that is not UTF-8 arrives as a byte string and reaches the program as its bytes.
  EXPECT_EQ(
      test::textOf(m_executor.executeSystemProgramAtPath(echo, {Value("a"), nameValue("\xfe\xff")}),
                   "OutputChannel"),
      echo + "|2[a][\xfe\xff]");

  // Passing the safety rule does not make a file a program: a clear answer instead of a crash,
  // and a script without "#!" is not handed to a shell.
  for (const auto& [name, mode, code] :
       {std::tuple{"plain", 0644, EACCES}, std::tuple{"no-interpreter", 0755, ENOEXEC}}) {
    std::string path = m_tree.makeFile(name, "printf ran\n", static_cast<mode_t>(mode));
    Error result = run(path);
    EXPECT_TRUE(result.is(kPosixErrorDomain, code)) << name << result.description();
    EXPECT_EQ(test::textOf(result, "FailingPath"), path);
  }
}

TEST_F(TaskExecutorTest, OnlyThePeriodicJobsKeepPathAndOnlyWhileNoOtherProgramRan) {
  const std::string env = "/usr/bin/env";
  ASSERT_TRUE(KRVTaskExecutor::hasExecutableSafePermissionsAtPath(env));
  // A refused program leaves PATH alone.
  if (::access("/usr/sbin/diskutil", F_OK) != 0) {
    Error refused = m_executor.executeDiskUtilityWithArguments(Array{});
    EXPECT_EQ(test::textOf(refused, "FailingPath"), "/usr/sbin/diskutil");
  }
  ASSERT_NE(std::getenv("PATH"), nullptr);

  auto environmentHasPath = [&](bool keep) {
    std::string environment = "\n" + test::textOf(run(env, {}, keep), "OutputChannel");
    return environment.find("\nPATH=") != std::string::npos;
  };
  EXPECT_TRUE(environmentHasPath(true));
  EXPECT_NE(std::getenv("PATH"), nullptr);
  EXPECT_FALSE(environmentHasPath(false));
  EXPECT_EQ(std::getenv("PATH"), nullptr);  // for good, for the whole process
  EXPECT_FALSE(environmentHasPath(true));
}

TEST_F(TaskExecutorTest, NoDescriptorOfTheDaemonReachesTheProgram) {
  // One inheritable descriptor, as a careless library could leave behind, plus the executor's.
  UniqueFd inheritable(::dup(STDERR_FILENO));
  ASSERT_TRUE(inheritable.valid());
  test::ExecutorWithPipe withPipe;
  Error result =
      withPipe.executor().executeSystemProgramAtPath("/usr/bin/ls", Array{Value("/proc/self/fd")});
  // 3 is the descriptor ls opens for the listing itself.
  EXPECT_EQ(test::textOf(result, "OutputChannel"), "0\n1\n2\n3\n") << result.description();
}

TEST_F(TaskExecutorTest, ALingeringDescendantDoesNotHoldUpTheResult) {
  const std::string detaching = program("detaching", "/bin/sleep 3 & printf done");
  auto started = std::chrono::steady_clock::now();
  KRVHighLoadTaskExecutor task;
  Recorder recorder;
  task.setDelegate(&recorder);
  ASSERT_TRUE(task.executeProgramAtPath(detaching, {}));
  auto elapsed = std::chrono::steady_clock::now() - started;
  EXPECT_LT(elapsed, std::chrono::seconds(2));
  EXPECT_GE(elapsed, std::chrono::milliseconds(40));  // the high-load pause
  std::string output;
  for (const auto& [isError, bytes] : recorder.chunks) output += isError ? "" : bytes;
  EXPECT_EQ(output, "done");
}

// Code 45 runs its fixed program, which exists here only inside a private mount namespace, and
// relays nothing while it runs (the live relay of code 40 is tested end to end).
TEST_F(TaskExecutorTest, ACommandWithoutTheLiveFlagRelaysNothing) {
  test::Facts facts = test::inPrivateMount("/usr/sbin", "tmpfs", [](test::Facts& seen) {
    ::chmod("/usr/sbin", 0755);
    std::ofstream("/usr/sbin/cupsctl") << "#!/bin/sh\nprintf one; printf two >&2\n";
    ::chmod("/usr/sbin/cupsctl", 0755);
    test::ExecutorWithPipe withPipe;
    CommandResult result = withPipe.run(kCommandExecuteCupsctl, {});
    seen["messages"] = std::to_string(withPipe.messages().size());
    if (!result) return;
    seen["output"] = test::textOf(*result, "OutputChannel");
    seen["errors"] = test::textOf(*result, "ErrorChannel");
  });
  ASSERT_FALSE(facts.contains("child")) << facts["child"];
  EXPECT_EQ(facts["messages"], "0");
  EXPECT_EQ(facts["output"], "one");
  EXPECT_EQ(facts["errors"], "two");
}

}  // namespace
}  // namespace krv
