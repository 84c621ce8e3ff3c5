#pragma once
// SystemLog: one connection to the system log. Each object owns its own datagram socket to
// /dev/log, so the daemon's log and each executor's log are separate connections and no
// process-global openlog() state is shared. Messages use the format glibc writes
// ("<PRI>Mmm dd hh:mm:ss ident[pid]: message"); without a log socket they are dropped silently.
// With the copy-to-stderr option every line is also written to standard error as
// "ident[pid]: message".
//
// "%m" in a message stands for the text of the errno current when log() is called. Messages are
// formatted by the caller (krv::format), so user data never acts as a format string.
//
// Thread-safety: an object may be used from several threads (a mutex serialises sends), though
// the project gives each thread its own object.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/UniqueFd.h"

namespace krv {

class SystemLog {
 public:
  enum class Level : int { Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };
  // Option bits.
  static constexpr std::uint32_t kCopyToStandardError = 1;
  static constexpr const char* kDefaultSocketPath = "/dev/log";

  // facility is a name: "Daemon", "Auth", "User", "Local0".."Local7" (unknown names map to user).
  SystemLog(std::string identification, std::string_view facility, std::uint32_t options,
            std::string socketPath = kDefaultSocketPath);

  void log(Level level, std::string_view message);

  const std::string& identification() const { return m_identification; }
  std::uint32_t options() const { return m_options; }

  // The message with every "%m" replaced by the text of errnoValue.
  static std::string expandErrno(std::string_view message, int errnoValue);

 private:
  void connectLocked();

  std::string m_identification;
  int m_facility;
  std::uint32_t m_options;
  long m_pid;  // the daemon never logs from a forked child
  std::atomic<std::int64_t> m_lastFailure{std::numeric_limits<std::int64_t>::min() / 2};
  std::string m_socketPath;
  std::mutex m_mutex;
  UniqueFd m_socket;
};

}  // namespace krv
