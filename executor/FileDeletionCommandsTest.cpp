#include <gtest/gtest.h>
#include <linux/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::text;

class DeletionTest : public test::FileCommandTest {};

// Runs `command` `rounds` times, each after `prepare`, while a second thread keeps exchanging the
// objects at `a` and `b`, as a user racing the daemon would; `check` runs after each round.
template <class Prepare, class Command, class Check>
void whileSwapping(const std::string& a, const std::string& b, int rounds, Prepare prepare,
                   Command command, Check check) {
  for (int round = 0; round < rounds; ++round) {
    prepare();
    std::atomic<bool> stop{false};
    std::thread swapper([&] {
      while (!stop.load(std::memory_order_relaxed)) {
        (void)::renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE);
      }
    });
    command();
    stop = true;
    swapper.join();
    check();
  }
}

TEST_F(DeletionTest, DeletesUserProtectedObjectsAndLeavesSystemProtectedOnesAsTheyAre) {
  struct Case {
    std::string name;
    std::vector<std::string> made;
    std::uint32_t flags;           // set before
    std::string_view domain = "";  // empty: deleted
    std::int64_t code = 0;
  };
  const std::string file = "\xff\xfe-name";  // no UTF-8: the bytes are the name
  const Case cases[] = {
      {"plain", {"plain"}, 0},
      {"user-immutable", {"user-immutable"}, kUserImmutableFlag},
      {"user-append", {"user-append"}, kUserAppendFlag},
      {"folder", {"folder/"}, kUserProtectionFlags},
      {file, {file}, kUserImmutableFlag},
      {"fifo", {"fifo|"}, 0},
      {"system",
       {"system"},
       kSystemImmutableFlag | kUserImmutableFlag,
       kCommandErrorDomain,
       kResultSystemProtected},
      {"system-append",
       {"system-append"},
       kSystemAppendFlag | kUserAppendFlag,
       kCommandErrorDomain,
       kResultSystemProtected},
      {"full", {"full/", "full/x"}, 0, kPosixErrorDomain, ENOTEMPTY},
      {"missing", {}, 0, kPosixErrorDomain, ENOENT},
  };
  for (const Case& c : cases) {
    make(c.made);
    if (c.flags != 0) setFlags(c.name, c.flags);
    expectResult(run(kCommandDeleteFileObjects, {text("1"), text(path(c.name))}),
                 c.domain.empty() ? kCommandErrorDomain : c.domain, c.code,
                 c.domain.empty() ? "" : path(c.name));
    EXPECT_EQ(exists(c.name), !c.domain.empty() && c.code != ENOENT) << c.name;
    EXPECT_EQ(flagsOf(c.name), exists(c.name) ? c.flags : 0xFFFFFFFFu) << c.name;
  }

  // An administrator's `chattr +i` protects at system level; a link is deleted, not its target.
  make({"chattr", "target", "link -> target", "sub/", "sub/inner/"});
  ASSERT_TRUE(test::setKernelFlags(path("chattr"), FS_IMMUTABLE_FL));
  expectResult(run(kCommandDeleteHibernationFile, {text(path("chattr"))}), kCommandErrorDomain,
               kResultSystemProtected, path("chattr"));
  setFlags("target", kUserImmutableFlag);
  expectSuccess(kCommandDeleteHibernationFile, {text(path("link"))});
  EXPECT_FALSE(exists("link"));
  EXPECT_EQ(flagsOf("target"), kUserImmutableFlag);

  // A last component ".." is refused before the protection of the folder it names is lifted.
  setFlags("sub", kUserImmutableFlag);
  for (const Array& arguments :
       {Array{text("1"), text(path("sub/inner/.."))}, Array{text(path("sub/inner/.."))}}) {
    expectResult(run(arguments.size() == 2 ? 7 : 8, arguments), kPosixErrorDomain, EINVAL);
    EXPECT_EQ(flagsOf("sub"), kUserImmutableFlag);
  }
}

TEST_F(DeletionTest, RecursiveDeleteLiftsOnlyTheUserImmutableFlag) {
  make({"tree/", "tree/deep/", "tree/deep/file", "tree/\xff", "tree/deep/dangling -> nowhere",
        "dangling -> nowhere"});
  for (const char* protectedObject : {"tree/deep/file", "tree/deep", "tree"}) {
    setFlags(protectedObject, kUserImmutableFlag);
  }
  expectSuccess(kCommandDeleteFileSubtree,
                {text(path("tree")), text(path("dangling")), text(path("missing"))});
  EXPECT_EQ(progressValues(), (std::vector<double>{0.0, 1.0 / 3.0, 2.0 / 3.0}));
  EXPECT_FALSE(exists("tree"));
  EXPECT_TRUE(exists("dangling"));  // nothing exists there, so nothing is done

  // System flags and user append-only are not lifted: the removal stops at that object.
  for (std::uint32_t flags : {kSystemImmutableFlag, kUserAppendFlag}) {
    make({"kept/", "kept/file"});
    setFlags("kept/file", flags);
    expectResult(run(kCommandDeleteFileSubtree, {text(path("kept")), text(path("never"))}),
                 kPosixErrorDomain, EPERM, path("kept/file"));
    EXPECT_EQ(flagsOf("kept/file"), flags);
    EXPECT_EQ(progressValues(), (std::vector<double>{0.0}));
    test::TestFileTree::removeAll(path("kept"));
  }
}

TEST_F(DeletionTest, LinksInAWalkedTreeLeaveTheirTargetsAlone) {
  // Objects outside the trees, protected by the user class, reached through planted links.
  make({"outside-file", "outside-folder/", "outside-folder/inner", "tree/",
        "tree/to-file -> " + path("outside-file"), "tree/to-folder -> " + path("outside-folder"),
        "link-to-folder -> outside-folder", "slashed-link -> outside-folder",
        "single-slashed-link -> outside-folder"});
  for (const char* name : {"outside-file", "outside-folder/inner", "outside-folder"}) {
    setFlags(name, kUserImmutableFlag);
  }

  // Protecting a tree does not protect what its links point to, and deleting a tree or a link
  // unprotects only what is removed, even when a trailing slash names the link.
  expectSuccess(kCommandModifyProtectAttribute,
                {text(path("tree")), test::number(1), test::number(1), test::number(0)});
  expectSuccess(kCommandDeleteFileSubtree,
                {text(path("tree")), text(path("link-to-folder")), text(path("slashed-link//"))});
  expectSuccess(kCommandDeleteFileObjects, {text("1"), text(path("single-slashed-link/"))});
  for (const char* name : {"tree", "link-to-folder", "slashed-link", "single-slashed-link"}) {
    EXPECT_FALSE(exists(name)) << name;
  }
  for (const char* name : {"outside-file", "outside-folder/inner", "outside-folder"}) {
    EXPECT_EQ(flagsOf(name), kUserImmutableFlag) << name;
  }
}

// A folder or file of the named tree is swapped for a link to something outside while the command
// runs: the walk, the flag change and the deletion all stay with the objects first reached.
TEST_F(DeletionTest, ObjectsSwappedForLinksMidCommandNeverLeadItOutside) {
  constexpr int kRounds = 150;
  const std::string letters = "abcdefghijkl";
  make({"outside/", "outside/plain"});
  for (char c : letters) {
    make({std::string("outside/") + c});
    setFlags(std::string("outside/") + c, kUserImmutableFlag);
  }
  auto reset = [&](const std::vector<std::string>& names, const std::string& parkedTarget) {
    for (const std::string& name : names) {
      // A link goes by itself: the tree's clean-up would lift the flags of what it points to.
      if (::unlink(path(name).c_str()) != 0) test::TestFileTree::removeAll(path(name));
    }
    make({"parked -> " + path(parkedTarget)});
  };
  whileSwapping(
      path("tree/sub"), path("parked"), kRounds,
      [&] {
        reset({"tree", "parked"}, "outside");
        make({"tree/", "tree/sub/", "tree/sub/plain"});
        for (char c : letters) {
          make({std::string("tree/sub/") + c});
          setFlags(std::string("tree/sub/") + c, kUserImmutableFlag);
        }
      },
      [&] {
        (void)run(kCommandModifyProtectAttribute,
                  {text(path("tree")), test::number(1), test::number(1), test::number(0)});
        (void)run(kCommandDeleteFileSubtree, {text(path("tree"))});
      },
      [] {});
  for (char c : letters) EXPECT_EQ(flagsOf(std::string("outside/") + c), kUserImmutableFlag) << c;
  EXPECT_EQ(flagsOf("outside/plain"), 0U);

  // The names listed in one folder are deleted in that folder, never in one swapped in for it.
  bool mixed = false;
  whileSwapping(
      path("box"), path("parked"), kRounds,
      [&] {
        reset({"box", "parked", "names"}, "names");
        make({"box/", "names/", "names/only-here"});
        for (char c = '0'; c <= 'z'; ++c)
          make({std::string("box/") + c, std::string("names/") + c});
      },
      [&] { (void)run(kCommandDeleteFolderContents, {text(path("box"))}); },
      [&] {
        // Either "names" was emptied as a whole, or not touched at all.
        bool some = false;
        bool all = true;
        for (char c = '0'; c <= 'z'; ++c) {
          bool there = exists(std::string("names/") + c);
          some = some || there;
          all = all && there;
        }
        mixed = mixed || (exists("names/only-here") ? !all : some);
      });
  EXPECT_FALSE(mixed);
  (void)progressValues();
}

TEST_F(DeletionTest, FolderContentsGoTheFoldersStay) {
  make({"one/", "one/sub/", "one/sub/file", "one/protected", "two/", "two/x"});
  setFlags("one/protected", kUserImmutableFlag);
  expectSuccess(kCommandDeleteFolderContents,
                {text(path("missing")), text(path("one")), text(path("two"))});
  EXPECT_EQ(progressValues(), (std::vector<double>{0.0, 1.0 / 3.0, 2.0 / 3.0}));
  EXPECT_TRUE(exists("one") && exists("two"));
  EXPECT_FALSE(exists("one/sub") || exists("one/protected") || exists("two/x"));

  make({"plain", "two/y"});
  expectResult(run(kCommandDeleteFolderContents, {text(path("plain")), text(path("two"))}),
               kPosixErrorDomain, ENOTDIR, path("plain"));
  EXPECT_TRUE(exists("plain") && exists("two/y"));
}

TEST_F(DeletionTest, AGoneClientStopsTheMultiPathCommandsBeforeAnyDeletion) {
  make({"folder/", "folder/file"});
  KRVCommandExecutor withoutClient;  // no pipe: every progress report fails
  const Array paths{text(path("folder/file")), text(path("folder"))};
  EXPECT_FALSE(withoutClient.deleteFileSystemObjectsAtPaths(paths, true).has_value());
  EXPECT_FALSE(withoutClient.deleteFileSystemObjectsRecursivelyAtPaths(paths).has_value());
  EXPECT_FALSE(withoutClient.deleteFileSystemFolderContentsAtPaths(paths).has_value());
  EXPECT_TRUE(exists("folder/file"));
}

// ramfs keeps no inode flags at all.
TEST_F(DeletionTest, AFileSystemWithoutFlagsDeletesAndUnprotectsButCannotProtect) {
  make({"mnt/"});
  test::Facts facts = test::inPrivateMount(path("mnt"), "ramfs", [&](test::Facts& seen) {
    const std::string file = path("mnt/file");
    if (::mknod(file.c_str(), S_IFREG | 0644, 0) != 0) {
      seen["child"] = "mknod";
      return;
    }
    test::ExecutorWithPipe client;
    const struct {
      const char* step;
      std::uint32_t code;
      Array arguments;
    } steps[] = {
        {"protect",
         kCommandModifyProtectAttribute,
         {text(file), test::number(1), test::number(0), test::number(0)}},
        {"unprotect",
         kCommandModifyProtectAttribute,
         {text(file), test::number(0), test::number(0), test::number(0)}},
        {"remove system protection", kCommandRemoveSystemProtection, {text(file)}},
        {"delete subtree", kCommandDeleteFileSubtree, {text(file)}},
    };
    for (const auto& [step, code, arguments] : steps) {
      CommandResult result = client.run(code, arguments);
      seen[step] = result ? std::to_string(result->code()) : "none";
    }
    seen["file left"] = ::access(file.c_str(), F_OK) == 0 ? "yes" : "no";
  });
  ASSERT_FALSE(facts.contains("child")) << facts["child"];
  EXPECT_EQ(facts["protect"], std::to_string(EOPNOTSUPP));
  EXPECT_EQ(facts["unprotect"], "0");
  EXPECT_EQ(facts["remove system protection"], "0");
  EXPECT_EQ(facts["delete subtree"], "0");
  EXPECT_EQ(facts["file left"], "no");
}

}  // namespace
}  // namespace krv
