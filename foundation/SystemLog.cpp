#include "foundation/SystemLog.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>

#include "foundation/System.h"

namespace krv {

namespace {

int facilityCode(std::string_view name) {
  struct Entry {
    std::string_view name;
    int code;
  };
  static constexpr Entry kFacilities[] = {
      {"Kernel", 0},  {"User", 1},    {"Mail", 2},    {"Daemon", 3},  {"Auth", 4},
      {"Syslog", 5},  {"Local0", 16}, {"Local1", 17}, {"Local2", 18}, {"Local3", 19},
      {"Local4", 20}, {"Local5", 21}, {"Local6", 22}, {"Local7", 23},
  };
  for (const Entry& entry : kFacilities) {
    if (entry.name == name) return entry.code;
  }
  return 1;
}

}  // namespace

SystemLog::SystemLog(std::string identification, std::string_view facility, std::uint32_t options,
                     std::string socketPath)
    : m_identification(std::move(identification)),
      m_facility(facilityCode(facility)),
      m_options(options),
      m_pid(static_cast<long>(::getpid())),
      m_socketPath(std::move(socketPath)) {
  std::lock_guard<std::mutex> lock(m_mutex);
  connectLocked();
}

void SystemLog::connectLocked() {
  m_socket.reset();
  // Without a log socket every message would cost a failed connect: after a failure, no log object
  // of the process tries the same socket again for a second.
  static std::atomic<std::int64_t> lastSystemLogFailure{std::numeric_limits<std::int64_t>::min() /
                                                        2};
  std::atomic<std::int64_t>& lastFailure =
      m_socketPath == kDefaultSocketPath ? lastSystemLogFailure : m_lastFailure;
  const std::int64_t now = std::chrono::duration_cast<std::chrono::milliseconds>(
                               std::chrono::steady_clock::now().time_since_epoch())
                               .count();
  if (now - lastFailure.load(std::memory_order_relaxed) < 1000) return;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (m_socketPath.size() >= sizeof address.sun_path) return;
  std::memcpy(address.sun_path, m_socketPath.data(), m_socketPath.size());
  int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return;
  UniqueFd socket(fd);
  if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    lastFailure.store(now, std::memory_order_relaxed);
    return;
  }
  m_socket = std::move(socket);
}

std::string SystemLog::expandErrno(std::string_view message, int errnoValue) {
  std::string text;
  text.reserve(message.size() + 32);
  for (std::size_t i = 0; i < message.size(); ++i) {
    if (message[i] == '%' && i + 1 < message.size() && message[i + 1] == 'm') {
      text += sys::errorText(errnoValue);
      ++i;
    } else {
      text += message[i];
    }
  }
  return text;
}

void SystemLog::log(Level level, std::string_view message) {
  const int savedErrno = errno;
  std::string text = expandErrno(message, savedErrno);
  const long pid = m_pid;

  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_options & kCopyToStandardError) {
    std::string line = m_identification + "[" + std::to_string(pid) + "]: " + text + "\n";
    (void)sys::writeAll(STDERR_FILENO,
                        {reinterpret_cast<const std::uint8_t*>(line.data()), line.size()});
  }

  if (!m_socket.valid()) connectLocked();
  if (!m_socket.valid()) {
    errno = savedErrno;
    return;
  }
  std::time_t now = std::time(nullptr);
  std::tm local{};
  ::localtime_r(&now, &local);
  char stamp[32];
  std::strftime(stamp, sizeof stamp, "%b %e %H:%M:%S", &local);
  std::string datagram = "<" + std::to_string(m_facility * 8 + static_cast<int>(level)) + ">" +
                         stamp + " " + m_identification + "[" + std::to_string(pid) + "]: " + text;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!m_socket.valid()) connectLocked();
    if (!m_socket.valid()) break;
    if (::send(m_socket.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL) >= 0) break;
    // The log daemon may have restarted: reconnect once, then give up on this message.
    m_socket.reset();
  }
  errno = savedErrno;
}

}  // namespace krv
