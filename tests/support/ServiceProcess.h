#pragma once
// ServiceProcess: starts a socket-activated service the way the service manager would, for tests.
//
// start() binds a Unix stream socket at the given path (replacing a stale socket file), sets its
// mode (0666 by default, as the shipped socket unit does), listens, and forks; the child moves the
// socket to descriptor 3, sets LISTEN_PID (its own pid), LISTEN_FDS=1 and
// LISTEN_FDNAMES=MasterSocket, adds the extra environment (LD_PRELOAD of test wrappers, ...) and
// executes the binary (under a system-call filter that refuses new threads, when asked). The parent
// keeps nothing of the socket but the file: once the service exits, connections are refused. The
// service's standard error is collected (read by a thread of the object) and available through
// standardError().
//
// With restartOnConnection the object also plays the service manager's socket unit: it keeps the
// listening socket, and once the service has ended (its idle end, a shutdown, a crash, the
// watchdog) the next connection that waits on the socket starts a new instance with the same
// socket, as the service manager does. Each instance's standard error is collected in the same
// log. A thread of the object reaps the instances; an instance that keeps ending is started at
// most kRestartLimit times.
//
// The destructor terminates the service (SIGTERM, then SIGKILL after a grace period) and reaps it.
// Objects are movable, not copyable; use one from one thread.

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv::test {

// The confinement a unit puts its service under, as far as a test can mirror it without the
// service manager: applied in the child just before it executes the service.
struct ServiceConfinement {
  // Capabilities kept in the bounding set (CAP_... numbers); every other one is dropped, so the
  // service, executed as root, has only these (CapabilityBoundingSet=).
  std::vector<int> capabilities;
  // In a mount namespace of its own, every mount read-only but these paths (each must exist),
  // and a fresh /tmp (ProtectSystem=strict, ProtectHome=read-only, ReadWritePaths=,
  // PrivateTmp=).
  bool readOnlyTree = false;
  std::vector<std::string> writablePaths;
  // A network namespace of its own, with nothing but a loopback that is down (PrivateNetwork=);
  // the listening socket, bound by path before, still takes connections.
  bool privateNetwork = false;
};

struct ServiceLaunch {
  std::string socketPath;
  std::string executable;
  std::vector<std::string> arguments;    // after argv[0]
  std::vector<std::string> environment;  // extra "NAME=value" entries, added to the inherited ones
  mode_t socketMode = 0666;
  // The kernel refuses every new thread of the service (its creation fails with EAGAIN) while
  // processes can still be started: what a daemon meets when it runs out of threads.
  bool refuseNewThreads = false;
  // Start the service again for the next connection once it has ended.
  bool restartOnConnection = false;
  // Capabilities removed from the service's bounding set before it starts (CAP_DAC_OVERRIDE, ...):
  // a root service without them, as a hardened unit's CapabilityBoundingSet= makes it.
  std::vector<int> droppedCapabilities{};
  // With a confinement the service also runs with NoNewPrivileges.
  std::optional<ServiceConfinement> confinement = std::nullopt;
};

// A listening Unix stream socket bound at path (a stale socket file there is replaced), with the
// file's mode set to `mode`. Close-on-exec.
Result<UniqueFd> listenOnUnixSocket(const std::string& path, mode_t mode);

class ServiceProcess {
 public:
  static constexpr std::size_t kRestartLimit = 64;

  static Result<ServiceProcess> start(const ServiceLaunch& launch);

  ServiceProcess(ServiceProcess&&) noexcept;
  ServiceProcess& operator=(ServiceProcess&&) noexcept;
  ~ServiceProcess();

  // The current instance (the last one once it has ended).
  pid_t pid() const;
  // How many instances have been started so far.
  std::size_t instancesStarted() const;
  // The exit status (as from waitpid) once the current instance ended within `timeout`, else
  // nothing.
  std::optional<int> waitForExit(std::chrono::milliseconds timeout);
  // Waits until an instance other than `previous` has started; its pid, or nothing at the timeout.
  std::optional<pid_t> waitForRestart(pid_t previous, std::chrono::milliseconds timeout);
  // True while the current instance has not exited.
  bool running();
  // SIGTERM, a grace period, SIGKILL; reaps the process; starts no further instance.
  void terminate();
  // Everything the service wrote to standard error so far.
  std::string standardError() const;
  // Waits until what the service wrote to standard error satisfies `done`, which is asked again
  // whenever more arrives; false when it still does not at the deadline or when the service closed
  // its standard error first.
  bool waitForStandardError(const std::function<bool(const std::string&)>& done,
                            std::chrono::milliseconds timeout) const;

 private:
  struct State;
  class Supervisor;
  explicit ServiceProcess(std::unique_ptr<State> state);
  std::unique_ptr<State> m_state;
};

}  // namespace krv::test
