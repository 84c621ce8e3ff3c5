#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/SocketActivation.h"

namespace krv {
namespace {

// Passed descriptors are placed at a high number so that the test never disturbs its own 0-2 or
// whatever the test runner keeps open.
constexpr int kFirst = 400;

enum class Kind { ListeningUnixStream, UnixStream, UnixDatagram, ListeningInet, Pipe, Closed };

// Puts a descriptor of the given kind at `number` (without close-on-exec, as the service manager
// passes them).
void place(Kind kind, int number) {
  int fd = -1;
  switch (kind) {
    case Kind::ListeningUnixStream:
    case Kind::UnixStream: {
      fd = ::socket(AF_UNIX, SOCK_STREAM, 0);
      sockaddr_un address{};
      address.sun_family = AF_UNIX;  // autobind to an abstract name
      ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(sa_family_t)), 0);
      if (kind == Kind::ListeningUnixStream) {
        ASSERT_EQ(::listen(fd, 4), 0);
      }
      break;
    }
    case Kind::UnixDatagram:
      fd = ::socket(AF_UNIX, SOCK_DGRAM, 0);
      break;
    case Kind::ListeningInet: {
      fd = ::socket(AF_INET, SOCK_STREAM, 0);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      ASSERT_EQ(::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
      ASSERT_EQ(::listen(fd, 4), 0);
      break;
    }
    case Kind::Pipe: {
      int ends[2];
      ASSERT_EQ(::pipe(ends), 0);
      ::close(ends[1]);
      fd = ends[0];
      break;
    }
    case Kind::Closed:
      ::close(number);
      return;
  }
  ASSERT_GE(fd, 0);
  ASSERT_EQ(::dup2(fd, number), number);
  ::close(fd);
}

struct Case {
  const char* scenario;
  std::vector<Kind> descriptors;
  const char* listenPid;  // "self" = our pid, nullptr = unset
  const char* listenFds;
  const char* listenFdNames;
  CheckInFailure failure;
  int errnoValue;
};

const Case kCases[] = {
    {"not activated", {}, nullptr, nullptr, nullptr, CheckInFailure::NotActivated, ESRCH},
    {"activation meant for another process",
     {Kind::ListeningUnixStream},
     "1",
     "1",
     "MasterSocket",
     CheckInFailure::NotActivated,
     ESRCH},
    {"pid with trailing junk",
     {Kind::ListeningUnixStream},
     "self+",
     "1",
     "MasterSocket",
     CheckInFailure::NotActivated,
     ESRCH},
    {"count missing",
     {Kind::ListeningUnixStream},
     "self",
     nullptr,
     "MasterSocket",
     CheckInFailure::Malformed,
     EINVAL},
    {"count not a number",
     {Kind::ListeningUnixStream},
     "self",
     "one",
     "MasterSocket",
     CheckInFailure::Malformed,
     EINVAL},
    {"negative count",
     {Kind::ListeningUnixStream},
     "self",
     "-1",
     "MasterSocket",
     CheckInFailure::Malformed,
     EINVAL},
    {"absurd count", {}, "self", "100000", nullptr, CheckInFailure::Malformed, EINVAL},
    {"more names than descriptors",
     {Kind::ListeningUnixStream},
     "self",
     "1",
     "MasterSocket:",
     CheckInFailure::Malformed,
     EINVAL},
    {"fewer names than descriptors",
     {Kind::ListeningUnixStream, Kind::ListeningUnixStream},
     "self",
     "2",
     "MasterSocket",
     CheckInFailure::Malformed,
     EINVAL},
    {"passed descriptor not open",
     {Kind::Closed},
     "self",
     "1",
     "MasterSocket",
     CheckInFailure::Malformed,
     EBADF},
    {"no descriptors", {}, "self", "0", "", CheckInFailure::NoDescriptors, ENOENT},
    {"two names",
     {Kind::ListeningUnixStream, Kind::ListeningUnixStream},
     "self",
     "2",
     "MasterSocket:Other",
     CheckInFailure::UnexpectedEntryCount,
     0},
    {"names unset mean unknown",
     {Kind::ListeningUnixStream},
     "self",
     "1",
     nullptr,
     CheckInFailure::NoMasterSocket,
     ENOENT},
    {"empty name kept",
     {Kind::ListeningUnixStream},
     "self",
     "1",
     "",
     CheckInFailure::NoMasterSocket,
     ENOENT},
    {"master socket twice",
     {Kind::ListeningUnixStream, Kind::ListeningUnixStream},
     "self",
     "2",
     "MasterSocket:MasterSocket",
     CheckInFailure::UnexpectedDescriptorCount,
     0},
    {"not listening",
     {Kind::UnixStream},
     "self",
     "1",
     "MasterSocket",
     CheckInFailure::UnexpectedType,
     0},
    {"datagram socket",
     {Kind::UnixDatagram},
     "self",
     "1",
     "MasterSocket",
     CheckInFailure::UnexpectedType,
     0},
    {"internet socket",
     {Kind::ListeningInet},
     "self",
     "1",
     "MasterSocket",
     CheckInFailure::UnexpectedType,
     0},
    {"pipe", {Kind::Pipe}, "self", "1", "MasterSocket", CheckInFailure::UnexpectedType, 0},
    {"listening unix stream socket",
     {Kind::ListeningUnixStream},
     "self",
     "1",
     "MasterSocket",
     CheckInFailure::None,
     0},
};

TEST(SocketActivationTest, ChecksTheEnvironmentAndTheSocket) {
  for (const Case& c : kCases) {
    SCOPED_TRACE(c.scenario);
    for (std::size_t i = 0; i < c.descriptors.size(); ++i) {
      place(c.descriptors[i], kFirst + static_cast<int>(i));
    }
    ActivationEnvironment environment;
    environment.ownPid = ::getpid();
    environment.firstDescriptor = kFirst;
    if (c.listenPid != nullptr) {
      std::string pid = c.listenPid;
      if (pid.rfind("self", 0) == 0) pid = std::to_string(::getpid()) + pid.substr(4);
      environment.listenPid = pid;
    }
    if (c.listenFds != nullptr) environment.listenFds = c.listenFds;
    if (c.listenFdNames != nullptr) environment.listenFdNames = c.listenFdNames;

    CheckInOutcome outcome = checkIn(environment);
    EXPECT_EQ(outcome.failure, c.failure) << describe(outcome.failure);
    EXPECT_EQ(outcome.errnoValue, c.errnoValue);
    if (c.failure == CheckInFailure::None) {
      ASSERT_EQ(outcome.socket.get(), kFirst);
      EXPECT_EQ(::fcntl(kFirst, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    }
    bool tookDescriptors =
        c.failure != CheckInFailure::NotActivated && c.failure != CheckInFailure::Malformed;
    for (std::size_t i = 0; i < c.descriptors.size(); ++i) {
      int fd = kFirst + static_cast<int>(i);
      if (tookDescriptors && !(i == 0 && c.failure == CheckInFailure::None)) {
        EXPECT_EQ(::fcntl(fd, F_GETFD), -1) << "descriptor " << fd << " should have been closed";
      }
    }
    outcome.socket.reset();
    for (std::size_t i = 0; i < c.descriptors.size(); ++i) ::close(kFirst + static_cast<int>(i));
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
