#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "executor/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::text;

class DeletionTest : public test::FileCommandTest {};

TEST_F(DeletionTest, DeletesUserProtectedObjectsAndLeavesSystemProtectedOnesAsTheyAre) {
  struct Case {
    std::string name;
    std::function<void()> make;
    std::uint32_t flags;           // set before
    std::string_view domain = "";  // empty: deleted
    std::int64_t code = 0;
  };
  const std::string file = "\xff\xfe-name";  // no UTF-8: the bytes are the name
  const Case cases[] = {
      {"plain", [&] { m_tree.makeFile("plain"); }, 0},
      {"user-immutable", [&] { m_tree.makeFile("user-immutable"); }, kUserImmutableFlag},
      {"user-append", [&] { m_tree.makeFile("user-append"); }, kUserAppendFlag},
      {"folder", [&] { m_tree.makeFolder("folder"); }, kUserProtectionFlags},
      {file, [&] { m_tree.makeFile(file); }, kUserImmutableFlag},
      {"fifo", [&] { m_tree.makeFifo("fifo"); }, 0},
      {"system", [&] { m_tree.makeFile("system"); }, kSystemImmutableFlag | kUserImmutableFlag,
       kCommandErrorDomain, 11},
      {"system-append", [&] { m_tree.makeFile("system-append"); },
       kSystemAppendFlag | kUserAppendFlag, kCommandErrorDomain, 11},
      {"full",
       [&] {
         m_tree.makeFolder("full");
         m_tree.makeFile("full/x");
       },
       0, kPosixErrorDomain, ENOTEMPTY},
      {"missing", [] {}, 0, kPosixErrorDomain, ENOENT},
  };
  for (const Case& c : cases) {
    c.make();
    if (c.flags != 0) setFlags(c.name, c.flags);
    expectResult(run(7, {text("1"), text(path(c.name))}),
                 c.domain.empty() ? kCommandErrorDomain : c.domain, c.code,
                 c.domain.empty() ? "" : path(c.name));
    EXPECT_EQ(exists(c.name), !c.domain.empty() && c.code != ENOENT) << c.name;
    if (c.code == 11) {
      EXPECT_EQ(flagsOf(c.name), c.flags) << c.name;
    }
  }

  // An administrator's `chattr +i` protects at system level; a link is deleted, not its target.
  m_tree.makeFile("chattr");
  ASSERT_TRUE(test::setKernelFlags(path("chattr"), FS_IMMUTABLE_FL));
  expectResult(run(9, {text(path("chattr"))}), kCommandErrorDomain, 11, path("chattr"));
  m_tree.makeFile("target");
  setFlags("target", kUserImmutableFlag);
  m_tree.makeLink("link", path("target"));
  expectResult(run(9, {text(path("link"))}), kCommandErrorDomain, 0);
  EXPECT_FALSE(exists("link"));
  EXPECT_EQ(flagsOf("target"), kUserImmutableFlag);

  // A last component ".." is refused before the protection of the folder it names is lifted.
  m_tree.makeFolder("sub");
  m_tree.makeFolder("sub/inner");
  setFlags("sub", kUserImmutableFlag);
  for (std::uint32_t code : {7u, 8u}) {
    Array arguments{text(path("sub/inner/.."))};
    if (code == 7) arguments.insert(arguments.begin(), text("1"));
    expectResult(run(code, arguments), kPosixErrorDomain, EINVAL);
    EXPECT_EQ(flagsOf("sub"), kUserImmutableFlag);
  }
}

TEST_F(DeletionTest, TheStopFlagDecidesBetweenTheFirstErrorAndSuccess) {
  m_tree.makeFile("system");
  setFlags("system", kSystemImmutableFlag);
  m_tree.makeFile("a");
  m_tree.makeFile("b");
  expectResult(run(7, {text("0"), text(path("missing")), text(path("system")), text(path("a"))}),
               kCommandErrorDomain, 0);
  EXPECT_EQ(progressValues(), (std::vector<double>{0.0, 1.0 / 3.0, 2.0 / 3.0}));
  EXPECT_FALSE(exists("a"));
  expectResult(run(7, {text("1"), text(path("system")), text(path("b"))}), kCommandErrorDomain, 11,
               path("system"));
  EXPECT_EQ(progressValues(), (std::vector<double>{0.0}));
  EXPECT_TRUE(exists("b"));
}

TEST_F(DeletionTest, RecursiveDeleteLiftsOnlyTheUserImmutableFlag) {
  m_tree.makeFolder("tree");
  m_tree.makeFolder("tree/deep");
  m_tree.makeFile("tree/deep/file");
  m_tree.makeFile("tree/\xff");
  m_tree.makeLink("tree/deep/dangling", path("nowhere"));
  setFlags("tree/deep/file", kUserImmutableFlag);
  setFlags("tree/deep", kUserImmutableFlag);
  setFlags("tree", kUserImmutableFlag);
  m_tree.makeLink("dangling", path("nowhere"));
  expectResult(run(8, {text(path("tree")), text(path("dangling")), text(path("missing"))}),
               kCommandErrorDomain, 0);
  EXPECT_EQ(progressValues(), (std::vector<double>{0.0, 1.0 / 3.0, 2.0 / 3.0}));
  EXPECT_FALSE(exists("tree"));
  EXPECT_TRUE(exists("dangling"));  // nothing exists there, so nothing is done

  // System flags and user append-only are not lifted: the removal stops at that object.
  for (std::uint32_t flags : {kSystemImmutableFlag, kUserAppendFlag}) {
    m_tree.makeFolder("kept");
    m_tree.makeFile("kept/file");
    setFlags("kept/file", flags);
    expectResult(run(8, {text(path("kept")), text(path("never"))}), kPosixErrorDomain, EPERM,
                 path("kept/file"));
    EXPECT_EQ(flagsOf("kept/file"), flags);
    EXPECT_EQ(progressValues(), (std::vector<double>{0.0}));
    test::TestFileTree::removeAll(path("kept"));
  }
}

TEST_F(DeletionTest, LinksInAWalkedTreeLeaveTheirTargetsAlone) {
  // Objects outside the trees, protected by the user class, reached through planted links.
  m_tree.makeFile("outside-file");
  m_tree.makeFolder("outside-folder");
  setFlags("outside-file", kUserImmutableFlag);
  setFlags("outside-folder", kUserImmutableFlag);
  m_tree.makeFolder("tree");
  m_tree.makeLink("tree/to-file", path("outside-file"));
  m_tree.makeLink("tree/to-folder", path("outside-folder"));
  m_tree.makeLink("link-to-folder", path("outside-folder"));

  // Protecting a tree does not protect what its links point to, and deleting a tree or a link
  // unprotects only what is removed.
  expectResult(run(10, {text(path("tree")), test::number(1), test::number(1), test::number(0)}),
               kCommandErrorDomain, 0);
  expectResult(run(8, {text(path("tree")), text(path("link-to-folder"))}), kCommandErrorDomain, 0);
  EXPECT_FALSE(exists("tree"));
  EXPECT_FALSE(exists("link-to-folder"));
  EXPECT_EQ(flagsOf("outside-file"), kUserImmutableFlag);
  EXPECT_EQ(flagsOf("outside-folder"), kUserImmutableFlag);
}

TEST_F(DeletionTest, FolderContentsGoTheFoldersStay) {
  m_tree.makeFolder("one");
  m_tree.makeFolder("one/sub");
  m_tree.makeFile("one/sub/file");
  m_tree.makeFile("one/protected");
  setFlags("one/protected", kUserImmutableFlag);
  m_tree.makeFolder("two");
  m_tree.makeFile("two/x");
  expectResult(run(49, {text(path("missing")), text(path("one")), text(path("two"))}),
               kCommandErrorDomain, 0);
  EXPECT_EQ(progressValues(), (std::vector<double>{0.0, 1.0 / 3.0, 2.0 / 3.0}));
  EXPECT_TRUE(exists("one") && exists("two"));
  EXPECT_FALSE(exists("one/sub") || exists("one/protected") || exists("two/x"));

  m_tree.makeFile("plain");
  m_tree.makeFile("two/y");
  expectResult(run(49, {text(path("plain")), text(path("two"))}), kPosixErrorDomain, ENOTDIR,
               path("plain"));
  EXPECT_TRUE(exists("plain") && exists("two/y"));
}

TEST_F(DeletionTest, AGoneClientStopsTheMultiPathCommandsBeforeAnyDeletion) {
  m_tree.makeFolder("folder");
  m_tree.makeFile("folder/file");
  KRVCommandExecutor withoutClient;  // no pipe: every progress report fails
  const Array paths{text(path("folder/file")), text(path("folder"))};
  EXPECT_FALSE(withoutClient.deleteFileSystemObjectsAtPaths(paths, true).has_value());
  EXPECT_FALSE(withoutClient.deleteFileSystemObjectsRecursivelyAtPaths(paths).has_value());
  EXPECT_FALSE(withoutClient.deleteFileSystemFolderContentsAtPaths(paths).has_value());
  EXPECT_TRUE(exists("folder/file"));
}

// ramfs keeps no inode flags at all.
TEST_F(DeletionTest, AFileSystemWithoutFlagsDeletesAndUnprotectsButCannotProtect) {
  m_tree.makeFolder("mnt");
  std::string summary = test::inPrivateMount(path("mnt"), "ramfs", [&] {
    const std::string file = path("mnt/file");
    if (::mknod(file.c_str(), S_IFREG | 0644, 0) != 0) return std::string("mknod");
    test::ExecutorWithPipe client;
    auto codeOf = [&](std::uint32_t code, Array arguments) {
      CommandResult result = client.run(code, std::move(arguments));
      return result ? std::to_string(result->code()) : std::string("none");
    };
    std::string codes = codeOf(10, {text(file), test::number(1), test::number(0), test::number(0)});
    codes += " " + codeOf(10, {text(file), test::number(0), test::number(0), test::number(0)});
    codes += " " + codeOf(11, {text(file)});
    codes += " " + codeOf(8, {text(file)});
    return codes + (::access(file.c_str(), F_OK) == 0 ? " left" : "");
  });
  EXPECT_EQ(summary, "95 0 0 0");
}

}  // namespace
}  // namespace krv
