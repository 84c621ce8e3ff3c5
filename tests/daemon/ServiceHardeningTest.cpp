// The daemon under the confinement its unit declares (read from the shipped unit file): only the
// capabilities of its bounding set, NoNewPrivileges. The commands that need what the unit keeps
// must still work: the immutable flag (CAP_LINUX_IMMUTABLE), a change of owner by a system
// program (program execution under NoNewPrivileges, CAP_CHOWN) and a signal to another user's
// process (CAP_KILL).

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "foundation/System.h"
#include "tests/daemon/DaemonFixture.h"
#include "tests/support/UnitConfinement.h"

namespace krv::test {
namespace {

constexpr const char* kBase = "/tmp/krv-hardening";
constexpr uid_t kOtherUser = 1001;

class DaemonHardeningTest : public DaemonTest {
 protected:
  void SetUp() override {
    Result<ServiceConfinement> confinement = unitConfinement(
        std::string(KRV_PACKAGING_DIR) + "/com.tavorin.system.securityagent3.service");
    ASSERT_TRUE(confinement) << confinement.error().description();
    m_confinement = *confinement;
    m_daemonConfinement = m_confinement;
    DaemonTest::SetUp();
  }

  ServiceConfinement m_confinement;
};

TEST_F(DaemonHardeningTest, UnderItsUnitsConfinementTheCommandsThatNeedWhatItKeepsStillWork) {
  const pid_t pid = daemon().pid();
  // What the unit keeps, of what the test itself holds (a container may hold less).
  EXPECT_EQ(boundingSetOf(pid), boundingSetMask(m_confinement) & boundingSetOf(::getpid()));
  EXPECT_EQ(boundingSetOf(pid) & (std::uint64_t{1} << capabilityNumber("CAP_SYS_TIME")), 0u)
      << "a capability the unit leaves out is gone";
  EXPECT_TRUE(noNewPrivilegesOf(pid));
  EXPECT_TRUE(sharesNetworkWith(pid, ::getpid()))
      << "the MTU command changes the host's interfaces";

  ::mkdir(kBase, 0755);
  const std::string file = std::string(kBase) + "/file";
  ASSERT_TRUE(sys::open(file, O_WRONLY | O_CREAT | O_TRUNC, 0644).ok());

  Error protectedFile =
      runCommand(kCommandModifyProtectAttribute,
                 {Value(file), Value::integer(1), Value::integer(0), Value::integer(0)});
  ASSERT_TRUE(protectedFile.is(kCommandErrorDomain, kResultSuccess))
      << protectedFile.description() << daemonLog();
  EXPECT_NE(::unlink(file.c_str()), 0) << "immutable";
  Error unprotected =
      runCommand(kCommandModifyProtectAttribute,
                 {Value(file), Value::integer(0), Value::integer(0), Value::integer(0)});
  ASSERT_TRUE(unprotected.is(kCommandErrorDomain, kResultSuccess)) << unprotected.description();

  Error owned = runCommand(kCommandModifyOwnership, {Value("1001:1001"), Value(file)});
  ASSERT_TRUE(owned.is(kCommandErrorDomain, kResultSuccess)) << owned.description() << daemonLog();
  struct stat status {};
  ASSERT_EQ(::stat(file.c_str(), &status), 0);
  EXPECT_EQ(status.st_uid, kOtherUser);

  // A process of another user, stopped once it runs as that user.
  Result<sys::PipeEnds> ready = sys::pipe();
  ASSERT_TRUE(ready.ok());
  const pid_t other = ::fork();
  ASSERT_GE(other, 0);
  if (other == 0) {
    if (::setresgid(kOtherUser, kOtherUser, kOtherUser) != 0 ||
        ::setresuid(kOtherUser, kOtherUser, kOtherUser) != 0) {
      ::_exit(1);
    }
    const char byte = 'r';
    (void)::write(ready->writeEnd.get(), &byte, 1);
    for (;;) ::pause();
  }
  ready->writeEnd.reset();
  char byte = 0;
  ASSERT_EQ(::read(ready->readEnd.get(), &byte, 1), 1);
  Error stopped = runCommand(kCommandStopProcess, {Value::integer(other)});
  EXPECT_TRUE(stopped.is(kCommandErrorDomain, kResultSuccess)) << stopped.description();
  if (!stopped.is(kCommandErrorDomain, kResultSuccess)) ::kill(other, SIGKILL);
  int exit = 0;
  ASSERT_EQ(::waitpid(other, &exit, 0), other);
  EXPECT_TRUE(WIFSIGNALED(exit) && WTERMSIG(exit) == SIGTERM) << exit;
}

}  // namespace
}  // namespace krv::test
