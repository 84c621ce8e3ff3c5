#include "tools/securityagentctl/CommandLine.h"

#include <gtest/gtest.h>

#include "tools/securityagentctl/ResultPrinter.h"

namespace krv::ctl {
namespace {

TEST(CommandLineTest, NamesAndCodesSelectTheSameCommand) {
  EXPECT_EQ(codeForName("version"), 1u);  // a short alias
  EXPECT_EQ(codeForName("51"), 51u);
  EXPECT_EQ(codeForName("count-file-objects"), 51u);
  EXPECT_FALSE(codeForName("55"));
  EXPECT_FALSE(codeForName(""));
  EXPECT_FALSE(codeForName("com.tavorin.get.version"));
  // Every command but the reserved one has a name that leads back to it.
  for (std::uint32_t code = 0; code < 55; ++code) {
    if (code == 23) continue;
    EXPECT_EQ(codeForName(readableName(code)), code) << readableName(code);
  }
}

TEST(CommandLineTest, ConvertsArgumentsByTheSignature) {
  Result<Options> options =
      parseCommandLine({"--json", "search-aged-files", "/var/tmp", "30", "yes"});
  ASSERT_TRUE(options);
  EXPECT_TRUE(options->json);
  EXPECT_EQ(options->commandCode, 14u);
  ASSERT_EQ(options->arguments.size(), 3u);
  EXPECT_EQ(*options->arguments[0].asString(), "/var/tmp");
  EXPECT_EQ(options->arguments[1].asNumber()->integerValue(), 30);
  EXPECT_TRUE(options->arguments[2].asNumber()->isBoolean());

  Result<Options> data = parseCommandLine({"modify-file-content", "/etc/x", "hex:00ff", "1"});
  ASSERT_TRUE(data);
  EXPECT_EQ(*data->arguments[1].asData(), (Data{0x00, 0xff}));

  EXPECT_EQ(convertArgument("-2.5", 'N')->asNumber()->doubleValue(), -2.5);
  EXPECT_EQ(convertArgument("0x10", 'N')->asNumber()->integerValue(), 16);
}

TEST(CommandLineTest, RefusesWrongCountsAndBadNumbers) {
  EXPECT_FALSE(parseCommandLine({"get-version", "extra"}));
  EXPECT_FALSE(parseCommandLine({"search-aged-files", "/tmp", "ten", "1"}));
  EXPECT_FALSE(parseCommandLine({"search-aged-files", "/tmp", "99999999999999999999", "1"}));
  EXPECT_FALSE(parseCommandLine({"modify-file-content", "/x", "hex:abc", "1"}));
  EXPECT_FALSE(parseCommandLine({"--bogus", "version"}));
  EXPECT_FALSE(parseCommandLine({}));
  EXPECT_TRUE(parseCommandLine({"delete-file-objects"}));  // any number, zero included
}

TEST(ResultPrinterTest, RendersResultsAsJson) {
  Dictionary info;
  info.set("AgentVersionBuild", Value("121004"));
  info.set("OutputChannel", Value(Data{'r', 'o', 'o', 't', '\n'}));
  info.set("ModificationDate", Value(Date{0.0}));
  Error result("com.tavorin.privilegedCommand", 0, info);
  EXPECT_EQ(resultToJson(result),
            "{\"domain\":\"com.tavorin.privilegedCommand\",\"code\":0,\"userInfo\":{"
            "\"AgentVersionBuild\":\"121004\",\"OutputChannel\":\"cm9vdAo=\","
            "\"ModificationDate\":\"1970-01-01T00:00:00Z\"}}");
  EXPECT_EQ(toJson(Value(std::string("a\"\n\x01"))), "\"a\\\"\\n\\u0001\"");
}

}  // namespace
}  // namespace krv::ctl
