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
  EXPECT_EQ(codeOf(run(kCommandDeleteFileObjects, {Value("1")})), kResultMalformedArguments);
  EXPECT_EQ(codeOf(run(kCommandDeleteFileObjects, {Value("2"), Value("/nonexistent")})),
            kResultBadArgument);
  EXPECT_EQ(codeOf(run(kCommandDeleteFileObjects, {Value("yes"), Value("/nonexistent")})),
            kResultBadArgument);
  EXPECT_EQ(codeOf(run(kCommandDeleteFileSubtree, {})), kResultMalformedArguments);
  EXPECT_EQ(codeOf(run(kCommandDeleteFolderContents, {})), kResultMalformedArguments);
  EXPECT_EQ(codeOf(run(kCommandSearchNamePatterns,
                       {Value("/"), Value("0"), Value("0"), Value("a"), Value("1")})),
            kResultMalformedArguments);
  EXPECT_EQ(codeOf(run(kCommandSearchNamePatterns, {Value("/"), Value("0")})),
            kResultMalformedArguments);
}

TEST(CommandDispatchTest, AnswersTheCommandsOfTheDispatcherItself) {
  for (std::uint32_t code : {kCommandNone, kCommandShutdown, kCommandPrepareUninstallation}) {
    CommandResult result = run(code, {});
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is(kCommandErrorDomain, kResultSuccess));
    EXPECT_TRUE(result->userInfo().empty());
  }
  CommandResult version = run(kCommandGetVersion, {});
  ASSERT_TRUE(version);
  EXPECT_EQ(version->userInfo().find("CommandImplementationVersion")->asNumber()->integerValue(),
            310);
  EXPECT_EQ(version->userInfo().find("AgentVersionMajor")->asNumber()->integerValue(), 3);
  EXPECT_EQ(version->userInfo().find("AgentVersionMinor")->asNumber()->integerValue(), 1);
  EXPECT_EQ(*version->userInfo().find("AgentVersionBuild")->asString(), "121004");
  EXPECT_TRUE(run(kCommandReserved, {})->is(kCommandErrorDomain, kResultUnknownCommand));
}

TEST(CommandDispatchTest, RestoresTheFileCreationMask) {
  mode_t before = ::umask(022);
  run(kCommandGetVersion, {});
  EXPECT_EQ(::umask(before), 022);
}

}  // namespace
}  // namespace krv
