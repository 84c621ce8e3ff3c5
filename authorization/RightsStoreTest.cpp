#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <string>

#include "authorization/RightsStore.h"
#include "foundation/PropertyList.h"
#include "foundation/System.h"

namespace krv::auth {
namespace {

class RightsStoreTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "the rights store accepts only root-owned files";
    char pattern[] = "/tmp/krv-rights-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_base = pattern;
    ASSERT_EQ(::chmod(m_base.c_str(), 0755), 0);
    m_folder = m_base + "/rights.d";
    m_store = std::make_unique<RightsStore>(m_folder);
  }
  void TearDown() override {
    if (!m_base.empty()) std::system(("rm -rf '" + m_base + "'").c_str());
  }

  std::string file(const std::string& right) const { return m_folder + "/" + right + ".plist"; }
  void writeFile(const std::string& path, const std::string& contents, mode_t mode = 0644) {
    ::mkdir(m_folder.c_str(), 0755);
    UniqueFd fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
    ASSERT_TRUE(fd.valid());
    ASSERT_TRUE(sys::writeAll(
        fd.get(), {reinterpret_cast<const std::uint8_t*>(contents.data()), contents.size()}));
    ASSERT_EQ(::fchmod(fd.get(), mode), 0);
  }
  std::string xml(const Value& value) {
    Result<Data> bytes = plist::writeXml(value);
    EXPECT_TRUE(bytes.ok());
    return bytes ? std::string(bytes->begin(), bytes->end()) : std::string();
  }
  std::string m_base;
  std::string m_folder;
  std::unique_ptr<RightsStore> m_store;
};

TEST(RightNameTest, AcceptsOnlyPlainNames) {
  const std::pair<std::string, bool> cases[] = {
      {"com.tavorin.get.version", true},
      {"A-b_c.9", true},
      {std::string(kMaximumRightNameLength, 'r'), true},
      {std::string(kMaximumRightNameLength + 1, 'r'), false},
      {"", false},
      {".", false},
      {"..", false},
      {"../../etc/shadow", false},
      {"com/tavorin", false},
      {"/etc/passwd", false},
      {".hidden", false},
      {"with space", false},
      {"new\nline", false},
      {std::string("nul\0byte", 8), false},
      {"caf\xc3\xa9", false},
  };
  for (const auto& [name, valid] : cases) EXPECT_EQ(isValidRightName(name), valid) << name;
}

Value dictionary(std::initializer_list<std::pair<const char*, Value>> entries) {
  Dictionary result;
  for (const auto& [key, value] : entries) result.append(key, value);
  return Value(std::move(result));
}

TEST(RightDefinitionTest, ReadsBothFormsAndRefusesOthers) {
  const Value full = dictionary({{"rule", Value("default")}, {"comment", Value("Set the time")}});
  EXPECT_EQ(*definitionFromValue(Value("default")), (RightDefinition{"default", ""}));
  EXPECT_EQ(*definitionFromValue(full), (RightDefinition{"default", "Set the time"}));
  EXPECT_EQ(*definitionFromValue(dictionary({{"rule", Value("allow")}})),
            (RightDefinition{"allow", ""}));
  const Value refused[] = {
      dictionary({{"rule", Value("default")}, {"timeout", Value::integer(5)}}),
      dictionary({{"comment", Value("x")}}),
      dictionary({{"rule", Value("../deny")}}),
      dictionary({{"rule", Value("default")},
                  {"comment", Value(std::string(kMaximumCommentLength + 1, 'c'))}}),
      Value(""),
      Value::integer(1),
      Value(Array{Value("default")}),
  };
  for (const Value& bad : refused) {
    EXPECT_FALSE(definitionFromValue(bad).ok()) << bad.description();
  }
  // The value form is the plain rule name exactly when there is no comment.
  EXPECT_EQ(definitionValue({"default", ""}), Value("default"));
  EXPECT_EQ(definitionValue({"default", "Set the time"}), full);
}

TEST_F(RightsStoreTest, SetWritesAnXmlFileAtomicallyThatLookupAndRemoveFind) {
  EXPECT_FALSE(*m_store->exists("com.test.clock")) << "not even the folder exists";
  EXPECT_EQ(m_store->lookup("com.test.clock").state, RightsStore::State::Missing);
  ASSERT_TRUE(m_store->set("com.test.clock", {"default", ""}));
  ASSERT_TRUE(m_store->set("com.test.clock", {"deny", "Set the clock"}));
  RightsStore::Lookup lookup = m_store->lookup("com.test.clock");
  ASSERT_EQ(lookup.state, RightsStore::State::Defined) << lookup.problem;
  EXPECT_EQ(lookup.definition, (RightDefinition{"deny", "Set the clock"}));
  Result<std::string> contents = sys::readFile(file("com.test.clock"), 4096);
  ASSERT_TRUE(contents.ok());
  EXPECT_EQ(
      *plist::readXml({reinterpret_cast<const std::uint8_t*>(contents->data()), contents->size()}),
      definitionValue({"deny", "Set the clock"}));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_folder), {}), 1)
      << "no temporary file is left behind";

  ASSERT_TRUE(m_store->remove("com.test.clock"));
  EXPECT_FALSE(*m_store->exists("com.test.clock"));
  Status again = m_store->remove("com.test.clock");
  ASSERT_FALSE(again.ok());
  EXPECT_EQ(again.error().code(), ENOENT);
}

TEST_F(RightsStoreTest, RefusesHostileNamesEverywhere) {
  for (const char* name : {"../escape", "a/b", "..", ".hidden", ""}) {
    EXPECT_FALSE(m_store->set(name, {"allow", ""}).ok()) << name;
    EXPECT_FALSE(m_store->exists(name).ok()) << name;
    EXPECT_FALSE(m_store->remove(name).ok()) << name;
    EXPECT_NE(m_store->lookup(name).state, RightsStore::State::Defined) << name;
  }
  EXPECT_FALSE(sys::lstat(m_base + "/escape.plist").ok());
}

// Files an administrator (or an attacker) may leave under a right's name: each counts as existing
// (so the daemon's set-up never overwrites it) and none is ever used.
TEST_F(RightsStoreTest, UnsafeAndBrokenFilesExistButAreNeverUsed) {
  using State = RightsStore::State;
  struct Case {
    const char* scenario;
    char kind;  // 'f' a file, 'l' a symbolic link to one, 'p' a FIFO, 'd' a folder
    std::string contents;
    mode_t mode;
    uid_t owner;
    State state;
  };
  const std::string valid = xml(Value("allow"));
  const Case cases[] = {
      {"owned by another user", 'f', valid, 0644, 1000, State::Unsafe},
      {"world-writable", 'f', valid, 0666, 0, State::Unsafe},
      {"group-writable", 'f', valid, 0664, 0, State::Unsafe},
      {"symbolic link to a valid file", 'l', valid, 0644, 0, State::Unsafe},
      {"FIFO (must not hang)", 'p', "", 0644, 0, State::Unsafe},
      {"folder", 'd', "", 0755, 0, State::Unsafe},
      {"not a property list", 'f', "allow\n", 0644, 0, State::Broken},
      {"a number", 'f', xml(Value::integer(7)), 0644, 0, State::Broken},
      {"too large", 'f', std::string(kMaximumDefinitionFileSize + 1, ' '), 0644, 0, State::Broken},
      {"empty", 'f', "", 0644, 0, State::Broken},
  };
  ::mkdir(m_folder.c_str(), 0755);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    const std::string right = "com.test.case" + std::to_string(&c - cases);
    const std::string path = file(right);
    const std::string target = c.kind == 'l' ? m_base + "/elsewhere.plist" : path;
    if (c.kind == 'f' || c.kind == 'l') writeFile(target, c.contents, c.mode);
    if (c.kind == 'l') {
      ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    } else if (c.kind == 'p') {
      ASSERT_EQ(::mkfifo(path.c_str(), c.mode), 0);
    } else if (c.kind == 'd') {
      ASSERT_EQ(::mkdir(path.c_str(), c.mode), 0);
    }
    ASSERT_EQ(::lchown(path.c_str(), c.owner, c.owner), 0);
    EXPECT_TRUE(*m_store->exists(right));
    RightsStore::Lookup lookup = m_store->lookup(right);
    EXPECT_EQ(lookup.state, c.state) << lookup.problem;
    EXPECT_FALSE(lookup.problem.empty());
  }
}

TEST_F(RightsStoreTest, RefusesAFolderOthersCouldWriteOrOwn) {
  ASSERT_TRUE(m_store->set("com.test.a", {"allow", ""}));
  ASSERT_EQ(::chmod(m_folder.c_str(), 0777), 0);
  EXPECT_EQ(m_store->lookup("com.test.a").state, RightsStore::State::Unsafe);
  EXPECT_FALSE(m_store->set("com.test.b", {"allow", ""}).ok());
  EXPECT_FALSE(m_store->remove("com.test.a").ok());

  ASSERT_EQ(::chmod(m_folder.c_str(), 0755), 0);
  ASSERT_EQ(::chown(m_folder.c_str(), 1000, 1000), 0);
  EXPECT_EQ(m_store->lookup("com.test.a").state, RightsStore::State::Unsafe);

  // A folder on the way that others may write (and that is not sticky) is as bad.
  ASSERT_EQ(::chown(m_folder.c_str(), 0, 0), 0);
  ASSERT_EQ(::chmod(m_base.c_str(), 0757), 0);
  EXPECT_EQ(m_store->lookup("com.test.a").state, RightsStore::State::Unsafe);
  ASSERT_EQ(::chmod(m_base.c_str(), 0755), 0);
  EXPECT_EQ(m_store->lookup("com.test.a").state, RightsStore::State::Defined);
}

TEST_F(RightsStoreTest, DoesNotFollowASymbolicLinkOnTheWay) {
  const std::string real = m_base + "/real";
  ASSERT_EQ(::mkdir(real.c_str(), 0755), 0);
  RightsStore direct(real + "/rights.d");
  ASSERT_TRUE(direct.set("com.test.a", {"allow", ""}));
  ASSERT_EQ(::symlink(real.c_str(), (m_base + "/link").c_str()), 0);
  RightsStore throughLink(m_base + "/link/rights.d");
  EXPECT_NE(throughLink.lookup("com.test.a").state, RightsStore::State::Defined);
  EXPECT_FALSE(throughLink.set("com.test.b", {"allow", ""}).ok());
}

}  // namespace
}  // namespace krv::auth
