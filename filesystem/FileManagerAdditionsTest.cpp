#include "filesystem/FileManagerAdditions.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "filesystem/FileManager.h"
#include "platform/FileFlags.h"
#include "platform/TestFileTree.h"
#include "protocol/CommandTable.h"

namespace krv {
namespace {

std::string failingPath(const Error& error) {
  const Value* path = error.userInfo().find(key::kFailingPath);
  return path != nullptr && path->asString() != nullptr ? *path->asString() : "<none>";
}

class FileManagerAdditionsTest : public ::testing::Test {
 protected:
  test::TestFileTree m_tree;
};

TEST_F(FileManagerAdditionsTest, HiddenFlagIsOneBitAmongTheOthers) {
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
  EXPECT_FALSE(isHiddenObject(file));
  EXPECT_EQ(*readFileFlags(file, LinkHandling::NoFollow), kUserImmutableFlag | kNoDumpFlag);

  // A link is hidden on its own; its destination stays visible.
  std::string link = m_tree.makeLink("link", "file");
  ASSERT_TRUE(setHidden(true, link).ok());
  EXPECT_TRUE(isHiddenObject(link));
  EXPECT_FALSE(isHiddenObject(file));

  Status empty = setHidden(true, "");
  ASSERT_FALSE(empty.ok());
  EXPECT_EQ(empty.error().code(), EINVAL);
  EXPECT_EQ(failingPath(empty.error()), "");
  EXPECT_EQ(setHidden(true, m_tree.path("missing")).error().code(), ENOENT);
}

TEST_F(FileManagerAdditionsTest, TraversalFollowsExactlyOneLinkFromTheLinksFolder) {
  // A "target" in the working folder would be found by a path taken relative to it by mistake.
  m_tree.makeFile("target", "1");
  m_tree.makeFolder("d");
  std::string target = m_tree.makeFile("d/target", "12345");
  std::string relative = m_tree.makeLink("d/relative", "target");
  std::string absolute = m_tree.makeLink("absolute", target);
  std::string twice = m_tree.makeLink("twice", "d/relative");
  std::string dangling = m_tree.makeLink("d/dangling", "gone");
  char previous[PATH_MAX];
  ASSERT_NE(::getcwd(previous, sizeof previous), nullptr);
  ASSERT_EQ(::chdir(m_tree.root().c_str()), 0);

  Result<FileAttributes> viaRelative =
      FileManager::attributesOfItem(relative, LinkTraversal::OneLevel);
  Result<FileAttributes> viaAbsolute =
      FileManager::attributesOfItem(absolute, LinkTraversal::OneLevel);
  Result<FileAttributes> viaTwo = FileManager::attributesOfItem(twice, LinkTraversal::OneLevel);
  Result<FileAttributes> viaNothing =
      FileManager::attributesOfItem(dangling, LinkTraversal::OneLevel);
  Result<FileAttributes> plain = FileManager::attributesOfItem(target, LinkTraversal::OneLevel);
  Result<FileAttributes> untraversed = FileManager::attributesOfItem(relative, LinkTraversal::None);
  ASSERT_EQ(::chdir(previous), 0);

  ASSERT_TRUE(viaRelative.ok());
  EXPECT_EQ(viaRelative->size, 5U);
  ASSERT_TRUE(viaAbsolute.ok());
  EXPECT_EQ(viaAbsolute->size, 5U);
  ASSERT_TRUE(viaTwo.ok());
  EXPECT_EQ(viaTwo->type, kFileTypeSymbolicLink);  // the second link itself
  ASSERT_FALSE(viaNothing.ok());
  EXPECT_EQ(viaNothing.error().code(), ENOENT);
  EXPECT_EQ(failingPath(viaNothing.error()), m_tree.path("d/gone"));
  ASSERT_TRUE(plain.ok());
  EXPECT_EQ(plain->type, kFileTypeRegular);
  ASSERT_TRUE(untraversed.ok());
  EXPECT_EQ(untraversed->type, kFileTypeSymbolicLink);
}

}  // namespace
}  // namespace krv
