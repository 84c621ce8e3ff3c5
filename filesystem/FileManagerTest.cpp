#include "filesystem/FileManager.h"

#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "platform/FileFlags.h"
#include "platform/TestFileTree.h"
#include "protocol/CommandTable.h"

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
  m_tree.makeFolder("folder");
  m_tree.makeLink("link", "file");
  m_tree.makeFifo("fifo");
  int sock = ::socket(AF_UNIX, SOCK_STREAM, 0);
  struct sockaddr_un address {};
  address.sun_family = AF_UNIX;
  std::string socketPath = m_tree.path("socket");
  ASSERT_LT(socketPath.size(), sizeof address.sun_path);
  std::copy(socketPath.begin(), socketPath.end(), address.sun_path);
  ASSERT_EQ(::bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ::close(sock);

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
  m_tree.makeFolder("tree/sub");
  m_tree.makeFile("tree/sub/file", "x");
  m_tree.makeLink("tree/link", "sub");
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

}  // namespace
}  // namespace krv
