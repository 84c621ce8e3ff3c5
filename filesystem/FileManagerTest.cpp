#include "filesystem/FileManager.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "filesystem/FileManagerAdditions.h"
#include "foundation/UserInformationKeys.h"
#include "platform/FileFlags.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

std::string failingPath(const Error& error) {
  const Value* path = error.userInfo().find(key::kFailingPath);
  return path != nullptr && path->asString() != nullptr ? *path->asString() : "<none>";
}

struct stat lstatOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status;
}

class FileManagerTest : public ::testing::Test {
 protected:
  // Expects a POSIX failure with the given code and FailingPath.
  template <class R>
  static void expectFailure(const R& result, int code, const std::string& path) {
    ASSERT_FALSE(result.ok());
    EXPECT_TRUE(result.error().isPosix());
    EXPECT_EQ(result.error().code(), code);
    EXPECT_EQ(failingPath(result.error()), path);
  }

  test::TestFileTree m_tree;
};

TEST_F(FileManagerTest, AttributesNameEveryTypeAndDescribeTheObjectItself) {
  m_tree.makeFile("file", "12345", 04751);
  m_tree.make({"folder/", "link -> file", "fifo|"});
  const std::string socketPath = m_tree.path("socket");
  ASSERT_EQ(::mknod(socketPath.c_str(), S_IFSOCK | 0600, 0), 0);

  struct Case {
    std::string path;
    std::string_view type;
  } cases[] = {{m_tree.path("file"), kFileTypeRegular},
               {m_tree.path("folder"), kFileTypeDirectory},
               {m_tree.path("link"), kFileTypeSymbolicLink},
               {m_tree.path("fifo"), kFileTypeUnknown},
               {socketPath, kFileTypeSocket},
               {"/dev/null", kFileTypeCharacterSpecial}};
  for (const Case& c : cases) {
    Result<FileAttributes> attributes = FileManager::attributesOfItem(c.path);
    ASSERT_TRUE(attributes.ok()) << c.path;
    EXPECT_EQ(attributes->type, c.type) << c.path;
    struct stat status = lstatOf(c.path);
    EXPECT_EQ(attributes->systemFileNumber, status.st_ino);
    EXPECT_EQ(attributes->systemNumber, status.st_dev);
    EXPECT_EQ(attributes->deviceIdentifier, status.st_rdev);
    EXPECT_EQ(attributes->size, static_cast<std::uint64_t>(status.st_size));
    EXPECT_EQ(attributes->posixPermissions, status.st_mode & 07777);
  }

  ASSERT_TRUE(writeHfsCodes(m_tree.path("file"), {0x41424344, 7}, LinkHandling::NoFollow).ok());
  ASSERT_TRUE(writeFileFlags(m_tree.path("file"), kUserAppendFlag | kHiddenFlag).ok());
  FileAttributes file = *FileManager::attributesOfItem(m_tree.path("file"));
  EXPECT_EQ(file.size, 5U);
  EXPECT_EQ(file.posixPermissions, 04751U);
  EXPECT_EQ(file.ownerAccountName, "root");
  EXPECT_EQ(file.referenceCount, 1U);
  EXPECT_GT(file.creationDate.secondsSince1970, 0.0);  // ext4 keeps birth times
  EXPECT_EQ(file.flags, kUserAppendFlag | kHiddenFlag);
  EXPECT_TRUE(file.appendOnly);
  EXPECT_FALSE(file.immutable);
  EXPECT_EQ(file.hfsTypeCode, 0x41424344U);
  EXPECT_EQ(file.hfsCreatorCode, 7U);

  expectFailure(FileManager::attributesOfItem(m_tree.path("missing")), ENOENT,
                m_tree.path("missing"));
  expectFailure(FileManager::attributesOfItem(std::string("file\0x", 6)), EINVAL,
                std::string("file\0x", 6));
}

TEST_F(FileManagerTest, SetAttributesAppliesEverythingAndImmutabilityLast) {
  std::string file = m_tree.makeFile("file", "", 0600);
  FileAttributeChanges changes;
  changes.ownerAccountId = 1234;
  changes.groupOwnerAccountId = 5678;
  changes.posixPermissions = 06754;  // set-id bits survive the chown before them
  changes.flags = kUserImmutableFlag | kNoDumpFlag;
  changes.hfsTypeCode = 0x54455854;
  changes.modificationDate = Date{1000000000.25};
  changes.creationDate = Date{1.0};
  ASSERT_TRUE(FileManager::setAttributes(changes, file).ok());
  FileAttributes after = *FileManager::attributesOfItem(file);
  EXPECT_EQ(after.ownerAccountId, 1234U);
  EXPECT_EQ(after.groupOwnerAccountId, 5678U);
  EXPECT_EQ(after.posixPermissions, 06754U);
  EXPECT_EQ(after.flags, kUserImmutableFlag | kNoDumpFlag);
  EXPECT_EQ(after.hfsTypeCode, 0x54455854U);
  EXPECT_EQ(after.hfsCreatorCode, 0U);
  EXPECT_DOUBLE_EQ(after.modificationDate.secondsSince1970, 1000000000.25);

  // Lifting the protection comes first, so the other changes get through.
  changes = {};
  changes.flags = 0;
  changes.posixPermissions = 0640;
  changes.ownerAccountId = 0;
  ASSERT_TRUE(FileManager::setAttributes(changes, file).ok());
  after = *FileManager::attributesOfItem(file);
  EXPECT_EQ(after.flags, 0U);
  EXPECT_EQ(after.posixPermissions, 0640U);
  EXPECT_EQ(after.ownerAccountId, 0U);

  // While the protection stays, a real change is refused; re-applying what is there is not.
  ASSERT_TRUE(writeFileFlags(file, kSystemImmutableFlag).ok());
  FileAttributeChanges same =
      FileAttributeChanges::reapplying(*FileManager::attributesOfItem(file));
  EXPECT_TRUE(FileManager::setAttributes(same, file).ok());
  changes = {};
  changes.posixPermissions = 0600;
  expectFailure(FileManager::setAttributes(changes, file), EPERM, file);
}

TEST_F(FileManagerTest, SetAttributesOnALinkLeavesItsDestinationAlone) {
  std::string file = m_tree.makeFile("file", "", 0600);
  std::string link = m_tree.makeLink("link", "file");
  FileAttributeChanges changes;
  changes.posixPermissions = 0777;
  changes.ownerAccountId = 4321;
  ASSERT_TRUE(FileManager::setAttributes(changes, link).ok());
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0600U);
  EXPECT_EQ(lstatOf(file).st_uid, 0U);
  EXPECT_EQ(lstatOf(link).st_uid, 4321U);

  changes = {};
  changes.flags = kUserImmutableFlag;
  expectFailure(FileManager::setAttributes(changes, link), EOPNOTSUPP, link);
  changes = {};
  changes.hfsCreatorCode = 1;
  expectFailure(FileManager::setAttributes(changes, link), EPERM, link);
  EXPECT_EQ(test::kernelFlags(file) & FS_IMMUTABLE_FL, 0);
}

TEST_F(FileManagerTest, CreationRefusesExistingObjectsAndIgnoresTheCreationMask) {
  FileAttributeChanges attributes;
  attributes.posixPermissions = 0755;
  attributes.ownerAccountId = 0;
  attributes.groupOwnerAccountId = 0;
  mode_t previous = ::umask(077);
  std::string folder = m_tree.path("folder");
  std::string file = m_tree.path("file");
  const std::uint8_t contents[] = {'h', 'i'};
  Status madeFolder = FileManager::createDirectory(folder, attributes);
  Status madeFile = FileManager::createFile(file, contents, attributes);
  ::umask(previous);
  ASSERT_TRUE(madeFolder.ok());
  ASSERT_TRUE(madeFile.ok());
  EXPECT_EQ(lstatOf(folder).st_mode & 07777, 0755U);
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0755U);
  EXPECT_EQ(lstatOf(file).st_size, 2);

  expectFailure(FileManager::createDirectory(folder, attributes), EEXIST, folder);
  expectFailure(FileManager::createFile(file, {}, attributes), EEXIST, file);
  // A dangling link is something: it is neither followed nor replaced.
  std::string dangling = m_tree.makeLink("dangling", "target");
  expectFailure(FileManager::createFile(dangling, {}, attributes), EEXIST, dangling);
  EXPECT_FALSE(m_tree.exists("target"));
  expectFailure(FileManager::createDirectory(m_tree.path("no/folder"), attributes), ENOENT,
                m_tree.path("no/folder"));
}

TEST_F(FileManagerTest, WriteContentsTruncatesAndOpensNothingButRegularFiles) {
  std::string file = m_tree.makeFile("file", "a long old content", 0640);
  const std::uint8_t data[] = {'n', 'e', 'w'};
  ASSERT_TRUE(FileManager::writeContents(file, data).ok());
  EXPECT_EQ(lstatOf(file).st_size, 3);
  EXPECT_EQ(lstatOf(file).st_mode & 07777, 0640U);

  std::string fresh = m_tree.path("fresh");
  ASSERT_TRUE(FileManager::writeContents(fresh, data).ok());
  EXPECT_EQ(lstatOf(fresh).st_mode & 07777, 0600U);

  // A FIFO without a reader would block an open for writing for ever.
  expectFailure(FileManager::writeContents(m_tree.makeFifo("fifo"), data), EINVAL,
                m_tree.path("fifo"));
  expectFailure(FileManager::writeContents(m_tree.makeLink("link", "file"), data), ELOOP,
                m_tree.path("link"));
  expectFailure(FileManager::writeContents(m_tree.root(), data), EISDIR, m_tree.root());
}

TEST_F(FileManagerTest, LinksAndListings) {
  std::string file = m_tree.makeFile("file", "x");
  std::string link = m_tree.path("link");
  ASSERT_TRUE(FileManager::createSymbolicLink(link, "file").ok());
  EXPECT_EQ(*FileManager::destinationOfSymbolicLink(link), "file");
  expectFailure(FileManager::destinationOfSymbolicLink(file), EINVAL, file);
  expectFailure(FileManager::createSymbolicLink(link, "other"), EEXIST, link);

  std::string hard = m_tree.path("hard");
  ASSERT_TRUE(FileManager::linkItem(file, hard).ok());
  EXPECT_EQ(lstatOf(hard).st_ino, lstatOf(file).st_ino);
  expectFailure(FileManager::linkItem(file, hard), EEXIST, hard);
  expectFailure(FileManager::linkItem(m_tree.path("missing"), m_tree.path("x")), ENOENT,
                m_tree.path("missing"));
  // A link is linked itself, not its destination.
  ASSERT_TRUE(FileManager::linkItem(link, m_tree.path("link2")).ok());
  EXPECT_TRUE(S_ISLNK(lstatOf(m_tree.path("link2")).st_mode));

  m_tree.makeFolder("folder");
  std::vector<std::string> names = *FileManager::contentsOfDirectory(m_tree.root());
  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{"file", "folder", "hard", "link", "link2"}));
  EXPECT_TRUE(FileManager::contentsOfDirectory(m_tree.path("folder"))->empty());
  expectFailure(FileManager::contentsOfDirectory(file), ENOTDIR, file);

  bool isDirectory = true;
  EXPECT_TRUE(FileManager::fileExists(link, isDirectory));
  EXPECT_FALSE(isDirectory);
  EXPECT_TRUE(FileManager::fileExists(m_tree.makeLink("to-folder", "folder"), isDirectory));
  EXPECT_TRUE(isDirectory);
  EXPECT_FALSE(FileManager::fileExists(m_tree.makeLink("dangling", "missing")));
  EXPECT_FALSE(FileManager::fileExists(""));
  EXPECT_FALSE(FileManager::fileExists(std::string("file\0", 5)));
}

TEST_F(FileManagerTest, LinkingAFolderRecreatesItAndLinksItsContents) {
  m_tree.makeFolder("tree", 0751);
  m_tree.make({"tree/sub/", "tree/sub/file", "tree/link -> sub"});
  ASSERT_TRUE(FileManager::linkItem(m_tree.path("tree"), m_tree.path("copy")).ok());
  EXPECT_EQ(lstatOf(m_tree.path("copy")).st_mode & 07777, 0751U);
  EXPECT_NE(lstatOf(m_tree.path("copy")).st_ino, lstatOf(m_tree.path("tree")).st_ino);
  EXPECT_EQ(lstatOf(m_tree.path("copy/sub/file")).st_ino,
            lstatOf(m_tree.path("tree/sub/file")).st_ino);
  EXPECT_EQ(lstatOf(m_tree.path("copy/link")).st_ino, lstatOf(m_tree.path("tree/link")).st_ino);
  // Into itself is refused rather than walked for ever.
  expectFailure(FileManager::linkItem(m_tree.path("tree"), m_tree.path("tree/sub/again")), EINVAL,
                m_tree.path("tree/sub/again"));
}

TEST_F(FileManagerTest, HiddenFlagIsOneBitAmongTheOthersAndALinkIsHiddenOnItsOwn) {
  std::string file = m_tree.makeFile("file");
  EXPECT_FALSE(isHiddenObject(""));
  EXPECT_FALSE(isHiddenObject(m_tree.path("missing")));
  EXPECT_FALSE(isHiddenObject(file));

  ASSERT_TRUE(writeFileFlags(file, kUserImmutableFlag | kNoDumpFlag).ok());
  ASSERT_TRUE(setHidden(true, file).ok());
  EXPECT_TRUE(isHiddenObject(file));
  EXPECT_EQ(*readFileFlags(file, LinkHandling::NoFollow),
            kUserImmutableFlag | kNoDumpFlag | kHiddenFlag);
  ASSERT_TRUE(setHidden(false, file).ok());
  EXPECT_EQ(*readFileFlags(file, LinkHandling::NoFollow), kUserImmutableFlag | kNoDumpFlag);

  std::string link = m_tree.makeLink("link", "file");
  ASSERT_TRUE(setHidden(true, link).ok());
  EXPECT_TRUE(isHiddenObject(link));
  EXPECT_FALSE(isHiddenObject(file));
  expectFailure(setHidden(true, ""), EINVAL, "");
  expectFailure(setHidden(true, m_tree.path("missing")), ENOENT, m_tree.path("missing"));
}

TEST_F(FileManagerTest, TraversalFollowsExactlyOneLinkFromTheLinksFolder) {
  // A "target" in the working folder would be found by a path taken relative to it by mistake.
  m_tree.makeFile("target", "1");
  m_tree.make({"d/", "d/relative -> target", "absolute -> " + m_tree.path("d/target"),
               "twice -> d/relative", "d/dangling -> gone"});
  m_tree.makeFile("d/target", "12345");
  char previous[PATH_MAX];
  ASSERT_NE(::getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(::chdir(m_tree.root().c_str()), 0);
  auto typeAndSize = [&](const char* name, LinkTraversal traversal) {
    Result<FileAttributes> found = FileManager::attributesOfItem(m_tree.path(name), traversal);
    return found ? std::string(found->type) + " " + std::to_string(found->size)
                 : std::to_string(found.error().code()) + " " + failingPath(found.error());
  };
  const std::vector<std::string> found = {
      typeAndSize("d/relative", LinkTraversal::OneLevel),
      typeAndSize("absolute", LinkTraversal::OneLevel),
      typeAndSize("twice", LinkTraversal::OneLevel),  // the second link itself
      typeAndSize("d/dangling", LinkTraversal::OneLevel),
      typeAndSize("d/target", LinkTraversal::OneLevel),
      typeAndSize("d/relative", LinkTraversal::None),
  };
  ASSERT_EQ(::chdir(previous), 0);
  const std::string file = std::string(kFileTypeRegular) + " 5";
  const std::string link = std::string(kFileTypeSymbolicLink) + " ";
  EXPECT_EQ(found, (std::vector<std::string>{file, file, link + "6",
                                             std::to_string(ENOENT) + " " + m_tree.path("d/gone"),
                                             file, link + "6"}));
}

TEST_F(FileManagerTest, RemovalRefusesWhatMustNotGoAndNeverFollowsALink) {
  m_tree.makeFolder("tree");
  struct Case {
    std::string path;
    int code;
  } cases[] = {{"/", EBUSY},
               {m_tree.path("tree/."), EINVAL},
               {m_tree.path("missing"), ENOENT},
               {"", ENOENT},
               {m_tree.path("missing/x"), ENOENT}};
  for (const Case& c : cases) expectFailure(FileManager::removeItem(c.path), c.code, c.path);

  // A trailing slash does not turn the link into its folder.
  m_tree.make({"tree/precious", "link -> tree"});
  ASSERT_TRUE(FileManager::removeItem(m_tree.path("link/")).ok());
  EXPECT_FALSE(m_tree.exists("link"));
  EXPECT_TRUE(m_tree.exists("tree/precious"));
}

TEST_F(FileManagerTest, EnumeratorWalksPreOrderAndStaysOutOfLinks) {
  const std::string base = m_tree.makeFolder("base");
  m_tree.make({"base/a/", "base/a/x", "base/a/y/", "base/a/y/z", "base/b -> a", "base/c"});
  auto walk = [](const std::string& top, const std::string& skipAfter = "") {
    std::set<std::string> seen;
    Result<FileManagerEnumerator> enumerator = FileManager::enumerator(top);
    while (std::optional<std::string> path = enumerator->nextObject()) {
      EXPECT_TRUE(seen.insert(*path).second) << *path;
      // Pre-order: a parent always came first.
      EXPECT_TRUE(path->find('/') == std::string::npos ||
                  seen.count(path->substr(0, path->rfind('/'))) == 1)
          << *path;
      if (*path == skipAfter) enumerator->skipDescendents();
    }
    return seen;
  };
  EXPECT_EQ(walk(base), (std::set<std::string>{"a", "a/x", "a/y", "a/y/z", "b", "c"}));
  EXPECT_EQ(walk(base, "a"), (std::set<std::string>{"a", "b", "c"}));
  EXPECT_EQ(walk(m_tree.path("base/b")), (std::set<std::string>{"x", "y", "y/z"}));
  EXPECT_FALSE(FileManager::enumerator(m_tree.path("base/c")).ok());
}

// A folder bind-mounted into its own subtree: every walk of the file manager stops there, as at a
// folder it cannot enter, instead of going round until its depth limit.
TEST_F(FileManagerTest, WalksDoNotEnterAFolderMountedIntoItsOwnSubtree) {
  const std::string volume = m_tree.makeFolder("volume");
  test::Facts facts = test::inPrivateMount(volume, "tmpfs", [&](test::Facts& seen) {
    for (const char* folder : {"/a", "/a/b", "/a/b/loop"}) {
      if (::mkdir((volume + folder).c_str(), 0755) != 0) return;
    }
    if (::close(::creat((volume + "/a/f").c_str(), 0644)) != 0) return;
    if (::mount((volume + "/a").c_str(), (volume + "/a/b/loop").c_str(), nullptr, MS_BIND,
                nullptr) != 0) {
      seen["child"] = "bind";
      return;
    }
    auto failure = [](const Status& status) {
      return status ? std::string("none")
                    : std::to_string(status.error().code()) + " " + failingPath(status.error());
    };
    Result<FileManagerEnumerator> walk = FileManager::enumerator(volume + "/a");
    if (!walk) return;
    std::vector<std::string> paths;
    while (std::optional<std::string> path = walk->nextObject()) paths.push_back(*path);
    std::sort(paths.begin(), paths.end());
    for (const std::string& path : paths) seen["walk"] += path + " ";
    seen["walk failure"] = walk->firstError() ? failure(*walk->firstError()) : "none";
    seen["link failure"] = failure(FileManager::linkItem(volume + "/a", volume + "/copy"));
    seen["copy"] = ::access((volume + "/copy").c_str(), F_OK) == 0 ? "kept" : "undone";
    seen["removal failure"] = failure(FileManager::removeItem(volume + "/a"));
  });
  if (facts.contains("child")) GTEST_SKIP() << facts["child"];
  const std::string loop = std::to_string(ELOOP) + " " + volume + "/a/b/loop";
  EXPECT_EQ(facts["walk"], "b b/loop f ");
  EXPECT_EQ(facts["walk failure"], std::to_string(ELOOP) + " b/loop");
  EXPECT_EQ(facts["link failure"], loop);
  EXPECT_EQ(facts["copy"], "undone");
  EXPECT_EQ(facts["removal failure"], loop);
}

TEST_F(FileManagerTest, ATreeDeeperThanTheWalkGoesIsReportedNotFollowed) {
  // Built relative to open folders: the paths are far longer than PATH_MAX.
  UniqueFd folder(::open(m_tree.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  const std::size_t depth = FileManagerEnumerator::kMaximumDepth + 2;
  for (std::size_t level = 0; level < depth; ++level) {
    ASSERT_EQ(::mkdirat(folder.get(), "d", 0755), 0);
    folder.reset(::openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    ASSERT_TRUE(folder.valid());
  }
  Result<FileManagerEnumerator> walk = FileManager::enumerator(m_tree.root());
  ASSERT_TRUE(walk);
  std::size_t count = 0;
  while (walk->nextObject()) ++count;
  EXPECT_EQ(count, FileManagerEnumerator::kMaximumDepth);
  ASSERT_TRUE(walk->firstError());
  EXPECT_EQ(walk->firstError()->code(), ELOOP);
  // The removal reports the same limit instead of following it.
  Status removed = FileManager::removeItem(m_tree.path("d"));
  ASSERT_FALSE(removed);
  EXPECT_EQ(removed.error().code(), ELOOP);
  // Without the two deepest levels, removed by hand, the removal reaches every level.
  folder.reset(::open(m_tree.root().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (std::size_t level = 0; level + 2 < depth; ++level) {
    folder.reset(::openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  UniqueFd last(::openat(folder.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::unlinkat(last.get(), "d", AT_REMOVEDIR), 0);
  ASSERT_EQ(::unlinkat(folder.get(), "d", AT_REMOVEDIR), 0);
  EXPECT_TRUE(FileManager::removeItem(m_tree.path("d")));
}

}  // namespace
}  // namespace krv
