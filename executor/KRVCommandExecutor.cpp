#include "executor/KRVCommandExecutor.h"

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <thread>

#include "foundation/Assert.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVCommandExecutor";

// A client has this long to open its end of the response pipe. A client that never does would
// otherwise keep its command's thread, and with it the daemon, alive for ever.
constexpr std::chrono::seconds kPipeOpenTimeout{60};

constexpr std::size_t kCommandThreadStackSize = 1024 * 1024;

std::mutex& executorLock() {
  static std::mutex lock;
  return lock;
}
// Signalled, under the executor lock, whenever a thread counts itself out.
std::condition_variable& executorThreadEnded() {
  static std::condition_variable ended;
  return ended;
}
std::int64_t runningExecutorThreads = 0;
// Threads started by startThread that have not yet counted themselves in: counted as running from
// before their creation, so that there is no moment at which a started command is not counted.
std::int64_t startingExecutorThreads = 0;

// The signal that ends a wait for a client that never opens its pipe. Its handler does nothing:
// the signal's only purpose is to make the blocked open() return with EINTR.
constexpr int kPipeWaitSignal = SIGUSR2;

void ignoreWakeUp(int) {}

void installWakeUpHandler() {
  static std::once_flag installed;
  // Without SA_RESTART: the open must be interrupted.
  std::call_once(installed, [] { (void)sys::setSignalHandler(kPipeWaitSignal, ignoreWakeUp); });
}

using PipeIdentity = std::optional<std::pair<dev_t, ino_t>>;

// The pipe must still be a FIFO, and the one the daemon created when it knows which: the client
// owns it and could have replaced it with a link (the open never follows one), a file elsewhere
// or another FIFO (a hard link to somebody else's, say).
Result<UniqueFd> checkedPipe(UniqueFd pipe, const PipeIdentity& expected) {
  KRV_TRY(struct stat status, sys::fstat(pipe.get()));
  if (!S_ISFIFO(status.st_mode)) return Error::posix(EINVAL, "open pipe");
  if (expected && (status.st_dev != expected->first || status.st_ino != expected->second)) {
    return Error::posix(EINVAL, "open pipe");
  }
  return pipe;
}

// Opens the write end of the response pipe; this waits until the client has opened the read end,
// but no longer than kPipeOpenTimeout. The pipe stays non-blocking: a client that opens it and
// then reads nothing holds a message up for at most kStalledReaderTimeout (foundation/DataBlock.h),
// after which the command treats it as gone.
Result<UniqueFd> openResponsePipe(const std::string& path, const PipeIdentity& expected) {
  constexpr int kFlags = O_WRONLY | O_NOFOLLOW | O_NOCTTY;
  Result<UniqueFd> opened = sys::open(path, kFlags | O_NONBLOCK);
  if (opened) return checkedPipe(std::move(opened).value(), expected);
  if (opened.error().code() != ENXIO) return std::move(opened).error();

  auto deadline = std::chrono::steady_clock::now() + kPipeOpenTimeout;
  installWakeUpHandler();
  // The signal at the deadline and every second after it (one that arrives just before the thread
  // blocks is followed by another one).
  sys::ThreadSignalTimer timer(kPipeWaitSignal, kPipeOpenTimeout, std::chrono::seconds(1));
  for (;;) {
    opened = sys::openInterruptibly(path, kFlags);
    if (opened) {
      KRV_TRY_VOID(sys::setNonBlocking(opened->get(), true));
      return checkedPipe(std::move(opened).value(), expected);
    }
    if (opened.error().code() != EINTR) return std::move(opened).error();
    if (std::chrono::steady_clock::now() >= deadline) return Error::posix(ETIMEDOUT, "open");
  }
}

// A pipe its client never opened would stay in /tmp for good: remove it while it is still the
// daemon's FIFO (whatever else the client put under the name is left alone).
void removeUnusedPipe(const std::string& path, const PipeIdentity& expected) {
  if (!expected) return;
  Result<struct stat> status = sys::lstat(path);
  if (!status || !S_ISFIFO(status->st_mode) || status->st_dev != expected->first ||
      status->st_ino != expected->second) {
    return;
  }
  (void)sys::unlink(path);
}

}  // namespace

Error commandError(std::int64_t code, Dictionary userInfo) {
  return Error(std::string(kCommandErrorDomain), code, std::move(userInfo));
}

Error commandSuccess() { return commandError(kResultSuccess); }

Error commandErrorWithFailingPath(std::int64_t code, const std::string& path) {
  Dictionary userInfo;
  userInfo.set(key::kFailingPath, nameValue(path));
  return commandError(code, std::move(userInfo));
}

void KRVCommandExecutor::getVersion(unsigned* major, unsigned* minor, std::string* build) {
  if (major != nullptr) *major = kVersionMajor;
  if (minor != nullptr) *minor = kVersionMinor;
  if (build != nullptr) *build = kVersionBuild;
}

std::int64_t KRVCommandExecutor::numberOfRunningExecutorThreads() {
  std::lock_guard<std::mutex> lock(executorLock());
  return runningExecutorThreads + startingExecutorThreads;
}

bool KRVCommandExecutor::waitForRunningExecutorThreads(std::int64_t count,
                                                       std::chrono::milliseconds timeout) {
  std::unique_lock<std::mutex> lock(executorLock());
  return executorThreadEnded().wait_for(
      lock, timeout, [count] { return runningExecutorThreads + startingExecutorThreads <= count; });
}

KRVCommandExecutor::~KRVCommandExecutor() = default;

void KRVCommandExecutor::useAppleSystemLoggingWithIdentification(const char* identification,
                                                                 const char* facility,
                                                                 std::uint32_t options) {
  KRV_ASSERT(identification != nullptr && facility != nullptr, kUnit);
  m_log = std::make_unique<SystemLog>(identification, facility, options);
}

void KRVCommandExecutor::setPathOfClientCommunicationPipe(std::optional<std::string> path) {
  m_pipePath = std::move(path);
  m_pipe.release();  // never closes: callers close first
}

namespace {

// What a command thread owns: its executor and its command.
struct ThreadWork {
  std::unique_ptr<KRVCommandExecutor> executor;
  std::shared_ptr<const KRVPrivilegedCommand> command;
};

}  // namespace

void* KRVCommandExecutor::runStartedThread(void* argument) {
  std::unique_ptr<ThreadWork> work(static_cast<ThreadWork*>(argument));
  try {
    work->executor->runThreadBody(std::move(work->command), true);
  } catch (...) {
    // No exception may leave a thread: report and end this command only.
    if (work->executor->log() != nullptr) {
      work->executor->log()->log(SystemLog::Level::Error,
                                 "Unexpected failure of a command thread.");
    }
  }
  return nullptr;
}

Status KRVCommandExecutor::startThread(std::unique_ptr<KRVCommandExecutor> executor,
                                       std::shared_ptr<const KRVPrivilegedCommand> command) {
  auto work = std::make_unique<ThreadWork>(ThreadWork{std::move(executor), std::move(command)});
  {
    std::lock_guard<std::mutex> lock(executorLock());
    ++startingExecutorThreads;
  }
  // The thread owns the work from here on; only a thread that was never started gives it back.
  ThreadWork* handedOver = work.release();
  // Commands keep their large buffers off the stack; a smaller stack makes every thread cheaper.
  Status started = sys::startDetachedThread(runStartedThread, handedOver, kCommandThreadStackSize);
  if (started) return {};
  {
    std::lock_guard<std::mutex> lock(executorLock());
    --startingExecutorThreads;
    executorThreadEnded().notify_all();
  }
  work.reset(handedOver);
  KRVCommandExecutor& unstarted = *work->executor;
  if (unstarted.log() != nullptr) {
    unstarted.log()->log(SystemLog::Level::Error, "Could not start a command thread (%m)",
                         started.error());
  }
  if (work->command) work->command->discardAuthorization();
  if (unstarted.m_pipePath) removeUnusedPipe(*unstarted.m_pipePath, unstarted.m_expectedPipe);
  return started;
}

namespace {

// The thread's place in the running-thread counter, given up however the thread body ends (an
// exception included: a count that never goes down would keep the daemon from ever exiting).
class RunningCount {
 public:
  explicit RunningCount(bool countedByStarter) : m_starting(countedByStarter) {}
  ~RunningCount() {
    std::lock_guard<std::mutex> lock(executorLock());
    if (m_starting) --startingExecutorThreads;
    if (m_running) --runningExecutorThreads;
    executorThreadEnded().notify_all();
  }
  RunningCount(const RunningCount&) = delete;
  RunningCount& operator=(const RunningCount&) = delete;

  // One step under the lock: the count never drops to zero in between.
  void countIn() {
    std::lock_guard<std::mutex> lock(executorLock());
    ++runningExecutorThreads;
    m_running = true;
    if (m_starting) --startingExecutorThreads;
    m_starting = false;
  }

 private:
  bool m_starting;
  bool m_running = false;
};

}  // namespace

void KRVCommandExecutor::executeCommandOnCallingThread(
    std::shared_ptr<const KRVPrivilegedCommand> command) {
  runThreadBody(std::move(command), false);
}

void KRVCommandExecutor::runThreadBody(std::shared_ptr<const KRVPrivilegedCommand> command,
                                       bool countedByStarter) {
  RunningCount count(countedByStarter);
  if (!command || !m_log || !m_pipePath || m_pipePath->empty()) return;
  count.countIn();
  const int code = static_cast<int>(command->commandCode());
  const void* thread = reinterpret_cast<const void*>(::pthread_self());
  m_log->log(SystemLog::Level::Debug,
             format("Thread %p running for request type %d.", thread, code));

  Result<UniqueFd> pipe = openResponsePipe(*m_pipePath, m_expectedPipe);
  if (!pipe) {
    m_log->log(SystemLog::Level::Error, "Could not open pipe for client communication (%m)",
               pipe.error());
    removeUnusedPipe(*m_pipePath, m_expectedPipe);
  } else {
    m_pipe = std::move(*pipe);
    CommandResult result = executeCommand(*command);
    command->discardAuthorization();
    sendFinalMessageToClientPipeAndClose(result);
  }

  command.reset();
  m_log->log(SystemLog::Level::Debug,
             format("Thread %p servicing request type %d exited.", thread, code));
  m_log.reset();
}

bool KRVCommandExecutor::sendSignal(int signal, pid_t processIdentifier) {
  if (processIdentifier < 1) return false;
  return sys::kill(processIdentifier, signal).ok();
}

std::uint32_t KRVCommandExecutor::fileSystemIDForPath(const std::string& path) {
  Result<struct stat> status = sys::lstat(path);
  if (!status) return 0xFFFFFFFFu;
  return static_cast<std::uint32_t>(status->st_dev);
}

}  // namespace krv
