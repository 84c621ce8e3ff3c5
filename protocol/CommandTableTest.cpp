#include "protocol/CommandTable.h"

#include <gtest/gtest.h>

#include <vector>

namespace krv {
namespace {

std::vector<CommandRecord> tableCopy() {
  std::span<const CommandRecord> table = commandTable();
  return std::vector<CommandRecord>(table.begin(), table.end());
}

TEST(CommandTableTest, HoldsFiftyFiveConsistentRecordsIndexedByCode) {
  std::span<const CommandRecord> table = commandTable();
  ASSERT_EQ(table.size(), 55u);
  for (std::uint32_t code = 0; code < table.size(); ++code) EXPECT_EQ(table[code].code, code);
  EXPECT_FALSE(firstInconsistency(table, "KRVPrivilegedCommand"));
  // Lookups past the ends find nothing.
  EXPECT_EQ(commandRecord(55), nullptr);
  EXPECT_FALSE(classForArgumentType('s'));
  EXPECT_FALSE(stringForUserInformationKey(18));
}

TEST(CommandTableTest, ReportsTheFirstInconsistencyWithItsMessage) {
  struct Case {
    void (*edit)(std::vector<CommandRecord>&);
    const char* message;
  };
  const Case cases[] = {
      {[](auto& t) { t[14].sendsLiveOutputReports = true; },
       "KRVPrivilegedCommand: command code 14 defines intermediate reports both for progress and "
       "output purposes!\n"},
      {[](auto& t) { t[0].signature = "S"; },
       "KRVPrivilegedCommand: security-related consistency check failed: argument type specified "
       "for command code 0!\n"},
      {[](auto& t) { t[9].signature = nullptr; },
       "KRVPrivilegedCommand: security-related consistency check failed: no argument types "
       "specified for command code 9!\n"},
      {[](auto& t) { t[7].signature = "SS"; },
       "KRVPrivilegedCommand: security-related consistency check failed: command code 7 has "
       "invalid number of type specifiers!\n"},
      {[](auto& t) { t[12].signature = "SNXN"; },
       "KRVPrivilegedCommand: security-related consistency check failed: command code 12 uses "
       "invalid type specifier 'X' at 2!\n"},
  };
  for (const Case& c : cases) {
    std::vector<CommandRecord> table = tableCopy();
    c.edit(table);
    EXPECT_EQ(firstInconsistency(table, "KRVPrivilegedCommand").value_or(""), c.message);
  }
}

TEST(CommandTableDeathTest, AnInconsistentTableEndsTheProcessWithStatusOne) {
  std::vector<CommandRecord> table = tableCopy();
  table[3].sendsLiveOutputReports = true;
  EXPECT_EXIT(checkTableOrExit(table, "KRVPrivilegedCommand"), testing::ExitedWithCode(1),
              "command code 3 defines intermediate reports both");
}

}  // namespace
}  // namespace krv
