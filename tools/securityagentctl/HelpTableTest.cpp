#include "tools/securityagentctl/HelpTable.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <set>
#include <sstream>

#include "protocol/CommandCodes.h"
#include "protocol/CommandTable.h"
#include "tools/securityagentctl/CommandLine.h"

namespace krv::ctl {
namespace {

// The words of an example as a shell would split them: blanks separate, quotes group.
std::vector<std::string> shellWords(const std::string& text) {
  std::vector<std::string> words;
  std::string word;
  bool inWord = false;
  char quote = '\0';
  for (char c : text) {
    if (quote != '\0') {
      if (c == quote) {
        quote = '\0';
      } else {
        word += c;
      }
    } else if (c == '"' || c == '\'') {
      quote = c;
      inWord = true;
    } else if (c == ' ') {
      if (inWord) words.push_back(word);
      word.clear();
      inWord = false;
    } else {
      word += c;
      inWord = true;
    }
  }
  if (inWord) words.push_back(word);
  return words;
}

TEST(HelpTableTest, EveryCodeIsDescribedAndAgreesWithTheCommandTable) {
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    SCOPED_TRACE(code);
    const CommandHelp* help = commandHelp(code);
    const CommandRecord* record = commandRecord(code);
    ASSERT_NE(help, nullptr);
    EXPECT_EQ(help->code, code);
    for (const char* text :
         {help->summary, help->action, help->failure, help->returns, help->example}) {
      ASSERT_NE(text, nullptr);
    }
    EXPECT_GT(std::strlen(help->summary), 0u);
    EXPECT_GT(std::strlen(help->action), 0u);
    const std::size_t count = argumentCount(*help);
    for (std::size_t index = 0; index < count; ++index) {
      ASSERT_NE(help->arguments[index].meaning, nullptr) << index;
    }
    if (record->numberOfArguments == kAnyNumberOfArguments) {
      // Any number: a group that repeats, every argument of the one letter.
      ASSERT_NE(help->repeatFrom, kNoRepetition);
      EXPECT_LT(static_cast<std::size_t>(help->repeatFrom), count);
      for (std::size_t index = 0; index < count; ++index) {
        EXPECT_EQ(letterOfKind(help->arguments[index].kind), record->signature[0]) << index;
      }
    } else {
      EXPECT_EQ(help->repeatFrom, kNoRepetition);
      ASSERT_EQ(static_cast<std::int64_t>(count), record->numberOfArguments);
      for (std::size_t index = 0; index < count; ++index) {
        EXPECT_EQ(letterOfKind(help->arguments[index].kind), record->signature[index]) << index;
      }
    }
    EXPECT_FALSE(helpForCommand(code).empty());
  }
  EXPECT_EQ(commandHelp(kNumberOfCommandCodes), nullptr);
  EXPECT_EQ(helpForCommand(kNumberOfCommandCodes), "");
}

TEST(HelpTableTest, EveryExampleIsAValidCommandLine) {
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    if (code == kCommandReserved) continue;
    std::vector<std::string> words = shellWords(commandHelp(code)->example);
    for (std::string& word : words) {
      if (word.rfind('@', 0) == 0) word = "hex:00";  // a file the example names, not here
    }
    words.insert(words.begin(), readableName(code));
    Result<Options> options = parseCommandLine(words);
    EXPECT_TRUE(options) << code << ": " << options.error().operation();
    if (!options) continue;
    // The example of a grouped list gives whole groups.
    const CommandHelp& help = *commandHelp(code);
    if (help.repeatFrom != kNoRepetition) {
      const std::size_t group = argumentCount(help) - static_cast<std::size_t>(help.repeatFrom);
      EXPECT_EQ((options->arguments.size() - static_cast<std::size_t>(help.repeatFrom)) % group, 0u)
          << code;
    }
  }
}

TEST(HelpTableTest, HelpNamesArgumentsValuesRightAndExample) {
  const std::string compare = helpForCommand(kCommandCompareFolders);
  EXPECT_EQ(compare.rfind("usage: securityagentctl compare-folders FIRST SECOND MARKER EXPECTED "
                          "MODE\n",
                          0),
            0u)
      << compare;
  EXPECT_NE(compare.find("0x02 ignore status"), std::string::npos) << compare;
  EXPECT_NE(compare.find("Right: com.tavorin.compare.folders"), std::string::npos) << compare;
  EXPECT_NE(compare.find("securityagentctl compare-folders /home /backup/home"), std::string::npos);

  EXPECT_EQ(usageLine(kCommandDeleteFileObjects), "delete-file-objects MODE [PATH ...]");
  EXPECT_EQ(usageLine(kCommandSearchNamePatterns),
            "search-name-patterns BASE STAY KIND PATTERN [KIND PATTERN ...]");
  EXPECT_NE(helpForCommand(kCommandDeleteFileObjects).find("0 goes on"), std::string::npos);
  EXPECT_NE(helpForCommand(kCommandGetVersion).find("anyone may run it"), std::string::npos);

  // The overview lists every command but the reserved code, one line each.
  const std::string overview = helpOverview();
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    if (code == kCommandReserved) continue;
    EXPECT_NE(overview.find(" " + readableName(code) + " "), std::string::npos) << code;
  }
}

TEST(HelpTableTest, TheCommandLineAsksForHelp) {
  Result<Options> overview = parseCommandLine({"help"});
  ASSERT_TRUE(overview);
  EXPECT_TRUE(overview->help);
  EXPECT_FALSE(overview->helpCommand);
  Result<Options> byName = parseCommandLine({"help", "delete-file-objects"});
  ASSERT_TRUE(byName);
  EXPECT_EQ(byName->helpCommand, kCommandDeleteFileObjects);
  EXPECT_EQ(parseCommandLine({"help", "35"})->helpCommand, kCommandPropagatePermissions);
  EXPECT_FALSE(parseCommandLine({"help", "no-such-command"}));
  EXPECT_FALSE(parseCommandLine({"help", "7", "8"}));
  // The list explains its letters before the first command.
  const std::string list = commandList();
  EXPECT_LT(list.find("S a text or a path, N a number"), list.find("get-version"));
}

// The bash completion knows each command's argument kinds from a line `NAME) kinds="..." ;;`.
TEST(HelpTableTest, TheCompletionAgreesWithTheTable) {
  std::ifstream file(KRV_SOURCE_DIR "/packaging/bash-completion/securityagentctl");
  ASSERT_TRUE(file);
  std::stringstream text;
  text << file.rdbuf();
  const std::string script = text.str();
  // The names offered for the command word.
  const std::size_t list = script.find("local commands=\"");
  ASSERT_NE(list, std::string::npos);
  const std::size_t start = list + std::strlen("local commands=\"");
  std::istringstream words(script.substr(start, script.find('"', start) - start));
  std::set<std::string> offered{std::istream_iterator<std::string>(words),
                                std::istream_iterator<std::string>()};
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    if (code == kCommandReserved) continue;
    const CommandHelp& help = *commandHelp(code);
    std::string kinds;
    for (std::size_t index = 0; index < argumentCount(help); ++index) {
      if (!kinds.empty()) kinds += ' ';
      if (static_cast<int>(index) == help.repeatFrom) kinds += '+';
      kinds += "ptnfda"[static_cast<int>(help.arguments[index].kind)];
    }
    const std::string line = "    " + readableName(code) + ") kinds=\"" + kinds + "\" ;;\n";
    EXPECT_NE(script.find(line), std::string::npos) << line;
    EXPECT_EQ(offered.count(readableName(code)), 1u) << code;
  }
}

}  // namespace
}  // namespace krv::ctl
