#include "filesystem/FolderComparator.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "foundation/Archiver.h"
#include "foundation/CborFormat.h"
#include "foundation/CborWriter.h"
#include "platform/AccessControlListStorage.h"
#include "platform/FileFlags.h"
#include "protocol/CommandTable.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

// A comparator that keeps what its hooks see; its user and differences hooks can be told to stop.
class RecordingComparator final : public FolderComparator {
 public:
  std::vector<double> progress;
  bool userStops = false;
  std::size_t stopAfterRecords = SIZE_MAX;

 protected:
  void reportProgressPercentage(double value) override { progress.push_back(value); }
  bool shouldContinueComparisonAccordingToUser() override { return !userStops; }
  bool shouldContinueComparisonAccordingToCollectedDifferences(const Array& found) override {
    return found.size() < stopAfterRecords;
  }
};

class FolderComparatorTest : public testing::Test {
 protected:
  struct Outcome {
    Error result{"", -1};
    std::vector<double> progress;
    // Relative path -> the record's codes, e.g. "3,5".
    std::map<std::string, std::string> records;
  };

  Outcome compare(std::uint64_t mode, std::uint64_t expected = 1000) {
    RecordingComparator comparator;
    return compareWith(comparator, mode, expected);
  }
  Outcome compareWith(RecordingComparator& comparator, std::uint64_t mode, std::uint64_t expected) {
    Outcome outcome;
    Array found;
    outcome.result =
        comparator.runComparison(m_first.root(), m_second.root(), expected, mode, found);
    outcome.progress = comparator.progress;
    for (const Value& record : found) {
      const Dictionary& fields = *record.asDictionary();
      const auto* first =
          fields.find(key::kDescription1)->objectAs<KRVFileSystemObjectDescription>();
      const auto* second =
          fields.find(key::kDescription2)->objectAs<KRVFileSystemObjectDescription>();
      const bool inFirst = first->isValid();
      std::string path = (inFirst ? first : second)->path();
      path.erase(0, (inFirst ? m_first : m_second).root().size() + 1);
      std::string codes;
      for (const Value& code : fields.find(key::kMismatches)->asSet()->elements) {
        codes += (codes.empty() ? "" : ",") + std::to_string(code.asNumber()->integerValue());
      }
      EXPECT_EQ(outcome.records.count(path), 0u) << path << " reported twice";
      outcome.records[path] = codes;
    }
    return outcome;
  }

  // The second tree becomes a copy of the first that keeps every attribute but the status change
  // time, as a backup would.
  void copyFirstToSecond() {
    ASSERT_EQ(std::system(("cp -a '" + m_first.root() + "/.' '" + m_second.root() + "'").c_str()),
              0);
  }
  std::string second(const std::string& relative) { return m_second.path(relative); }
  // Puts the modification time of `relative` in the second tree back to the first tree's.
  void keepModificationTime(const std::string& relative) {
    struct stat status {};
    ASSERT_EQ(::lstat(m_first.path(relative).c_str(), &status), 0);
    const struct timespec times[2] = {status.st_atim, status.st_mtim};
    ASSERT_EQ(::utimensat(AT_FDCWD, second(relative).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  void rewrite(const std::string& relative, const std::string& contents) {
    m_second.makeFile(relative, contents);
    keepModificationTime(relative);
  }

  test::TestFileTree m_first;
  test::TestFileTree m_second;
};

TEST_F(FolderComparatorTest, IdenticalTreesDifferOnlyInStatusChangeTimes) {
  m_first.make({"a", "folder/", "folder/b", "folder/link -> b", "fifo|"});
  copyFirstToSecond();
  Outcome ignoringTimes = compare(kFolderCompareModeIgnoreStatusChangeTime | 1);
  EXPECT_TRUE(ignoringTimes.result.is(kPosixErrorDomain, 0)) << ignoringTimes.result.description();
  EXPECT_TRUE(ignoringTimes.records.empty());
  EXPECT_EQ(ignoringTimes.progress, (std::vector<double>{0.0, 1.0}));

  // A copy cannot keep status change times: with them compared every object differs in them.
  const std::map<std::string, std::string> changed = {
      {"a", "1"}, {"folder", "1"}, {"folder/b", "1"}, {"folder/link", "1"}, {"fifo", "1"}};
  EXPECT_EQ(compare(0).records, changed);
}

TEST_F(FolderComparatorTest, EachDifferenceIsReportedUnderItsOwnCode) {
  m_first.make({"mode", "setid", "owner", "attribute", "machine", "flags", "time", "list", "gone/",
                "gone/inner", "only-first", "through/", "through/x", "elsewhere/", "elsewhere/x",
                "caf\xe9"});
  m_first.makeFile("size", "1234");
  m_first.makeFile("bytes", "1234");
  m_first.makeLink("link", "aaaa");
  copyFirstToSecond();

  ASSERT_EQ(::chmod(second("mode").c_str(), 0600), 0);
  ASSERT_EQ(::chmod(second("setid").c_str(), 04644), 0);
  ASSERT_EQ(::chown(second("owner").c_str(), 1, 1), 0);
  ASSERT_EQ(::setxattr(second("attribute").c_str(), "user.k", "v", 1, 0), 0);
  ASSERT_EQ(
      ::setxattr(second("machine").c_str(), "user.com.apple.metadata:_kTimeMachineX", "v", 1, 0),
      0);
  ASSERT_TRUE(writeFileFlags(second("flags"), kHiddenFlag));
  ExtendedAcl list;
  list.entries.push_back({userUuid(1234), AclEntryKind::Deny, 0, kAclWriteData});
  const Data listBytes = aclExternalForm(list);
  ASSERT_EQ(::setxattr(second("list").c_str(), kAccessControlListAttribute, listBytes.data(),
                       listBytes.size(), 0),
            0);
  const struct timespec past[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, second("time").c_str(), past, 0), 0);
  rewrite("size", "12345");
  rewrite("bytes", "1235");
  ASSERT_EQ(::unlink(second("link").c_str()), 0);
  m_second.makeLink("link", "aaab");
  keepModificationTime("link");
  ASSERT_EQ(::chmod(second("caf\xe9").c_str(), 0600), 0);
  test::TestFileTree::removeAll(second("gone"));
  ASSERT_EQ(::unlink(second("only-first").c_str()), 0);
  m_second.makeFile("only-second\xff");
  // A link in the second tree where the first has a folder is not followed.
  test::TestFileTree::removeAll(second("through"));
  m_second.makeLink("through", "elsewhere");
  keepModificationTime("through");

  std::map<std::string, std::string> expected = {{"mode", "3"},
                                                 {"owner", "3"},
                                                 {"caf\xe9", "3"},
                                                 {"attribute", "4"},
                                                 {"machine", "4"},
                                                 {"flags", "5"},
                                                 {"time", "5"},
                                                 {"list", "2"},
                                                 {"size", "6"},
                                                 {"gone", "8"},
                                                 {"gone/inner", "8"},
                                                 {"only-first", "8"},
                                                 {"only-second\xff", "7"},
                                                 {"through", "3,6"},
                                                 {"through/x", "8"}};
  EXPECT_EQ(compare(kFolderCompareModeIgnoreStatusChangeTime).records, expected);

  expected.erase("machine");
  expected.erase("list");
  expected["bytes"] = "6";
  expected["link"] = "6";
  Outcome detailed =
      compare(kFolderCompareModeIgnoreStatusChangeTime | kFolderCompareModeCompareBytes |
              kFolderCompareModeIgnoreTimeMachine | kFolderCompareModeIgnoreAccessControlList);
  EXPECT_EQ(detailed.records, expected);
  EXPECT_TRUE(detailed.result.is(kPosixErrorDomain, 0));
}

TEST_F(FolderComparatorTest, AppleDoubleFilesAreLeftOutAsTheModeSays) {
  m_first.makeFile("._both", "1");
  copyFirstToSecond();
  rewrite("._both", "22");
  m_first.make({"._first", "plain"});
  m_second.make({"._second"});
  const std::uint64_t times = kFolderCompareModeIgnoreStatusChangeTime;
  const std::uint64_t inFirst = kFolderCompareModeIgnoreAppleDoubleInFirst;
  const std::uint64_t inSecond = kFolderCompareModeIgnoreAppleDoubleInSecond;
  using Records = std::map<std::string, std::string>;
  EXPECT_EQ(compare(times).records,
            (Records{{"._first", "8"}, {"._second", "7"}, {"._both", "6"}, {"plain", "8"}}));
  EXPECT_EQ(compare(times | inFirst).records,
            (Records{{"._second", "7"}, {"._both", "6"}, {"plain", "8"}}));
  EXPECT_EQ(compare(times | inSecond).records,
            (Records{{"._first", "8"}, {"._both", "6"}, {"plain", "8"}}));
  EXPECT_EQ(compare(times | inFirst | inSecond).records, (Records{{"plain", "8"}}));
}

TEST_F(FolderComparatorTest, ProgressCountsBothPassesAgainstTwiceTheExpectedCount) {
  for (int i = 0; i < 250; ++i) m_first.makeFile("f" + std::to_string(i));
  copyFirstToSecond();
  Outcome outcome = compare(kFolderCompareModeIgnoreStatusChangeTime, 250);
  EXPECT_EQ(outcome.progress, (std::vector<double>{0.0, 0.2, 0.4, 0.6, 0.8, 1.0, 1.0}));
  // More objects than expected take the progress past 1.0 before the final report.
  EXPECT_EQ(compare(kFolderCompareModeIgnoreStatusChangeTime, 100).progress,
            (std::vector<double>{0.0, 0.5, 1.0, 1.5, 2.0, 2.5, 1.0}));
}

TEST_F(FolderComparatorTest, HooksStopTheWalkWithTheirOwnResults) {
  m_first.make({"a", "b", "c"});
  RecordingComparator user;
  user.userStops = true;
  Outcome cancelled = compareWith(user, 0, 10);
  EXPECT_TRUE(cancelled.result.is(kPosixErrorDomain, ECANCELED));
  EXPECT_EQ(cancelled.progress, (std::vector<double>{0.0}));
  EXPECT_TRUE(cancelled.records.empty());

  RecordingComparator differences;
  differences.stopAfterRecords = 2;
  Outcome stopped = compareWith(differences, 0, 10);
  EXPECT_TRUE(stopped.result.is(kPosixErrorDomain, EOVERFLOW));
  EXPECT_EQ(stopped.records.size(), 2u);

  for (const auto& [first, expected] : std::vector<std::pair<std::string, std::uint64_t>>{
           {m_first.root(), 0}, {"", 5}, {m_first.path("a"), 5}, {"/nonexistent", 5}}) {
    RecordingComparator refused;
    Array found;
    EXPECT_TRUE(refused.runComparison(first, m_second.root(), expected, 0, found)
                    .is(kPosixErrorDomain, EINVAL))
        << first;
    EXPECT_TRUE(refused.progress.empty());
  }
}

// A file's snapshot as an archive would bring it, with a status change time and flags.
std::shared_ptr<const KRVFileSystemObjectDescription> snapshot(std::int64_t changed,
                                                               std::int64_t flags) {
  Data bytes;
  {
    CborWriter writer(bytes);
    writer.writeTag(cbor::kObjectTag);
    writer.writeArrayHeader(18);
    writer.writeText(KRVFileSystemObjectDescription::kClassName);
    writer.writeText("/a/file");
    for (std::int64_t item : std::initializer_list<std::int64_t>{0, 0100644, 0, 0, 0, 0, 0, 0,
                                                                 changed, 0, 0, 0, 0, flags}) {
      writer.writeNumber(Number::integer(item));
    }
    writer.writeMapHeader(0);
    writer.writeBytes({});
  }
  Result<Value> decoded =
      unarchiveSequential(bytes, KRVFileSystemObjectDescription::comparisonClasses());
  EXPECT_TRUE(decoded) << decoded.error().description();
  return std::dynamic_pointer_cast<const KRVFileSystemObjectDescription>(*decoded->asObject());
}

TEST(FolderMismatchTest, CodesComeInTheirOrderAndTheModeLeavesThemOut) {
  FolderComparator comparator;
  auto plain = snapshot(1, 0);
  auto compressed = snapshot(2, 0x20);
  EXPECT_EQ(
      comparator.mismatchesBetween(plain.get(), compressed.get(), 0),
      mismatchBit(FolderMismatch::Compression) | mismatchBit(FolderMismatch::StatusChangeTime));
  EXPECT_EQ(mismatchCodes(comparator.mismatchesBetween(plain.get(), compressed.get(), 0)),
            (Set{{Value::integer(0), Value::integer(1)}}));
  EXPECT_EQ(comparator.mismatchesBetween(plain.get(), compressed.get(),
                                         kFolderCompareModeIgnoreCompression),
            mismatchBit(FolderMismatch::StatusChangeTime));
  EXPECT_EQ(comparator.mismatchesBetween(
                plain.get(), compressed.get(),
                kFolderCompareModeIgnoreCompression | kFolderCompareModeIgnoreStatusChangeTime),
            0);
  EXPECT_EQ(comparator.mismatchesBetween(plain.get(), nullptr, 0),
            mismatchBit(FolderMismatch::MissingInSecond));
  EXPECT_EQ(comparator.mismatchesBetween(nullptr, plain.get(), 0),
            mismatchBit(FolderMismatch::MissingInFirst));
  EXPECT_EQ(comparator.mismatchesBetween(nullptr, nullptr, 0), 0);
}

}  // namespace
}  // namespace krv
