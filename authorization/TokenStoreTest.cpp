#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <set>

#include "authorization/TokenStore.h"
#include "foundation/System.h"

namespace krv::auth {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr uid_t kAlice = 1001;
constexpr uid_t kBob = 1002;

const Rule& rule(std::string_view name) {
  const Rule* found = findRule(name);
  EXPECT_NE(found, nullptr) << name;
  return *found;
}

class TokenStoreTest : public ::testing::Test {
 protected:
  struct Handle {
    ExternalForm token{};
    std::uint64_t id = 0;
  };

  Handle create(uid_t uid, std::uint32_t session = 7) {
    Creator creator;
    creator.uid = uid;
    creator.session = session;
    Handle handle;
    EXPECT_EQ(m_store.create(std::move(creator), handle.token), kStatusSuccess);
    std::optional<TokenStore::Entry> entry = m_store.find(handle.token);
    EXPECT_TRUE(entry.has_value());
    if (entry) handle.id = entry->id;
    return handle;
  }

  // An administrator's credential obtained now for `right` under `ruleName`.
  void authenticate(const Handle& handle, std::string_view ruleName, bool preAuthorize = false,
                    uid_t who = kAlice, bool administrator = true) {
    Credential credential;
    credential.uid = who;
    credential.administrator = administrator;
    credential.obtained = m_clock.now();
    ASSERT_TRUE(m_store.addCredential(handle.id, "com.test.right", rule(ruleName), credential,
                                      preAuthorize));
  }

  Verdict evaluate(const Handle& handle, std::string_view ruleName, Use use = Use::Client,
                   uid_t requester = kAlice, bool administrator = false) {
    return m_store.evaluate(handle.id, "com.test.right", findRule(ruleName),
                            Subject{requester, administrator}, use);
  }

  ManualClock m_clock;
  TokenStore m_store{m_clock};
};

TEST_F(TokenStoreTest, CredentialsLastForTheirRuleTimeout) {
  struct Case {
    const char* rule;
    seconds timeout;
  };
  for (const Case& c : {Case{"default", seconds(300)}, Case{"authenticate-admin-30", seconds(30)},
                        Case{"authenticate-admin-nonshared", seconds(300)},
                        Case{"authenticate-session-owner-or-admin", seconds(300)}}) {
    SCOPED_TRACE(c.rule);
    Handle handle = create(kAlice);
    const Instant start = m_clock.now();
    authenticate(handle, c.rule);
    m_clock.set(start + c.timeout - seconds(1));
    EXPECT_EQ(evaluate(handle, c.rule), Verdict::Granted);
    m_clock.set(start + c.timeout);
    EXPECT_EQ(evaluate(handle, c.rule), Verdict::NeedsAuthentication);
    m_clock.set(start + c.timeout + seconds(1));
    EXPECT_EQ(evaluate(handle, c.rule), Verdict::NeedsAuthentication);
    EXPECT_TRUE(m_store.free(handle.id, true));
  }
}

TEST_F(TokenStoreTest, SharedCredentialsReachTheSameUsersSessionOnly) {
  Handle first = create(kAlice, 7);
  Handle second = create(kAlice, 7);
  Handle otherSession = create(kAlice, 8);
  Handle otherUser = create(kBob, 7);
  authenticate(first, "default");
  m_clock.advance(seconds(299));
  EXPECT_EQ(evaluate(second, "default"), Verdict::Granted);
  EXPECT_EQ(evaluate(second, "authenticate-admin-nonshared"), Verdict::NeedsAuthentication);
  EXPECT_EQ(evaluate(otherSession, "default"), Verdict::NeedsAuthentication);
  EXPECT_EQ(evaluate(otherUser, "default", Use::Client, kBob), Verdict::NeedsAuthentication);
  m_clock.advance(seconds(1));
  EXPECT_EQ(evaluate(second, "default"), Verdict::NeedsAuthentication);

  // A credential under a rule that is not shared stays with its authorization, where it counts
  // for every rule.
  authenticate(first, "authenticate-admin-nonshared");
  EXPECT_EQ(evaluate(first, "default"), Verdict::Granted);
  EXPECT_EQ(evaluate(second, "default"), Verdict::NeedsAuthentication);
}

TEST_F(TokenStoreTest, TimeoutZeroGrantsOneValidationOnlyAfterPreAuthorization) {
  Handle plain = create(kAlice);
  authenticate(plain, "authenticate-admin");
  EXPECT_EQ(evaluate(plain, "authenticate-admin"), Verdict::NeedsAuthentication);
  EXPECT_EQ(evaluate(plain, "authenticate-admin", Use::Validation), Verdict::NeedsAuthentication);

  Handle preAuthorized = create(kAlice);
  authenticate(preAuthorized, "authenticate-admin", true);
  // A client's own later copy does not use up the pre-authorization...
  EXPECT_EQ(evaluate(preAuthorized, "authenticate-admin"), Verdict::NeedsAuthentication);
  // ...the daemon's validation does, exactly once.
  EXPECT_EQ(evaluate(preAuthorized, "authenticate-admin", Use::Validation), Verdict::Granted);
  EXPECT_EQ(evaluate(preAuthorized, "authenticate-admin", Use::Validation),
            Verdict::NeedsAuthentication);
  // It is bound to its right.
  authenticate(preAuthorized, "authenticate-admin", true);
  EXPECT_EQ(m_store.evaluate(preAuthorized.id, "com.test.other", findRule("authenticate-admin"),
                             Subject{kAlice, false}, Use::Validation),
            Verdict::NeedsAuthentication);
  // And it does not wait for ever.
  m_clock.advance(TokenLimits{}.preAuthorizationLifetime);
  EXPECT_EQ(evaluate(preAuthorized, "authenticate-admin", Use::Validation),
            Verdict::NeedsAuthentication);
}

TEST_F(TokenStoreTest, OnlyAdministratorsSatisfyAdministratorRules) {
  Handle handle = create(kBob);
  authenticate(handle, "default", false, kBob, false);
  EXPECT_EQ(evaluate(handle, "default", Use::Client, kBob), Verdict::NeedsAuthentication);
  // The session owner's own password is enough where the rule says so.
  authenticate(handle, "authenticate-session-owner-or-admin", false, kBob, false);
  EXPECT_EQ(evaluate(handle, "authenticate-session-owner-or-admin", Use::Client, kBob),
            Verdict::Granted);
  // But not another ordinary user's.
  Handle other = create(kAlice);
  authenticate(other, "authenticate-session-owner-or-admin", false, kBob, false);
  EXPECT_EQ(evaluate(other, "authenticate-session-owner-or-admin", Use::Client, kAlice),
            Verdict::NeedsAuthentication);
}

TEST_F(TokenStoreTest, PlainRulesNeedNoCredential) {
  Handle user = create(kAlice);
  Handle root = create(0);
  struct Case {
    const char* rule;
    uid_t requester;
    bool administrator;
    Verdict verdict;
  };
  const Case cases[] = {
      {"allow", kAlice, false, Verdict::Granted},
      {"deny", kAlice, true, Verdict::Denied},
      {"deny", 0, false, Verdict::Denied},
      {"is-root", kAlice, true, Verdict::Denied},
      {"is-root", 0, false, Verdict::Granted},
      {"is-admin", kAlice, false, Verdict::Denied},
      {"is-admin", kAlice, true, Verdict::Granted},
      {"is-admin", 0, false, Verdict::Granted},
      {"no-such-rule", kAlice, true, Verdict::Denied},
      {"no-such-rule", 0, false, Verdict::Denied},
      {"default", 0, false, Verdict::Granted},
      {"authenticate-admin", 0, false, Verdict::Granted},
      {"default", kAlice, true, Verdict::NeedsAuthentication},
  };
  for (const Case& c : cases) {
    const Handle& handle = c.requester == 0 ? root : user;
    EXPECT_EQ(evaluate(handle, c.rule, Use::Validation, c.requester, c.administrator), c.verdict)
        << c.rule << " for uid " << c.requester;
  }
}

TEST_F(TokenStoreTest, DestroyingRightsRemovesSharedCopiesAPlainFreeDoesNot) {
  Handle owner = create(kAlice);
  Handle sibling = create(kAlice);
  authenticate(owner, "default");
  ASSERT_EQ(evaluate(sibling, "default"), Verdict::Granted);
  ASSERT_TRUE(m_store.destroyRights(owner.id));
  EXPECT_EQ(evaluate(owner, "default"), Verdict::NeedsAuthentication);
  EXPECT_EQ(evaluate(sibling, "default"), Verdict::NeedsAuthentication);
  EXPECT_TRUE(m_store.find(owner.token).has_value()) << "destroying rights keeps the token";

  authenticate(owner, "default");
  ASSERT_EQ(evaluate(sibling, "default"), Verdict::Granted);
  ASSERT_TRUE(m_store.free(owner.id, true));
  EXPECT_EQ(evaluate(sibling, "default"), Verdict::NeedsAuthentication);
  EXPECT_FALSE(m_store.find(owner.token).has_value());

  authenticate(sibling, "default");
  ASSERT_TRUE(m_store.free(sibling.id, false));
  EXPECT_EQ(evaluate(create(kAlice), "default"), Verdict::Granted)
      << "a plain free keeps shared copies";
}

TEST_F(TokenStoreTest, TokensAreRandomAndOnlyTheExactTokenFindsItsAuthorization) {
  std::set<ExternalForm> seen;
  for (int i = 0; i < 32; ++i) EXPECT_TRUE(seen.insert(create(kBob).token).second);
  EXPECT_EQ(seen.count(ExternalForm{}), 0u);
  Handle handle = create(kAlice);
  std::vector<ExternalForm> forged(4, handle.token);
  forged[0][0] ^= 0x80;
  forged[1][16] ^= 0x80;
  forged[2][31] ^= 0x80;
  forged[3] = ExternalForm{};
  for (const ExternalForm& token : forged) EXPECT_FALSE(m_store.find(token).has_value());
  EXPECT_TRUE(m_store.find(handle.token).has_value());
  ASSERT_TRUE(m_store.free(handle.id, false));
  EXPECT_FALSE(m_store.find(handle.token).has_value());
  EXPECT_FALSE(m_store.free(handle.id, false));
}

TEST_F(TokenStoreTest, TokensEndAfterFifteenMinutesUnused) {
  Handle used = create(kAlice);
  Handle idle = create(kAlice);
  m_clock.advance(minutes(14));
  EXPECT_TRUE(m_store.find(used.token).has_value());
  m_clock.advance(minutes(1));
  EXPECT_TRUE(m_store.find(used.token).has_value()) << "use resets the idle time";
  EXPECT_FALSE(m_store.find(idle.token).has_value());
  m_clock.advance(minutes(15));
  m_store.sweep();
  EXPECT_EQ(m_store.liveCount(), 0u);
}

TEST_F(TokenStoreTest, CreationIsBoundedPerUserAndInAll) {
  TokenLimits limits;
  limits.perUser = 3;
  limits.total = 5;
  TokenStore store(m_clock, limits);
  ExternalForm token{};
  for (int i = 0; i < 3; ++i) EXPECT_EQ(store.create(Creator{kAlice, {}, 1}, token), 0);
  EXPECT_EQ(store.create(Creator{kAlice, {}, 1}, token), kStatusInternal);
  EXPECT_EQ(store.create(Creator{kBob, {}, 1}, token), kStatusSuccess);
  EXPECT_EQ(store.create(Creator{kBob, {}, 1}, token), kStatusSuccess);
  EXPECT_EQ(store.create(Creator{0, {}, 1}, token), kStatusInternal);
  EXPECT_EQ(store.liveCount(), 5u);
  std::optional<TokenStore::Entry> last = store.find(token);
  ASSERT_TRUE(last.has_value());
  ASSERT_TRUE(store.free(last->id, false));
  EXPECT_EQ(store.create(Creator{0, {}, 1}, token), kStatusSuccess);
}

TEST_F(TokenStoreTest, TheSweepEndsTokensWhoseCreatorExited) {
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    ::pause();
    ::_exit(0);
  }
  ExternalForm token{};
  ASSERT_EQ(m_store.create(Creator{kAlice, sys::pidfdOpen(child).valueOr(UniqueFd()), 1}, token),
            kStatusSuccess);
  ::kill(child, SIGKILL);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  m_store.sweep();
  EXPECT_EQ(m_store.liveCount(), 0u) << "without a lookup";
}

}  // namespace
}  // namespace krv::auth
