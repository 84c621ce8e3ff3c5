// The search and measurement commands on real trees, called directly on an executor whose
// response pipe the test reads back.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "executor/KRVCommandExecutor.h"
#include "foundation/System.h"
#include "platform/TestFileTree.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {
namespace {

using test::TestFileTree;

constexpr std::string_view kCommandDomain = "com.tavorin.privilegedCommand";
constexpr std::string_view kTransportDomain = "com.tavorin.securityagent";
constexpr time_t kDay = 86400;

struct Message {
  double progress = -1;
  bool hasPayload = false;
  std::vector<Dictionary> records;
};

class SearchCommandsTest : public testing::Test {
 protected:
  void SetUp() override {
    ::signal(SIGPIPE, SIG_IGN);
    Result<sys::PipeEnds> ends = sys::pipe();
    ASSERT_TRUE(ends);
    m_reader = std::move(ends->readEnd);
    ::fcntl(ends->writeEnd.get(), F_SETPIPE_SZ, 1 << 20);
    m_executor.setPipeDescriptor(std::move(ends->writeEnd));
    m_base = m_tree.makeFolder("base");
  }

  // Every intermediate message written so far.
  std::vector<Message> messages() {
    std::vector<Message> result;
    (void)sys::setNonBlocking(m_reader.get(), true);
    while (Result<Value> object = KRVSecurityAgent::readObjectFromPipe(m_reader.get())) {
      const Error* error = object->objectAs<Error>();
      if (error == nullptr) break;
      EXPECT_TRUE(error->is(kTransportDomain, 1)) << error->description();
      Message message;
      if (const Value* progress = error->userInfo().find("CurrentProgress")) {
        message.progress = progress->asNumber()->doubleValue();
      }
      if (const Value* payload = error->userInfo().find("FileSystemObjects")) {
        message.hasPayload = true;
        for (const Value& record : *payload->asArray()) {
          message.records.push_back(*record.asDictionary());
        }
      }
      result.push_back(std::move(message));
    }
    return result;
  }

  // The paths of all records sent so far, relative to the base, sorted.
  std::vector<std::string> foundPaths(const std::string& base) {
    std::vector<std::string> paths;
    for (const Message& message : messages()) {
      for (const Dictionary& record : message.records) {
        std::string path = *record.find("Path")->asString();
        paths.push_back(path.substr(std::min(path.size(), base.size() + 1)));
      }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }

  void makeFiles(const std::string& folder, int count) {
    for (int i = 0; i < count; ++i) m_tree.makeFile(folder + "/f" + std::to_string(i));
  }

  static void setModificationTime(const std::string& path, time_t seconds) {
    struct timespec times[2] = {{seconds, 0}, {seconds, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << path;
  }

  static std::uint64_t sizeOf(const CommandResult& result) {
    const Value* size = result->userInfo().find("Size");
    return size != nullptr ? size->asNumber()->unsignedIntegerValue() : ~0ULL;
  }

  TestFileTree m_tree;
  std::string m_base;
  KRVCommandExecutor m_executor;
  UniqueFd m_reader;
};

// ---- Shared start of the walks ----

TEST_F(SearchCommandsTest, EveryWalkRefusesABaseThatIsNoFolder) {
  m_tree.makeFile("file");
  m_tree.makeLink("link-to-file", "file");
  m_tree.makeLink("dangling", "nowhere");
  struct Case {
    std::string path;
    std::string_view domain;
    std::int64_t code;
  };
  const Case cases[] = {
      {"", kCommandDomain, 3},
      {m_tree.path("missing"), kPosixErrorDomain, ENOENT},
      {m_tree.path("dangling"), kPosixErrorDomain, ENOENT},
      {m_tree.path("file"), kPosixErrorDomain, ENOTDIR},
      {m_tree.path("link-to-file"), kPosixErrorDomain, ENOTDIR},
  };
  const Array patterns = {Value("0"), Value("x")};
  for (const Case& c : cases) {
    std::vector<CommandResult> results = {
        m_executor.searchForFileSystemObjectsOlderThanDays(c.path, 0, false),
        m_executor.searchForFileSystemObjectsWithPrefix(c.path, "a", "", false),
        m_executor.getStorageSizeOfSubtreeAtPath(c.path),
        m_executor.searchForFileSystemObjectsWithNamePatterns(c.path, false, patterns),
    };
    for (const CommandResult& result : results) {
      ASSERT_TRUE(result) << c.path;
      EXPECT_TRUE(result->is(c.domain, c.code)) << c.path << ": " << result->description();
    }
    EXPECT_TRUE(messages().empty()) << "nothing is sent before the base is accepted";
  }
}

// ---- Age search ----

TEST_F(SearchCommandsTest, AgeSearchJudgesLinksByWhatTheyNameAndSkipsTheFuture) {
  const time_t now = ::time(nullptr);
  m_tree.makeFile("base/old", "hello", 0640);
  setModificationTime(m_tree.path("base/old"), now - 10 * kDay);
  m_tree.makeFile("base/new");
  m_tree.makeFile("base/future");
  setModificationTime(m_tree.path("base/future"), now + kDay);
  m_tree.makeLink("base/link-to-old", "old");
  m_tree.makeLink("base/dangling", "missing");
  m_tree.makeFolder("base/sub");
  m_tree.makeFile("base/sub/old");
  setModificationTime(m_tree.path("base/sub/old"), now - 6 * kDay);

  struct Case {
    std::uint64_t days;
    std::vector<std::string> found;
  };
  const Case cases[] = {
      {0, {"link-to-old", "new", "old", "sub", "sub/old"}},
      {5, {"link-to-old", "old", "sub/old"}},
      {7, {"link-to-old", "old"}},
      {11, {}},
  };
  for (const Case& c : cases) {
    CommandResult result =
        m_executor.searchForFileSystemObjectsOlderThanDays(m_base, c.days, false);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is(kCommandDomain, 0)) << result->description();
    EXPECT_EQ(foundPaths(m_base), c.found) << "days " << c.days;
  }
}

TEST_F(SearchCommandsTest, AgeSearchRecordDescribesTheObjectItself) {
  const time_t old = ::time(nullptr) - 3 * kDay;
  m_tree.makeFile("base/old", "hello", 0640);
  setModificationTime(m_tree.path("base/old"), old);
  m_tree.makeLink("base/link", "old");
  setModificationTime(m_tree.path("base/link"), old - 1);

  ASSERT_TRUE(m_executor.searchForFileSystemObjectsOlderThanDays(m_base, 1, false));
  std::vector<Message> sent = messages();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_FALSE(sent[0].hasPayload);
  EXPECT_EQ(sent[0].progress, 0.05);
  EXPECT_EQ(sent[1].progress, 0.05);
  ASSERT_EQ(sent[1].records.size(), 2u);
  for (const Dictionary& record : sent[1].records) {
    std::vector<std::string> keys;
    for (const auto& entry : record) keys.push_back(entry.first);
    EXPECT_EQ(keys,
              (std::vector<std::string>{"Path", "Type", "Size", "ModificationDate", "POSIXMode"}));
    const std::string& path = *record.find("Path")->asString();
    const bool isLink = path == m_base + "/link";
    EXPECT_TRUE(isLink || path == m_base + "/old") << path;
    EXPECT_EQ(*record.find("Type")->asString(),
              isLink ? "NSFileTypeSymbolicLink" : "NSFileTypeRegular");
    EXPECT_EQ(record.find("Size")->asNumber()->unsignedIntegerValue(), isLink ? 3u : 5u);
    EXPECT_EQ(record.find("ModificationDate")->asDate()->secondsSince1970,
              static_cast<double>(isLink ? old - 1 : old));
    if (!isLink) {
      EXPECT_EQ(record.find("POSIXMode")->asNumber()->unsignedIntegerValue(), 0640u);
    }
  }
}

// ---- Prefix search ----

TEST_F(SearchCommandsTest, PrefixSearchMatchesNameExtensionAndKindOnOneLevel) {
  m_tree.makeFolder("data");
  m_tree.makeLink("alias", "data");
  for (const char* name : {"report.txt", "report.TXT", "report.txt.gz", "report", "other.txt"}) {
    m_tree.makeFile(std::string("data/") + name);
  }
  m_tree.makeFolder("data/reportdir");
  m_tree.makeFolder("data/reportdir.txt");
  m_tree.makeFile("data/reportdir/report.txt");  // below the first level: never found
  m_tree.makeLink("data/reportlink", "reportdir");
  m_tree.makeLink("data/reportdangling.txt", "nowhere");

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
  const std::string resolvedBase = m_tree.path("data");
  for (const Case& c : cases) {
    CommandResult result = m_executor.searchForFileSystemObjectsWithPrefix(
        m_tree.path("alias"), c.prefix, c.extension, c.folders);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is(kCommandDomain, 0));
    EXPECT_EQ(foundPaths(resolvedBase), c.found) << c.prefix << " " << c.extension;
  }

  ASSERT_TRUE(
      m_executor.searchForFileSystemObjectsWithPrefix(m_tree.path("data"), "reportl", "", true));
  std::vector<Message> sent = messages();
  ASSERT_EQ(sent.size(), 2u);
  EXPECT_EQ(sent[0].progress, 0.05);
  EXPECT_FALSE(sent[0].hasPayload);
  EXPECT_EQ(sent[1].progress, 0.05);
  ASSERT_EQ(sent[1].records.size(), 1u);
  // Chosen as a folder (the link is followed), described as the link it is.
  EXPECT_EQ(*sent[1].records[0].find("Type")->asString(), "NSFileTypeSymbolicLink");
}

// ---- Multi-pattern search ----

TEST_F(SearchCommandsTest, PatternSearchRefusesMalformedPatternLists) {
  m_tree.makeFile("base/a.log");
  const std::vector<Array> malformed = {
      {},
      {Value("2")},
      {Value("2"), Value("log"), Value("1")},
      {Value("3"), Value("log")},
      {Value("01"), Value("log")},
      {Value(""), Value("log")},
      {Value("1"), Value("")},
      {Value("2"), Value("log"), Value("0"), Value("")},
      {Value::integer(0), Value("log")},
  };
  for (const Array& patterns : malformed) {
    CommandResult result =
        m_executor.searchForFileSystemObjectsWithNamePatterns(m_base, false, patterns);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is(kCommandDomain, 3)) << Value(patterns).description();
  }
  EXPECT_TRUE(messages().empty());

  // An empty folder is "nothing there", after the first progress report.
  CommandResult empty = m_executor.searchForFileSystemObjectsWithNamePatterns(
      m_tree.makeFolder("empty"), false, {Value("0"), Value("x")});
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->is(kPosixErrorDomain, ENOENT)) << empty->description();
  std::vector<Message> sent = messages();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].progress, 0.01);
}

TEST_F(SearchCommandsTest, PatternSearchTakesTheFirstMatchingPairOncePerObject) {
  for (const char* name : {"a.log", "b.log", "x.LOG", "keep", "keepme", "logs", ".log"}) {
    m_tree.makeFile(std::string("base/") + name);
  }
  m_tree.makeFolder("base/sub");
  m_tree.makeFile("base/sub/c.log");
  struct Case {
    Array patterns;
    std::vector<std::string> found;
  };
  const Case cases[] = {
      {{Value("2"), Value("log"), Value("1"), Value("keep")},
       {".log", "a.log", "b.log", "keep", "keepme", "sub/c.log"}},
      {{Value("0"), Value("keep")}, {"keep"}},
      {{Value("0"), Value("keep"), Value("1"), Value("keep")}, {"keep", "keepme"}},
      {{Value("1"), Value("su")}, {"sub"}},
      {{Value("2"), Value("LOG")}, {"x.LOG"}},
  };
  for (const Case& c : cases) {
    CommandResult result =
        m_executor.searchForFileSystemObjectsWithNamePatterns(m_base, false, c.patterns);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is(kCommandDomain, 0));
    EXPECT_EQ(foundPaths(m_base), c.found) << Value(c.patterns).description();
  }
}

TEST_F(SearchCommandsTest, PatternSearchSendsEveryHundredObjectsWithTheShareDone) {
  makeFiles("base", 250);
  m_tree.makeFile("base/other");
  // 251 objects, of which 250 match.
  ASSERT_TRUE(m_executor.searchForFileSystemObjectsWithNamePatterns(m_base, false,
                                                                    {Value("1"), Value("f")}));
  std::vector<Message> sent = messages();
  ASSERT_EQ(sent.size(), 4u);
  EXPECT_EQ(sent[0].progress, 0.01);
  EXPECT_FALSE(sent[0].hasPayload);
  EXPECT_EQ(sent[1].progress, 100.0 / 251.0);
  EXPECT_EQ(sent[2].progress, 200.0 / 251.0);
  EXPECT_EQ(sent[3].progress, 1.0);
  std::size_t total = 0;
  for (std::size_t i = 1; i < sent.size(); ++i) {
    EXPECT_LE(sent[i].records.size(), 100u);
    total += sent[i].records.size();
  }
  EXPECT_EQ(total, 250u);
}

// ---- Inspection ----

TEST_F(SearchCommandsTest, InspectAnswersWhatIsThereAfterFollowingLinks) {
  m_tree.makeFile("file");
  m_tree.makeLink("link-to-folder", "base");
  m_tree.makeLink("link-to-file", "file");
  m_tree.makeLink("dangling", "nowhere");
  const std::pair<std::string, std::uint64_t> cases[] = {
      {"base", 1},     {"link-to-folder", 1}, {"file", 2},           {"link-to-file", 2},
      {"dangling", 0}, {"missing", 0},        {"missing/deeper", 0},
  };
  for (const auto& [name, expected] : cases) {
    Error result = m_executor.inspectFileSystemObjectAtPath(m_tree.path(name));
    ASSERT_TRUE(result.is(kCommandDomain, 0)) << name;
    const Number* existence = result.userInfo().find("ExistenceInfo")->asNumber();
    EXPECT_EQ(existence->unsignedIntegerValue(), expected) << name;
    EXPECT_FALSE(existence->isNegative());
  }
  EXPECT_TRUE(m_executor.inspectFileSystemObjectAtPath("").is(kCommandDomain, 3));
}

// ---- Storage size ----

TEST_F(SearchCommandsTest, StorageSizeAddsLogicalLengthsOfEveryLinkAndName) {
  EXPECT_EQ(sizeOf(m_executor.getStorageSizeOfSubtreeAtPath(m_base)), 0u);

  m_tree.makeFile("base/a", std::string(1000, 'a'));
  ASSERT_EQ(::link(m_tree.path("base/a").c_str(), m_tree.path("base/hard").c_str()), 0);
  m_tree.makeLink("base/soft", "a");  // a link counts with its own length, 1
  m_tree.makeFolder("base/sub");
  m_tree.makeFile("base/sub/b", "12345");
  int sparse = ::open(m_tree.path("base/sparse").c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ASSERT_GE(sparse, 0);
  ASSERT_EQ(::ftruncate(sparse, 1 << 30), 0);  // logical length, not blocks
  ::close(sparse);
  struct stat folder {};
  ASSERT_EQ(::lstat(m_tree.path("base/sub").c_str(), &folder), 0);

  CommandResult result = m_executor.getStorageSizeOfSubtreeAtPath(m_base);
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->is(kCommandDomain, 0));
  EXPECT_EQ(sizeOf(result),
            1000u + 1000u + 1u + 5u + (1u << 30) + static_cast<std::uint64_t>(folder.st_size));
  EXPECT_TRUE(messages().empty());
}

// ---- Count ----

TEST_F(SearchCommandsTest, CountIncludesTheBaseAndStopsAtTheMarker) {
  const std::string marker = m_tree.path("marker");
  CommandResult empty = m_executor.countFileSystemObjectsAtPath(m_base, marker);
  ASSERT_TRUE(empty);
  EXPECT_TRUE(empty->is(kCommandDomain, 0));
  EXPECT_EQ(sizeOf(empty), 1u);

  makeFiles("base", 1199);
  CommandResult all = m_executor.countFileSystemObjectsAtPath(m_base, marker);
  EXPECT_EQ(sizeOf(all), 1200u);
  std::vector<Message> sent = messages();
  ASSERT_EQ(sent.size(), 2u) << "a sign of life at 500 and 1,000";
  for (const Message& message : sent) EXPECT_EQ(message.progress, 0.0);

  // The marker is looked at after the 499th entry, and stops the count there.
  m_tree.makeFile("marker");
  EXPECT_EQ(sizeOf(m_executor.countFileSystemObjectsAtPath(m_base, marker)), 500u);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SearchCommandsTest, CountRefusesEmptyPathsAndNonFoldersWithoutResolving) {
  m_tree.makeFile("file");
  struct Case {
    std::string base, marker;
    int code;
  };
  const Case cases[] = {
      {"", m_tree.path("marker"), EINVAL},
      {m_base, "", EINVAL},
      {m_tree.path("missing"), m_tree.path("marker"), ENOTDIR},
      {m_tree.path("file"), m_tree.path("marker"), ENOTDIR},
  };
  for (const Case& c : cases) {
    CommandResult result = m_executor.countFileSystemObjectsAtPath(c.base, c.marker);
    ASSERT_TRUE(result);
    EXPECT_TRUE(result->is(kPosixErrorDomain, c.code)) << c.base << ": " << result->description();
  }
}

// ---- The client going away ----

TEST_F(SearchCommandsTest, SearchesStopWhenTheClientIsGoneButTheCountGoesOn) {
  makeFiles("base", 600);
  m_reader.reset();
  EXPECT_FALSE(m_executor.searchForFileSystemObjectsOlderThanDays(m_base, 0, false));
  EXPECT_FALSE(m_executor.searchForFileSystemObjectsWithPrefix(m_base, "f", "", false));
  EXPECT_FALSE(m_executor.searchForFileSystemObjectsWithNamePatterns(m_base, false,
                                                                     {Value("1"), Value("f")}));
  CommandResult count = m_executor.countFileSystemObjectsAtPath(m_base, m_tree.path("marker"));
  ASSERT_TRUE(count);
  EXPECT_EQ(sizeOf(count), 601u);
}

}  // namespace
}  // namespace krv
