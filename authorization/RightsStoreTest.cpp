#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdlib>
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
  std::size_t entriesInFolder() const {
    std::size_t count = 0;
    Result<sys::DirectoryStream> stream = sys::openDirectory(m_folder);
    if (!stream) return 0;
    while (dirent* entry = ::readdir(stream->get())) {
      std::string name = entry->d_name;
      if (name != "." && name != "..") ++count;
    }
    return count;
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

TEST(RightDefinitionTest, ReadsBothFormsAndRefusesOthers) {
  Dictionary full;
  full.append("rule", Value("default"));
  full.append("comment", Value("Set the time"));
  Dictionary ruleOnly;
  ruleOnly.append("rule", Value("allow"));
  Dictionary extraKey = full;
  extraKey.append("timeout", Value::integer(5));
  Dictionary noRule;
  noRule.append("comment", Value("x"));
  Dictionary badRule;
  badRule.append("rule", Value("../deny"));
  Dictionary longComment;
  longComment.append("rule", Value("default"));
  longComment.append("comment", Value(std::string(kMaximumCommentLength + 1, 'c')));

  EXPECT_EQ(*definitionFromValue(Value("default")), (RightDefinition{"default", ""}));
  EXPECT_EQ(*definitionFromValue(Value(full)), (RightDefinition{"default", "Set the time"}));
  EXPECT_EQ(*definitionFromValue(Value(ruleOnly)), (RightDefinition{"allow", ""}));
  for (const Value& bad : {Value(extraKey), Value(noRule), Value(badRule), Value(longComment),
                           Value(""), Value::integer(1), Value(Array{Value("default")})}) {
    EXPECT_FALSE(definitionFromValue(bad).ok()) << bad.description();
  }
  // The value form is the plain rule name exactly when there is no comment.
  EXPECT_EQ(definitionValue({"default", ""}), Value("default"));
  EXPECT_EQ(definitionValue({"default", "Set the time"}), Value(full));
}

TEST_F(RightsStoreTest, SetWritesAnXmlFileThatLookupReads) {
  ASSERT_TRUE(m_store->set("com.test.clock", {"default", "Set the clock"}));
  RightsStore::Lookup lookup = m_store->lookup("com.test.clock");
  ASSERT_EQ(lookup.state, RightsStore::State::Defined) << lookup.problem;
  EXPECT_EQ(lookup.definition, (RightDefinition{"default", "Set the clock"}));

  Result<struct stat> status = sys::lstat(file("com.test.clock"));
  ASSERT_TRUE(status.ok());
  EXPECT_TRUE(S_ISREG(status->st_mode));
  EXPECT_EQ(status->st_mode & 07777, 0644u);
  EXPECT_EQ(status->st_uid, 0u);
  Result<std::string> contents = sys::readFile(file("com.test.clock"), 4096);
  ASSERT_TRUE(contents.ok());
  EXPECT_NE(contents->find("<plist"), std::string::npos);
  EXPECT_EQ(
      *plist::readXml({reinterpret_cast<const std::uint8_t*>(contents->data()), contents->size()}),
      definitionValue({"default", "Set the clock"}));
}

TEST_F(RightsStoreTest, SetReplacesADefinitionAndLeavesNoTemporaryFile) {
  ASSERT_TRUE(m_store->set("com.test.a", {"default", ""}));
  ASSERT_TRUE(m_store->set("com.test.a", {"deny", "closed"}));
  EXPECT_EQ(m_store->lookup("com.test.a").definition, (RightDefinition{"deny", "closed"}));
  EXPECT_EQ(entriesInFolder(), 1u);
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

TEST_F(RightsStoreTest, ExistsIsFalseWithoutTheFolderAndRemoveReportsMissingRights) {
  EXPECT_FALSE(*m_store->exists("com.test.a"));
  EXPECT_EQ(m_store->lookup("com.test.a").state, RightsStore::State::Missing);
  ASSERT_TRUE(m_store->set("com.test.a", {"allow", ""}));
  EXPECT_TRUE(*m_store->exists("com.test.a"));
  ASSERT_TRUE(m_store->remove("com.test.a"));
  EXPECT_FALSE(*m_store->exists("com.test.a"));
  Status again = m_store->remove("com.test.a");
  ASSERT_FALSE(again.ok());
  EXPECT_EQ(again.error().code(), ENOENT);
}

// Files an administrator (or an attacker) may leave under a right's name: each counts as existing
// (so the daemon's set-up never overwrites it) and none is ever used.
TEST_F(RightsStoreTest, UnsafeAndBrokenFilesExistButAreNeverUsed) {
  struct Case {
    const char* scenario;
    std::function<void(const std::string& path)> make;
    RightsStore::State state;
  };
  const std::string valid = xml(Value("allow"));
  const Case cases[] = {
      {"owned by another user",
       [&](const std::string& path) {
         writeFile(path, valid);
         ASSERT_EQ(::chown(path.c_str(), 1000, 1000), 0);
       },
       RightsStore::State::Unsafe},
      {"world-writable", [&](const std::string& path) { writeFile(path, valid, 0666); },
       RightsStore::State::Unsafe},
      {"group-writable", [&](const std::string& path) { writeFile(path, valid, 0664); },
       RightsStore::State::Unsafe},
      {"symbolic link to a valid file",
       [&](const std::string& path) {
         writeFile(m_base + "/elsewhere.plist", valid);
         ASSERT_EQ(::symlink((m_base + "/elsewhere.plist").c_str(), path.c_str()), 0);
       },
       RightsStore::State::Unsafe},
      {"FIFO (must not hang)",
       [&](const std::string& path) { ASSERT_EQ(::mkfifo(path.c_str(), 0644), 0); },
       RightsStore::State::Unsafe},
      {"folder", [&](const std::string& path) { ASSERT_EQ(::mkdir(path.c_str(), 0755), 0); },
       RightsStore::State::Unsafe},
      {"not a property list", [&](const std::string& path) { writeFile(path, "allow\n"); },
       RightsStore::State::Broken},
      {"a number", [&](const std::string& path) { writeFile(path, xml(Value::integer(7))); },
       RightsStore::State::Broken},
      {"too large",
       [&](const std::string& path) {
         writeFile(path, std::string(kMaximumDefinitionFileSize + 1, ' '));
       },
       RightsStore::State::Broken},
      {"empty", [&](const std::string& path) { writeFile(path, ""); }, RightsStore::State::Broken},
  };
  ::mkdir(m_folder.c_str(), 0755);
  int index = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    const std::string right = "com.test.case" + std::to_string(index++);
    c.make(file(right));
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
