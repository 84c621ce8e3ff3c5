#include "platform/SocketActivation.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <vector>

#include "foundation/System.h"

namespace krv {

namespace {

// The service manager never passes more than a few descriptors; anything larger is malformed and
// must not make us touch (or close) arbitrary descriptors.
constexpr std::uint32_t kMaximumDescriptors = 64;

std::optional<std::uint64_t> parseDecimal(std::string_view text) {
  if (text.empty() || text.size() > 19) return std::nullopt;
  std::uint64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

std::vector<std::string_view> splitNames(std::string_view names) {
  std::vector<std::string_view> parts;
  std::size_t start = 0;
  for (;;) {
    std::size_t colon = names.find(':', start);
    if (colon == std::string_view::npos) {
      parts.push_back(names.substr(start));
      return parts;
    }
    parts.push_back(names.substr(start, colon - start));
    start = colon + 1;
    if (parts.size() > kMaximumDescriptors) return parts;
  }
}

CheckInOutcome failed(CheckInFailure failure, int errnoValue = 0) {
  CheckInOutcome outcome;
  outcome.failure = failure;
  outcome.errnoValue = errnoValue;
  return outcome;
}

bool isListeningUnixStreamSocket(int fd) {
  auto optionIs = [fd](int name, int wanted) {
    Result<int> value = sys::socketOption(fd, SOL_SOCKET, name);
    return value && *value == wanted;
  };
  return optionIs(SO_DOMAIN, AF_UNIX) && optionIs(SO_TYPE, SOCK_STREAM) &&
         optionIs(SO_ACCEPTCONN, 1);
}

}  // namespace

CheckInOutcome checkIn(const ActivationEnvironment& environment) {
  if (!environment.listenPid) return failed(CheckInFailure::NotActivated, ESRCH);
  std::optional<std::uint64_t> pid = parseDecimal(*environment.listenPid);
  if (!pid || environment.ownPid <= 0 || *pid != static_cast<std::uint64_t>(environment.ownPid)) {
    return failed(CheckInFailure::NotActivated, ESRCH);
  }

  if (!environment.listenFds) return failed(CheckInFailure::Malformed, EINVAL);
  std::optional<std::uint64_t> count = parseDecimal(*environment.listenFds);
  if (!count || *count > kMaximumDescriptors) return failed(CheckInFailure::Malformed, EINVAL);

  std::vector<std::string_view> names;
  if (environment.listenFdNames && !(*count == 0 && environment.listenFdNames->empty())) {
    names = splitNames(*environment.listenFdNames);
    if (names.size() != *count) return failed(CheckInFailure::Malformed, EINVAL);
  } else {
    names.assign(*count, "unknown");
  }

  // Take ownership of every passed descriptor first, so that all of them are close-on-exec and
  // every one but the master socket is closed whatever the outcome.
  std::vector<UniqueFd> descriptors;
  for (std::uint64_t i = 0; i < *count; ++i) {
    int fd = environment.firstDescriptor + static_cast<int>(i);
    if (Status status = sys::setCloseOnExec(fd); !status) {
      for (UniqueFd& taken : descriptors) taken.release();
      return failed(CheckInFailure::Malformed, static_cast<int>(status.error().code()));
    }
    descriptors.emplace_back(fd);
  }
  if (*count == 0) return failed(CheckInFailure::NoDescriptors, ENOENT);

  std::vector<std::string_view> distinct;
  for (std::string_view name : names) {
    bool seen = false;
    for (std::string_view known : distinct) seen = seen || known == name;
    if (!seen) distinct.push_back(name);
  }
  if (distinct.size() != 1) return failed(CheckInFailure::UnexpectedEntryCount);
  if (distinct.front() != kMasterSocketName) return failed(CheckInFailure::NoMasterSocket, ENOENT);
  if (descriptors.size() != 1) return failed(CheckInFailure::UnexpectedDescriptorCount);
  if (!isListeningUnixStreamSocket(descriptors.front().get())) {
    return failed(CheckInFailure::UnexpectedType);
  }

  CheckInOutcome outcome;
  outcome.socket = std::move(descriptors.front());
  return outcome;
}

CheckInOutcome checkInWithServiceManager() {
  auto variable = [](const char* name) -> std::optional<std::string> {
    const char* value = std::getenv(name);
    if (value == nullptr) return std::nullopt;
    return std::string(value);
  };
  ActivationEnvironment environment;
  environment.listenPid = variable("LISTEN_PID");
  environment.listenFds = variable("LISTEN_FDS");
  environment.listenFdNames = variable("LISTEN_FDNAMES");
  environment.ownPid = ::getpid();
  ::unsetenv("LISTEN_PID");
  ::unsetenv("LISTEN_FDS");
  ::unsetenv("LISTEN_FDNAMES");
  return checkIn(environment);
}

std::string_view describe(CheckInFailure failure) {
  switch (failure) {
    case CheckInFailure::None:
      return "checked in";
    case CheckInFailure::NotActivated:
      return "not socket-activated";
    case CheckInFailure::Malformed:
      return "malformed activation variables";
    case CheckInFailure::NoDescriptors:
      return "no descriptors passed";
    case CheckInFailure::UnexpectedEntryCount:
      return "unexpected number of socket names";
    case CheckInFailure::NoMasterSocket:
      return "no MasterSocket";
    case CheckInFailure::UnexpectedDescriptorCount:
      return "MasterSocket names more than one descriptor";
    case CheckInFailure::UnexpectedType:
      return "not a listening Unix stream socket";
  }
  return "unknown";
}

}  // namespace krv
