// The folder comparison through the executor's dispatch, with the response pipe read back: its
// refusals, the reports that carry the records, the abort marker and a client that goes away. The
// comparison's rules are tested on the comparator (filesystem/FolderComparatorTest.cpp).

#include <sys/stat.h>

#include <cerrno>
#include <string>
#include <vector>

#include "filesystem/KRVFileSystemObjectDescription.h"
#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::number;
using test::text;

class FolderComparisonCommandsTest : public test::FileCommandTest {
 protected:
  void SetUp() override {
    m_first = m_tree.makeFolder("first");
    m_second = m_tree.makeFolder("second");
  }
  CommandResult compare(std::uint64_t expected, std::uint64_t mode = 0) {
    return run(
        52, {text(m_first), text(m_second), text(path("marker")), number(expected), number(mode)});
  }
  // Progress and number of records of each message since the last call.
  std::vector<std::pair<double, std::size_t>> reports() {
    std::vector<std::pair<double, std::size_t>> result;
    for (const Error& message :
         m_client.messages(KRVFileSystemObjectDescription::comparisonClasses())) {
      EXPECT_TRUE(message.is("com.tavorin.securityagent", 1)) << message.description();
      const Value* records = message.userInfo().find("MismatchList");
      result.emplace_back(test::progressOf(message), records ? records->asArray()->size() : 99999);
    }
    return result;
  }

  std::string m_first;
  std::string m_second;
};

TEST_F(FolderComparisonCommandsTest, RefusesMissingArgumentsAndFoldersThatAreNone) {
  expectResult(run(52, {text(m_first), text(m_second), text(""), number(1), number(0)}),
               kPosixErrorDomain, EINVAL);
  expectResult(compare(0), kPosixErrorDomain, EINVAL);
  make({"file"});
  for (const std::string& root : {path("none"), path("file")}) {
    expectResult(run(52, {text(m_first), text(root), text(path("marker")), number(1), number(0)}),
                 kPosixErrorDomain, ENOTDIR);
  }
  EXPECT_TRUE(reports().empty());
}

TEST_F(FolderComparisonCommandsTest, RecordsTravelWithTheReportsAndNeverInTheResult) {
  make({"first/a", "second/b"});
  CommandResult result = compare(2, 2);
  expectResult(result, kCommandErrorDomain, 0);
  EXPECT_TRUE(result->userInfo().empty());
  // Each record with the first report after it was found; the final report carries the rest.
  EXPECT_EQ(reports(), (std::vector<std::pair<double, std::size_t>>{{0.0, 0}, {1.0, 2}}));
}

TEST_F(FolderComparisonCommandsTest, MarkerPresentBeforeTheRunEndsEachPassAfterAReport) {
  make({"first/a", "marker"});
  for (int i = 0; i < 250; ++i) make({"second/b" + std::to_string(i)});
  // Seen at the first object of the first pass, which ends at once; the second pass runs on to
  // its first report, and the comparison ends there as a success.
  expectResult(compare(250), kCommandErrorDomain, 0);
  EXPECT_EQ(reports(),
            (std::vector<std::pair<double, std::size_t>>{{0.0, 0}, {0.2, 100}, {1.0, 0}}));
  EXPECT_TRUE(exists("marker"));
}

TEST_F(FolderComparisonCommandsTest, StopsWithoutAResultWhenTheClientIsGone) {
  make({"first/a"});
  m_client.closeReader();
  EXPECT_FALSE(compare(1).has_value());
}

}  // namespace
}  // namespace krv
