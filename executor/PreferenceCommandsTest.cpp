// Preference and system configuration values through the executor, in a temporary tree with
// invented accounts whose homes lie in that tree.

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/support/SettingsTestSupport.h"

namespace krv {
namespace {

using test::integerAt;
using test::text;

constexpr uid_t kAlice = 4101;
constexpr uid_t kBob = 4102;
constexpr const char* kAliceFile = "home/alice/.config/preferences/com.example.app.plist";
constexpr const char* kConfiguration =
    "var/lib/com.tavorin.system.securityagent3/SystemConfiguration/";

class PreferenceCommandTest : public test::SettingsCommandTest {
 protected:
  PreferenceCommandTest() {
    m_accounts->add({"alice", kAlice, kAlice, "/home/alice"});
    m_accounts->add({"bob", kBob, kBob, "/home/bob"});
    m_accounts->add({"root", 0, 0, "/root"});
    for (const char* home : {"home/alice", "home/bob", "root"}) folders(home);
    (void)::chown(path("home/alice").c_str(), kAlice, kAlice);
    (void)::chown(path("home/bob").c_str(), kBob, kBob);
  }
  CommandResult setPreference(const std::string& key, const std::string& domain,
                              const std::string& user, const std::string& host,
                              const std::string& value, uid_t requestingUser = 0) {
    return run(24, {text(key), text(domain), text(user), text(host), text(value)}, requestingUser);
  }
  void expectOwned(const std::string& relative, uid_t owner, mode_t mode) const {
    struct stat status = statusOf(relative);
    EXPECT_EQ(status.st_uid, owner) << relative;
    EXPECT_EQ(status.st_mode & 07777, mode) << relative;
  }
};

TEST_F(PreferenceCommandTest, AUsersValuesAreHersAndAnEmptyValueRemovesTheKey) {
  expectCode(setPreference("Count", "com.example.app", "alice", "kCFPreferencesAnyHost",
                           "<integer>5</integer>"),
             0);
  // Old-style text is a property list too.
  expectCode(setPreference("Name", "com.example.app", "alice", "kCFPreferencesAnyHost",
                           "{ first = Ada; }"),
             0);
  Dictionary values = plistAt(kAliceFile);
  EXPECT_EQ(integerAt(values, {"Count"}), 5);
  EXPECT_EQ(*test::valueAt(values, {"Name", "first"}), Value("Ada"));
  expectOwned(kAliceFile, kAlice, 0600);
  expectOwned("home/alice/.config", kAlice, 0700);
  expectOwned("home/alice/.config/preferences", kAlice, 0700);

  expectCode(setPreference("Count", "com.example.app", "alice", "kCFPreferencesAnyHost", ""), 0);
  EXPECT_FALSE(plistAt(kAliceFile).contains("Count"));
  EXPECT_TRUE(plistAt(kAliceFile).contains("Name"));
  // Removing what is not there writes nothing, not even a file.
  expectCode(setPreference("Gone", "com.example.other", "alice", "kCFPreferencesAnyHost", ""), 0);
  EXPECT_FALSE(m_tree.exists("home/alice/.config/preferences/com.example.other.plist"));
}

TEST_F(PreferenceCommandTest, DomainConstantsMapToTheirFiles) {
  file("etc/machine-id", "0123456789abcdef0123456789abcdef\n");
  // The current user is the one who asked.
  expectCode(setPreference("K", "NSGlobalDomain", "kCFPreferencesCurrentUser",
                           "kCFPreferencesCurrentHost", "<true/>", kBob),
             0);
  const std::string byHost =
      "home/bob/.config/preferences/ByHost/"
      ".GlobalPreferences.0123456789abcdef0123456789abcdef.plist";
  EXPECT_TRUE(plistAt(byHost).contains("K"));
  expectOwned(byHost, kBob, 0600);

  expectCode(setPreference("K", "com.example.app", "kCFPreferencesAnyUser", "kCFPreferencesAnyHost",
                           "<string>all</string>"),
             0);
  EXPECT_EQ(*plistAt("etc/preferences/com.example.app.plist").find("K"), Value("all"));
  expectOwned("etc/preferences/com.example.app.plist", 0, 0644);
  expectCode(
      setPreference("K", "com.example.app", "kCFPreferencesAnyUser", "build-host", "<false/>"), 0);
  EXPECT_TRUE(plistAt("etc/preferences/ByHost/com.example.app.build-host.plist").contains("K"));
}

TEST_F(PreferenceCommandTest, BadArgumentsAndValuesAreRefusedBeforeAnythingIsWritten) {
  for (int empty = 0; empty < 4; ++empty) {
    Array arguments = {text("K"), text("d"), text("alice"), text("kCFPreferencesAnyHost"),
                       text("<true/>")};
    arguments[static_cast<std::size_t>(empty)] = text("");
    expectCode(run(24, arguments), 3);
  }
  for (const char* domain : {"../evil", "a/b", "x..y"}) {
    expectCode(setPreference("K", domain, "alice", "kCFPreferencesAnyHost", "<true/>"), 3);
  }
  expectCode(setPreference("K", std::string("a\0b", 3), "alice", "kCFPreferencesAnyHost", "1"), 3);
  expectCode(setPreference("K", "d", "alice", "../../etc", "<true/>"), 3);

  CommandResult result = setPreference("K", "d", "alice", "kCFPreferencesAnyHost", "{");
  expectCode(result, 14);
  EXPECT_NE(test::textOf(*result, "UnderlyingErrorMessage"), "<none>");
  EXPECT_FALSE(m_tree.exists("home/alice/.config"));
}

TEST_F(PreferenceCommandTest, NothingInAUsersHomeLeadsTheDaemonElsewhere) {
  const auto setForAlice = [&] {
    return setPreference("K", "com.example.app", "alice", "kCFPreferencesAnyHost", "<true/>");
  };
  // Her link to a folder of root's.
  folders("etc/secret");
  m_tree.makeLink("home/alice/.config", path("etc/secret"));
  (void)::lchown(path("home/alice/.config").c_str(), kAlice, kAlice);
  expectCode(setForAlice(), 16);
  EXPECT_FALSE(m_tree.exists("etc/secret/preferences"));
  ::unlink(path("home/alice/.config").c_str());

  // A folder of Bob's inside her home.
  folders("home/alice/.config");
  (void)::chown(path("home/alice/.config").c_str(), kBob, kBob);
  expectCode(setForAlice(), 16);
  (void)::chown(path("home/alice/.config").c_str(), kAlice, kAlice);

  // A file in her place that is not hers, or holds no dictionary: never overwritten.
  file(kAliceFile, "<dict/>");
  expectCode(setForAlice(), 16);
  (void)::chown(path(kAliceFile).c_str(), kAlice, kAlice);
  file(kAliceFile, "<array/>");
  expectCode(setForAlice(), 16);
  EXPECT_EQ(contentsOf(kAliceFile), "<array/>");

  // A home that is not the user's, and a user that does not exist.
  m_accounts->add({"carol", 4103, 4103, "/root"});
  expectCode(setPreference("K", "d", "carol", "kCFPreferencesAnyHost", "<true/>"), 16);
  expectCode(setPreference("K", "d", "nobody-here", "kCFPreferencesAnyHost", "<true/>"), 16);
  EXPECT_FALSE(m_tree.exists("root/.config"));
}

class ConfigurationCommandTest : public test::SettingsCommandTest {
 protected:
  CommandResult setConfiguration(const std::string& domain, const std::string& key,
                                 const std::string& value) {
    return run(25, {text("com.example.admin"), text(domain), text(key), text(value)});
  }
};

TEST_F(ConfigurationCommandTest, SetsAndRemovesValuesOfTheDomainStoreUnderItsLock) {
  expectCode(setConfiguration("", "Enabled", "<true/>"), 0);
  expectCode(setConfiguration("network.plist", "MTU", "<integer>1400</integer>"), 0);
  EXPECT_EQ(*plistAt(std::string(kConfiguration) + "preferences.plist").find("Enabled"),
            Value::boolean(true));
  EXPECT_EQ(integerAt(plistAt(std::string(kConfiguration) + "network.plist"), {"MTU"}), 1400);
  EXPECT_TRUE(m_tree.exists(std::string(kConfiguration) + "preferences.plist.lock"));

  // Removing a key that is not there is a failed change.
  expectCode(setConfiguration("", "Missing", ""), 16);
  expectCode(setConfiguration("", "Enabled", ""), 0);
  EXPECT_FALSE(plistAt(std::string(kConfiguration) + "preferences.plist").contains("Enabled"));
}

TEST_F(ConfigurationCommandTest, RefusalsAndFailures) {
  expectCode(run(25, {text(""), text(""), text("K"), text("1")}), 3);
  expectCode(setConfiguration("", "", "1"), 3);
  expectCode(setConfiguration("", "K", "<dict>"), 14);
  for (const char* domain : {"../../etc/passwd", "a/b", "network.plist.lock"}) {
    expectCode(setConfiguration(domain, "K", "<true/>"), 16);
  }
  // The lock file cannot be opened: EBUSY.
  folders(std::string(kConfiguration) + "locked.plist.lock");
  expectPosix(setConfiguration("locked.plist", "K", "<true/>"), EBUSY);
  // A store that does not read as a dictionary is never overwritten.
  const std::string store = std::string(kConfiguration) + "broken.plist";
  file(store, "<array/>");
  expectCode(setConfiguration("broken.plist", "K", "<true/>"), 16);
  EXPECT_EQ(contentsOf(store), "<array/>");
}

}  // namespace
}  // namespace krv
