// The folder comparison end to end: the real daemon compares two trees in the test's private /tmp,
// driven through the client library and the real command-line client, whose readable report, JSON
// and saved comparison are checked here. The comparison's rules are tested on the comparator.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/NameValue.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

constexpr const char* kFirst = "/tmp/first";
constexpr const char* kSecond = "/tmp/second";
constexpr const char* kMarker = "/tmp/stop";

std::string first(const std::string& relative) { return std::string(kFirst) + "/" + relative; }
std::string second(const std::string& relative) { return std::string(kSecond) + "/" + relative; }

void makeFile(const std::string& path) {
  const int fd = ::open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  ASSERT_GE(fd, 0) << path << ": " << errno;
  ::close(fd);
}

class FolderComparisonTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    ASSERT_EQ(::mkdir(kFirst, 0755), 0);
  }
  void TearDown() override {
    (void)runProgram("/bin/rm", {"-rf", kFirst, kSecond});
    DaemonTest::TearDown();
  }
  void copyFirstToSecond() {
    ASSERT_EQ(runProgram("/bin/cp", {"-a", kFirst, kSecond}).exitCode, 0);
  }

  // Command 52 through the client library, which accepts the snapshots in its reports.
  Error compare(std::uint64_t expected, std::uint64_t mode, std::vector<Error>& reports) {
    std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
    if (!agent) return Error::posix(ENOENT, "no daemon socket");
    agent->setResponseClasses(&KRVFileSystemObjectDescription::comparisonClasses());
    agent->setReportHandler([&reports](const Error& report) { reports.push_back(report); });
    auto command = KRVPrivilegedCommand::privilegedCommandWithCode(
        52, {Value(kFirst), Value(kSecond), Value(kMarker),
             Value::integer(static_cast<std::int64_t>(expected)),
             Value::integer(static_cast<std::int64_t>(mode))});
    return agent->executeAtomicPrivilegedCommand(*command, false);
  }
  static std::vector<const Array*> recordLists(const std::vector<Error>& reports) {
    std::vector<const Array*> lists;
    for (const Error& report : reports) {
      const Value* records = report.userInfo().find("MismatchList");
      if (records != nullptr && records->asArray() != nullptr && !records->asArray()->empty()) {
        lists.push_back(records->asArray());
      }
    }
    return lists;
  }
};

TEST_F(FolderComparisonTest, ClientShowsSavesAndReadsBackTheDifferences) {
  for (const char* name : {"same", "changed", "only-first", "bad\xffname"}) makeFile(first(name));
  copyFirstToSecond();
  ASSERT_EQ(::chmod(second("changed").c_str(), 0600), 0);
  ASSERT_EQ(::unlink(second("only-first").c_str()), 0);
  ASSERT_EQ(::unlink(second("bad\xffname").c_str()), 0);
  makeFile(second("only-second"));

  // Through the library: the records come with the reports, with their snapshots.
  std::vector<Error> reports;
  Error result = compare(10, 2, reports);
  ASSERT_TRUE(result.is(kCommandErrorDomain, 0)) << result.description() << daemonLog();
  EXPECT_TRUE(result.userInfo().empty());
  std::vector<std::string> paths;
  for (const Array* records : recordLists(reports)) {
    for (const Value& record : *records) {
      const auto* description =
          record.asDictionary()->find("Description1")->objectAs<KRVFileSystemObjectDescription>();
      ASSERT_NE(description, nullptr);
      paths.push_back(description->path());
    }
  }
  EXPECT_EQ(paths.size(), 4u);
  EXPECT_NE(std::find(paths.begin(), paths.end(), first("bad\xffname")), paths.end());

  // Through the client: one escaped line each, a summary, and the same again from a saved file.
  const std::string expected =
      "...p...  changed\n"
      "-------  bad\\xffname\n"
      "-------  only-first\n"
      "+++++++  only-second\n"
      "4 differences: 2 only in the first folder, 1 only in the second, 1 changed\n"
      "OK\n";
  const std::vector<std::string> arguments = {"compare-folders", kFirst, kSecond,
                                              kMarker,           "10",   "2"};
  std::vector<std::string> saving = {"--save", "/tmp/comparison"};
  saving.insert(saving.end(), arguments.begin(), arguments.end());
  ProgramRun run = runClient(saving);
  ASSERT_EQ(run.exitCode, 0) << run.standardError;
  auto sortedLines = [](const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    std::sort(lines.begin(), lines.end());  // the walk's order is the kernel's
    return lines;
  };
  EXPECT_EQ(sortedLines(run.standardOutput), sortedLines(expected));
  ProgramRun shown = runClient({"--show", "/tmp/comparison"});
  ASSERT_EQ(shown.exitCode, 0) << shown.standardError;
  EXPECT_EQ(shown.standardOutput, run.standardOutput);

  // Another program reads the saved comparison with a stock CBOR library.
  ProgramRun python = runProgram(
      "/usr/bin/python3",
      {"-c",
       "import cbor2, sys\n"
       "saved = cbor2.load(open(sys.argv[1], 'rb'))\n"
       "print(len(saved['MismatchList']), saved['CompareMode'], saved['Result'].value[1])\n"
       "print(sorted(sorted(r['Mismatches']) for r in saved['MismatchList']))\n",
       "/tmp/comparison"});
  EXPECT_EQ(python.standardOutput,
            "4 2 {'NSDomain': 'com.tavorin.privilegedCommand', 'NSCode': 0, 'NSUserInfo': {}}\n"
            "[[3], [7], [8], [8]]\n")
      << python.standardError;

  ProgramRun json = runClient({"--json", "--show", "/tmp/comparison"});
  ASSERT_EQ(json.exitCode, 0) << json.standardError;
  EXPECT_NE(json.standardOutput.find("{\"MismatchList\":[{\"Mismatches\":["), std::string::npos);
  EXPECT_NE(json.standardOutput.find("\"class\":\"KRVFileSystemObjectDescription\",\"Path\":"),
            std::string::npos);
  // The name that is not UTF-8, as its bytes in base64: "/tmp/first/bad\xffname".
  EXPECT_NE(json.standardOutput.find("{\"base64\":\"L3RtcC9maXJzdC9iYWT/bmFtZQ==\"}"),
            std::string::npos)
      << json.standardOutput;

  ProgramRun missing = runClient({"compare-folders", kFirst, "/tmp/none", kMarker, "1", "0"});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.standardError.find("NSPOSIXErrorDomain code 20"), std::string::npos)
      << missing.standardError;
}

// Records of snapshots with many attributes outgrow one data block within one progress interval:
// they leave in several messages, and none is lost.
TEST_F(FolderComparisonTest, RecordsOfOneIntervalBeyondADataBlockLeaveInSeveralMessages) {
  for (int file = 0; file < 100; ++file) {
    const std::string path = first("f" + std::to_string(file));
    makeFile(path);
    for (int attribute = 0; attribute < 80; ++attribute) {
      const std::string name = "trusted.attribute-" + std::to_string(attribute);
      ASSERT_EQ(::setxattr(path.c_str(), name.c_str(), "v", 1, 0), 0) << errno;
    }
  }
  copyFirstToSecond();
  for (int file = 0; file < 100; ++file) {
    ASSERT_EQ(::chmod(second("f" + std::to_string(file)).c_str(), 0600), 0);
  }
  std::vector<Error> reports;
  Error result = compare(100, 2, reports);
  ASSERT_TRUE(result.is(kCommandErrorDomain, 0)) << result.description() << daemonLog();
  std::size_t records = 0;
  for (const Array* list : recordLists(reports)) records += list->size();
  EXPECT_EQ(records, 100u);
  EXPECT_GE(recordLists(reports).size(), 2u);
  EXPECT_EQ(daemonLog().find("Could not transfer"), std::string::npos) << daemonLog();
}

}  // namespace
}  // namespace krv::test
