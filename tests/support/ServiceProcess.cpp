#include "tests/support/ServiceProcess.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <mutex>
#include <thread>

#include "foundation/System.h"
#include "tests/support/ChildProcess.h"

extern char** environ;

namespace krv::test {

// Everything an instance is started from, prepared before the first fork: after fork() only
// async-signal-safe calls.
struct PreparedLaunch {
  std::vector<std::string> arguments;
  std::vector<std::string> environment;
  std::vector<char*> argv;
  std::vector<char*> envp;
  char pidText[32] = {};  // "LISTEN_PID=<pid>", completed in the child
  bool refuseNewThreads = false;
  std::vector<int> droppedCapabilities;
  std::optional<ServiceConfinement> confinement;
  std::vector<const char*> writablePaths;  // into confinement
};

struct ServiceProcess::State {
  PreparedLaunch launch;
  bool restartOnConnection = false;
  UniqueFd listening;           // kept only to start further instances
  UniqueFd standardErrorWrite;  // handed to each instance; kept only for further instances
  UniqueFd supervisorStop;      // eventfd: the supervisor ends the instance and returns
  UniqueFd readerStop;          // eventfd: the reader drains what is left and returns
  UniqueFd process;             // pidfd of the current instance
  std::thread reader;
  std::thread supervisor;
  mutable std::mutex mutex;
  std::condition_variable changed;  // standardError grew or was closed; an instance began or ended
  // Guarded by mutex:
  std::string standardError;
  bool standardErrorClosed = false;
  pid_t pid = -1;
  bool ended = false;
  int status = 0;
  std::size_t instances = 0;
};

namespace {

// How a test makes a service's thread creation fail. The usual limits do not serve: RLIMIT_NPROC
// never binds root, an address-space limit (RLIMIT_AS) small enough to refuse a thread's stack
// also starves the allocator and the sanitizer runtime of the service at moments nobody chooses,
// and cgroups here are shared with the host. A seccomp filter refuses exactly the creation of
// threads (clone with CLONE_THREAD fails with EAGAIN, as when the kernel is out of threads) and
// nothing else. clone3 passes its flags in memory a filter cannot read, so it reports ENOSYS, and
// the C library then falls back to clone, whose flags the filter sees.
#if defined(__x86_64__)
constexpr std::uint32_t kAuditArchitecture = AUDIT_ARCH_X86_64;
#elif defined(__aarch64__)
constexpr std::uint32_t kAuditArchitecture = AUDIT_ARCH_AARCH64;
#endif

constexpr std::uint32_t kAllow = SECCOMP_RET_ALLOW;
constexpr std::uint32_t kNotImplemented = SECCOMP_RET_ERRNO | ENOSYS;
constexpr std::uint32_t kTryAgain = SECCOMP_RET_ERRNO | EAGAIN;

// The low half of clone's first argument, the flags (both architectures are little-endian).
constexpr std::uint32_t kCloneFlagsOffset = offsetof(seccomp_data, args);

constexpr sock_filter kRefuseThreads[] = {
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAuditArchitecture, 1, 0),
    BPF_STMT(BPF_RET | BPF_K, kAllow),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone3, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, kNotImplemented),
    BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_clone, 1, 0),
    BPF_STMT(BPF_RET | BPF_K, kAllow),
    BPF_STMT(BPF_LD | BPF_W | BPF_ABS, kCloneFlagsOffset),
    BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, CLONE_THREAD, 0, 1),
    BPF_STMT(BPF_RET | BPF_K, kTryAgain),
    BPF_STMT(BPF_RET | BPF_K, kAllow),
};

// In the child between fork and exec: system calls only.
bool refuseNewThreads() {
  sock_fprog program{};
  program.len = static_cast<unsigned short>(std::size(kRefuseThreads));
  program.filter = const_cast<sock_filter*>(kRefuseThreads);
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
         ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

// In the child between fork and exec: system calls only. The writable paths are bound onto
// themselves first, so that each is a mount of its own that stays writable when the whole tree
// turns read-only.
bool confine(const ServiceConfinement& confinement, const std::vector<const char*>& writable) {
  if (confinement.readOnlyTree) {
    if (::unshare(CLONE_NEWNS) != 0) return false;
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return false;
    for (const char* path : writable) {
      if (::mount(path, path, nullptr, MS_BIND | MS_REC, nullptr) != 0) return false;
    }
    mount_attr readOnly{};
    readOnly.attr_set = MOUNT_ATTR_RDONLY;
    if (::mount_setattr(AT_FDCWD, "/", AT_RECURSIVE, &readOnly, sizeof readOnly) != 0) {
      return false;
    }
    mount_attr writableAgain{};
    writableAgain.attr_clr = MOUNT_ATTR_RDONLY;
    for (const char* path : writable) {
      if (::mount_setattr(AT_FDCWD, path, AT_RECURSIVE, &writableAgain, sizeof writableAgain) !=
          0) {
        return false;
      }
    }
    if (::mount("tmpfs", "/tmp", "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777") != 0) return false;
  }
  if (confinement.privateNetwork && ::unshare(CLONE_NEWNET) != 0) return false;
  // Every capability the kernel knows that is not kept leaves the bounding set; numbers past the
  // last one answer EINVAL.
  for (int capability = 0; capability < 64; ++capability) {
    const auto& kept = confinement.capabilities;
    if (std::find(kept.begin(), kept.end(), capability) != kept.end()) continue;
    if (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0 && errno != EINVAL) return false;
  }
  return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

}  // namespace

Result<UniqueFd> listenOnUnixSocket(const std::string& path, mode_t mode) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    return Error::posix(ENAMETOOLONG, "socket path");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return Error::fromErrno("socket");
  UniqueFd socket(fd);
  if (Result<struct stat> existing = sys::lstat(path); existing && S_ISSOCK(existing->st_mode)) {
    ::unlink(path.c_str());
  }
  if (::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return Error::fromErrno("bind");
  }
  if (::chmod(path.c_str(), mode) != 0) return Error::fromErrno("chmod");
  if (::listen(fd, 64) != 0) return Error::fromErrno("listen");
  return socket;
}

ServiceProcess::ServiceProcess(std::unique_ptr<State> state) : m_state(std::move(state)) {}
ServiceProcess::ServiceProcess(ServiceProcess&&) noexcept = default;
ServiceProcess& ServiceProcess::operator=(ServiceProcess&& other) noexcept {
  if (this != &other) {
    terminate();
    m_state = std::move(other.m_state);
  }
  return *this;
}

ServiceProcess::~ServiceProcess() { terminate(); }

namespace {

void prepare(const ServiceLaunch& launch, PreparedLaunch& prepared) {
  prepared.arguments.push_back(launch.executable);
  prepared.arguments.insert(prepared.arguments.end(), launch.arguments.begin(),
                            launch.arguments.end());
  for (std::string& argument : prepared.arguments) prepared.argv.push_back(argument.data());
  prepared.argv.push_back(nullptr);
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    if (text.rfind("LISTEN_", 0) == 0) continue;
    prepared.environment.emplace_back(text);
  }
  prepared.environment.insert(prepared.environment.end(), launch.environment.begin(),
                              launch.environment.end());
  prepared.environment.emplace_back("LISTEN_FDS=1");
  prepared.environment.emplace_back("LISTEN_FDNAMES=MasterSocket");
  for (std::string& entry : prepared.environment) prepared.envp.push_back(entry.data());
  prepared.envp.push_back(prepared.pidText);
  prepared.envp.push_back(nullptr);
  prepared.refuseNewThreads = launch.refuseNewThreads;
  prepared.droppedCapabilities = launch.droppedCapabilities;
  prepared.confinement = launch.confinement;
  if (prepared.confinement) {
    for (const std::string& path : prepared.confinement->writablePaths) {
      prepared.writablePaths.push_back(path.c_str());
    }
  }
}

// Starts one instance on the listening socket with its standard error on `standardError`.
Result<pid_t> spawn(PreparedLaunch& launch, int socket, int standardError) {
  pid_t pid = ::fork();
  if (pid < 0) return Error::fromErrno("fork");
  if (pid == 0) {
    // LISTEN_PID=<pid>, written by hand (no allocation after fork).
    const char prefix[] = "LISTEN_PID=";
    std::memcpy(launch.pidText, prefix, sizeof prefix - 1);
    char digits[16];
    int count = 0;
    for (long value = ::getpid(); value > 0 && count < 16; value /= 10) {
      digits[count++] = static_cast<char>('0' + value % 10);
    }
    for (int i = 0; i < count; ++i) launch.pidText[sizeof prefix - 1 + i] = digits[count - 1 - i];
    launch.pidText[sizeof prefix - 1 + count] = '\0';

    if (::dup2(standardError, STDERR_FILENO) < 0) ::_exit(127);
    if (socket == 3) {
      int flags = ::fcntl(3, F_GETFD);
      ::fcntl(3, F_SETFD, flags & ~FD_CLOEXEC);
    } else if (::dup2(socket, 3) < 0) {
      ::_exit(127);
    }
    for (int capability : launch.droppedCapabilities) {
      if (::prctl(PR_CAPBSET_DROP, capability, 0, 0, 0) != 0) ::_exit(127);
    }
    if (launch.confinement && !confine(*launch.confinement, launch.writablePaths)) ::_exit(126);
    if (launch.refuseNewThreads && !refuseNewThreads()) ::_exit(127);
    ::execve(launch.argv[0], launch.argv.data(), launch.envp.data());
    ::_exit(127);
  }
  return pid;
}

bool isReadable(int fd, int timeoutMilliseconds) {
  pollfd entry{fd, POLLIN, 0};
  Result<std::size_t> ready = sys::poll({&entry, 1}, timeoutMilliseconds);
  return ready && *ready == 1;
}

// Waits until one of the descriptors is readable; its index.
std::size_t firstReadable(std::initializer_list<int> fds) {
  std::vector<pollfd> entries;
  for (int fd : fds) entries.push_back({fd, POLLIN, 0});
  for (;;) {
    Result<std::size_t> ready = sys::poll(entries, -1);
    if (!ready || *ready == 0) continue;
    for (std::size_t i = 0; i < entries.size(); ++i) {
      if (entries[i].revents != 0) return i;
    }
  }
}

}  // namespace

// The service manager's part: reaps each instance and, with restartOnConnection, starts the next
// one when a connection waits; ends the running instance when asked to stop.
class ServiceProcess::Supervisor {
 public:
  static void run(State& state) {
    for (;;) {
      if (firstReadable({state.process.get(), state.supervisorStop.get()}) == 1) {
        end(state);
        return;
      }
      reap(state);
      if (!state.restartOnConnection) return;
      if (firstReadable({state.listening.get(), state.supervisorStop.get()}) == 1) return;
      {
        std::lock_guard<std::mutex> lock(state.mutex);
        if (state.instances >= kRestartLimit) {
          (void)firstReadable({state.supervisorStop.get()});
          return;
        }
      }
      if (!start(state)) return;
    }
  }

  // Collects the instances' standard error until it is closed, or, once asked to stop, until
  // nothing more is waiting in it.
  static void collectStandardError(State& state, UniqueFd readEnd) {
    for (;;) {
      const bool stopping = firstReadable({readEnd.get(), state.readerStop.get()}) == 1 &&
                            !isReadable(readEnd.get(), 0);
      std::uint8_t buffer[4096];
      Result<std::size_t> count =
          stopping ? Result<std::size_t>(std::size_t{0}) : sys::read(readEnd.get(), buffer);
      std::lock_guard<std::mutex> lock(state.mutex);
      if (!count || *count == 0) {
        state.standardErrorClosed = true;
        state.changed.notify_all();
        return;
      }
      state.standardError.append(reinterpret_cast<const char*>(buffer), *count);
      state.changed.notify_all();
    }
  }

  static bool start(State& state) {
    Result<pid_t> pid = spawn(state.launch, state.listening.get(), state.standardErrorWrite.get());
    if (!pid) return false;
    Result<UniqueFd> process = sys::pidfdOpen(*pid);
    std::lock_guard<std::mutex> lock(state.mutex);
    state.process = process ? std::move(*process) : UniqueFd();
    state.pid = *pid;
    state.ended = false;
    ++state.instances;
    state.changed.notify_all();
    return state.process.valid();
  }

 private:
  static void reap(State& state) {
    Result<int> status = sys::waitForProcess(state.pid);
    std::lock_guard<std::mutex> lock(state.mutex);
    state.ended = true;
    state.status = status ? *status : 0;
    state.process.reset();
    state.changed.notify_all();
  }

  static void end(State& state) {
    (void)sys::pidfdSendSignal(state.process.get(), SIGTERM);
    if (!isReadable(state.process.get(), 2000)) {
      (void)sys::pidfdSendSignal(state.process.get(), SIGKILL);
    }
    reap(state);
  }
};

Result<ServiceProcess> ServiceProcess::start(const ServiceLaunch& launch) {
  KRV_TRY(UniqueFd socket, listenOnUnixSocket(launch.socketPath, launch.socketMode));
  KRV_TRY(sys::PipeEnds errorPipe, sys::pipe());
  auto state = std::make_unique<State>();
  prepare(launch, state->launch);
  state->restartOnConnection = launch.restartOnConnection;
  state->listening = std::move(socket);
  state->standardErrorWrite = std::move(errorPipe.writeEnd);
  KRV_TRY(state->supervisorStop, sys::eventFd(0));
  KRV_TRY(state->readerStop, sys::eventFd(0));
  if (!Supervisor::start(*state)) return Error::posix(ECHILD, "start service");
  if (!state->restartOnConnection) {
    // Nothing of the socket stays here but the file: once the service exits, connections are
    // refused; and the log ends when the service closes its standard error.
    state->listening.reset();
    state->standardErrorWrite.reset();
  }
  State* shared = state.get();
  state->reader = std::thread(Supervisor::collectStandardError, std::ref(*shared),
                              std::move(errorPipe.readEnd));
  state->supervisor = std::thread(Supervisor::run, std::ref(*shared));
  return ServiceProcess(std::move(state));
}

pid_t ServiceProcess::pid() const {
  if (!m_state) return -1;
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->pid;
}

std::size_t ServiceProcess::instancesStarted() const {
  if (!m_state) return 0;
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->instances;
}

std::optional<int> ServiceProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!m_state) return std::nullopt;
  std::unique_lock<std::mutex> lock(m_state->mutex);
  if (!m_state->changed.wait_for(lock, timeout, [&] { return m_state->ended; })) {
    return std::nullopt;
  }
  return m_state->status;
}

std::optional<pid_t> ServiceProcess::waitForRestart(pid_t previous,
                                                    std::chrono::milliseconds timeout) {
  if (!m_state) return std::nullopt;
  std::unique_lock<std::mutex> lock(m_state->mutex);
  if (!m_state->changed.wait_for(lock, timeout, [&] { return m_state->pid != previous; })) {
    return std::nullopt;
  }
  return m_state->pid;
}

bool ServiceProcess::running() {
  if (!m_state) return false;
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return !m_state->ended;
}

void ServiceProcess::terminate() {
  if (!m_state) return;
  const std::uint8_t one[8] = {1};
  if (m_state->supervisor.joinable()) {
    (void)sys::write(m_state->supervisorStop.get(), one);
    m_state->supervisor.join();
  }
  // Every instance has been reaped: what they wrote is in the pipe, and the reader takes it all
  // before it stops (a program a service started may still hold the pipe open).
  m_state->standardErrorWrite.reset();
  if (m_state->reader.joinable()) {
    (void)sys::write(m_state->readerStop.get(), one);
    m_state->reader.join();
  }
}

std::string ServiceProcess::standardError() const {
  if (!m_state) return {};
  std::lock_guard<std::mutex> lock(m_state->mutex);
  return m_state->standardError;
}

bool ServiceProcess::waitForStandardError(const std::function<bool(const std::string&)>& done,
                                          std::chrono::milliseconds timeout) const {
  if (!m_state) return false;
  std::unique_lock<std::mutex> lock(m_state->mutex);
  return m_state->changed.wait_for(lock, timeout, [&] {
    return done(m_state->standardError) || m_state->standardErrorClosed;
  }) && done(m_state->standardError);
}

}  // namespace krv::test
