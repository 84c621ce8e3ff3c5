#include "tests/support/ChildProcess.h"

#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "foundation/System.h"

namespace krv::test {

Status LineChannel::send(std::string_view line) {
  std::string text(line);
  text += '\n';
  return sys::writeAll(m_socket.get(),
                       {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

Result<std::string> LineChannel::receive(std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  for (;;) {
    if (std::size_t end = m_pending.find('\n'); end != std::string::npos) {
      std::string line = m_pending.substr(0, end);
      m_pending.erase(0, end + 1);
      return line;
    }
    auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (remaining.count() <= 0) return Error::posix(ETIMEDOUT, "receive line");
    pollfd entry{m_socket.get(), POLLIN, 0};
    int ready = ::poll(&entry, 1, static_cast<int>(remaining.count()));
    if (ready < 0 && errno != EINTR) return Error::fromErrno("poll");
    if (ready <= 0) continue;
    std::uint8_t buffer[1024];
    KRV_TRY(std::size_t count, sys::read(m_socket.get(), buffer));
    if (count == 0) return Error::posix(EPIPE, "receive line");
    m_pending.append(reinterpret_cast<const char*>(buffer), count);
  }
}

Result<ChildProcess> ChildProcess::start(Identity identity, Body body) {
  int ends[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) {
    return Error::fromErrno("socketpair");
  }
  UniqueFd parentEnd(ends[0]);
  UniqueFd childEnd(ends[1]);
  pid_t pid = ::fork();
  if (pid < 0) return Error::fromErrno("fork");
  if (pid == 0) {
    parentEnd.reset();
    if (::setgroups(0, nullptr) != 0 ||
        ::setresgid(identity.gid, identity.gid, identity.gid) != 0 ||
        ::setresuid(identity.uid, identity.uid, identity.uid) != 0) {
      ::_exit(126);
    }
    int code = 125;
    try {
      LineChannel channel(std::move(childEnd));
      code = body(channel);
    } catch (...) {
      code = 124;
    }
    // Never return into the test framework, and skip its exit handlers.
    ::_exit(code);
  }
  childEnd.reset();
  return ChildProcess(pid, LineChannel(std::move(parentEnd)));
}

ChildProcess::ChildProcess(ChildProcess&& other) noexcept
    : m_pid(std::exchange(other.m_pid, -1)), m_channel(std::move(other.m_channel)) {}

ChildProcess& ChildProcess::operator=(ChildProcess&& other) noexcept {
  if (this != &other) {
    kill();
    m_pid = std::exchange(other.m_pid, -1);
    m_channel = std::move(other.m_channel);
  }
  return *this;
}

ChildProcess::~ChildProcess() { kill(); }

void ChildProcess::kill() {
  if (m_pid <= 0) return;
  ::kill(m_pid, SIGKILL);
  int status = 0;
  while (::waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
  }
  m_pid = -1;
}

Result<int> ChildProcess::wait(std::chrono::milliseconds timeout) {
  if (m_pid <= 0) return Error::posix(ECHILD, "wait");
  KRV_TRY(int status, waitForExit(m_pid, timeout));
  m_pid = -1;
  if (WIFEXITED(status)) return WEXITSTATUS(status);
  return 128 + WTERMSIG(status);
}

Result<int> waitForExit(pid_t pid, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  KRV_TRY(UniqueFd process, sys::pidfdOpen(pid));
  for (;;) {
    int status = 0;
    const pid_t done = ::waitpid(pid, &status, WNOHANG);
    if (done == pid) return status;
    if (done < 0 && errno != EINTR) return Error::fromErrno("waitpid");
    const auto remaining = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (remaining.count() <= 0) return Error::posix(ETIMEDOUT, "wait");
    pollfd exited{process.get(), POLLIN, 0};
    if (::poll(&exited, 1, static_cast<int>(remaining.count())) < 0 && errno != EINTR) {
      return Error::fromErrno("poll");
    }
  }
}

Result<int> runAs(Identity identity, const std::function<int()>& body,
                  std::chrono::milliseconds timeout) {
  KRV_TRY(ChildProcess child,
          ChildProcess::start(identity, [&body](LineChannel&) { return body(); }));
  return child.wait(timeout);
}

}  // namespace krv::test
