#include "executor/KRVTaskExecutor.h"

#include <poll.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <thread>

#include "foundation/System.h"

extern char** environ;

namespace krv {

namespace {

constexpr std::size_t kReadChunkSize = 65536;
// What the final read of one stream takes at most. A program's own output is bounded by its pipe
// (at most the kernel's pipe-max-size, 1 MiB by default); a descendant that goes on writing after
// the program ended must not keep the executor reading for ever.
constexpr std::size_t kMaximumDrain = 1048576 + kReadChunkSize;

bool isOwnedByRootAndNotWritableByOthers(const struct stat& status) {
  return status.st_uid == 0 && status.st_gid == 0 && (status.st_mode & 022) == 0;
}

// A descriptor that is not one of the standard three, so that dup2 onto 0, 1 or 2 in the child
// always makes a fresh, inheritable copy.
Result<UniqueFd> aboveStandardDescriptors(UniqueFd fd) {
  if (fd.get() > STDERR_FILENO) return fd;
  return sys::duplicate(fd.get(), STDERR_FILENO + 1);
}

class SpawnActions {
 public:
  SpawnActions() { m_ok = ::posix_spawn_file_actions_init(&m_actions) == 0; }
  ~SpawnActions() {
    if (m_ok) ::posix_spawn_file_actions_destroy(&m_actions);
  }
  SpawnActions(const SpawnActions&) = delete;
  SpawnActions& operator=(const SpawnActions&) = delete;
  bool ok() const { return m_ok; }
  posix_spawn_file_actions_t* get() { return &m_actions; }

 private:
  posix_spawn_file_actions_t m_actions{};
  bool m_ok = false;
};

class SpawnAttributes {
 public:
  SpawnAttributes() { m_ok = ::posix_spawnattr_init(&m_attributes) == 0; }
  ~SpawnAttributes() {
    if (m_ok) ::posix_spawnattr_destroy(&m_attributes);
  }
  SpawnAttributes(const SpawnAttributes&) = delete;
  SpawnAttributes& operator=(const SpawnAttributes&) = delete;
  bool ok() const { return m_ok; }
  posix_spawnattr_t* get() { return &m_attributes; }

 private:
  posix_spawnattr_t m_attributes{};
  bool m_ok = false;
};

// Reads what a stream holds after the program ended: to end of file, or until a descendant that
// still holds the pipe has nothing more for now (so a lingering grandchild cannot block us), or
// until kMaximumDrain bytes.
Data drain(int fd) {
  Data chunk;
  (void)sys::setNonBlocking(fd, true);
  std::uint8_t buffer[kReadChunkSize];
  while (chunk.size() < kMaximumDrain) {
    Result<std::size_t> count = sys::read(fd, buffer);
    if (!count || *count == 0) break;
    chunk.insert(chunk.end(), buffer, buffer + *count);
  }
  return chunk;
}

int exitStatusOf(int waitStatus) {
  if (WIFEXITED(waitStatus)) return WEXITSTATUS(waitStatus);
  if (WIFSIGNALED(waitStatus)) return WTERMSIG(waitStatus);
  return waitStatus;
}

}  // namespace

std::mutex& KRVTaskExecutor::environmentLock() {
  static std::mutex lock;
  return lock;
}

bool KRVTaskExecutor::hasExecutableSafePermissionsAtPath(const std::string& path) {
  // A NUL would make the kernel check and run a shorter path than the one asked for.
  if (path.empty() || path.find('\0') != std::string::npos) return false;
  char resolved[PATH_MAX];
  if (::realpath(path.c_str(), resolved) == nullptr) return false;
  std::string program(resolved);
  Result<struct stat> status = sys::lstat(program);
  if (!status || S_ISDIR(status->st_mode)) return false;
  if (!isOwnedByRootAndNotWritableByOthers(*status)) return false;
  std::string::size_type slash = program.rfind('/');
  std::string parent = slash == 0 ? std::string("/") : program.substr(0, slash);
  Result<struct stat> parentStatus = sys::lstat(parent);
  if (!parentStatus || !S_ISDIR(parentStatus->st_mode)) return false;
  return isOwnedByRootAndNotWritableByOthers(*parentStatus);
}

void KRVTaskExecutor::deliver(const Data& chunk, bool isError) {
  if (m_delegate != nullptr) {
    m_delegate->receiveTaskOutput(chunk, isError);
    return;
  }
  (void)sys::writeAll(isError ? STDERR_FILENO : STDOUT_FILENO, chunk);
}

Result<int> KRVTaskExecutor::executeProgramAtPath(const std::string& path,
                                                  const std::vector<std::string>& arguments) {
  KRV_TRY(sys::PipeEnds input, sys::pipe());
  KRV_TRY(sys::PipeEnds output, sys::pipe());
  KRV_TRY(sys::PipeEnds error, sys::pipe());
  KRV_TRY(UniqueFd childInput, aboveStandardDescriptors(std::move(input.readEnd)));
  KRV_TRY(UniqueFd childOutput, aboveStandardDescriptors(std::move(output.writeEnd)));
  KRV_TRY(UniqueFd childError, aboveStandardDescriptors(std::move(error.writeEnd)));

  SpawnActions actions;
  SpawnAttributes attributes;
  if (!actions.ok() || !attributes.ok()) return Error::posix(ENOMEM, "posix_spawn");
  // Every descriptor of the daemon is close-on-exec; closing all above the standard three also
  // keeps out any that a library might have opened without the flag.
  if (::posix_spawn_file_actions_adddup2(actions.get(), childInput.get(), STDIN_FILENO) != 0 ||
      ::posix_spawn_file_actions_adddup2(actions.get(), childOutput.get(), STDOUT_FILENO) != 0 ||
      ::posix_spawn_file_actions_adddup2(actions.get(), childError.get(), STDERR_FILENO) != 0 ||
      ::posix_spawn_file_actions_addclosefrom_np(actions.get(), STDERR_FILENO + 1) != 0) {
    return Error::posix(ENOMEM, "posix_spawn");
  }
  // The daemon ignores SIGPIPE and may block signals on this thread; the program starts clean.
  sigset_t defaults;
  sigemptyset(&defaults);
  sigaddset(&defaults, SIGPIPE);
  sigset_t noneBlocked;
  sigemptyset(&noneBlocked);
  ::posix_spawnattr_setsigdefault(attributes.get(), &defaults);
  ::posix_spawnattr_setsigmask(attributes.get(), &noneBlocked);
  ::posix_spawnattr_setflags(attributes.get(), POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);

  std::vector<char*> argv;
  argv.reserve(arguments.size() + 2);
  argv.push_back(const_cast<char*>(path.c_str()));
  for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);

  if (m_delegate != nullptr) m_delegate->taskWillExecute(*this);
  pid_t pid = -1;
  int spawnError = 0;
  {
    std::lock_guard<std::mutex> lock(environmentLock());
    spawnError =
        ::posix_spawn(&pid, path.c_str(), actions.get(), attributes.get(), argv.data(), environ);
  }
  childInput.reset();
  childOutput.reset();
  childError.reset();
  if (spawnError != 0) return Error::posix(spawnError, "posix_spawn");

  m_inputHandle = input.writeEnd.get();
  if (m_delegate != nullptr) m_delegate->taskDidLaunch(*this);
  m_inputHandle = -1;
  input.writeEnd.reset();

  UniqueFd exitNotice = sys::pidfdOpen(pid).valueOr(UniqueFd());
  pollfd watched[3] = {{output.readEnd.get(), POLLIN, 0},
                       {error.readEnd.get(), POLLIN, 0},
                       {exitNotice.get(), POLLIN, 0}};
  std::uint8_t buffer[kReadChunkSize];
  for (;;) {
    // Without a process descriptor (old kernels) the end of both streams stands for the exit.
    if (!exitNotice.valid() && watched[0].fd < 0 && watched[1].fd < 0) break;
    if (Result<std::size_t> ready = sys::poll(watched, -1); !ready) {
      if (ready.error().code() == EINTR) continue;
      break;
    }
    if (watched[2].revents != 0) break;
    for (int stream = 0; stream < 2; ++stream) {
      if (watched[stream].fd < 0 || watched[stream].revents == 0) continue;
      Result<std::size_t> count = sys::read(watched[stream].fd, buffer);
      if (count && *count > 0) {
        deliver(Data(buffer, buffer + *count), stream == 1);
      } else if (count || count.error().code() != EAGAIN) {
        watched[stream].fd = -1;  // end of this stream; the final drain reports it
      }
    }
  }

  // An unknown child (it cannot be: we started it) leaves a status of 0.
  const int waitStatus = sys::waitForProcess(pid).valueOr(0);
  deliver(drain(output.readEnd.get()), false);
  deliver(drain(error.readEnd.get()), true);
  return exitStatusOf(waitStatus);
}

Result<int> KRVHighLoadTaskExecutor::executeProgramAtPath(
    const std::string& path, const std::vector<std::string>& arguments) {
  Result<int> status = KRVTaskExecutor::executeProgramAtPath(path, arguments);
  std::this_thread::sleep_for(std::chrono::microseconds(40000));
  return status;
}

}  // namespace krv
