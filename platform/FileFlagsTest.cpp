#include "platform/FileFlags.h"

#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <sys/xattr.h>

#include <cstring>
#include <optional>

#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

using test::kernelFlags;
using test::setKernelFlags;

// The record as stored: nothing, or its little-endian value.
std::optional<std::uint32_t> storedRecord(const std::string& path) {
  unsigned char bytes[8];
  ssize_t length = ::lgetxattr(path.c_str(), kFlagsRecordAttribute, bytes, sizeof bytes);
  if (length != 4) return std::nullopt;
  return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

std::uint32_t flagsOf(const std::string& path, LinkHandling links = LinkHandling::NoFollow) {
  Result<std::uint32_t> flags = readFileFlags(path, links);
  EXPECT_TRUE(flags.ok()) << path;
  return flags ? *flags : 0xFFFFFFFFU;
}

TEST(FileFlagsTest, ComposesFlagsWordFromKernelAttributesAndRecord) {
  struct Case {
    std::uint64_t attributes;
    std::optional<std::uint32_t> record;
    std::uint32_t expected;
  } cases[] = {
      {0, std::nullopt, 0},
      {STATX_ATTR_IMMUTABLE, std::nullopt, kSystemImmutableFlag},  // chattr +i by hand
      {STATX_ATTR_IMMUTABLE, kUserImmutableFlag, kUserImmutableFlag},
      {STATX_ATTR_IMMUTABLE, kHiddenFlag, kSystemImmutableFlag | kHiddenFlag},
      {STATX_ATTR_APPEND, kUserAppendFlag | kUserImmutableFlag, kUserAppendFlag},
      {STATX_ATTR_APPEND, std::nullopt, kSystemAppendFlag},
      {0, kUserImmutableFlag | kSystemAppendFlag, 0},  // a stale record protects nothing
      {STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND, kImmutableFlags | kSystemAppendFlag,
       kImmutableFlags | kSystemAppendFlag},
      {STATX_ATTR_NODUMP | STATX_ATTR_COMPRESSED, std::nullopt, kNoDumpFlag | kCompressedFlag},
      {0, kHiddenFlag | 0x10000, kHiddenFlag},  // bits the record does not hold are ignored
  };
  for (const Case& c : cases) {
    EXPECT_EQ(composeFileFlags(c.attributes, c.record), c.expected)
        << "attributes " << c.attributes << " record " << c.record.value_or(0);
  }
}

TEST(FileFlagsTest, KernelFlagsChangeOnlyMappedBits) {
  constexpr int kOther = FS_NOATIME_FL | FS_EXTENT_FL | 0x40000000;
  EXPECT_EQ(kernelFlagsFor(kSystemImmutableFlag | kNoDumpFlag, kOther),
            kOther | FS_IMMUTABLE_FL | FS_NODUMP_FL);
  EXPECT_EQ(kernelFlagsFor(0, kOther | FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL), kOther);
  EXPECT_EQ(kernelFlagsFor(kUserAppendFlag | kHiddenFlag | kCompressedFlag, 0), FS_APPEND_FL);
  EXPECT_EQ(flagsRecordFor(kUserImmutableFlag | kNoDumpFlag | kHiddenFlag | kCompressedFlag),
            kUserImmutableFlag | kHiddenFlag);
}

class FileFlagsFileTest : public ::testing::Test {
 protected:
  test::TestFileTree m_tree;
};

TEST_F(FileFlagsFileTest, UserAndSystemClassesShareTheKernelFlagAndDifferInTheRecord) {
  struct Case {
    std::uint32_t flags;
    int kernel;
    std::optional<std::uint32_t> record;
  } cases[] = {
      {kUserImmutableFlag, FS_IMMUTABLE_FL, kUserImmutableFlag},
      {kSystemImmutableFlag, FS_IMMUTABLE_FL, kSystemImmutableFlag},
      {kUserAppendFlag, FS_APPEND_FL, kUserAppendFlag},
      {kSystemAppendFlag | kNoDumpFlag, FS_APPEND_FL | FS_NODUMP_FL, kSystemAppendFlag},
      {kHiddenFlag, 0, kHiddenFlag},
      {0, 0, std::nullopt},
  };
  std::string file = m_tree.makeFile("file");
  constexpr int kMapped = FS_IMMUTABLE_FL | FS_APPEND_FL | FS_NODUMP_FL;
  for (const Case& c : cases) {
    // Every step starts from the previous one, protected or not.
    ASSERT_TRUE(writeFileFlags(file, c.flags).ok()) << c.flags;
    EXPECT_EQ(kernelFlags(file) & kMapped, c.kernel) << c.flags;
    EXPECT_EQ(storedRecord(file), c.record) << c.flags;
    EXPECT_EQ(flagsOf(file), c.flags);
  }
}

TEST_F(FileFlagsFileTest, FlagsSetByHandReadAsTheSystemsAndUnknownKernelBitsSurvive) {
  std::string file = m_tree.makeFile("file");
  const int before = kernelFlags(file);
  ASSERT_TRUE(setKernelFlags(file, before | FS_IMMUTABLE_FL | FS_NOATIME_FL));
  EXPECT_EQ(flagsOf(file), kSystemImmutableFlag);
  // Hiding it keeps the protection, and it still reads as the system's.
  ASSERT_TRUE(writeFileFlags(file, kSystemImmutableFlag | kHiddenFlag).ok());
  EXPECT_NE(kernelFlags(file) & FS_IMMUTABLE_FL, 0);
  EXPECT_EQ(flagsOf(file), kSystemImmutableFlag | kHiddenFlag);
  ASSERT_TRUE(writeFileFlags(file, kUserImmutableFlag | kNoDumpFlag).ok());
  ASSERT_TRUE(writeFileFlags(file, 0).ok());
  EXPECT_EQ(kernelFlags(file), before | FS_NOATIME_FL);
}

TEST_F(FileFlagsFileTest, RecordIsRewrittenOnImmutableAndAppendOnlyObjects) {
  std::string folder = m_tree.makeFolder("folder");
  std::string file = m_tree.makeFile("file");
  for (const std::string& path : {folder, file}) {
    ASSERT_TRUE(writeFileFlags(path, kUserImmutableFlag | kUserAppendFlag).ok());
    // The kernel refuses attribute changes now; the write must lift and restore the protection.
    ASSERT_NE(::lsetxattr(path.c_str(), "user.probe", "x", 1, 0), 0);
    ASSERT_TRUE(writeFileFlags(path, kSystemImmutableFlag | kUserAppendFlag | kHiddenFlag).ok());
    EXPECT_EQ(flagsOf(path), kSystemImmutableFlag | kUserAppendFlag | kHiddenFlag);
    EXPECT_EQ(kernelFlags(path) & (FS_IMMUTABLE_FL | FS_APPEND_FL), FS_IMMUTABLE_FL | FS_APPEND_FL);
    // Changing another bit while staying protected works too.
    ASSERT_TRUE(writeFileFlags(path, kSystemImmutableFlag | kNoDumpFlag).ok());
    EXPECT_EQ(flagsOf(path), kSystemImmutableFlag | kNoDumpFlag);
    ASSERT_TRUE(writeFileFlags(path, 0).ok());
    EXPECT_EQ(flagsOf(path), 0U);
    EXPECT_EQ(storedRecord(path), std::nullopt);
  }
}

TEST_F(FileFlagsFileTest, WriteFollowsALinkAndObjectsWithoutKernelFlagsTakeOnlyTheRecord) {
  std::string file = m_tree.makeFile("file");
  std::string link = m_tree.makeLink("link", "file");
  ASSERT_TRUE(writeFileFlags(link, kNoDumpFlag).ok());
  EXPECT_EQ(flagsOf(file), kNoDumpFlag);
  EXPECT_EQ(flagsOf(link, LinkHandling::Follow), kNoDumpFlag);
  EXPECT_EQ(flagsOf(link, LinkHandling::NoFollow), 0U);

  std::string fifo = m_tree.makeFifo("fifo");
  EXPECT_EQ(writeFileFlags(fifo, kUserImmutableFlag).error().code(), EOPNOTSUPP);
  EXPECT_TRUE(writeFileFlags(fifo, 0).ok());  // clearing what is not there is no change
  ASSERT_TRUE(writeFileFlags(fifo, kHiddenFlag).ok());
  EXPECT_EQ(flagsOf(fifo), kHiddenFlag);
  Result<PathHandle> linkItself = PathHandle::open(link, LinkHandling::NoFollow);
  ASSERT_TRUE(linkItself.ok());
  ASSERT_TRUE(writeFileFlags(*linkItself, kHiddenFlag).ok());
  EXPECT_EQ(flagsOf(link), kHiddenFlag);
  EXPECT_EQ(flagsOf(file), kNoDumpFlag);
  // A dangling link cannot be followed.
  EXPECT_EQ(writeFileFlags(m_tree.makeLink("dangling", "missing"), kHiddenFlag).error().code(),
            ENOENT);
}

// tmpfs keeps immutability and trusted records (file commands on a file system without flags are
// tested on the executor).
TEST_F(FileFlagsFileTest, TmpfsKeepsProtectionAndRecord) {
  std::string mountPoint = m_tree.makeFolder("mnt");
  auto outcome = [](const Status& status) {
    return status ? std::string("ok") : status.error().description();
  };
  test::Facts facts = test::inPrivateMount(mountPoint, "tmpfs", [&](test::Facts& seen) {
    std::string file = m_tree.makeFile("mnt/file");
    seen["set"] = outcome(writeFileFlags(file, kUserImmutableFlag | kHiddenFlag));
    seen["read"] = std::to_string(flagsOf(file));
    seen["cleared"] = outcome(writeFileFlags(file, 0));
  });
  ASSERT_FALSE(facts.contains("child")) << facts["child"];
  EXPECT_EQ(facts["set"], "ok");
  EXPECT_EQ(facts["read"], std::to_string(kUserImmutableFlag | kHiddenFlag));
  EXPECT_EQ(facts["cleared"], "ok");
}

TEST_F(FileFlagsFileTest, FinderInfoCodesAreBigEndianAndKeepTheRest) {
  std::string file = m_tree.makeFile("file");
  EXPECT_EQ(*readHfsCodes(file, LinkHandling::NoFollow), HfsCodes{});
  ASSERT_TRUE(writeHfsCodes(file, HfsCodes{}, LinkHandling::NoFollow).ok());
  EXPECT_LT(::lgetxattr(file.c_str(), kFinderInfoAttribute, nullptr, 0), 0);  // nothing made

  unsigned char value[32];
  std::memset(value, 0xAB, sizeof value);
  ASSERT_EQ(::lsetxattr(file.c_str(), kFinderInfoAttribute, value, sizeof value, 0), 0);
  ASSERT_TRUE(writeHfsCodes(file, HfsCodes{0x54455854, 0x74747874}, LinkHandling::NoFollow).ok());
  unsigned char stored[40];
  ASSERT_EQ(::lgetxattr(file.c_str(), kFinderInfoAttribute, stored, sizeof stored), 32);
  EXPECT_EQ(std::memcmp(stored, "TEXTttxt", 8), 0);
  EXPECT_EQ(stored[8], 0xAB);
  EXPECT_EQ(stored[31], 0xAB);
  EXPECT_EQ(*readHfsCodes(file, LinkHandling::NoFollow), (HfsCodes{0x54455854, 0x74747874}));

  // A short value reads with zeros for the missing bytes.
  ASSERT_EQ(::lsetxattr(file.c_str(), kFinderInfoAttribute, "ABCDE", 5, 0), 0);
  EXPECT_EQ(*readHfsCodes(file, LinkHandling::NoFollow), (HfsCodes{0x41424344, 0x45000000}));

  // The kernel refuses user attributes on a link itself: codes reach the file through it.
  std::string link = m_tree.makeLink("link", "file");
  EXPECT_TRUE(writeHfsCodes(link, HfsCodes{}, LinkHandling::NoFollow).ok());
  EXPECT_EQ(writeHfsCodes(link, HfsCodes{1, 2}, LinkHandling::NoFollow).error().code(), EPERM);
  ASSERT_TRUE(writeHfsCodes(link, HfsCodes{1, 2}, LinkHandling::Follow).ok());
  EXPECT_EQ(*readHfsCodes(file, LinkHandling::NoFollow), (HfsCodes{1, 2}));
  EXPECT_EQ(*readHfsCodes(link, LinkHandling::NoFollow), HfsCodes{});
}

}  // namespace
}  // namespace krv
