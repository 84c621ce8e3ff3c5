#include "tools/securityagentctl/CommandLine.h"

#include <gtest/gtest.h>

#include "protocol/CommandCodes.h"
#include "tests/support/TestFileTree.h"
#include "tools/securityagentctl/ResultPrinter.h"

namespace krv::ctl {
namespace {

TEST(CommandLineTest, NamesAndCodesSelectTheSameCommand) {
  EXPECT_EQ(codeForName("version"), kCommandGetVersion);  // a short alias
  EXPECT_EQ(codeForName("51"), kCommandCountFileObjects);
  EXPECT_EQ(codeForName("count-file-objects"), kCommandCountFileObjects);
  EXPECT_FALSE(codeForName("55"));
  EXPECT_FALSE(codeForName(""));
  EXPECT_FALSE(codeForName("com.tavorin.get.version"));
  // Every command but the reserved one has a name that leads back to it.
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    if (code == kCommandReserved) continue;
    EXPECT_EQ(codeForName(readableName(code)), code) << readableName(code);
  }
}

TEST(CommandLineTest, TheListSaysWhichProgramEachProgramCommandRunsHere) {
  test::TestFileTree host;
  host.makeFolder("usr");
  host.makeFolder("usr/bin");
  host.makeFile("usr/bin/mount", "", 0755);
  host.makeFile("usr/bin/chown", "", 0755);
  host.makeFolder("usr/sbin");
  host.makeFile("usr/sbin/nscd", "", 0755);
  const std::string list = commandList(SystemPrograms(HostRoot(host.root())));
  const auto programLine = [&](const std::string& command) {
    const std::size_t at = list.find(command);
    if (at == std::string::npos) return std::string("<no command>");
    const std::size_t start = list.find('\n', at) + 1;
    return list.substr(start, list.find('\n', start) - start);
  };
  EXPECT_EQ(programLine(" mount-file-system "), "    runs " + host.path("usr/bin/mount"));
  EXPECT_EQ(programLine(" flush-lookup-cache "),
            "    runs " + host.path("usr/sbin/nscd") + " --invalidate hosts");
  EXPECT_EQ(programLine(" execute-umount "), "    runs no program on this machine");
  EXPECT_EQ(programLine(" refresh-automounter "), "    runs no program on this machine");
  // Commands that run nothing have no such line.
  EXPECT_EQ(programLine(" get-version ").rfind("    runs", 0), std::string::npos);
}

TEST(CommandLineTest, ConvertsArgumentsByTheSignature) {
  Result<Options> options =
      parseCommandLine({"--json", "search-aged-files", "/var/tmp", "30", "yes"});
  ASSERT_TRUE(options);
  EXPECT_TRUE(options->json);
  EXPECT_EQ(options->commandCode, kCommandSearchAgedFiles);
  ASSERT_EQ(options->arguments.size(), 3u);
  EXPECT_EQ(*options->arguments[0].asString(), "/var/tmp");
  EXPECT_EQ(options->arguments[1].asNumber()->integerValue(), 30);
  EXPECT_TRUE(options->arguments[2].asNumber()->isBoolean());

  Result<Options> data = parseCommandLine({"modify-file-content", "/etc/x", "hex:00ff", "1"});
  ASSERT_TRUE(data);
  EXPECT_EQ(*data->arguments[1].asData(), (Data{0x00, 0xff}));

  EXPECT_EQ(convertArgument("-2.5", 'N')->asNumber()->doubleValue(), -2.5);
  EXPECT_EQ(convertArgument("0x10", 'N')->asNumber()->integerValue(), 16);
  // Arguments are bytes: text when they are UTF-8, a byte string when they are not.
  EXPECT_EQ(*convertArgument("/tmp/caf\xc3\xa9", 'S')->asString(), "/tmp/caf\xc3\xa9");
  EXPECT_EQ(*convertArgument("/tmp/\xff", 'S')->asData(), (Data{'/', 't', 'm', 'p', '/', 0xff}));
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

TEST(CommandLineTest, SavesAndShowsComparisonsOnly) {
  Result<Options> saving =
      parseCommandLine({"--save", "/tmp/c", "compare-folders", "/a", "/b", "/m", "10", "3"});
  ASSERT_TRUE(saving);
  EXPECT_EQ(saving->saveFile, "/tmp/c");
  EXPECT_EQ(saving->commandCode, 52u);
  EXPECT_FALSE(parseCommandLine({"--save", "/tmp/c", "version"}));
  EXPECT_FALSE(parseCommandLine({"--save"}));
  Result<Options> showing = parseCommandLine({"--json", "--show", "/tmp/c"});
  ASSERT_TRUE(showing);
  EXPECT_EQ(showing->showFile, "/tmp/c");
}

TEST(ResultPrinterTest, RendersResultsAsJson) {
  Dictionary info;
  info.set("AgentVersionBuild", Value("121004"));
  Error result("com.tavorin.privilegedCommand", 0, info);
  EXPECT_EQ(resultToJson(result),
            "{\"domain\":\"com.tavorin.privilegedCommand\",\"code\":0,\"userInfo\":{"
            "\"AgentVersionBuild\":\"121004\"}}");
  // Data as base64, dates as ISO 8601 text in UTC.
  EXPECT_EQ(toJson(Value(Data{'r', 'o', 'o', 't', '\n'})), "{\"base64\":\"cm9vdAo=\"}");
  EXPECT_EQ(toJson(Value(Date{0.0})), "\"1970-01-01T00:00:00Z\"");
  // Pure ASCII, whatever the text holds; byte strings stay apart from text.
  EXPECT_EQ(toJson(Value(std::string("a\"\n\x01\x1b\x7f"))), "\"a\\\"\\n\\u0001\\u001b\\u007f\"");
  EXPECT_EQ(toJson(Value("caf\xc3\xa9 \xc2\x9b \xf0\x9f\x93\x81")),
            "\"caf\\u00e9 \\u009b \\ud83d\\udcc1\"");
  EXPECT_EQ(toJson(Value(Data{'/', 0xff})), "{\"base64\":\"L/8=\"}");
  EXPECT_EQ(toJson(Value(std::string("/\xff"))), "{\"base64\":\"L/8=\"}");
}

}  // namespace
}  // namespace krv::ctl
