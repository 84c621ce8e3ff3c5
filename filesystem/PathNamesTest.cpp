#include "filesystem/PathNames.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdlib>
#include <string>

#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

TEST(PathNamesTest, PathArithmetic) {
  struct Case {
    std::string path;
    std::string standardized;
    std::string parent;
    std::string last;
  } cases[] = {
      {"/a//b/./c/", "/a/b/c", "/a//b/.", "c"},  // text only: nothing is tidied up
      {"/../a", "/a", "/..", "a"},
      {"/a/b/../../..", "/", "/a/b/../..", ".."},
      {"a/../b", "a/../b", "a/..", "b"},
      {"./", ".", "", "."},
      {"/", "/", "/", "/"},
      {"/a", "/a", "/", "a"},
      {"a", "a", "", "a"},
      {"", "", "", ""},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(standardizedPath(c.path), c.standardized) << c.path;
    EXPECT_EQ(deletingLastPathComponent(c.path), c.parent) << c.path;
    EXPECT_EQ(lastPathComponent(c.path), c.last) << c.path;
  }
}

// Every join of a base and a path below it agrees; "." once lost its separator (".b").
TEST(PathNamesTest, EveryJoinOfABaseAndAComponentAgrees) {
  struct Case {
    std::string base;
    std::string joined;
  } cases[] = {
      {"/a", "/a/b"}, {"/a/", "/a/b"}, {"/a//", "/a/b"}, {"/", "/b"},  {"//", "/b"},
      {".", "./b"},   {"./", "./b"},   {"..", "../b"},   {"a", "a/b"}, {"", "b"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(appendingPathComponent(c.base, "b"), c.joined) << c.base;
    EXPECT_EQ(pathPrefixBelow(c.base) + "b", c.joined) << c.base;
    std::string inPlace = c.base;
    appendPathComponent(inPlace, "b");
    EXPECT_EQ(inPlace, c.joined) << c.base;
  }
}

TEST(PathNamesTest, ResolvesEveryExistingComponentAndKeepsTheRestAsWritten) {
  test::TestFileTree tree;
  char real[PATH_MAX];
  ASSERT_NE(::realpath(tree.root().c_str(), real), nullptr);
  const std::string r = real;
  tree.make({"dir/", "dir/sub/", "dir/file", "abs -> " + r + "/dir", "rel -> dir",
             "dir/up -> ../dir/sub", "chain -> rel/up", "loop1 -> loop2", "loop2 -> loop1",
             "dangling -> nowhere/else"});

  struct Case {
    std::string path;
    std::string expected;
  } cases[] = {
      {r + "/abs/file", r + "/dir/file"},
      {r + "/rel/sub/../file", r + "/dir/file"},
      {r + "/abs/up/..", r + "/dir"},  // ".." leaves the link's destination, not the link
      {r + "/chain/", r + "/dir/sub"},
      {r + "/rel/missing/x/./y/", r + "/dir/missing/x/y"},
      {r + "/rel/missing/../up", r + "/dir/sub"},  // back on existing ground, resolving again
      {r + "/dir/file/x", r + "/dir/file/x"},
      {r + "/dangling/z", r + "/nowhere/else/z"},
      {r + "/loop1/x/..", r + "/loop1"},  // cannot be resolved: standardised
      {"/..", "/"},
      {"rel/./x/..", "rel/x/.."},  // relative: never looked at
      {"", ""},
  };
  for (const Case& c : cases) EXPECT_EQ(resolvingSymlinksInPath(c.path), c.expected) << c.path;
}

}  // namespace
}  // namespace krv
