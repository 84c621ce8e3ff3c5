#pragma once
// Test support (header only, used by the prompt handler's tests and the end-to-end terminal
// tests): a pseudo-terminal that a child process takes as its controlling terminal, so that its
// /dev/tty is the terminal the test reads and types into like a person would.
//
// The object owns both ends (close-on-exec). A child started with ChildProcess calls
// becomeControllingTerminal() first; the test then reads with readUntil(), which waits (with a
// deadline) for a text after everything earlier calls consumed, and types with type(). Use from
// one thread.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <string_view>

#include "foundation/UniqueFd.h"

namespace krv::test {

class PseudoTerminal {
 public:
  PseudoTerminal() {
    int master = -1;
    int slave = -1;
    if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return;
    m_master.reset(master);
    m_slave.reset(slave);
    ::fcntl(master, F_SETFD, FD_CLOEXEC);
    ::fcntl(slave, F_SETFD, FD_CLOEXEC);
  }

  bool valid() const { return m_master.valid() && m_slave.valid(); }
  int slave() const { return m_slave.get(); }

  // In the child: a new session whose controlling terminal this is.
  bool becomeControllingTerminal() const {
    return ::setsid() >= 0 && ::ioctl(m_slave.get(), TIOCSCTTY, 0) == 0;
  }

  // Reads until `expected` shows up after what earlier calls consumed. False on timeout or when
  // every writer of the terminal is gone.
  bool readUntil(std::string_view expected,
                 std::chrono::milliseconds timeout = std::chrono::seconds(20)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (m_screen.find(expected, m_consumed) == std::string::npos) {
      if (std::chrono::steady_clock::now() >= deadline) return false;
      pollfd entry{m_master.get(), POLLIN, 0};
      if (::poll(&entry, 1, 100) <= 0) continue;
      char buffer[512];
      ssize_t count = ::read(m_master.get(), buffer, sizeof buffer);
      if (count <= 0) return false;  // EIO: every writer of the terminal is gone
      m_screen.append(buffer, static_cast<std::size_t>(count));
    }
    m_consumed = m_screen.find(expected, m_consumed) + expected.size();
    return true;
  }

  // Everything read so far.
  const std::string& screen() const { return m_screen; }

  bool type(std::string_view text) {
    return ::write(m_master.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size());
  }

  bool echoing() const {
    termios attributes{};
    return ::tcgetattr(m_slave.get(), &attributes) == 0 && (attributes.c_lflag & ECHO) != 0;
  }

 private:
  UniqueFd m_master;
  UniqueFd m_slave;
  std::string m_screen;
  std::size_t m_consumed = 0;
};

}  // namespace krv::test
