#include "platform/AccessControlListStorage.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>
#include <vector>

#include "tests/support/ChildProcess.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

// Users without passwd entries; the kernel needs none to check their access.
constexpr test::Identity kReader{4242, 4242};
constexpr test::Identity kWriterGroupMember{4343, 4343};
constexpr test::Identity kStranger{4444, 4444};

using Kind = PosixAclNamedEntry::Kind;

ExtendedAcl listOf(std::vector<ExtendedAclEntry> entries) {
  ExtendedAcl list;
  list.entries = std::move(entries);
  return list;
}

ExtendedAclEntry allowUser(uid_t uid, std::uint32_t rights, std::uint32_t flags = 0) {
  return {userUuid(uid), AclEntryKind::Allow, flags, rights};
}

// Whether `who` may open `path` so: asked of the kernel by a process running as that user.
bool canOpen(test::Identity who, const std::string& path, int flags) {
  Result<int> code = test::runAs(who, [&] {
    const int fd = ::open(path.c_str(), flags | O_CLOEXEC | O_NOCTTY);
    if (fd < 0) return 1;
    ::close(fd);
    return 0;
  });
  EXPECT_TRUE(code.ok());
  return code.ok() && *code == 0;
}

mode_t permissionBits(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return status.st_mode & 07777;
}

TEST(AccessControlListMirrorTest, AllowEntriesForKnownIdentitiesBecomeNamedEntries) {
  const ExtendedAcl list = listOf({
      allowUser(10, kAclReadData | kAclReadAttributes),
      allowUser(10, kAclExecute, kAclEntryInherited),  // merged with the one above
      {userUuid(11), AclEntryKind::Deny, 0, kAclReadData},
      {groupUuid(12), AclEntryKind::Allow, 0, kAclWriteData | kAclAppendData},
      {Uuid{1, 2, 3}, AclEntryKind::Allow, 0, kAclReadData},  // opaque
      allowUser(13, kAclReadAttributes | kAclWriteSecurity),  // nothing POSIX can say
      allowUser(14, kAclReadData, kAclEntryOnlyInherit | kAclEntryFileInherit),
      allowUser(static_cast<uid_t>(-1), kAclReadData),
      {groupUuid(15), AclEntryKind::Allow, kAclEntryDirectoryInherit, kAclReadData},
  });
  EXPECT_EQ(mirroredAclEntries(list, PosixAclType::Access, 0),
            (std::vector<PosixAclNamedEntry>{
                {Kind::User, 10, kPosixAclRead | kPosixAclExecute},
                {Kind::Group, 12, kPosixAclWrite},
                {Kind::Group, 15, kPosixAclRead},
            }));
  // Others' permissions are never taken away from a named user.
  EXPECT_EQ(mirroredAclEntries(list, PosixAclType::Default, kPosixAclExecute),
            (std::vector<PosixAclNamedEntry>{
                {Kind::User, 14, kPosixAclRead | kPosixAclExecute},
                {Kind::Group, 15, kPosixAclRead | kPosixAclExecute},
            }));
}

class AccessControlListStorageTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_EQ(::chmod(m_tree.root().c_str(), 0711), 0); }

  static PathHandle pin(const std::string& path) {
    Result<PathHandle> handle = PathHandle::open(path, LinkHandling::Follow);
    if (!handle) throw std::runtime_error("cannot pin " + path);
    return std::move(handle).value();
  }
  static std::optional<ExtendedAcl> stored(const std::string& path) {
    Result<std::optional<ExtendedAcl>> list = readAccessControlList(pin(path));
    EXPECT_TRUE(list.ok()) << path;
    return list ? *list : std::nullopt;
  }

  test::TestFileTree m_tree;
};

TEST_F(AccessControlListStorageTest, AllowEntryLetsTheKernelGrantReadingUntilTheListIsRemoved) {
  const std::string file = m_tree.makeFile("secret", "data", 0600);
  ASSERT_FALSE(canOpen(kReader, file, O_RDONLY));

  const ExtendedAcl list = listOf({allowUser(kReader.uid, kAclReadData | kAclReadAttributes)});
  ASSERT_TRUE(writeAccessControlList(pin(file), list).ok());
  EXPECT_TRUE(canOpen(kReader, file, O_RDONLY));
  EXPECT_FALSE(canOpen(kReader, file, O_WRONLY));
  EXPECT_FALSE(canOpen(kStranger, file, O_RDONLY));

  // The record holds the byte form exactly.
  std::uint8_t record[256];
  const Data expected = aclExternalForm(list);
  ASSERT_EQ(::getxattr(file.c_str(), kAccessControlListAttribute, record, sizeof record),
            static_cast<ssize_t>(expected.size()));
  EXPECT_EQ(Data(record, record + expected.size()), expected);
  EXPECT_EQ(stored(file), list);

  ASSERT_TRUE(removeAccessControlList(pin(file)).ok());
  EXPECT_FALSE(canOpen(kReader, file, O_RDONLY));
  EXPECT_EQ(stored(file), std::nullopt);
  EXPECT_EQ(permissionBits(file), 0600U);
  EXPECT_TRUE(removeAccessControlList(pin(file)).ok());  // nothing left to remove
}

TEST_F(AccessControlListStorageTest, DenyEntriesAreKeptInTheRecordButNotEnforced) {
  const std::string file = m_tree.makeFile("shared", "data", 0644);
  const ExtendedAcl list = listOf({
      {userUuid(kReader.uid), AclEntryKind::Deny, 0, kAclReadData},
      {groupUuid(kWriterGroupMember.gid), AclEntryKind::Allow, 0, kAclWriteData},
  });
  ASSERT_TRUE(writeAccessControlList(pin(file), list).ok());
  EXPECT_EQ(stored(file), list);
  EXPECT_TRUE(canOpen(kReader, file, O_RDONLY));
  // The group entry adds writing and keeps the reading everyone has.
  EXPECT_TRUE(canOpen(kWriterGroupMember, file, O_RDWR));
  EXPECT_FALSE(canOpen(kStranger, file, O_WRONLY));
}

TEST_F(AccessControlListStorageTest, OwningGroupKeepsItsOwnPermissionsAcrossWritesAndRemoval) {
  // Once a list is mirrored the mode's group bits are the mask; they must never be taken for the
  // owning group's permissions.
  const test::Identity groupMember{4545, 4646};
  const std::string file = m_tree.makeFile("private", "data", 0600);
  ASSERT_EQ(::chown(file.c_str(), 0, groupMember.gid), 0);
  const ExtendedAcl list = listOf({allowUser(kReader.uid, kAclReadData)});
  for (int round = 0; round < 2; ++round) {
    ASSERT_TRUE(writeAccessControlList(pin(file), list).ok());
    EXPECT_TRUE(canOpen(kReader, file, O_RDONLY));
    EXPECT_FALSE(canOpen(groupMember, file, O_RDONLY)) << "round " << round;
  }
  ASSERT_TRUE(writeAccessControlList(pin(file), listOf({})).ok());
  EXPECT_FALSE(canOpen(kReader, file, O_RDONLY));
  EXPECT_EQ(permissionBits(file), 0600U);
  ASSERT_TRUE(writeAccessControlList(pin(file), list).ok());
  ASSERT_TRUE(removeAccessControlList(pin(file)).ok());
  EXPECT_EQ(permissionBits(file), 0600U);
  EXPECT_FALSE(canOpen(groupMember, file, O_RDONLY));
}

TEST_F(AccessControlListStorageTest, FolderPassesInheritableEntriesToObjectsCreatedInIt) {
  const std::string folder = m_tree.makeFolder("folder", 0701);
  const ExtendedAcl list = listOf({
      allowUser(kReader.uid, kAclReadData | kAclExecute,
                kAclEntryFileInherit | kAclEntryDirectoryInherit),
      allowUser(kWriterGroupMember.uid, kAclReadData, kAclEntryFileInherit | kAclEntryOnlyInherit),
  });
  ASSERT_TRUE(writeAccessControlList(pin(folder), list).ok());
  EXPECT_TRUE(canOpen(kReader, folder, O_RDONLY | O_DIRECTORY));
  // An only-inherit entry gives nothing on the folder itself.
  EXPECT_FALSE(canOpen(kWriterGroupMember, folder, O_RDONLY | O_DIRECTORY));

  const std::string created = m_tree.makeFile("folder/created", "data", 0640);
  EXPECT_TRUE(canOpen(kReader, created, O_RDONLY));
  EXPECT_TRUE(canOpen(kWriterGroupMember, created, O_RDONLY));
  EXPECT_FALSE(canOpen(kStranger, created, O_RDONLY));
  EXPECT_FALSE(canOpen(kReader, created, O_WRONLY));
  // The kernel copies the POSIX entries; the record stays with the folder.
  EXPECT_EQ(stored(created), std::nullopt);

  // A list that inherits nothing takes the folder's default ACL away.
  ASSERT_TRUE(
      writeAccessControlList(pin(folder), listOf({allowUser(kReader.uid, kAclReadData)})).ok());
  EXPECT_FALSE(canOpen(kReader, m_tree.makeFile("folder/later", "data", 0640), O_RDONLY));
  ASSERT_TRUE(writeAccessControlList(pin(folder), list).ok());
  ASSERT_TRUE(removeAccessControlList(pin(folder)).ok());
  EXPECT_FALSE(canOpen(kReader, m_tree.makeFile("folder/last", "data", 0640), O_RDONLY));
  EXPECT_FALSE(canOpen(kReader, folder, O_RDONLY | O_DIRECTORY));
  EXPECT_EQ(permissionBits(folder), 0701U);
}

TEST_F(AccessControlListStorageTest, RecordsThatAreNotListsAndListsWithoutAByteFormAreRefused) {
  const std::string file = m_tree.makeFile("file", "data", 0600);
  ASSERT_EQ(::setxattr(file.c_str(), kAccessControlListAttribute, "junk", 4, 0), 0);
  Result<std::optional<ExtendedAcl>> junk = readAccessControlList(pin(file));
  ASSERT_FALSE(junk.ok());
  EXPECT_EQ(junk.error().code(), EINVAL);

  const std::vector<std::uint8_t> huge(kAclMaximumExternalSize + 24, 0);
  ASSERT_EQ(::setxattr(file.c_str(), kAccessControlListAttribute, huge.data(), huge.size(), 0), 0);
  EXPECT_EQ(readAccessControlList(pin(file)).error().code(), EINVAL);

  ExtendedAcl tooLong;
  tooLong.entries.assign(kAclMaximumEntries + 1, allowUser(kReader.uid, kAclReadData));
  EXPECT_EQ(writeAccessControlList(pin(file), tooLong).error().code(), EINVAL);
  EXPECT_FALSE(canOpen(kReader, file, O_RDONLY));
}

TEST_F(AccessControlListStorageTest, FileSystemsWithoutAttributesHaveNoListsAndTakeNone) {
  const std::string mountPoint = m_tree.makeFolder("mnt");
  const ExtendedAcl list = listOf({allowUser(kReader.uid, kAclReadData)});
  auto attempt = [&](test::Facts& facts) {
    const std::string file = m_tree.makeFile("mnt/file", "data", 0600);
    Status written = writeAccessControlList(pin(file), list);
    std::string answer = written ? "written" : "refused " + std::to_string(written.error().code());
    Result<std::optional<ExtendedAcl>> read = readAccessControlList(pin(file));
    answer += !read ? " unreadable" : *read == list ? " read" : *read ? " wrong" : " none";
    answer += removeAccessControlList(pin(file)) ? " removed" : " stuck";
    facts["list"] = answer;
  };
  EXPECT_EQ(test::inPrivateMount(mountPoint, "ramfs", attempt)["list"],
            "refused " + std::to_string(EOPNOTSUPP) + " none removed");
  // The daemon's /tmp is a tmpfs: lists work there.
  EXPECT_EQ(test::inPrivateMount(mountPoint, "tmpfs", attempt)["list"], "written read removed");
}

}  // namespace
}  // namespace krv
