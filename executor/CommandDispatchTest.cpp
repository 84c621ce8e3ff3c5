#include <gtest/gtest.h>
#include <sys/stat.h>

#include "executor/KRVCommandExecutor.h"
#include "foundation/System.h"

namespace krv {
namespace {

CommandResult run(std::uint32_t code, Array arguments) {
  auto command = KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
  KRVCommandExecutor executor;
  return executor.executeCommand(*command);
}

std::int64_t codeOf(const CommandResult& result) { return result ? result->code() : -1; }

TEST(CommandDispatchTest, AppliesTheArgumentRulesOfTheVariableCommands) {
  EXPECT_EQ(codeOf(run(7, {Value("1")})), 4);
  EXPECT_EQ(codeOf(run(7, {Value("2"), Value("/nonexistent")})), 3);
  EXPECT_EQ(codeOf(run(7, {Value("yes"), Value("/nonexistent")})), 3);
  EXPECT_EQ(codeOf(run(8, {})), 4);
  EXPECT_EQ(codeOf(run(49, {})), 4);
  EXPECT_EQ(codeOf(run(46, {Value("/"), Value("0"), Value("0"), Value("a"), Value("1")})), 4);
  EXPECT_EQ(codeOf(run(46, {Value("/"), Value("0")})), 4);
}

TEST(CommandDispatchTest, AnswersTheCommandsOfTheDispatcherItself) {
  for (std::uint32_t code : {0u, 2u, 53u}) {
    CommandResult result = run(code, {});
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is("com.tavorin.privilegedCommand", 0));
    EXPECT_TRUE(result->userInfo().empty());
  }
  CommandResult version = run(1, {});
  ASSERT_TRUE(version);
  EXPECT_EQ(version->userInfo().find("CommandImplementationVersion")->asNumber()->integerValue(),
            310);
  EXPECT_EQ(version->userInfo().find("AgentVersionMajor")->asNumber()->integerValue(), 3);
  EXPECT_EQ(version->userInfo().find("AgentVersionMinor")->asNumber()->integerValue(), 1);
  EXPECT_EQ(*version->userInfo().find("AgentVersionBuild")->asString(), "121004");
  EXPECT_TRUE(run(23, {})->is("com.tavorin.privilegedCommand", 1));
}

TEST(CommandDispatchTest, FamiliesNotInThisVersionAnswerNotAvailable) {
  // System settings and access control lists.
  const std::pair<std::uint32_t, Array> commands[] = {
      {18, {Value("Disk Sleep Timer"), Value::integer(1)}},
      {19, {Value::integer(10)}},
      {20, {Value("kernel.x"), Value::integer(1)}},
      {21, {Value("name"), Value("value")}},
      {22, {Value("lo"), Value::integer(1500)}},
      {24, {Value("k"), Value("d"), Value("u"), Value("h"), Value("v")}},
      {25, {Value("a"), Value("d"), Value("k"), Value("v")}},
      {26, {}},
      {27, {}},
      {28, {}},
      {29, {Value::integer(1)}},
      {30, {}},
      {34, {Value("/x"), Value(Data{1})}},
      {35, {Value("/x"), Value::integer(1), Value::integer(1), Value::integer(7)}},
  };
  for (const auto& [code, arguments] : commands) {
    CommandResult result = run(code, arguments);
    ASSERT_TRUE(result) << code;
    EXPECT_TRUE(result->is(kPosixErrorDomain, ENOSYS)) << code;
    EXPECT_NE(result->userInfo().find("UnderlyingErrorMessage"), nullptr) << code;
  }
}

TEST(CommandDispatchTest, RestoresTheFileCreationMask) {
  mode_t before = ::umask(022);
  run(1, {});
  EXPECT_EQ(::umask(before), 022);
}

}  // namespace
}  // namespace krv
