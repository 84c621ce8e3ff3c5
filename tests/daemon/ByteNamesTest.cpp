// Names that are not plain text, end to end. Any user can create a file whose name is not UTF-8,
// or holds a line feed, a tab or a terminal escape. The daemon, the client library and the real
// command-line client must carry such a name as its exact bytes, act on exactly that object, and
// show it to people without letting it forge a line or reach the terminal.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/NameValue.h"
#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

constexpr const char* kBase = "/tmp/names";

std::string path(const std::string& relative) { return std::string(kBase) + "/" + relative; }

class ByteNamesTest : public DaemonTest {
 protected:
  void SetUp() override {
    DaemonTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    // A folder "a\n" holding etc/shadow: shown raw, its path would print a line of its own
    // beginning with "/etc/shadow".
    for (const char* folder : {"", "a\n", "a\n/etc", "dir\xfe"}) {
      ASSERT_EQ(::mkdir(path(folder).c_str(), 0755), 0) << errno;
    }
    for (const char* file :
         {"bad\xffname", "a\n/etc/shadow", "tab\there\x1b[31m", "dir\xfe/in\xff"}) {
      const int fd = ::open(path(file).c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
      ASSERT_GE(fd, 0) << errno;
      ::close(fd);
    }
  }
  void TearDown() override {
    if (!IsSkipped()) {
      // A test that failed half-way may leave the tree immutable.
      (void)runCommand(
          kCommandModifyProtectAttribute,
          {nameValue(path("dir\xfe")), Value::integer(0), Value::integer(1), Value::integer(0)});
      (void)runProgram("/bin/rm", {"-rf", kBase});
    }
    DaemonTest::TearDown();
  }

  // The paths of every record the reports carried, as bytes, sorted.
  static std::vector<std::string> pathsIn(const std::vector<Error>& reports) {
    std::vector<std::string> paths;
    for (const Error& report : reports) {
      const Value* records = report.userInfo().find("FileSystemObjects");
      if (records == nullptr || records->asArray() == nullptr) continue;
      for (const Value& record : *records->asArray()) {
        const Value* recordPath = record.asDictionary()->find("Path");
        paths.push_back(nameBytes(*recordPath).value_or("<not a name>"));
        EXPECT_TRUE(isNameValue(*recordPath)) << recordPath->description();
      }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
  }
};

TEST_F(ByteNamesTest, SearchesAndCountsCarryTheExactBytes) {
  std::vector<Error> reports;
  Error found = runCommand(kCommandSearchAgedFiles,
                           {Value(kBase), Value::integer(0), Value::integer(0)}, &reports);
  ASSERT_TRUE(found.is(kCommandErrorDomain, kResultSuccess)) << found.description() << daemonLog();
  std::vector<std::string> expected = {
      path("a\n"),     path("a\n/etc"),        path("a\n/etc/shadow"),   path("bad\xffname"),
      path("dir\xfe"), path("dir\xfe/in\xff"), path("tab\there\x1b[31m")};
  std::sort(expected.begin(), expected.end());
  EXPECT_EQ(pathsIn(reports), expected);

  // Patterns are bytes too.
  reports.clear();
  Error matched = runCommand(
      kCommandSearchNamePatterns,
      {Value(kBase), Value("0"), Value("1"), nameValue("bad\xff"), Value("1"), Value("tab")},
      &reports);
  ASSERT_TRUE(matched.is(kCommandErrorDomain, kResultSuccess)) << matched.description();
  EXPECT_EQ(pathsIn(reports),
            (std::vector<std::string>{path("bad\xffname"), path("tab\there\x1b[31m")}));

  // A base that is not UTF-8 travels as a byte string.
  Error counted =
      runCommand(kCommandCountFileObjects, {nameValue(path("dir\xfe")), Value("/tmp/marker")});
  ASSERT_TRUE(counted.is(kCommandErrorDomain, kResultSuccess))
      << counted.description() << daemonLog();
  EXPECT_EQ(counted.userInfo().find("Size")->asNumber()->unsignedIntegerValue(), 2u);
}

TEST_F(ByteNamesTest, DeletionAndProtectionActOnTheExactBytes) {
  Error protectedTree = runCommand(
      kCommandModifyProtectAttribute,
      {nameValue(path("dir\xfe")), Value::integer(1), Value::integer(1), Value::integer(0)});
  ASSERT_TRUE(protectedTree.is(kCommandErrorDomain, kResultSuccess)) << protectedTree.description();
  EXPECT_NE(::unlink(path("dir\xfe/in\xff").c_str()), 0) << "the file inside is immutable";
  Error unprotected = runCommand(
      kCommandModifyProtectAttribute,
      {nameValue(path("dir\xfe")), Value::integer(0), Value::integer(1), Value::integer(0)});
  ASSERT_TRUE(unprotected.is(kCommandErrorDomain, kResultSuccess)) << unprotected.description();

  Error deleted =
      runCommand(kCommandDeleteFileObjects, {Value("1"), nameValue(path("bad\xffname"))});
  ASSERT_TRUE(deleted.is(kCommandErrorDomain, kResultSuccess))
      << deleted.description() << daemonLog();
  EXPECT_NE(::access(path("bad\xffname").c_str(), F_OK), 0);

  Error missing = runCommand(kCommandDeleteFileObjects, {Value("1"), nameValue(path("gone\xff"))});
  EXPECT_TRUE(missing.is(kPosixErrorDomain, ENOENT)) << missing.description();
  const Value* failing = missing.userInfo().find("FailingPath");
  ASSERT_NE(failing, nullptr);
  EXPECT_EQ(failing->type(), ValueType::Data);
  EXPECT_EQ(nameBytes(*failing), path("gone\xff"));
}

TEST_F(ByteNamesTest, AByteStringArgumentThatIsTextIsRefused) {
  // Every path has one encoding: bytes that are valid UTF-8 must come as text.
  auto inspect = KRVPrivilegedCommand::privilegedCommandWithCode(kCommandInspectFileObject,
                                                                 {Value(Data{'/', 't', 'm', 'p'})});
  Result<Value> reply = exchange(*inspect);
  ASSERT_FALSE(reply);
  EXPECT_EQ(reply.error().code(), EPIPE);
  EXPECT_TRUE(runCommand(kCommandGetVersion, {}).is(kCommandErrorDomain, kResultSuccess));
}

TEST_F(ByteNamesTest, TheClientTakesBytesAndShowsNamesEscaped) {
  ProgramRun text = runClient({"search-aged-files", kBase, "0", "0"});
  ASSERT_EQ(text.exitCode, 0) << text.standardError << daemonLog();
  std::istringstream lines(text.standardOutput);
  for (std::string line; std::getline(lines, line);) {
    EXPECT_TRUE(line.rfind(kBase, 0) == 0 || line == "OK") << "not a record: " << line;
  }
  for (const char* shown : {"/tmp/names/a\\n/etc/shadow\t", "/tmp/names/bad\\xffname\t",
                            "/tmp/names/tab\\there\\x1b[31m\t", "/tmp/names/dir\\xfe/in\\xff\t"}) {
    EXPECT_NE(text.standardOutput.find(shown), std::string::npos) << shown;
  }
  EXPECT_EQ(text.standardOutput.find_first_of("\x1b\xff\xfe"), std::string::npos);

  // JSON: valid text strings, and the byte strings of the wire as data.
  ProgramRun json = runClient({"--json", "search-aged-files", kBase, "0", "0"});
  ASSERT_EQ(json.exitCode, 0) << json.standardError;
  for (const char* shown :
       {R"("Path":"/tmp/names/a\n/etc/shadow")", R"("Path":"/tmp/names/tab\there\u001b[31m")",
        R"("Path":{"base64":"L3RtcC9uYW1lcy9iYWT/bmFtZQ=="})"}) {
    EXPECT_NE(json.standardOutput.find(shown), std::string::npos) << shown << json.standardOutput;
  }
  EXPECT_TRUE(std::all_of(json.standardOutput.begin(), json.standardOutput.end(),
                          [](char c) { return c == '\n' || (c >= 0x20 && c < 0x7F); }));

  // Arguments are bytes: counted, then deleted, by their exact names.
  ProgramRun count = runClient({"count-file-objects", path("dir\xfe"), "/tmp/marker"});
  EXPECT_EQ(count.exitCode, 0) << count.standardError;
  EXPECT_NE(count.standardOutput.find("Size: 2\n"), std::string::npos) << count.standardOutput;
  ProgramRun deleted = runClient({"delete-file-objects", "1", path("bad\xffname")});
  EXPECT_EQ(deleted.exitCode, 0) << deleted.standardError;
  EXPECT_NE(::access(path("bad\xffname").c_str(), F_OK), 0);
  ProgramRun missing = runClient({"delete-file-objects", "1", path("gone\n\xff")});
  EXPECT_EQ(missing.exitCode, 1);
  EXPECT_NE(missing.standardError.find("  FailingPath: /tmp/names/gone\\n\\xff\n"),
            std::string::npos)
      << missing.standardError;
}

}  // namespace
}  // namespace krv::test
