#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <tuple>

#include "executor/PermissionPropagation.h"
#include "platform/AccessControlListStorage.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::text;
using test::textOf;

// An ordinary user and group without passwd entries; the kernel needs none.
constexpr uid_t kUser = 4242;
constexpr gid_t kGroup = 4343;

struct Settings {
  uid_t owner;
  gid_t group;
  mode_t mode;
  bool operator==(const Settings&) const = default;
};

Settings settingsOf(const std::string& path) {
  struct stat status {};
  EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
  return {status.st_uid, status.st_gid, status.st_mode & 07777};
}

void give(const std::string& path, uid_t owner, gid_t group, mode_t mode) {
  ASSERT_EQ(::lchown(path.c_str(), owner, group), 0) << path;
  ASSERT_EQ(::chmod(path.c_str(), mode), 0) << path;
}

ExtendedAcl allowReading(uid_t uid) {
  ExtendedAcl list;
  list.entries.push_back({userUuid(uid), AclEntryKind::Allow, 0, kAclReadData});
  return list;
}

std::optional<ExtendedAcl> storedList(const std::string& path) {
  Result<PathHandle> object = PathHandle::open(path, LinkHandling::Follow);
  if (!object) return std::nullopt;
  return readAccessControlList(*object).valueOr(std::nullopt);
}

TEST(PermissionPropagationTest, CopiesEachClassByTheDirectoryBitAlone) {
  struct Case {
    mode_t object;
    mode_t folder;
    std::uint32_t mask;
    mode_t expected;
  };
  const Case cases[] = {
      {S_IFREG | 0755, 0700, 0x08, 0755},  // a file keeps its own owner-execute bit
      {S_IFREG | 0755, 0500, 0x08, 0555},
      {S_IFDIR | 0755, 0500, 0x08, 0555},
      {S_IFDIR | 0700, 0751, 0x02, 0701},  // others-execute reaches a folder...
      {S_IFREG | 0640, 0751, 0x02, 0640},  // ...never a file
      {S_IFBLK | 0600, 0755, 0x06, 0655},  // block devices and sockets have the 0x4000 bit
      {S_IFSOCK | 0600, 0705, 0x02, 0605},
      {S_IFCHR | 0600, 0777, 0x06, 0666},  // character devices and FIFOs do not
      {S_IFIFO | 0600, 0777, 0x06, 0666},
      {S_IFREG | 04755, 0500, 0x08, 04555},  // set-id and sticky bits stay
      {S_IFDIR | 03777, 0700, 0x0E, 03700},
      {S_IFREG | 0644, 0777, 0xFFFFFFF1, 0644},  // no class asked for
  };
  for (const Case& c : cases) {
    EXPECT_EQ(PermissionPropagation::propagatedMode(c.object, c.folder, c.mask), c.expected)
        << std::oct << c.object << " under " << c.folder << " with mask " << std::hex << c.mask;
  }
}

class PermissionCommandTest : public test::FileCommandTest {
 protected:
  void SetUp() override { ASSERT_EQ(::chmod(m_tree.root().c_str(), 0711), 0); }

  CommandResult propagate(const std::string& folder, std::uint32_t mask, std::uint64_t count = 0,
                          bool stay = false) {
    return run(kCommandPropagatePermissions, {text(folder), Value::unsignedInteger(count),
                                              Value::boolean(stay), Value::unsignedInteger(mask)});
  }
  CommandResult setList(const std::string& object, const Data& data) {
    return run(kCommandModifyAclPermissions, {text(object), Value(data)});
  }
  void expectSuccess(const CommandResult& result) {
    expectResult(result, kCommandErrorDomain, kResultSuccess);
  }
  static void expectOutcome(const CommandResult& result, std::int64_t code, const std::string& at,
                            int errnoValue) {
    expectResult(result, kCommandErrorDomain, code, at);
    if (result) {
      EXPECT_EQ(textOf(*result, "UnderlyingErrorCode"), std::to_string(errnoValue));
    }
  }
  // "name": a folder of the user's with the given mode, holding file (0640), sub/ (0700) and
  // sub/deep (0600), all root's.
  std::string makeSource(const std::string& name, mode_t mode) {
    make({name + "/", name + "/file", name + "/sub/", name + "/sub/deep"});
    give(path(name), kUser, kGroup, mode);
    give(path(name + "/file"), 0, 0, 0640);
    give(path(name + "/sub"), 0, 0, 0700);
    give(path(name + "/sub/deep"), 0, 0, 0600);
    return path(name);
  }
};

TEST_F(PermissionCommandTest, EachSettingCopiesOnlyWhatItNames) {
  // The folder's mode 0571: owner r-x, group rwx, others --x.
  struct Case {
    std::uint32_t mask;
    Settings file, sub, deep;
  };
  const Case cases[] = {
      {0x02, {0, 0, 0640}, {0, 0, 0701}, {0, 0, 0600}},
      {0x04, {0, 0, 0660}, {0, 0, 0770}, {0, 0, 0660}},
      {0x08, {0, 0, 0440}, {0, 0, 0500}, {0, 0, 0400}},
      {0x10, {0, kGroup, 0640}, {0, kGroup, 0700}, {0, kGroup, 0600}},
      {0x20, {kUser, 0, 0640}, {kUser, 0, 0700}, {kUser, 0, 0600}},
      {0x3E, {kUser, kGroup, 0460}, {kUser, kGroup, 0571}, {kUser, kGroup, 0460}},
  };
  for (const Case& c : cases) {
    const std::string folder = makeSource("m" + std::to_string(c.mask), 0571);
    expectSuccess(propagate(folder, c.mask));
    EXPECT_EQ(settingsOf(folder + "/file"), c.file) << c.mask;
    EXPECT_EQ(settingsOf(folder + "/sub"), c.sub) << c.mask;
    EXPECT_EQ(settingsOf(folder + "/sub/deep"), c.deep) << c.mask;
    EXPECT_EQ(settingsOf(folder), (Settings{kUser, kGroup, 0571})) << "the folder itself";
    // Running it again changes nothing more.
    expectSuccess(propagate(folder, c.mask));
    EXPECT_EQ(settingsOf(folder + "/sub/deep"), c.deep) << c.mask;
  }
}

TEST_F(PermissionCommandTest, SetIdProgramsNeverChangeHandsButTakePermissionBits) {
  const std::string folder = makeSource("top", 0500);
  const std::string tool = m_tree.makeFile("top/tool", "#!/bin/sh\n", 0755);
  ASSERT_EQ(::chmod(tool.c_str(), 04755), 0);
  expectResult(propagate(folder, 0x20), kCommandErrorDomain, kResultBadArgument, tool);
  EXPECT_EQ(settingsOf(tool), (Settings{0, 0, 04755}));

  expectSuccess(propagate(folder, 0x08));
  EXPECT_EQ(settingsOf(tool), (Settings{0, 0, 04555}));
}

TEST_F(PermissionCommandTest, LinksDevicesSocketsAndFifosAreChangedThemselves) {
  const std::string folder = makeSource("top", 0755);
  const std::string target = m_tree.makeFile("target", "x", 0600);
  const std::string link = m_tree.makeLink("top/link", target);
  ASSERT_EQ(::mknod(path("top/disk").c_str(), S_IFBLK | 0600, makedev(7, 200)), 0);
  ASSERT_EQ(::mknod(path("top/socket").c_str(), S_IFSOCK | 0600, 0), 0);
  m_tree.makeFifo("top/fifo");
  ASSERT_EQ(::chmod(path("top/fifo").c_str(), 0600), 0);

  expectSuccess(propagate(folder, 0x3E));
  // A link gets its own owner and group; its destination is never touched.
  EXPECT_EQ(settingsOf(link).owner, kUser);
  EXPECT_EQ(settingsOf(link).group, kGroup);
  EXPECT_EQ(settingsOf(target), (Settings{0, 0, 0600}));
  // Block devices and sockets count as folders and receive execute bits; a FIFO does not.
  EXPECT_EQ(settingsOf(path("top/disk")), (Settings{kUser, kGroup, 0755}));
  EXPECT_EQ(settingsOf(path("top/socket")), (Settings{kUser, kGroup, 0755}));
  EXPECT_EQ(settingsOf(path("top/fifo")), (Settings{kUser, kGroup, 0644}));
}

TEST_F(PermissionCommandTest, TheStayFlagLeavesTheContentsOfAMountAlone) {
  const std::string folder = makeSource("top", 0755);
  m_tree.makeFolder("top/mnt", 0755);
  test::Facts facts = test::inPrivateMount(path("top/mnt"), "tmpfs", [&](test::Facts& found) {
    m_tree.makeFile("top/mnt/inner", "", 0600);
    auto ownerOf = [&](const char* relative) {
      return std::to_string(settingsOf(path(relative)).owner);
    };
    const CommandResult staying = propagate(folder, 0x20, 0, true);
    found["staying"] = staying ? std::to_string(staying->code()) : "none";
    found["mount point"] = ownerOf("top/mnt");
    found["inside, staying"] = ownerOf("top/mnt/inner");
    (void)propagate(folder, 0x20, 0, false);
    found["inside, crossing"] = ownerOf("top/mnt/inner");
  });
  ASSERT_EQ(facts.count("child"), 0u) << facts["child"];
  EXPECT_EQ(facts["staying"], "0");
  // The mount point is an object of the folder: the root of the mounted file system changes.
  EXPECT_EQ(facts["mount point"], std::to_string(kUser));
  EXPECT_EQ(facts["inside, staying"], "0");
  EXPECT_EQ(facts["inside, crossing"], std::to_string(kUser));
}

TEST_F(PermissionCommandTest, ReportsEveryHundredObjectsAgainstTheExpectedCount) {
  m_tree.makeFolder("top");
  for (int i = 0; i < 250; ++i) m_tree.makeFile("top/f" + std::to_string(i));
  expectSuccess(propagate(path("top"), 0x20, 0));
  EXPECT_EQ(progressValues(), (std::vector<double>{100.0, 200.0, 1.0}));
  expectSuccess(propagate(path("top"), 0x20, 500));
  EXPECT_EQ(progressValues(), (std::vector<double>{0.2, 0.4, 1.0}));

  // A client that stops listening stops the walk at the next report and gets no result.
  give(path("top"), kUser, kGroup, 0755);
  m_client.closeReader();
  EXPECT_FALSE(propagate(path("top"), 0x20, 250).has_value());
  int changed = 0;
  for (int i = 0; i < 250; ++i) {
    if (settingsOf(path("top/f" + std::to_string(i))).owner == kUser) ++changed;
  }
  EXPECT_EQ(changed, 100);
}

TEST_F(PermissionCommandTest, TheFirstFailingObjectEndsThePropagationWithItsErrno) {
  const std::string folder = makeSource("top", 0700);
  ASSERT_TRUE(test::setKernelFlags(path("top/file"), FS_IMMUTABLE_FL));
  expectOutcome(propagate(folder, 0x08), kResultPermissionsNotChanged, path("top/file"), EPERM);
  expectOutcome(propagate(folder, 0x10), kResultPermissionsNotChanged, path("top/file"), EPERM);
  // The final report went out all the same.
  const std::vector<double> reports = progressValues();
  EXPECT_EQ(reports, (std::vector<double>{1.0, 1.0}));
}

TEST_F(PermissionCommandTest, TheFolderIsCheckedBeforeAnythingIsWalked) {
  const std::string folder = makeSource("top", 0750);
  expectResult(propagate("", 0x3F), kCommandErrorDomain, kResultBadArgument);
  expectResult(propagate(path("missing"), 0x3F), kPosixErrorDomain, ENOENT, path("missing"));
  expectResult(propagate(path("top/file"), 0x3F), kPosixErrorDomain, ENOTDIR, path("top/file"));
  ASSERT_EQ(::setxattr(folder.c_str(), kAccessControlListAttribute, "junk", 4, 0), 0);
  expectResult(propagate(folder, 0x3F), kPosixErrorDomain, EINVAL, folder);
  EXPECT_TRUE(progressValues().empty());
  EXPECT_EQ(settingsOf(path("top/file")), (Settings{0, 0, 0640}));

  // A link to the folder is resolved first; its objects are named by the folder's own path, and
  // a path that ends in ".." names it as its parent's path would.
  ASSERT_EQ(::removexattr(folder.c_str(), kAccessControlListAttribute), 0);
  const std::string link = m_tree.makeLink("shortcut", folder);
  ASSERT_TRUE(test::setKernelFlags(folder + "/sub/deep", FS_IMMUTABLE_FL));
  expectOutcome(propagate(link, 0x20), kResultPermissionsNotChanged, folder + "/sub/deep", EPERM);
  expectOutcome(propagate(folder + "/sub/..", 0x20), kResultPermissionsNotChanged,
                folder + "/sub/deep", EPERM);
}

TEST_F(PermissionCommandTest, TheListStepSetsTheFoldersListOrRemovesEveryList) {
  const std::string folder = makeSource("top", 0755);
  const std::string target = m_tree.makeFile("target", "x", 0600);
  m_tree.makeLink("top/link", target);
  const ExtendedAcl list = allowReading(kUser);
  ASSERT_TRUE(writeAccessControlList(*PathHandle::open(folder, LinkHandling::Follow), list).ok());
  ASSERT_TRUE(writeAccessControlList(*PathHandle::open(path("top/file"), LinkHandling::Follow),
                                     allowReading(kUser + 1))
                  .ok());

  expectSuccess(propagate(folder, 0x01));
  for (const char* object : {"top/file", "top/sub", "top/sub/deep", "target"}) {
    EXPECT_EQ(storedList(path(object)), list) << object << " (the last through the link)";
  }
  ASSERT_TRUE(removeAccessControlList(*PathHandle::open(folder, LinkHandling::Follow)).ok());
  expectSuccess(propagate(folder, 0x01));
  for (const char* object : {"top/file", "top/sub", "top/sub/deep", "target"}) {
    EXPECT_EQ(storedList(path(object)), std::nullopt) << object;
  }

  ASSERT_EQ(::unlink(target.c_str()), 0);
  expectOutcome(propagate(folder, 0x01), kResultAclNotSet, path("top/link"), ENOENT);
  m_tree.makeFile("target", "x", 0600);
  // A user's link leads only to her own objects.
  ASSERT_EQ(::lchown(path("top/link").c_str(), kUser, kUser), 0);
  expectOutcome(propagate(folder, 0x01), kResultAclNotSet, path("top/link"), EACCES);
}

TEST_F(PermissionCommandTest, SettingAListLetsTheKernelGrantWhatItAllows) {
  const std::string secret = m_tree.makeFile("secret", "data", 0600);
  auto readable = [&] {
    return test::runAs({kUser, kUser}, [&] {
             const int fd = ::open(secret.c_str(), O_RDONLY | O_CLOEXEC);
             if (fd < 0) return 1;
             ::close(fd);
             return 0;
           }).valueOr(-1) == 0;
  };
  ASSERT_FALSE(readable());
  const CommandResult set = setList(secret, aclExternalForm(allowReading(kUser)));
  expectOutcome(set, kResultSuccess, secret, 0);
  EXPECT_TRUE(readable());
  EXPECT_EQ(storedList(secret), allowReading(kUser));
}

TEST_F(PermissionCommandTest, SettingAListFailsOnBadDataAndPathsTheRuleRefuses) {
  const std::string secret = m_tree.makeFile("secret", "data", 0600);
  const Data form = aclExternalForm(allowReading(kUser));
  expectResult(setList("", form), kCommandErrorDomain, kResultBadArgument);
  expectResult(setList(secret, {}), kCommandErrorDomain, kResultBadArgument);
  expectResult(setList(secret, Data(form.begin(), form.end() - 1)), kCommandErrorDomain,
               kResultBadArgument);
  Data wrongMagic = form;
  wrongMagic[0] ^= 1;
  expectResult(setList(secret, wrongMagic), kCommandErrorDomain, kResultBadArgument);

  expectOutcome(setList(secret + "/below", form), kResultAclNotSet, secret + "/below", ENOTDIR);
  expectOutcome(setList(path("missing"), form), kResultAclNotSet, path("missing"), ENOENT);
  const std::string usersLink = m_tree.makeLink("users-link", secret);
  ASSERT_EQ(::lchown(usersLink.c_str(), kUser, kUser), 0);
  expectOutcome(setList(usersLink, form), kResultAclNotSet, usersLink, EACCES);
  EXPECT_EQ(storedList(secret), std::nullopt);

  const std::string rootsLink = m_tree.makeLink("roots-link", secret);
  expectOutcome(setList(rootsLink, form), kResultSuccess, rootsLink, 0);
  EXPECT_EQ(storedList(secret), allowReading(kUser));
}

}  // namespace
}  // namespace krv
