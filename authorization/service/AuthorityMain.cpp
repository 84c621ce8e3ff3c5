// Entry of the authorization service com.tavorin.system.authority: checks in with the service
// manager, then serves connections until idle (AuthorityServer). Runs as root.
//
// Command line: no argument, or one whose first character is "d" (copy the log to standard
// error) or "v" (print the version and exit).

#include <signal.h>

#include <cstdio>

#include "authorization/Authenticator.h"
#include "authorization/AuthorityServer.h"
#include "authorization/AuthorityService.h"
#include "authorization/BackOff.h"
#include "authorization/Clock.h"
#include "authorization/RightsStore.h"
#include "authorization/TokenStore.h"
#include "authorization/UserDirectory.h"
#include "foundation/Format.h"
#include "foundation/System.h"
#include "foundation/SystemLog.h"
#include "platform/SocketActivation.h"

namespace {

constexpr const char* kIdentification = "com.tavorin.system.authority";
constexpr int kSetUpFailure = 1;

krv::LogTemplate checkInMessage(krv::CheckInFailure failure) {
  using krv::CheckInFailure;
  switch (failure) {
    case CheckInFailure::NotActivated:
      return "Not started by the service manager (%m)";
    case CheckInFailure::Malformed:
      return "Socket activation variables are malformed (%m)";
    case CheckInFailure::NoDescriptors:
      return "No socket was passed by the service manager (%m)";
    case CheckInFailure::UnexpectedEntryCount:
      return "Passed sockets have an unexpected number of names";
    case CheckInFailure::NoMasterSocket:
      return "No socket named MasterSocket was passed (%m)";
    case CheckInFailure::UnexpectedDescriptorCount:
      return "MasterSocket names an unexpected number of sockets";
    case CheckInFailure::UnexpectedType:
      return "MasterSocket is not a listening Unix stream socket";
    case CheckInFailure::None:
      break;
  }
  return "Check-in failed";
}

}  // namespace

int main(int argc, char** argv) {
  std::uint32_t options = 0;
  if (argc > 2) {
    std::fprintf(stderr, "usage: %s [d|v]\n", argv[0]);
    return kSetUpFailure;
  }
  if (argc == 2 && argv[1][0] == 'v') {
    std::printf("%s 3.1\n", kIdentification);
    return 0;
  }
  if (argc == 2 && argv[1][0] == 'd') options |= krv::SystemLog::kCopyToStandardError;

  krv::SystemLog log(kIdentification, "Auth", options);
  (void)krv::sys::setSignalHandler(SIGPIPE, SIG_IGN);
  krv::sys::setFileCreationMask(022);

  krv::CheckInOutcome checkIn = krv::checkInWithServiceManager();
  if (!checkIn.ok()) {
    log.log(krv::SystemLog::Level::Error, checkInMessage(checkIn.failure),
            krv::Error::posix(checkIn.errnoValue, "check-in"));
    return kSetUpFailure;
  }

  // Enough descriptors for the most tokens and connections; fewer tokens under a lower hard limit.
  krv::auth::TokenLimits tokenLimits;
  krv::auth::ServerLimits serverLimits;
  const krv::Result<std::uint64_t> descriptors =
      krv::sys::raiseDescriptorLimit(krv::auth::kDescriptorLimit);
  const std::size_t fit =
      descriptors ? krv::auth::tokensWithin(*descriptors, serverLimits) : tokenLimits.total;
  if (!descriptors) {
    log.log(krv::SystemLog::Level::Warning, krv::format("Could not raise the descriptor limit: %s",
                                                        descriptors.error().description().c_str()));
  } else if (fit < tokenLimits.total) {
    log.log(krv::SystemLog::Level::Warning,
            krv::format("The descriptor limit of %llu leaves room for %zu authorizations only",
                        static_cast<unsigned long long>(*descriptors), fit));
    tokenLimits.total = fit;
  }

  krv::auth::BootClock clock;
  krv::auth::TokenStore tokens(clock, tokenLimits);
  krv::auth::RightsStore rights;
  krv::auth::PamAuthenticator authenticator;
  krv::auth::SystemUserDirectory users;
  krv::auth::BackOff backOff(clock);
  krv::auth::AuthorityService service(clock, tokens, rights, authenticator, users, backOff, log);
  krv::auth::AuthorityServer server(service, tokens, log, serverLimits);
  log.log(krv::SystemLog::Level::Debug, "Checked in; serving");
  return server.run(checkIn.socket.get());
}
