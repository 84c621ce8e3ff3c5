// The daemon's check-in with the service manager, with its own failure messages.

#include "daemon/SecurityAgentDaemon.h"
#include "foundation/Assert.h"
#include "platform/SocketActivation.h"

namespace krv {

namespace {

LogTemplate messageFor(CheckInFailure failure) {
  switch (failure) {
    case CheckInFailure::None:
    case CheckInFailure::Malformed:
      return "Check-in with launchd failed (%m)";
    case CheckInFailure::NotActivated:
      return "Could not check in with launchd service (%m)";
    case CheckInFailure::NoDescriptors:
      return "Could not get socket description (%m)";
    case CheckInFailure::UnexpectedEntryCount:
      return "Socket description has unexpected number of entries";
    case CheckInFailure::NoMasterSocket:
      return "Could not socket file descriptors (%m)";
    case CheckInFailure::UnexpectedDescriptorCount:
      return "Socket file descriptors have unexpected number of entries";
    case CheckInFailure::UnexpectedType:
      return "Socket file descriptor has unexpected type";
  }
  return "Check-in with launchd failed (%m)";
}

}  // namespace

int SecurityAgentDaemon::socketFromLaunchDCheckIn() {
  CheckInOutcome outcome = checkInWithServiceManager();
  if (!outcome.ok()) {
    m_log.log(SystemLog::Level::Error, messageFor(outcome.failure),
              Error::posix(outcome.errnoValue, "check-in"));
    return -1;
  }
  int result = outcome.socket.release();
  KRV_ASSERT(result >= 0, "KRVSecurityAgentMain");
  return result;
}

}  // namespace krv
