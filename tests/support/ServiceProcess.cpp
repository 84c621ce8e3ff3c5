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
#include <mutex>
#include <thread>

#include "foundation/System.h"
#include "tests/support/ChildProcess.h"

extern char** environ;

namespace krv::test {

struct ServiceProcess::State {
  pid_t pid = -1;
  bool reaped = false;
  int status = 0;
  std::thread reader;
  mutable std::mutex mutex;
  std::condition_variable grown;  // standardError grew or was closed
  std::string standardError;      // guarded by mutex
  bool standardErrorClosed = false;
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

Result<ServiceProcess> ServiceProcess::start(const ServiceLaunch& launch) {
  KRV_TRY(UniqueFd socket, listenOnUnixSocket(launch.socketPath, launch.socketMode));
  KRV_TRY(sys::PipeEnds errorPipe, sys::pipe());

  // Everything the child needs is prepared before fork(): after it only async-signal-safe calls.
  std::vector<std::string> arguments{launch.executable};
  arguments.insert(arguments.end(), launch.arguments.begin(), launch.arguments.end());
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(argument.data());
  argv.push_back(nullptr);
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; ++entry) {
    std::string_view text(*entry);
    if (text.rfind("LISTEN_", 0) == 0) continue;
    environment.emplace_back(text);
  }
  environment.insert(environment.end(), launch.environment.begin(), launch.environment.end());
  environment.emplace_back("LISTEN_FDS=1");
  environment.emplace_back("LISTEN_FDNAMES=MasterSocket");
  environment.emplace_back("LISTEN_PID=");  // completed in the child
  char pidText[32] = {};
  std::vector<char*> envp;
  for (std::string& entry : environment) envp.push_back(entry.data());
  envp.back() = pidText;
  envp.push_back(nullptr);

  std::vector<const char*> writablePaths;
  if (launch.confinement) {
    for (const std::string& path : launch.confinement->writablePaths) {
      writablePaths.push_back(path.c_str());
    }
  }

  pid_t pid = ::fork();
  if (pid < 0) return Error::fromErrno("fork");
  if (pid == 0) {
    // LISTEN_PID=<pid>, written by hand (no allocation after fork).
    const char prefix[] = "LISTEN_PID=";
    std::memcpy(pidText, prefix, sizeof prefix - 1);
    char digits[16];
    int count = 0;
    for (long value = ::getpid(); value > 0 && count < 16; value /= 10) {
      digits[count++] = static_cast<char>('0' + value % 10);
    }
    for (int i = 0; i < count; ++i) pidText[sizeof prefix - 1 + i] = digits[count - 1 - i];
    pidText[sizeof prefix - 1 + count] = '\0';

    if (::dup2(errorPipe.writeEnd.get(), STDERR_FILENO) < 0) ::_exit(127);
    if (socket.get() == 3) {
      int flags = ::fcntl(3, F_GETFD);
      ::fcntl(3, F_SETFD, flags & ~FD_CLOEXEC);
    } else if (::dup2(socket.get(), 3) < 0) {
      ::_exit(127);
    }
    if (launch.confinement && !confine(*launch.confinement, writablePaths)) ::_exit(126);
    if (launch.refuseNewThreads && !refuseNewThreads()) ::_exit(127);
    ::execve(argv[0], argv.data(), envp.data());
    ::_exit(127);
  }

  errorPipe.writeEnd.reset();
  auto state = std::make_unique<State>();
  state->pid = pid;
  State* shared = state.get();
  state->reader = std::thread([shared, readEnd = std::move(errorPipe.readEnd)]() {
    std::uint8_t buffer[4096];
    for (;;) {
      Result<std::size_t> count = sys::read(readEnd.get(), buffer);
      std::lock_guard<std::mutex> lock(shared->mutex);
      if (!count || *count == 0) {
        shared->standardErrorClosed = true;
        shared->grown.notify_all();
        return;
      }
      shared->standardError.append(reinterpret_cast<const char*>(buffer), *count);
      shared->grown.notify_all();
    }
  });
  return ServiceProcess(std::move(state));
}

pid_t ServiceProcess::pid() const { return m_state ? m_state->pid : -1; }

std::optional<int> ServiceProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!m_state) return std::nullopt;
  if (m_state->reaped) return m_state->status;
  Result<int> status = test::waitForExit(m_state->pid, timeout);
  if (!status) return std::nullopt;
  m_state->reaped = true;
  m_state->status = *status;
  if (m_state->reader.joinable()) m_state->reader.join();
  return *status;
}

bool ServiceProcess::running() {
  return m_state && !m_state->reaped && !waitForExit(std::chrono::milliseconds(0));
}

void ServiceProcess::terminate() {
  if (!m_state) return;
  if (!m_state->reaped) {
    ::kill(m_state->pid, SIGTERM);
    if (!waitForExit(std::chrono::milliseconds(2000))) {
      ::kill(m_state->pid, SIGKILL);
      waitForExit(std::chrono::milliseconds(10000));
    }
  }
  if (m_state->reader.joinable()) m_state->reader.join();
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
  return m_state->grown.wait_for(lock, timeout, [&] {
    return done(m_state->standardError) || m_state->standardErrorClosed;
  }) && done(m_state->standardError);
}

}  // namespace krv::test
