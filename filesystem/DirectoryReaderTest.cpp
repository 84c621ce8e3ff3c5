#include "filesystem/DirectoryReader.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <map>
#include <string>

#include "foundation/System.h"
#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

UniqueFd openFolder(const std::string& path) {
  return sys::open(path, O_RDONLY | O_DIRECTORY).valueOr(UniqueFd());
}

// How often each name of the innermost level comes out until its end.
std::map<std::string, int> drain(DirectoryReader& reader) {
  std::map<std::string, int> seen;
  while (std::optional<DirectoryReader::Entry> entry = reader.next())
    ++seen[std::string(entry->name)];
  return seen;
}

// Folders of a few thousand names take several batches each: the inner level's batches sit where
// the outer level's unread entries end, and must never overwrite them.
TEST(DirectoryReaderTest, AnInnerLevelLeavesTheUnreadEntriesOfItsParentIntact) {
  test::TestFileTree tree;
  tree.makeFolder("outer");
  tree.makeFolder("outer/inner");
  for (int i = 0; i < 2000; ++i) {
    tree.makeFile("outer/o-" + std::to_string(i) + std::string(40, 'x'));
    tree.makeFile("outer/inner/i-" + std::to_string(i) + std::string(40, 'y'));
  }
  Result<DirectoryReader> reader = DirectoryReader::create(2);
  ASSERT_TRUE(reader);
  reader->push(openFolder(tree.path("outer")));
  std::map<std::string, int> outer;
  std::map<std::string, int> inner;
  while (std::optional<DirectoryReader::Entry> entry = reader->next()) {
    ++outer[std::string(entry->name)];
    if (entry->name != "inner") continue;
    reader->push(openFolder(tree.path("outer/inner")));
    inner = drain(*reader);
    reader->pop();
  }
  EXPECT_EQ(outer.size(), 2001u);
  EXPECT_EQ(inner.size(), 2000u);
  for (const auto& [name, count] : outer) EXPECT_EQ(count, 1) << name;
  for (const auto& [name, count] : inner) EXPECT_EQ(count, 1) << name;
  EXPECT_FALSE(reader->readError());
}

TEST(DirectoryReaderTest, TellsAFailedReadFromTheEndOfAFolder) {
  test::TestFileTree tree;
  const std::string file = tree.makeFile("file");
  tree.makeFolder("empty");

  Result<DirectoryReader> empty = DirectoryReader::listing(tree.path("empty"));
  ASSERT_TRUE(empty);
  EXPECT_TRUE(drain(*empty).empty());
  EXPECT_FALSE(empty->readError());

  // A descriptor that is no folder fails its first read.
  Result<DirectoryReader> notAFolder = DirectoryReader::create(1);
  ASSERT_TRUE(notAFolder);
  notAFolder->push(sys::open(file, O_RDONLY).valueOr(UniqueFd()));
  EXPECT_FALSE(notAFolder->next());
  ASSERT_TRUE(notAFolder->readError());
  EXPECT_EQ(notAFolder->readError()->code(), ENOTDIR);
  EXPECT_FALSE(notAFolder->next()) << "an ended level stays ended";

  EXPECT_EQ(DirectoryReader::listing(file).error().code(), ENOTDIR);
  EXPECT_EQ(DirectoryReader::create(0).error().code(), EINVAL);
}

TEST(DirectoryReaderTest, RewindListsTheFolderAgain) {
  test::TestFileTree tree;
  tree.make({"a", "b", "c"});
  Result<DirectoryReader> reader = DirectoryReader::listing(tree.root());
  ASSERT_TRUE(reader);
  ASSERT_TRUE(reader->next());
  ASSERT_TRUE(reader->rewind());
  EXPECT_EQ(drain(*reader), (std::map<std::string, int>{{"a", 1}, {"b", 1}, {"c", 1}}));
}

}  // namespace
}  // namespace krv
