#pragma once
// SocketActivation: the check-in of a socket-activated service with the service manager.
//
// The service manager passes listening sockets as descriptors 3, 4, ... and describes them in
// the environment: LISTEN_PID (the pid they are meant for), LISTEN_FDS (how many) and
// LISTEN_FDNAMES (their names, separated by ":"; empty names are kept; when the variable is unset
// every descriptor is named "unknown"). The named descriptors form the socket dictionary of the
// service, which must hold exactly one entry, "MasterSocket", naming exactly one descriptor, and
// that descriptor must be a listening Unix stream socket.
//
// checkInWithServiceManager() reads and then unsets the three variables (so that programs the
// service starts do not inherit them), sets close-on-exec on every received descriptor, keeps the
// master socket and closes the others. Call it once, early in main(), before threads start (it
// changes the environment). checkIn() is the same check over an explicit environment; it touches
// neither the environment nor any descriptor outside the described range.
//
// Failures are typed so that each caller prints its own message; `errnoValue` is set for the
// failures whose message reports an error text:
//   NotActivated               LISTEN_PID missing, malformed or not ours       ESRCH
//   Malformed                  LISTEN_FDS / LISTEN_FDNAMES malformed or their  EINVAL
//                              counts disagree, a descriptor that is not open  (or EBADF)
//   NoDescriptors              LISTEN_FDS is 0                                ENOENT
//   UnexpectedEntryCount       the number of distinct names is not 1          -
//   NoMasterSocket             no descriptor is named "MasterSocket"          ENOENT
//   UnexpectedDescriptorCount  "MasterSocket" names more than one descriptor  -
//   UnexpectedType             not a listening AF_UNIX SOCK_STREAM socket     -

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/UniqueFd.h"

namespace krv {

inline constexpr std::string_view kMasterSocketName = "MasterSocket";

enum class CheckInFailure : std::uint8_t {
  None,
  NotActivated,
  Malformed,
  NoDescriptors,
  UnexpectedEntryCount,
  NoMasterSocket,
  UnexpectedDescriptorCount,
  UnexpectedType,
};

struct CheckInOutcome {
  UniqueFd socket;  // the master socket when failure == None
  CheckInFailure failure = CheckInFailure::None;
  int errnoValue = 0;

  bool ok() const { return failure == CheckInFailure::None; }
};

// The activation variables as found in the environment (nullopt = unset), the pid the check
// compares LISTEN_PID with, and the number of the first passed descriptor.
struct ActivationEnvironment {
  std::optional<std::string> listenPid;
  std::optional<std::string> listenFds;
  std::optional<std::string> listenFdNames;
  pid_t ownPid = 0;
  int firstDescriptor = 3;
};

CheckInOutcome checkIn(const ActivationEnvironment& environment);
CheckInOutcome checkInWithServiceManager();

// A short name of the failure for diagnostics ("not activated", ...).
std::string_view describe(CheckInFailure failure);

}  // namespace krv
