#include "foundation/SystemLog.h"

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <limits>
#include <span>

#include "foundation/Error.h"
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
  Result<UniqueFd> socket = sys::connectLocalSocket(m_socketPath, SOCK_DGRAM);
  if (!socket) {
    lastFailure.store(now, std::memory_order_relaxed);
    return;
  }
  m_socket = std::move(socket).value();
}

void SystemLog::log(Level level, LogTemplate message, const Error& error) {
  const int savedErrno = errno;
  const std::string errorText =
      error.isPosix() ? sys::errorText(static_cast<int>(error.code())) : error.description();
  const std::string_view pattern = message.text();
  std::string text;
  text.reserve(pattern.size() + errorText.size());
  for (std::size_t i = 0; i < pattern.size(); ++i) {
    if (pattern[i] == '%' && i + 1 < pattern.size() && pattern[i + 1] == 'm') {
      text += errorText;
      ++i;
    } else {
      text += pattern[i];
    }
  }
  log(level, text);
  errno = savedErrno;
}

void SystemLog::log(Level level, std::string_view text) {
  const int savedErrno = errno;
  const long pid = m_pid;

  std::lock_guard<std::mutex> lock(m_mutex);
  if (m_options & kCopyToStandardError) {
    std::string line = m_identification + "[" + std::to_string(pid) + "]: ";
    line += text;
    line += '\n';
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
                         stamp + " " + m_identification + "[" + std::to_string(pid) + "]: ";
  datagram += text;
  for (int attempt = 0; attempt < 2; ++attempt) {
    if (!m_socket.valid()) connectLocked();
    if (!m_socket.valid()) break;
    const std::span<const std::uint8_t> bytes(
        reinterpret_cast<const std::uint8_t*>(datagram.data()), datagram.size());
    if (sys::send(m_socket.get(), bytes, MSG_NOSIGNAL)) break;
    // The log daemon may have restarted: reconnect once, then give up on this message.
    m_socket.reset();
  }
  errno = savedErrno;
}

}  // namespace krv
