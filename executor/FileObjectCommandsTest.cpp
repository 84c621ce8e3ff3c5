#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <thread>

#include "filesystem/FileManagerAdditions.h"
#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::number;
using test::text;

std::string contentsOf(const std::string& path) {
  std::ifstream file(path);
  std::stringstream contents;
  contents << file.rdbuf();
  return contents.str();
}

struct stat statusOf(const std::string& path) {
  struct stat status {};
  ::lstat(path.c_str(), &status);
  return status;
}

class ObjectCommandTest : public test::FileCommandTest {
 protected:
  // A file with attributes that an overwrite must keep.
  std::string makeConfiguration(const std::string& name) {
    std::string file = m_tree.makeFile(name, "old", 0640);
    EXPECT_EQ(::chown(file.c_str(), 1, 2), 0);
    EXPECT_TRUE(writeHfsCodes(file, {0x54455854, 0x74747874}, LinkHandling::NoFollow));
    EXPECT_TRUE(setHidden(true, file));
    return file;
  }
  void expectConfigurationKept(const std::string& file) {
    struct stat status = statusOf(file);
    EXPECT_EQ(status.st_mode & 07777, 0640u);
    EXPECT_EQ(status.st_uid, 1u);
    EXPECT_EQ(status.st_gid, 2u);
    EXPECT_EQ(readHfsCodes(file, LinkHandling::NoFollow).valueOr({}),
              (HfsCodes{0x54455854, 0x74747874}));
    EXPECT_TRUE(isHiddenObject(file));
  }
};

TEST_F(ObjectCommandTest, OverwriteKeepsAttributesAndABackupOfTheResolvedFile) {
  const std::string file = makeConfiguration("conf");
  m_tree.makeFile("conf.backup", "stale");
  make({"alias -> conf"});
  expectSuccess(kCommandModifyFileContent,
                {text(path("alias")), Value(Data{'n', 'e', 'w'}), number(0)});
  EXPECT_EQ(contentsOf(file), "new");
  expectConfigurationKept(file);
  EXPECT_EQ(contentsOf(path("conf.backup")), "old");
  EXPECT_TRUE(S_ISLNK(statusOf(path("alias")).st_mode));

  expectSuccess(kCommandModifyFileContent, {text(file), Value(Data{'2'}), number(1)});
  EXPECT_EQ(contentsOf(file), "2");
  EXPECT_FALSE(exists("conf.backup"));

  // A backup slot that is a folder: nothing changes.
  m_tree.makeFolder("conf.backup");
  expectResult(run(kCommandModifyFileContent, {text(file), Value(Data{'3'}), number(0)}),
               kCommandErrorDomain, kResultBackupIsFolder, path("conf.backup"));
  EXPECT_EQ(contentsOf(file), "2");

  expectResult(run(kCommandModifyFileContent, {text(path("missing")), Value(Data{}), number(0)}),
               kPosixErrorDomain, ENOENT, path("missing"));
  expectResult(
      run(kCommandModifyFileContent, {text(path("conf.backup")), Value(Data{}), number(0)}),
      kPosixErrorDomain, EISDIR, path("conf.backup"));
  expectResult(run(kCommandModifyFileContent, {text(""), Value(Data{}), number(0)}),
               kCommandErrorDomain, kResultBadArgument);
}

TEST_F(ObjectCommandTest, OverwriteSucceedsWhenTheContentCannotBeWritten) {
  const std::string file = makeConfiguration("limited");
  // Files may grow to 4 bytes only: the write of ten fails with EFBIG after the first four.
  struct rlimit saved {};
  ::getrlimit(RLIMIT_FSIZE, &saved);
  auto savedHandler = ::signal(SIGXFSZ, SIG_IGN);
  struct rlimit limited = saved;
  limited.rlim_cur = 4;
  ::setrlimit(RLIMIT_FSIZE, &limited);
  CommandResult result =
      run(kCommandModifyFileContent, {text(file), Value(Data(10, 'x')), number(0)});
  ::setrlimit(RLIMIT_FSIZE, &saved);
  ::signal(SIGXFSZ, savedHandler);
  expectResult(result, kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(contentsOf(file), "xxxx");
  expectConfigurationKept(file);
  EXPECT_EQ(contentsOf(path("limited.backup")), "old");
}

// A user's file linked in at the overwritten name after the old file moved to its backup must not
// receive the content, nor the attributes (a root-owned file the user holds open for writing).
TEST_F(ObjectCommandTest, OverwriteWritesOnlyAFileOfItsOwnMaking) {
  const std::string planted = m_tree.makeFile("planted", "mine", 0666);
  const std::string file = path("conf");
  for (int round = 0; round < 3000; ++round) {
    test::TestFileTree::removeAll(file);
    m_tree.makeFile("conf", "old", 04755);
    std::atomic<bool> stop{false};
    std::thread planter([&] {
      while (!stop.load(std::memory_order_relaxed)) (void)::link(planted.c_str(), file.c_str());
    });
    (void)run(kCommandModifyFileContent, {text(file), Value(Data{'n', 'e', 'w'}), number(1)});
    stop = true;
    planter.join();
  }
  EXPECT_EQ(contentsOf(planted), "mine");
  EXPECT_EQ(statusOf(planted).st_mode & 07777, 0666U);
}

TEST_F(ObjectCommandTest, CreatesRootOwnedObjectsOfTheThreeTypesOnly) {
  // A set-group-id folder of another group would hand its group on; the mask would cut the mode.
  m_tree.makeFolder("shared");
  ASSERT_EQ(::chown(path("shared").c_str(), 0, 1000), 0);
  ASSERT_EQ(::chmod(path("shared").c_str(), 02755), 0);
  const mode_t mask = ::umask(077);
  for (const auto& [type, mode] : {std::pair{"F", S_IFREG | 0644}, std::pair{"D", S_IFDIR | 0755},
                                   std::pair{"X", S_IFREG | 0755}}) {
    const std::string object = path(std::string("shared/") + type);
    expectSuccess(kCommandCreateFileObject, {text(object), text(type)});
    struct stat status = statusOf(object);
    EXPECT_EQ(status.st_mode & ~S_ISGID, static_cast<mode_t>(mode)) << type;
    EXPECT_EQ(status.st_uid, 0u);
    EXPECT_EQ(status.st_gid, 0u) << type;
    EXPECT_EQ(status.st_size, S_ISREG(status.st_mode) ? 0 : status.st_size);
  }
  ::umask(mask);
  for (const char* type : {"f", "", "FF", "Z", "\xff"}) {
    expectResult(run(kCommandCreateFileObject, {text(path("bad")), text(type)}),
                 kCommandErrorDomain, kResultBadArgument);
  }
  expectResult(run(kCommandCreateFileObject, {text(""), text("F")}), kCommandErrorDomain,
               kResultBadArgument);
  make({"dangling -> nowhere"});  // something is there, even if it leads nowhere
  expectResult(run(kCommandCreateFileObject, {text(path("dangling")), text("F")}),
               kPosixErrorDomain, EEXIST, path("dangling"));
  expectResult(run(kCommandCreateFileObject, {text(path("no/file")), text("F")}),
               kCommandErrorDomain, kResultNotWritten, path("no/file"));
  // A trailing slash names a folder: one can be made there, a file cannot.
  expectResult(run(kCommandCreateFileObject, {text(path("slashed/")), text("F")}),
               kCommandErrorDomain, kResultNotWritten, path("slashed/"));
  expectSuccess(kCommandCreateFileObject, {text(path("slashed/")), text("D")});
  EXPECT_TRUE(S_ISDIR(statusOf(path("slashed")).st_mode));
  expectResult(run(kCommandCreateFileObject, {text(path("no/folder")), text("D")}),
               kPosixErrorDomain, ENOENT, path("no/folder"));
}

TEST_F(ObjectCommandTest, RenamesWithinAndAcrossFileSystemsButNeverOverAnObject) {
  m_tree.makeFile("a", "A");
  m_tree.makeFile("b", "B");
  expectResult(run(kCommandRenameFileObject, {text(path("a")), text(path("b"))}), kPosixErrorDomain,
               EEXIST, path("b"));
  expectSuccess(kCommandRenameFileObject, {text(path("a")), text(path("c"))});
  EXPECT_EQ(contentsOf(path("c")), "A");
  expectResult(run(kCommandRenameFileObject, {text(path("a")), text(path("d"))}), kPosixErrorDomain,
               ENOENT, path("a"));
  expectResult(run(kCommandRenameFileObject, {text(path("c")), text(path("no/c"))}),
               kPosixErrorDomain, ENOENT, path("no/c"));

  // Across file systems a copy with every attribute is made, then the source is removed.
  m_tree.makeFolder("src", 0750);
  const std::string file = makeConfiguration("src/file");
  ASSERT_EQ(::lsetxattr(file.c_str(), "user.note", "kept", 4, 0), 0);
  const struct timespec times[2] = {{1000, 0}, {1000000000, 500}};
  ASSERT_EQ(::utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
  make({"src/link -> file", "src/fifo|", "src/sub/", "locked", "mnt/"});
  m_tree.makeFile("src/sub/inner", "I");
  setFlags("locked", kUserImmutableFlag);
  test::Facts facts = test::inPrivateMount(path("mnt"), "tmpfs", [&](test::Facts& seen) {
    test::ExecutorWithPipe client;
    make({"mnt/taken"});
    for (const char* name : {"c", "src", "b", "locked"}) {
      const std::string to = path(std::string("mnt/") + (name[0] == 'b' ? "taken" : name));
      CommandResult result = client.run(kCommandRenameFileObject, {text(path(name)), text(to)});
      seen[std::string("moving ") + name] = result ? std::to_string(result->code()) : "none";
      seen[std::string(name) + " left"] = exists(name) ? "yes" : "no";
    }
    const std::string copy = path("mnt/src/file");
    const struct stat status = statusOf(copy);
    char note[8] = {}, link[8] = {};
    ::lgetxattr(copy.c_str(), "user.note", note, sizeof note - 1);
    ::readlink(path("mnt/src/link").c_str(), link, sizeof link - 1);
    seen["contents"] = contentsOf(copy) + "|" + contentsOf(path("mnt/c")) + "|" +
                       contentsOf(path("mnt/src/sub/inner"));
    seen["file mode"] = std::to_string(status.st_mode & 07777);
    seen["folder mode"] = std::to_string(statusOf(path("mnt/src")).st_mode & 07777);
    seen["owner"] = std::to_string(status.st_uid) + ":" + std::to_string(status.st_gid);
    seen["modified"] =
        std::to_string(status.st_mtim.tv_sec) + "." + std::to_string(status.st_mtim.tv_nsec);
    seen["attribute"] = note;
    seen["link"] = link;
    seen["fifo"] = S_ISFIFO(statusOf(path("mnt/src/fifo")).st_mode) ? "yes" : "no";
    seen["creator code"] =
        std::to_string(readHfsCodes(copy, LinkHandling::NoFollow).valueOr({}).creatorCode);
    seen["hidden"] = isHiddenObject(copy) ? "yes" : "no";
    seen["locked flags"] = std::to_string(flagsOf("mnt/locked"));
  });
  ASSERT_FALSE(facts.contains("child")) << facts["child"];
  EXPECT_EQ(facts["moving c"], "0");
  EXPECT_EQ(facts["c left"], "no");
  EXPECT_EQ(facts["moving src"], "0");
  EXPECT_EQ(facts["src left"], "no");
  // Over an object on the other side: refused.
  EXPECT_EQ(facts["moving b"], std::to_string(EEXIST));
  EXPECT_EQ(facts["b left"], "yes");
  // An immutable source cannot go: the copy stays too.
  EXPECT_EQ(facts["moving locked"], std::to_string(EPERM));
  EXPECT_EQ(facts["locked left"], "yes");
  EXPECT_EQ(facts["locked flags"], std::to_string(kUserImmutableFlag));
  // What the copy keeps.
  EXPECT_EQ(facts["contents"], "old|A|I");
  EXPECT_EQ(facts["file mode"], std::to_string(0640));
  EXPECT_EQ(facts["folder mode"], std::to_string(0750));
  EXPECT_EQ(facts["owner"], "1:2");
  EXPECT_EQ(facts["modified"], "1000000000.500");
  EXPECT_EQ(facts["attribute"], "kept");
  EXPECT_EQ(facts["link"], "file");
  EXPECT_EQ(facts["fifo"], "yes");
  EXPECT_EQ(facts["creator code"], std::to_string(0x74747874));
  EXPECT_EQ(facts["hidden"], "yes");
}

TEST_F(ObjectCommandTest, ProtectsRecursivelyAndStaysOnTheFileSystemWhenAsked) {
  make({"p/", "p/d/", "p/d/f", "p/dangling -> nowhere", "p/mnt/", "fifo|", "system"});
  auto protect = [&](bool on, bool recursively, bool stay) {
    return run(kCommandModifyProtectAttribute,
               {text(path("p")), number(on), number(recursively), number(stay)});
  };
  expectResult(protect(true, false, false), kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(flagsOf("p"), kUserImmutableFlag);
  EXPECT_EQ(flagsOf("p/d"), 0u);
  expectResult(protect(true, true, false), kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(flagsOf("p/d") & flagsOf("p/d/f") & flagsOf("p/mnt"), kUserImmutableFlag);
  expectResult(protect(false, true, false), kCommandErrorDomain, kResultSuccess);
  EXPECT_EQ(flagsOf("p") | flagsOf("p/d") | flagsOf("p/d/f"), 0u);

  // tmpfs below: with the stay flag its mount point and contents are left alone.
  test::Facts facts = test::inPrivateMount(path("p/mnt"), "tmpfs", [&](test::Facts& seen) {
    make({"p/mnt/g"});
    test::ExecutorWithPipe client;
    for (bool stay : {true, false}) {
      CommandResult result = client.run(kCommandModifyProtectAttribute,
                                        {text(path("p")), number(1), number(1), number(stay)});
      const std::string how = stay ? "staying: " : "crossing: ";
      seen[how + "result"] = result ? std::to_string(result->code()) : "none";
      seen[how + "mount point"] = std::to_string(flagsOf("p/mnt"));
      seen[how + "file below"] = std::to_string(flagsOf("p/mnt/g"));
    }
    test::TestFileTree::removeAll(path("p/mnt/g"));
  });
  ASSERT_FALSE(facts.contains("child")) << facts["child"];
  EXPECT_EQ(facts["staying: result"], "0");
  EXPECT_EQ(facts["staying: mount point"], "0");
  EXPECT_EQ(facts["staying: file below"], "0");
  EXPECT_EQ(facts["crossing: result"], "0");
  EXPECT_EQ(facts["crossing: mount point"], std::to_string(kUserImmutableFlag));
  EXPECT_EQ(facts["crossing: file below"], std::to_string(kUserImmutableFlag));
  expectResult(protect(false, true, false), kCommandErrorDomain, kResultSuccess);

  // Objects without kernel flags: nothing to clear, nothing that could be set.
  expectResult(
      run(kCommandModifyProtectAttribute, {text(path("fifo")), number(1), number(0), number(0)}),
      kPosixErrorDomain, EOPNOTSUPP, path("fifo"));
  expectSuccess(kCommandModifyProtectAttribute,
                {text(path("fifo")), number(0), number(0), number(0)});
  // A system flag is not the user's to clear.
  setFlags("system", kSystemImmutableFlag);
  expectSuccess(kCommandModifyProtectAttribute,
                {text(path("system")), number(0), number(0), number(0)});
  EXPECT_EQ(flagsOf("system"), kSystemImmutableFlag);
  for (const char* missing : {"p/dangling", "missing"}) {
    expectResult(
        run(kCommandModifyProtectAttribute, {text(path(missing)), number(1), number(0), number(0)}),
        kPosixErrorDomain, ENOENT, path(missing));
  }
}

TEST_F(ObjectCommandTest, RemovesEveryProtectionAndKeepsTheOtherFlags) {
  make({"locked", "chattr"});
  setFlags("locked",
           kSystemImmutableFlag | kSystemAppendFlag | kUserAppendFlag | kHiddenFlag | kNoDumpFlag);
  expectSuccess(kCommandRemoveSystemProtection, {text(path("locked"))});
  EXPECT_EQ(flagsOf("locked"), kHiddenFlag | kNoDumpFlag);
  ASSERT_TRUE(test::setKernelFlags(path("chattr"), FS_IMMUTABLE_FL));
  expectSuccess(kCommandRemoveSystemProtection, {text(path("chattr"))});
  EXPECT_EQ(flagsOf("chattr"), 0u);
  expectResult(run(kCommandRemoveSystemProtection, {text(path("missing"))}), kPosixErrorDomain,
               ENOENT, path("missing"));
}

TEST_F(ObjectCommandTest, LabelsLinksAndTouches) {
  const std::string file = m_tree.makeFile("file");
  expectSuccess(kCommandSetHfsAttributes,
                {text(file), number(0x41424344), number(0x45464748), number(0)});
  EXPECT_EQ(readHfsCodes(file, LinkHandling::NoFollow).valueOr({}),
            (HfsCodes{0x41424344, 0x45464748}));
  EXPECT_TRUE(isHiddenObject(file));
  expectSuccess(kCommandSetHfsAttributes, {text(file), number(0), number(0), number(1)});
  EXPECT_FALSE(isHiddenObject(file));
  expectResult(
      run(kCommandSetHfsAttributes, {text(file), number(0x100000000), number(0), number(1)}),
      kCommandErrorDomain, kResultBadArgument);
  expectResult(
      run(kCommandSetHfsAttributes, {text(path("missing")), number(1), number(1), number(1)}),
      kPosixErrorDomain, ENOENT, path("missing"));

  expectSuccess(kCommandCreateLink, {text(path("soft")), text("../relative/x"), number(0)});
  char destination[64] = {};
  EXPECT_EQ(::readlink(path("soft").c_str(), destination, sizeof destination - 1), 13);
  EXPECT_STREQ(destination, "../relative/x");
  expectSuccess(kCommandCreateLink, {text(path("hard")), text(file), number(1)});
  EXPECT_EQ(statusOf(path("hard")).st_ino, statusOf(file).st_ino);
  expectResult(run(kCommandCreateLink, {text(path("hard")), text(file), number(1)}),
               kPosixErrorDomain, EEXIST, path("hard"));

  // Touching through a link reaches the file; the link itself keeps its time.
  const struct timespec old[2] = {{1000, 0}, {1000, 0}};
  ::utimensat(AT_FDCWD, file.c_str(), old, 0);
  make({"link -> file"});
  ::utimensat(AT_FDCWD, path("link").c_str(), old, AT_SYMLINK_NOFOLLOW);
  expectSuccess(kCommandTouchFileObject, {text(path("link"))});
  EXPECT_GE(statusOf(file).st_mtime, std::time(nullptr) - 60);
  EXPECT_EQ(statusOf(path("link")).st_mtime, 1000);
  for (const char* missing : {"soft", "missing"}) {
    expectResult(run(kCommandTouchFileObject, {text(path(missing))}), kPosixErrorDomain, ENOENT,
                 path(missing));
  }
}

// Every command that changes something refuses a user's link that leads to root's objects, in the
// middle of a path or last where the command follows it, and changes nothing there.
TEST_F(ObjectCommandTest, NoCommandFollowsAUsersLinkToRootsObjects) {
  make({"vault/", "vault/dir/", "mine/", "other"});
  const std::string secret = m_tree.makeFile("vault/file", "root", 0600);
  const struct timespec old[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, secret.c_str(), old, 0), 0);
  make({"mine/link -> ../vault", "mine/file-link -> ../vault/file"});
  for (const char* mine : {"mine", "mine/link", "mine/file-link"}) {
    ASSERT_EQ(::lchown(path(mine).c_str(), 1000, 1000), 0);
  }
  const Value data(Data{'x'});
  struct Case {
    std::uint32_t code;
    Array arguments;
    std::string failingPath;
  };
  const Case cases[] = {
      {4, {text(path("mine/file-link")), data, number(0)}, path("mine/file-link")},
      {4, {text(path("mine/link/file")), data, number(0)}, path("mine/link/file")},
      {5, {text(path("mine/link/new")), text("D")}, path("mine/link/new")},
      {5, {text(path("mine/link/new")), text("F")}, path("mine/link/new")},
      {6, {text(path("mine/link/file")), text(path("moved"))}, path("mine/link/file")},
      {6, {text(path("other")), text(path("mine/link/other"))}, path("mine/link/other")},
      {7, {text("1"), text(path("mine/link/file"))}, path("mine/link/file")},
      {8, {text(path("mine/link/dir"))}, path("mine/link/dir")},
      {9, {text(path("mine/link/file"))}, path("mine/link/file")},
      {10, {text(path("mine/file-link")), number(1), number(0), number(0)}, path("mine/file-link")},
      {11, {text(path("mine/file-link"))}, path("mine/file-link")},
      {12, {text(path("mine/link/file")), number(1), number(1), number(0)}, path("mine/link/file")},
      {13, {text(path("mine/link/new")), text("anywhere"), number(0)}, path("mine/link/new")},
      {13, {text(path("mine/link/new")), text(path("other")), number(1)}, path("mine/link/new")},
      {13, {text(path("hard")), text(path("mine/link/file")), number(1)}, path("mine/link/file")},
      {48, {text(path("mine/file-link"))}, path("mine/file-link")},
      {49, {text(path("mine/link"))}, path("mine/link")},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.code);
    expectResult(run(c.code, c.arguments), kPosixErrorDomain, EACCES, c.failingPath);
  }
  (void)m_client.messages();
  EXPECT_EQ(contentsOf(secret), "root");
  EXPECT_EQ(statusOf(secret).st_mtime, 1000);
  EXPECT_EQ(flagsOf("vault/file"), 0u);
  EXPECT_EQ(readHfsCodes(secret, LinkHandling::NoFollow).valueOr({}), (HfsCodes{}));
  EXPECT_TRUE(exists("vault/dir") && exists("other"));
  EXPECT_FALSE(exists("vault/new") || exists("vault/other") || exists("vault/file.backup") ||
               exists("moved") || exists("hard"));

  // A command that does not follow a final link acts on the user's link itself, as before.
  expectSuccess(kCommandDeleteFileObjects, {text("1"), text(path("mine/file-link"))});
  EXPECT_FALSE(exists("mine/file-link"));
  EXPECT_EQ(contentsOf(secret), "root");
}

// Whatever the client sends, every command answers with a result code.
TEST_F(ObjectCommandTest, HostilePathsGetAnAnswerNeverACrash) {
  m_tree.makeFolder("cwd");
  UniqueFd savedDirectory(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::chdir(path("cwd").c_str()), 0);  // ".." stays inside the tree
  std::string deep = path("cwd");
  while (deep.size() < 5000) deep += "/long-name";
  const std::string paths[] = {
      "", "..", "../cwd/..", deep, "\xff", "a/../..b", std::string("x\0/etc", 6)};
  for (const std::string& p : paths) {
    const Array commands[] = {
        {text(p), Value(Data{1}), number(1)},  // code 4 ...
        {text(p), text("F")},
        {text(p), text(p)},
        {text("1"), text(p), text(p)},
        {text(p)},
        {text(p)},
        {text(p), number(1), number(1), number(1)},
        {text(p)},
        {text(p), number(-1), number(1), number(0)},
        {text(p), text(p), number(1)},
        {text(p)},
        {text(p)},  // ... code 49
    };
    const std::uint32_t codes[] = {4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 48, 49};
    for (std::size_t i = 0; i < std::size(codes); ++i) {
      CommandResult result = run(codes[i], commands[i]);
      ASSERT_TRUE(result.has_value()) << codes[i];
      EXPECT_TRUE(result->domain() == kCommandErrorDomain || result->domain() == kPosixErrorDomain);
    }
    (void)m_client.messages();
  }
  ASSERT_EQ(::fchdir(savedDirectory.get()), 0);
}

}  // namespace
}  // namespace krv
