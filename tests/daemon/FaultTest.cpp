// Faults around the real daemon: killed in the middle of each command family, a read-only file
// system, a full disk during an overwrite, folders the daemon cannot read, and the authorization
// service restarted while tokens are in use. Each test checks what the client is told, what is
// left on disk, and that the next run behaves.

#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "authorization/Authorization.h"
#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/daemon/DaemonProbe.h"
#include "tests/support/Sandbox.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

void makeFile(const std::string& path, const std::string& content = "x") {
  std::ofstream(path, std::ios::binary) << content;
}

// A tree of `folders` folders holding `files` files each under root.
void makeTree(const std::string& root, int folders, int files) {
  ASSERT_EQ(::mkdir(root.c_str(), 0755), 0) << root;
  for (int folder = 0; folder < folders; ++folder) {
    std::string path = root + "/folder" + std::to_string(folder);
    ASSERT_EQ(::mkdir(path.c_str(), 0755), 0);
    for (int file = 0; file < files; ++file) makeFile(path + "/file" + std::to_string(file));
  }
}

// Every object below root with its type, mode, size and modification time: what "nothing
// changed" compares.
std::string treeListing(const std::string& root) {
  std::ostringstream listing;
  std::vector<std::string> pending = {root};
  std::map<std::string, std::string> entries;
  while (!pending.empty()) {
    std::string folder = pending.back();
    pending.pop_back();
    Result<struct stat> own = sys::lstat(folder);
    if (!own) continue;
    DIR* directory = ::opendir(folder.c_str());
    if (directory == nullptr) continue;
    while (const dirent* entry = ::readdir(directory)) {
      std::string name = entry->d_name;
      if (name == "." || name == "..") continue;
      std::string path = folder + "/" + name;
      Result<struct stat> status = sys::lstat(path);
      if (!status) continue;
      std::ostringstream line;
      line << std::oct << status->st_mode << std::dec << ' ' << status->st_size << ' '
           << status->st_mtim.tv_sec << '.' << status->st_mtim.tv_nsec << ' ' << status->st_uid;
      entries[path] = line.str();
      if (S_ISDIR(status->st_mode)) pending.push_back(path);
    }
    ::closedir(directory);
  }
  for (const auto& [path, line] : entries) listing << path << ' ' << line << '\n';
  return listing.str();
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), {});
}

// The errno a result carries: its own code in the POSIX domain, else its underlying code; 0 for
// success.
std::int64_t errnoOf(const Error& result) {
  if (result.is(kCommandErrorDomain, kResultSuccess)) return 0;
  if (result.isPosix()) return result.code();
  const Value* underlying = result.userInfo().find("UnderlyingErrorCode");
  if (underlying != nullptr && underlying->asNumber() != nullptr) {
    return underlying->asNumber()->integerValue();
  }
  return -1000 - result.code();
}

class FaultTest : public ScenarioTest {
 protected:
  // Runs a command through the client library; the daemon is killed (SIGKILL) from the client's
  // handler of its `killAt`-th intermediate report, so the command is certainly under way.
  Error runKilledAtReport(std::uint32_t code, Array arguments, int killAt = 1) {
    std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
    if (!agent) return Error::posix(ENOENT, "no daemon socket");
    agent->setResponseClasses(&KRVFileSystemObjectDescription::comparisonClasses());
    const pid_t victim = daemon().pid();
    int reports = 0;
    agent->setReportHandler([&](const Error&) {
      if (++reports == killAt) ::kill(victim, SIGKILL);
    });
    auto command = KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
    return agent->executeAtomicPrivilegedCommand(*command, false);
  }

  // The client was told the pipe ended early and removed it; the daemon died of the kill; the
  // next connection is served by a new instance.
  void expectKilledMidCommand(const Error& result) {
    const pid_t killed = daemon().pid();
    EXPECT_TRUE(result.is(kTransportErrorDomain, kTransportPipeMessageInvalid))
        << result.description();
    std::optional<int> status = daemon().waitForExit(5s);
    ASSERT_TRUE(status);
    EXPECT_TRUE(WIFSIGNALED(*status) && WTERMSIG(*status) == SIGKILL) << *status;
    EXPECT_EQ(responsePipesInTmp(), std::vector<std::string>{});
    Error version = runCommand(kCommandGetVersion, {});
    EXPECT_TRUE(version.is(kCommandErrorDomain, kResultSuccess)) << version.description();
    EXPECT_NE(daemon().pid(), killed);
    EXPECT_EQ(daemon().instancesStarted(), 2u);
  }
};

TEST_F(FaultTest, KilledDuringARecursiveDeleteTheNextRunFinishesTheJob) {
  makeTree("/tmp/first", 2, 10);
  makeTree("/tmp/second", 40, 100);
  const Array paths = {Value("/tmp/first"), Value("/tmp/second")};
  // The second progress report comes once the first tree is gone.
  expectKilledMidCommand(runKilledAtReport(kCommandDeleteFileSubtree, paths, 2));
  EXPECT_FALSE(sys::lstat("/tmp/first"));
  Error again = runCommand(kCommandDeleteFileSubtree, paths);
  EXPECT_TRUE(again.is(kCommandErrorDomain, kResultSuccess)) << again.description();
  EXPECT_FALSE(sys::lstat("/tmp/second"));
}

TEST_F(FaultTest, KilledDuringATreeSearchTheClientGetsItsTransportError) {
  makeTree("/tmp/tree", 40, 100);
  expectKilledMidCommand(runKilledAtReport(
      kCommandSearchAgedFiles, {Value("/tmp/tree"), Value::integer(0), Value::boolean(false)}));
}

TEST_F(FaultTest, KilledDuringAProgramRunTheClientGetsItsTransportError) {
  expectKilledMidCommand(runKilledAtReport(kCommandWhoAmI, {Value::integer(3)}));
}

TEST_F(FaultTest, KilledDuringAFolderComparisonTheClientGetsItsTransportError) {
  makeTree("/tmp/left", 30, 100);
  makeTree("/tmp/right", 30, 100);
  expectKilledMidCommand(runKilledAtReport(
      kCommandCompareFolders, {Value("/tmp/left"), Value("/tmp/right"), Value("/tmp/marker"),
                               Value::integer(6000), Value::integer(2)}));
}

TEST_F(FaultTest, KilledDuringAPermissionPropagationTheNextRunFinishesTheJob) {
  makeTree("/tmp/tree", 30, 100);
  ASSERT_EQ(::chmod("/tmp/tree", 0750), 0);
  // Others' access: the files lose their read bit for others.
  const Array arguments = {Value("/tmp/tree"), Value::integer(3031), Value::boolean(false),
                           Value::integer(0x02)};
  expectKilledMidCommand(runKilledAtReport(kCommandPropagatePermissions, arguments));
  Error again = runCommand(kCommandPropagatePermissions, arguments);
  EXPECT_TRUE(again.is(kCommandErrorDomain, kResultSuccess)) << again.description();
  Result<struct stat> deepest = sys::lstat("/tmp/tree/folder29/file99");
  ASSERT_TRUE(deepest);
  EXPECT_EQ(deepest->st_mode & 0777, 0640u);
}

TEST_F(FaultTest, OnAReadOnlyFileSystemEveryChangingCommandReportsErofsAndChangesNothing) {
  ASSERT_EQ(::mkdir("/tmp/source", 0755), 0);
  makeTree("/tmp/source/tree", 2, 3);
  makeFile("/tmp/source/file", "content");
  ASSERT_EQ(::symlink("file", "/tmp/source/link"), 0);
  ASSERT_EQ(::mkdir("/tmp/ro", 0755), 0);
  ASSERT_EQ(::mount("/tmp/source", "/tmp/ro", nullptr, MS_BIND, nullptr), 0);
  ASSERT_EQ(::mount(nullptr, "/tmp/ro", nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const std::string before = treeListing("/tmp/ro");

  struct Case {
    std::uint32_t code;
    Array arguments;
    std::int64_t expected = EROFS;
  };
  const std::vector<Case> cases = {
      {kCommandModifyFileContent, {Value("/tmp/ro/file"), Value(Data{'n'}), Value::integer(0)}},
      // A file that cannot be created is code 8, whatever the reason.
      {kCommandCreateFileObject, {Value("/tmp/ro/new"), Value("F")}, -1000 - kResultNotWritten},
      {kCommandCreateFileObject, {Value("/tmp/ro/new"), Value("D")}},
      {kCommandRenameFileObject, {Value("/tmp/ro/file"), Value("/tmp/ro/renamed")}},
      {kCommandDeleteFileObjects, {Value("1"), Value("/tmp/ro/file")}},
      {kCommandDeleteFileSubtree, {Value("/tmp/ro/tree")}},
      {kCommandDeleteHibernationFile, {Value("/tmp/ro/file")}},
      {kCommandModifyProtectAttribute,
       {Value("/tmp/ro/file"), Value::integer(1), Value::integer(0), Value::integer(0)}},
      // No protection to remove: nothing to write, success.
      {kCommandRemoveSystemProtection, {Value("/tmp/ro/file")}, 0},
      {kCommandSetHfsAttributes,
       {Value("/tmp/ro/file"), Value::integer(0x54455854), Value::integer(0x74747874),
        Value::integer(0)}},
      {kCommandCreateLink, {Value("/tmp/ro/new"), Value("/tmp/ro/file"), Value::integer(0)}},
      {kCommandCreateLink, {Value("/tmp/ro/new"), Value("/tmp/ro/file"), Value::integer(1)}},
      {kCommandTouchFileObject, {Value("/tmp/ro/file")}},
      {kCommandDeleteFolderContents, {Value("/tmp/ro/tree")}},
  };
  for (const Case& c : cases) {
    Error result = runCommand(c.code, c.arguments);
    EXPECT_EQ(errnoOf(result), c.expected) << "code " << c.code << ": " << result.description();
  }
  EXPECT_EQ(treeListing("/tmp/ro"), before);
  expectUnharmed();
  ::umount2("/tmp/ro", MNT_DETACH);
}

TEST_F(FaultTest, AFullDiskDuringAnOverwriteKeepsTheOldContentInTheBackup) {
  ASSERT_EQ(::mkdir("/tmp/small", 0755), 0);
  ASSERT_EQ(::mount("tmpfs", "/tmp/small", "tmpfs", 0, "size=256k,mode=0755"), 0);
  const std::string old(8192, 'o');
  makeFile("/tmp/small/file", old);
  ASSERT_EQ(::chmod("/tmp/small/file", 0640), 0);
  // Fill what is left.
  {
    std::ofstream filler("/tmp/small/filler", std::ios::binary);
    const std::string chunk(4096, 'f');
    for (int i = 0; i < 256 && filler.good(); ++i) filler << chunk << std::flush;
  }
  const Data fresh(128 * 1024, 'n');
  Error kept = runCommand(kCommandModifyFileContent,
                          {Value("/tmp/small/file"), Value(fresh), Value::integer(0)});
  // The write's failure is no failure of the command: the new file holds what fit.
  EXPECT_TRUE(kept.is(kCommandErrorDomain, kResultSuccess)) << kept.description();
  EXPECT_EQ(contentOf("/tmp/small/file.backup"), old);
  const std::string written = contentOf("/tmp/small/file");
  EXPECT_LT(written.size(), fresh.size());
  EXPECT_EQ(written, std::string(written.size(), 'n'));
  Result<struct stat> status = sys::lstat("/tmp/small/file");
  ASSERT_TRUE(status);
  EXPECT_EQ(status->st_mode & 07777, 0640u);

  // Asked to remove the backup, the old content is gone with it.
  Error removed = runCommand(kCommandModifyFileContent,
                             {Value("/tmp/small/file"), Value(fresh), Value::integer(1)});
  EXPECT_TRUE(removed.is(kCommandErrorDomain, kResultSuccess)) << removed.description();
  EXPECT_FALSE(sys::lstat("/tmp/small/file.backup"));
  expectUnharmed();
  ::umount2("/tmp/small", MNT_DETACH);
}

TEST_F(FaultTest, AFolderTheDaemonCannotReadIsHandledByEveryTreeCommand) {
  // Root without the capabilities that pass over permission bits, as a hardened unit runs it.
  ServiceLaunch launch = daemonLaunch();
  launch.droppedCapabilities = {CAP_DAC_OVERRIDE, CAP_DAC_READ_SEARCH};
  startDaemon(launch);
  if (HasFatalFailure()) return;
  takeBaseline();
  makeTree("/tmp/tree", 2, 3);
  makeTree("/tmp/copy", 2, 3);
  for (const char* locked : {"/tmp/tree/locked", "/tmp/copy/locked"}) {
    ASSERT_EQ(::mkdir(locked, 0755), 0);
    makeFile(std::string(locked) + "/inside");
    ASSERT_EQ(::chmod(locked, 0), 0);
  }
  const Value tree("/tmp/tree");
  struct Case {
    std::uint32_t code;
    Array arguments;
  };
  const std::vector<Case> walks = {
      {kCommandSearchAgedFiles, {tree, Value::integer(0), Value::integer(0)}},
      {kCommandSearchFilenamePattern, {tree, Value("file"), Value(""), Value::integer(0)}},
      {kCommandGetStorageSize, {tree}},
      {kCommandSearchNamePatterns, {tree, Value("0"), Value("1"), Value("file")}},
      {kCommandCountFileObjects, {tree, Value("/tmp/marker")}},
      {kCommandCompareFolders,
       {tree, Value("/tmp/copy"), Value("/tmp/marker"), Value::integer(20), Value::integer(2)}},
      {kCommandPropagatePermissions,
       {tree, Value::integer(12), Value::integer(0), Value::integer(0x04)}},
  };
  for (const Case& c : walks) {
    std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
    ASSERT_TRUE(agent);
    agent->setResponseClasses(&KRVFileSystemObjectDescription::comparisonClasses());
    std::vector<std::string> found;
    agent->setReportHandler([&found](const Error& report) {
      const Value* records = report.userInfo().find("FileSystemObjects");
      if (records == nullptr || records->asArray() == nullptr) return;
      for (const Value& record : *records->asArray()) {
        const Value* path =
            record.asDictionary() != nullptr ? record.asDictionary()->find("Path") : nullptr;
        if (path != nullptr) found.push_back(nameBytes(*path).value_or(""));
      }
    });
    auto command = KRVPrivilegedCommand::privilegedCommandWithCode(c.code, c.arguments);
    Error result = agent->executeAtomicPrivilegedCommand(*command, false);
    // Every walk goes on past the folder it cannot read: it is an object of the tree, not a
    // failure of the command.
    EXPECT_TRUE(result.is(kCommandErrorDomain, kResultSuccess))
        << c.code << ": " << result.description();
    if (c.code == kCommandSearchAgedFiles) {
      // Reported, not walked.
      EXPECT_NE(std::find(found.begin(), found.end(), "/tmp/tree/locked"), found.end());
      EXPECT_EQ(std::find(found.begin(), found.end(), "/tmp/tree/locked/inside"), found.end());
      EXPECT_NE(std::find(found.begin(), found.end(), "/tmp/tree/folder1/file2"), found.end());
    }
    if (c.code == kCommandCountFileObjects || c.code == kCommandGetStorageSize) {
      EXPECT_NE(result.userInfo().find("Size"), nullptr) << c.code;
    }
  }
  // What cannot be read was left alone by the propagation.
  ASSERT_EQ(::chmod("/tmp/tree/locked", 0700), 0);
  Result<struct stat> inside = sys::lstat("/tmp/tree/locked/inside");
  ASSERT_TRUE(inside);
  ASSERT_EQ(::chmod("/tmp/tree/locked", 0), 0);
  EXPECT_EQ(inside->st_mode & 0777, 0644u);

  // The recursive protect and the deletions stop at the folder: its flag can be changed only
  // through a descriptor opened for reading, and it cannot be emptied. They name it.
  for (std::uint32_t code :
       {kCommandModifyProtectAttribute, kCommandDeleteFolderContents, kCommandDeleteFileSubtree}) {
    Error result =
        code == kCommandModifyProtectAttribute
            ? runCommand(code, {tree, Value::integer(0), Value::integer(1), Value::integer(0)})
            : runCommand(code, {tree});
    EXPECT_EQ(errnoOf(result), EACCES) << code << ": " << result.description();
    const Value* failing = result.userInfo().find("FailingPath");
    ASSERT_NE(failing, nullptr) << code;
    EXPECT_EQ(nameBytes(*failing).value_or("").rfind("/tmp/tree/locked", 0), 0u) << code;
    EXPECT_TRUE(sys::lstat("/tmp/tree/locked")) << code;
  }
  ASSERT_EQ(::chmod("/tmp/tree/locked", 0700), 0);
  EXPECT_TRUE(sys::lstat("/tmp/tree/locked/inside"));
  expectUnharmed();
}

TEST_F(FaultTest, TheAuthorizationServiceRestartedUnderALiveTokenCostsOneNewAuthorization) {
  auto inspect =
      KRVPrivilegedCommand::privilegedCommandWithCode(kCommandInspectFileObject, {Value("/")});
  ASSERT_TRUE(inspect->preAuthorizeOnClient());
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
  ASSERT_TRUE(agent);
  // The token works.
  Error first = agent->executeAtomicPrivilegedCommand(*inspect, false);
  EXPECT_TRUE(first.is(kCommandErrorDomain, kResultSuccess)) << first.description();
  ASSERT_TRUE(inspect->preAuthorizeOnClient());
  const auth::ExternalForm stale = inspect->authorizationToken();

  // The service ends (a crash, an update); the next connection starts a new one that knows no
  // token. The daemon's check answers -60007, the client authorizes anew and sends once more.
  const pid_t before = authority().pid();
  ASSERT_EQ(::kill(before, SIGKILL), 0);
  ASSERT_TRUE(authority().waitForExit(5s));
  Error second = agent->executeAtomicPrivilegedCommand(*inspect, false);
  EXPECT_TRUE(second.is(kCommandErrorDomain, kResultSuccess)) << second.description();
  EXPECT_NE(authority().pid(), before);
  EXPECT_NE(inspect->authorizationToken(), stale);
  EXPECT_TRUE(waitForLog("Could not get required authorization.", 5s, 1)) << daemonLog();
  // The daemon went on in the same process, and its next checks use the new service.
  EXPECT_EQ(daemon().instancesStarted(), 1u);
  Error third = runCommand(kCommandInspectFileObject, {Value("/")});
  EXPECT_TRUE(third.is(kCommandErrorDomain, kResultSuccess)) << third.description();
  expectUnharmed();
}

}  // namespace
}  // namespace krv::test
