#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "platform/SocketActivation.h"

namespace krv {
namespace {

// Passed descriptors are placed at a high number so that the test never disturbs its own 0-2 or
// whatever the test runner keeps open.
constexpr int kFirst = 400;

// Puts a descriptor at `number` (without close-on-exec, as the service manager passes them):
// 'L' a listening Unix stream socket, 'S' one that does not listen, 'I' a listening internet
// socket, 'C' none (closed).
void place(char kind, int number) {
  if (kind == 'C') {
    ::close(number);
    return;
  }
  int fd = ::socket(kind == 'I' ? AF_INET : AF_UNIX, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  if (kind == 'I') {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  } else {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;  // autobind to an abstract name
    ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t)), 0);
  }
  if (kind != 'S') {
    ASSERT_EQ(::listen(fd, 4), 0);
  }
  ASSERT_EQ(::dup2(fd, number), number);
  ::close(fd);
}

TEST(SocketActivationTest, ChecksTheEnvironmentAndTheSocket) {
  struct Case {
    const char* scenario;
    std::string descriptors;
    const char* listenPid;  // unset when null, our pid otherwise
    const char* listenFds;
    const char* listenFdNames;
    CheckInFailure failure;
    int errnoValue;
  };
  const Case cases[] = {
      {"not activated", "", nullptr, nullptr, nullptr, CheckInFailure::NotActivated, ESRCH},
      {"absurd count", "", "self", "100000", nullptr, CheckInFailure::Malformed, EINVAL},
      {"descriptor not open", "C", "self", "1", "MasterSocket", CheckInFailure::Malformed, EBADF},
      {"no descriptors", "", "self", "0", "", CheckInFailure::NoDescriptors, ENOENT},
      {"two names", "LL", "self", "2", "MasterSocket:Other", CheckInFailure::UnexpectedEntryCount,
       0},
      {"names unset mean unknown", "L", "self", "1", nullptr, CheckInFailure::NoMasterSocket,
       ENOENT},
      {"master socket twice", "LL", "self", "2", "MasterSocket:MasterSocket",
       CheckInFailure::UnexpectedDescriptorCount, 0},
      {"not listening", "S", "self", "1", "MasterSocket", CheckInFailure::UnexpectedType, 0},
      {"internet socket", "I", "self", "1", "MasterSocket", CheckInFailure::UnexpectedType, 0},
      {"listening Unix stream socket", "L", "self", "1", "MasterSocket", CheckInFailure::None, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.scenario);
    const int count = static_cast<int>(c.descriptors.size());
    for (int i = 0; i < count; ++i) place(c.descriptors[static_cast<std::size_t>(i)], kFirst + i);
    ActivationEnvironment environment;
    environment.ownPid = ::getpid();
    environment.firstDescriptor = kFirst;
    if (c.listenPid != nullptr) environment.listenPid = std::to_string(::getpid());
    if (c.listenFds != nullptr) environment.listenFds = c.listenFds;
    if (c.listenFdNames != nullptr) environment.listenFdNames = c.listenFdNames;

    CheckInOutcome outcome = checkIn(environment);
    EXPECT_EQ(outcome.failure, c.failure) << describe(outcome.failure);
    EXPECT_EQ(outcome.errnoValue, c.errnoValue);
    if (c.failure == CheckInFailure::None) {
      ASSERT_EQ(outcome.socket.get(), kFirst);
      EXPECT_EQ(::fcntl(kFirst, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    // Once the environment is understood, every passed descriptor but the master socket is
    // closed.
    if (c.failure != CheckInFailure::NotActivated && c.failure != CheckInFailure::Malformed) {
      for (int i = c.failure == CheckInFailure::None ? 1 : 0; i < count; ++i) {
        EXPECT_EQ(::fcntl(kFirst + i, F_GETFD), -1) << "descriptor " << kFirst + i;
      }
    }
    outcome.socket.reset();
    for (int i = 0; i < count; ++i) ::close(kFirst + i);
  }
}

TEST(SocketActivationTest, CheckInRemovesTheVariablesFromTheEnvironment) {
  ::setenv("LISTEN_PID", "1", 1);
  ::setenv("LISTEN_FDS", "1", 1);
  ::setenv("LISTEN_FDNAMES", "MasterSocket", 1);
  CheckInOutcome outcome = checkInWithServiceManager();
  EXPECT_EQ(outcome.failure, CheckInFailure::NotActivated);
  EXPECT_EQ(std::getenv("LISTEN_PID"), nullptr);
  EXPECT_EQ(std::getenv("LISTEN_FDS"), nullptr);
  EXPECT_EQ(std::getenv("LISTEN_FDNAMES"), nullptr);
}

}  // namespace
}  // namespace krv
