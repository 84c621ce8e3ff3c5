#pragma once
// ChildProcess: runs a piece of the test in a forked child under another identity, with a line
// channel to the parent. Tests use it to act as an ordinary user towards a root service: the
// service identifies its peers by SO_PEERCRED, so the connecting process must really have the uid.
//
// The child drops to the identity (supplementary groups cleared, then gid, then uid, all three
// ids of each), runs the body and exits with its return value; it never returns into the test
// framework. The body talks to the parent through a LineChannel (text lines, "\n" separated).
//
// The destructor kills a child that is still running and reaps it. Movable, not copyable.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv::test {

struct Identity {
  uid_t uid = 0;
  gid_t gid = 0;
};

class LineChannel {
 public:
  explicit LineChannel(UniqueFd socket) : m_socket(std::move(socket)) {}
  Status send(std::string_view line);
  // The next line (without its "\n"); ETIMEDOUT, or EPIPE when the other side closed.
  Result<std::string> receive(std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  UniqueFd m_socket;
  std::string m_pending;
};

class ChildProcess {
 public:
  using Body = std::function<int(LineChannel& parent)>;

  static Result<ChildProcess> start(Identity identity, Body body);

  ChildProcess(ChildProcess&& other) noexcept;
  ChildProcess& operator=(ChildProcess&& other) noexcept;
  ~ChildProcess();

  pid_t pid() const { return m_pid; }
  LineChannel& channel() { return m_channel; }
  // The child's exit code (128 + signal number when killed by a signal); ETIMEDOUT.
  Result<int> wait(std::chrono::milliseconds timeout = std::chrono::seconds(30));

 private:
  ChildProcess(pid_t pid, LineChannel channel) : m_pid(pid), m_channel(std::move(channel)) {}
  void kill();

  pid_t m_pid = -1;
  LineChannel m_channel;
};

// Waits until the child `pid` of this process ends, without polling: its process descriptor
// becomes readable at its exit. Reaps it and answers its status as from waitpid; ETIMEDOUT when it
// still runs at the deadline (it is not reaped then), or the error of the wait.
Result<int> waitForExit(pid_t pid, std::chrono::milliseconds timeout);

// Runs body as the identity and returns its exit code.
Result<int> runAs(Identity identity, const std::function<int()>& body,
                  std::chrono::milliseconds timeout = std::chrono::seconds(30));

}  // namespace krv::test
