// The authorization service under the confinement its unit declares (read from the shipped unit
// file): no capability at all, NoNewPrivileges, the whole tree read-only but its rights store, a
// private /tmp, no network. It must still check passwords with PAM and keep its store.

#include <fcntl.h>
#include <linux/capability.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

#include "foundation/System.h"
#include "tests/authority/AuthorityFixture.h"
#include "tests/support/Sandbox.h"
#include "tests/support/UnitConfinement.h"

namespace krv::test {
namespace {

using namespace std::chrono_literals;

class AuthorityHardeningTest : public AuthorityFixture {
 protected:
  void SetUp() override {
    Result<ServiceConfinement> confinement =
        unitConfinement(std::string(KRV_PACKAGING_DIR) + "/com.tavorin.system.authority.service");
    ASSERT_TRUE(confinement) << confinement.error().description();
    m_confinement = *confinement;
    // PAM's made-up configuration where a site's lives, readable through the read-only tree.
    m_scratch = "/etc/krv-authority-hardening";
    if (inPrivateSandbox()) {
      for (const std::string& path : m_confinement.writablePaths) ::mkdir(path.c_str(), 0700);
    }
    m_launchConfinement = m_confinement;
    AuthorityFixture::SetUp();
  }

  ServiceConfinement m_confinement;
};

TEST_F(AuthorityHardeningTest, UnderItsUnitsConfinementPamStillDecidesAndTheStoreIsWritten) {
  ASSERT_TRUE(m_confinement.readOnlyTree);
  ASSERT_EQ(m_confinement.writablePaths,
            std::vector<std::string>{"/etc/com.tavorin.system.authority"});
  const pid_t pid = service().pid();
  EXPECT_EQ(boundingSetOf(pid), 0u) << "the unit keeps no capability";
  EXPECT_TRUE(noNewPrivilegesOf(pid));
  EXPECT_TRUE(mountReadOnlyFor(pid, "/"));
  EXPECT_FALSE(mountReadOnlyFor(pid, "/etc/com.tavorin.system.authority"));
  ASSERT_TRUE(m_confinement.privateNetwork);
  EXPECT_FALSE(sharesNetworkWith(pid, ::getpid())) << "clients reach it by the socket's path";

  // A real password check through PAM: the right password obtains the right, a wrong one not.
  Result<ChildProcess> alice = ChildProcess::start({kAlice, kAlice}, [](LineChannel& parent) {
    auto authorization = obtainRight(parent, kDefaultRight, {"alice-password"});
    (void)parent.receive(60s);
    return 0;
  });
  ASSERT_TRUE(alice.ok());
  EXPECT_EQ(alice->channel().receive().valueOr(""), "0") << serviceLog();
  EXPECT_EQ(alice->channel().receive().valueOr(""), "1") << "one password prompt";
  const auth::ExternalForm token = tokenFromHex(alice->channel().receive().valueOr(""));
  EXPECT_EQ(validate(token, kAlice), auth::kStatusSuccess);
  (void)alice->channel().send("done");
  EXPECT_EQ(alice->wait().valueOr(-1), 0);

  auto bob = asUser(kBob, [](LineChannel& parent) {
    auto authorization = obtainRight(parent, kDefaultRight, {"guess", std::nullopt});
  });
  ASSERT_FALSE(bob.empty());
  EXPECT_EQ(bob.front(), line(auth::kStatusCanceled)) << "a wrong password, then cancelled";

  // The store, the one writable place, takes a new right.
  defineRight("com.test.hardening", "authenticate-session-owner-or-admin");
  struct stat status {};
  EXPECT_EQ(::stat(rightFile("com.test.hardening").c_str(), &status), 0) << serviceLog();
}

// The premise of the empty bounding set: root without any capability reads a shadow database it
// owns with mode 0640 (as Debian ships it), and not one with mode 0000.
TEST_F(AuthorityHardeningTest, RootWithoutCapabilitiesReadsOnlyAShadowDatabaseItsOwnerMayRead) {
  const std::string readable = m_scratch + "/shadow-0640";
  const std::string closed = m_scratch + "/shadow-0000";
  for (const auto& [path, mode] : {std::pair{readable, 0640}, std::pair{closed, 0000}}) {
    Result<UniqueFd> file = sys::open(path, O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ASSERT_TRUE(file.ok());
    ASSERT_EQ(::fchown(file->get(), 0, 42), 0);
    ASSERT_EQ(::fchmod(file->get(), static_cast<mode_t>(mode)), 0);
  }
  const pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct none[2] = {};
    if (::syscall(SYS_capset, &header, none) != 0) ::_exit(10);
    const int owned = ::open(readable.c_str(), O_RDONLY);
    const int refused = ::open(closed.c_str(), O_RDONLY);
    ::_exit(owned >= 0 && refused < 0 && errno == EACCES ? 0 : 11);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
}  // namespace krv::test
