// The search and measurement commands on real trees, through the executor's dispatch, with the
// response pipe read back. The walks through the real daemon (counting, chunked age search,
// staying on the volume) are in tests/daemon.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <string>
#include <vector>

#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::number;
using test::text;

constexpr time_t kDay = 86400;
using Reports = std::vector<std::pair<double, int>>;  // progress, records (-1: no payload)

class SearchCommandsTest : public test::FileCommandTest {
 protected:
  void SetUp() override { m_base = m_tree.makeFolder("base"); }

  // What was sent since the last call; the records themselves are kept in m_records.
  Reports reports() {
    Reports result;
    m_records.clear();
    for (const Error& message : m_client.messages()) {
      EXPECT_TRUE(message.is("com.tavorin.securityagent", 1)) << message.description();
      const Value* payload = message.userInfo().find("FileSystemObjects");
      result.emplace_back(test::progressOf(message),
                          payload != nullptr ? static_cast<int>(payload->asArray()->size()) : -1);
      if (payload == nullptr) continue;
      for (const Value& record : *payload->asArray()) m_records.push_back(*record.asDictionary());
    }
    return result;
  }
  // The paths of the records sent since the last call, relative to `base`, sorted.
  std::vector<std::string> found(const std::string& base) {
    reports();
    std::vector<std::string> paths;
    for (const Dictionary& record : m_records) {
      std::string path = *record.find("Path")->asString();
      paths.push_back(path.substr(std::min(path.size(), base.size() + 1)));
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }
  void setModificationTime(const std::string& relative, time_t seconds) {
    struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path(relative).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  static std::uint64_t sizeOf(const CommandResult& result) {
    const Value* size = result ? result->userInfo().find("Size") : nullptr;
    return size != nullptr ? size->asNumber()->unsignedIntegerValue() : ~0ULL;
  }
  CommandResult ageSearch(std::uint64_t days) {
    return run(kCommandSearchAgedFiles,
               {text(m_base), number(static_cast<std::int64_t>(days)), number(0)});
  }
  CommandResult patternSearch(const std::string& base, Array patterns) {
    patterns.insert(patterns.begin(), {text(base), text("0")});
    return run(kCommandSearchNamePatterns, std::move(patterns));
  }

  std::string m_base;
  std::vector<Dictionary> m_records;
};

TEST_F(SearchCommandsTest, EveryWalkRefusesABaseThatIsNoFolderBeforeSendingAnything) {
  make({"file", "link-to-file -> file", "dangling -> nowhere"});
  struct Case {
    std::string path;
    std::string_view domain;
    std::int64_t code;
    int countCode;  // the count does not resolve links
  };
  const Case cases[] = {
      {"", kCommandErrorDomain, kResultBadArgument, EINVAL},
      {path("missing"), kPosixErrorDomain, ENOENT, ENOTDIR},
      {path("dangling"), kPosixErrorDomain, ENOENT, ENOTDIR},
      {path("file"), kPosixErrorDomain, ENOTDIR, ENOTDIR},
      {path("link-to-file"), kPosixErrorDomain, ENOTDIR, ENOTDIR},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    expectResult(run(kCommandSearchAgedFiles, {text(c.path), number(0), number(0)}), c.domain,
                 c.code);
    expectResult(run(kCommandSearchFilenamePattern, {text(c.path), text("a"), text(""), number(0)}),
                 c.domain, c.code);
    expectResult(run(kCommandGetStorageSize, {text(c.path)}), c.domain, c.code);
    expectResult(patternSearch(c.path, {text("0"), text("x")}), c.domain, c.code);
    expectResult(run(kCommandCountFileObjects, {text(c.path), text(path("marker"))}),
                 kPosixErrorDomain, c.countCode);
    EXPECT_TRUE(reports().empty());
  }
  expectResult(run(kCommandCountFileObjects, {text(m_base), text("")}), kPosixErrorDomain, EINVAL);
}

TEST_F(SearchCommandsTest, AgeSearchJudgesLinksByWhatTheyNameAndDescribesTheObjectItself) {
  const time_t now = ::time(nullptr);
  m_tree.makeFile("base/old", "hello", 0640);
  make({"base/new", "base/future", "base/link-to-old -> old", "base/dangling -> missing",
        "base/sub/", "base/sub/old"});
  setModificationTime("base/old", now - 10 * kDay);
  setModificationTime("base/future", now + kDay);
  setModificationTime("base/link-to-old", now - 20 * kDay);  // the link's own age does not count
  setModificationTime("base/sub/old", now - 6 * kDay);

  const std::pair<std::uint64_t, std::vector<std::string>> cases[] = {
      {0, {"link-to-old", "new", "old", "sub", "sub/old"}},
      {5, {"link-to-old", "old", "sub/old"}},
      {11, {}},
  };
  for (const auto& [days, paths] : cases) {
    expectResult(ageSearch(days), kCommandErrorDomain, kResultSuccess);
    EXPECT_EQ(found(m_base), paths) << "days " << days;
  }

  expectResult(ageSearch(7), kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(reports(), (Reports{{0.05, -1}, {0.05, 2}}));
  for (const Dictionary& record : m_records) {
    std::vector<std::string> keys;
    for (const auto& entry : record) keys.push_back(entry.first);
    EXPECT_EQ(keys,
              (std::vector<std::string>{"Path", "Type", "Size", "ModificationDate", "POSIXMode"}));
    const bool isLink = *record.find("Path")->asString() == path("base/link-to-old");
    EXPECT_EQ(*record.find("Type")->asString(),
              isLink ? "NSFileTypeSymbolicLink" : "NSFileTypeRegular");
    EXPECT_EQ(record.find("Size")->asNumber()->unsignedIntegerValue(), isLink ? 3u : 5u);
    EXPECT_EQ(record.find("ModificationDate")->asDate()->secondsSince1970,
              static_cast<double>(now - (isLink ? 20 : 10) * kDay));
    EXPECT_EQ(record.find("POSIXMode")->asNumber()->unsignedIntegerValue(), isLink ? 0777u : 0640u);
  }
}

// The base "." once gave ".sub" in the walks that build paths in their own buffers.
TEST_F(SearchCommandsTest, EverySearchJoinsARelativeBaseAndItsObjectsWithASeparator) {
  make({"base/sub/", "base/sub/file"});
  UniqueFd savedDirectory(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::chdir(m_base.c_str()), 0);
  auto paths = [&] {
    reports();
    std::vector<std::string> result;
    for (const Dictionary& record : m_records) result.push_back(*record.find("Path")->asString());
    std::sort(result.begin(), result.end());
    return result;
  };
  using Paths = std::vector<std::string>;
  expectResult(run(kCommandSearchAgedFiles, {text("."), number(0), number(0)}), kCommandErrorDomain,
               kResultSuccess);
  EXPECT_EQ(paths(), (Paths{"./sub", "./sub/file"}));
  expectResult(patternSearch(".", {text("1"), text("s"), text("0"), text("file")}),
               kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(paths(), (Paths{"./sub", "./sub/file"}));
  expectResult(run(kCommandSearchFilenamePattern, {text("."), text("s"), text(""), number(1)}),
               kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(paths(), (Paths{"./sub"}));
  ASSERT_EQ(::fchdir(savedDirectory.get()), 0);
}

TEST_F(SearchCommandsTest, PrefixSearchMatchesNameExtensionAndKindOnOneLevel) {
  make({"data/", "alias -> data", "data/report.txt", "data/report.TXT", "data/report.txt.gz",
        "data/report", "data/other.txt", "data/reportdir/", "data/reportdir.txt/",
        "data/reportdir/report.txt",  // below the first level: never found
        "data/reportlink -> reportdir", "data/reportdangling.txt -> nowhere"});

  struct Case {
    std::string prefix, extension;
    bool folders;
    std::vector<std::string> found;
  };
  const Case cases[] = {
      {"", "", false, {}},
      {"", "txt", false, {}},
      {"report", "txt", false, {"report.txt"}},
      {"report", "", false, {"report", "report.TXT", "report.txt", "report.txt.gz"}},
      {"report", "", true, {"reportdir", "reportdir.txt", "reportlink"}},
      {"report", "txt", true, {"reportdir.txt"}},
      {"report.txt", "gz", false, {"report.txt.gz"}},
      {"other", "TXT", false, {}},
  };
  // The base is given through a link: the records carry the resolved path.
  for (const Case& c : cases) {
    expectResult(run(kCommandSearchFilenamePattern,
                     {text(path("alias")), text(c.prefix), text(c.extension), number(c.folders)}),
                 kCommandErrorDomain, kResultSuccess);
    EXPECT_EQ(found(path("data")), c.found) << c.prefix << " " << c.extension;
  }

  expectSuccess(kCommandSearchFilenamePattern,
                {text(path("data")), text("reportl"), text(""), number(1)});
  EXPECT_EQ(reports(), (Reports{{0.05, -1}, {0.05, 1}}));
  // Chosen as a folder (the link is followed), described as the link it is.
  EXPECT_EQ(*m_records.at(0).find("Type")->asString(), "NSFileTypeSymbolicLink");
}

TEST_F(SearchCommandsTest, PatternSearchRefusesMalformedPatternLists) {
  m_tree.makeFile("base/a.log");
  const std::vector<Array> malformed = {
      {},
      {text("2")},
      {text("2"), text("log"), text("1")},
      {text("3"), text("log")},
      {text("01"), text("log")},
      {text(""), text("log")},
      {text("1"), text("")},
      {text("2"), text("log"), text("0"), text("")},
      {number(0), text("log")},
  };
  for (const Array& patterns : malformed) {
    CommandResult result =
        m_client.executor().searchForFileSystemObjectsWithNamePatterns(m_base, false, patterns);
    expectResult(result, kCommandErrorDomain, kResultBadArgument);
  }
  EXPECT_TRUE(reports().empty());

  // An empty folder is "nothing there", after the first progress report.
  expectResult(patternSearch(m_tree.makeFolder("empty"), {text("0"), text("x")}), kPosixErrorDomain,
               ENOENT);
  EXPECT_EQ(reports(), (Reports{{0.01, -1}}));
}

TEST_F(SearchCommandsTest, PatternSearchTakesTheFirstMatchingPairOncePerObject) {
  make({"base/a.log", "base/b.log", "base/x.LOG", "base/keep", "base/keepme", "base/logs",
        "base/.log", "base/sub/", "base/sub/c.log"});
  const std::pair<Array, std::vector<std::string>> cases[] = {
      {{text("2"), text("log"), text("1"), text("keep")},
       {".log", "a.log", "b.log", "keep", "keepme", "sub/c.log"}},
      {{text("0"), text("keep")}, {"keep"}},
      {{text("0"), text("keep"), text("1"), text("keep")}, {"keep", "keepme"}},
      {{text("1"), text("su")}, {"sub"}},
      {{text("2"), text("LOG")}, {"x.LOG"}},
  };
  for (const auto& [patterns, paths] : cases) {
    expectResult(patternSearch(m_base, patterns), kCommandErrorDomain, kResultSuccess);
    EXPECT_EQ(found(m_base), paths) << Value(patterns).description();
  }
}

TEST_F(SearchCommandsTest, PatternSearchSendsEveryHundredObjectsWithTheShareDone) {
  for (int i = 0; i < 250; ++i) m_tree.makeFile("base/f" + std::to_string(i));
  m_tree.makeFile("base/other");
  // 251 objects, of which 250 match: a chunk goes out every 100 objects walked.
  expectResult(patternSearch(m_base, {text("1"), text("f")}), kCommandErrorDomain, kResultSuccess);
  std::vector<double> progress;
  for (const auto& report : reports()) progress.push_back(report.first);
  EXPECT_EQ(progress, (std::vector<double>{0.01, 100.0 / 251.0, 200.0 / 251.0, 1.0}));
  EXPECT_EQ(m_records.size(), 250u);
}

TEST_F(SearchCommandsTest, InspectAnswersWhatIsThereAfterFollowingLinks) {
  make({"file", "link-to-folder -> base", "link-to-file -> file", "dangling -> nowhere"});
  const std::pair<std::string, std::uint64_t> cases[] = {
      {"base", 1},     {"link-to-folder", 1}, {"file", 2},           {"link-to-file", 2},
      {"dangling", 0}, {"missing", 0},        {"missing/deeper", 0},
  };
  for (const auto& [name, expected] : cases) {
    CommandResult result = run(kCommandInspectFileObject, {text(path(name))});
    expectResult(result, kCommandErrorDomain, kResultSuccess);
    const Number* existence = result->userInfo().find("ExistenceInfo")->asNumber();
    EXPECT_EQ(existence->unsignedIntegerValue(), expected) << name;
    EXPECT_FALSE(existence->isNegative());
  }
  expectResult(run(kCommandInspectFileObject, {text("")}), kCommandErrorDomain, kResultBadArgument);
}

TEST_F(SearchCommandsTest, StorageSizeAddsLogicalLengthsOfEveryLinkAndName) {
  EXPECT_EQ(sizeOf(run(kCommandGetStorageSize, {text(m_base)})), 0u);

  m_tree.makeFile("base/a", std::string(1000, 'a'));
  ASSERT_EQ(::link(path("base/a").c_str(), path("base/hard").c_str()), 0);
  m_tree.makeLink("base/soft", "a");  // a link counts with its own length, 1
  m_tree.makeFolder("base/sub");
  m_tree.makeFile("base/sub/b", "12345");
  ASSERT_EQ(::truncate(m_tree.makeFile("base/sparse").c_str(), 1 << 30), 0);  // not blocks
  struct stat folder {};
  ASSERT_EQ(::lstat(path("base/sub").c_str(), &folder), 0);

  CommandResult result = run(kCommandGetStorageSize, {text(m_base)});
  expectResult(result, kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(sizeOf(result),
            1000u + 1000u + 1u + 5u + (1u << 30) + static_cast<std::uint64_t>(folder.st_size));
  EXPECT_TRUE(reports().empty());
}

TEST_F(SearchCommandsTest, SearchesStopWhenTheClientIsGoneButTheCountGoesOn) {
  for (int i = 0; i < 600; ++i) m_tree.makeFile("base/f" + std::to_string(i));
  m_client.closeReader();
  EXPECT_FALSE(ageSearch(0));
  EXPECT_FALSE(run(kCommandSearchFilenamePattern, {text(m_base), text("f"), text(""), number(0)}));
  EXPECT_FALSE(patternSearch(m_base, {text("1"), text("f")}));
  EXPECT_EQ(sizeOf(run(kCommandCountFileObjects, {text(m_base), text(path("marker"))})), 601u);
}

// With the spill folders nearly full, the records of a large result have nowhere to go: the
// search ends with ENOSPC after its first progress report and sends no records at all.
TEST_F(SearchCommandsTest, SearchesWhoseRecordsFindNoRoomEndWithoutAnyRecord) {
  test::Facts facts = test::inPrivateMount("/var/tmp", "tmpfs", [](test::Facts& seen) {
    if (::mount("tmpfs", "/var/tmp", "tmpfs", 0, "size=4m") != 0 ||
        ::mount("tmpfs", "/tmp", "tmpfs", 0, "size=8m") != 0 || ::mkdir("/tmp/base", 0755) != 0) {
      seen["child"] = "mount";
      return;
    }
    // More than the spool keeps in memory: about 1.5 MiB of records.
    const std::string prefix = "/tmp/base/" + std::string(100, 'f');
    for (int i = 0; i < 12000; ++i) {
      if (::close(::creat((prefix + std::to_string(i)).c_str(), 0644)) != 0) return;
    }
    for (const std::string search : {"age search", "prefix search"}) {
      test::ExecutorWithPipe client;
      const CommandResult result =
          search == "age search"
              ? client.run(kCommandSearchAgedFiles, {text("/tmp/base"), number(0), number(0)})
              : client.run(kCommandSearchFilenamePattern,
                           {text("/tmp/base"), text("f"), text(""), number(0)});
      seen[search] = result ? result->domain() + " " + std::to_string(result->code()) : "none";
      for (const Error& message : client.messages()) {
        seen[search + " messages"] +=
            message.userInfo().find("FileSystemObjects") ? "records " : "progress ";
      }
    }
  });
  if (facts.contains("child")) GTEST_SKIP() << facts["child"];
  const std::string refused = std::string(kPosixErrorDomain) + " " + std::to_string(ENOSPC);
  EXPECT_EQ(facts["age search"], refused);
  EXPECT_EQ(facts["age search messages"], "progress ");
  EXPECT_EQ(facts["prefix search"], refused);
  EXPECT_EQ(facts["prefix search messages"], "progress ");
}

}  // namespace
}  // namespace krv
