#pragma once
// SystemLog: one connection to the system log. Each object owns its own datagram socket to
// /dev/log, so the daemon's log and each executor's log are separate connections and no
// process-global openlog() state is shared. Messages use the format glibc writes
// ("<PRI>Mmm dd hh:mm:ss ident[pid]: message"); without a log socket they are dropped silently.
// With the copy-to-stderr option every line is also written to standard error as
// "ident[pid]: message".
//
// A message is logged exactly as given: nothing in it is expanded, so it may carry text from
// outside (a path, a name, formatted in with krv::format) without that text changing the line.
// A failure is logged with a template written in the code (a LogTemplate, which only a string
// literal makes) and the Error: each "%m" of the template becomes the error's text, as "%m" of the
// C library would show the errno.
//
//   m_log.log(SystemLog::Level::Error, "Request failure (%m)", status.error());
//
// Thread-safety: an object may be used from several threads (a mutex serialises sends), though
// the project gives each thread its own object.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/UniqueFd.h"

namespace krv {

class Error;

// A message template: made only from a string literal, so its "%m" was written by a developer.
class LogTemplate {
 public:
  template <std::size_t N>
  consteval LogTemplate(const char (&text)[N]) : m_text(text, N - 1) {}  // NOLINT: implicit

  std::string_view text() const { return m_text; }

 private:
  std::string_view m_text;
};

class SystemLog {
 public:
  enum class Level : int { Error = 3, Warning = 4, Notice = 5, Info = 6, Debug = 7 };
  // Option bits.
  static constexpr std::uint32_t kCopyToStandardError = 1;
  static constexpr const char* kDefaultSocketPath = "/dev/log";

  // facility is a name: "Daemon", "Auth", "User", "Local0".."Local7" (unknown names map to user).
  SystemLog(std::string identification, std::string_view facility, std::uint32_t options,
            std::string socketPath = kDefaultSocketPath);

  // Logs the message as it is. errno is left as it was.
  void log(Level level, std::string_view message);
  // Logs the template with each "%m" replaced by the text of `error`: the system's text of its
  // errno for a POSIX error, its description otherwise.
  void log(Level level, LogTemplate message, const Error& error);

  const std::string& identification() const { return m_identification; }
  std::uint32_t options() const { return m_options; }

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
