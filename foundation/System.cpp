#include "foundation/System.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>
#include <utility>

namespace krv::sys {

Result<UniqueFd> open(const std::string& path, int flags, mode_t mode) {
  return openAt(AT_FDCWD, path.c_str(), flags, mode);
}

Result<UniqueFd> openAt(int directoryFd, const char* path, int flags, mode_t mode) {
  for (;;) {
    int fd = ::openat(directoryFd, path, flags | O_CLOEXEC, mode);
    if (fd >= 0) return UniqueFd(fd);
    if (errno != EINTR) return Error::fromErrno("open");
  }
}

Result<UniqueFd> openAtWithinMount(int directoryFd, const char* path, int flags) {
  struct open_how how {};
  how.flags = static_cast<std::uint64_t>(flags | O_CLOEXEC);
  how.resolve = RESOLVE_NO_XDEV;
  for (;;) {
    long fd = ::syscall(SYS_openat2, directoryFd, path, &how, sizeof how);
    if (fd >= 0) return UniqueFd(static_cast<int>(fd));
    if (errno != EINTR) return Error::fromErrno("openat2");
  }
}

Result<UniqueFd> openInterruptibly(const std::string& path, int flags) {
  const int fd = ::open(path.c_str(), flags | O_CLOEXEC);
  if (fd < 0) return Error::fromErrno("open");
  return UniqueFd(fd);
}

Result<std::size_t> read(int fd, std::span<std::uint8_t> buffer) {
  for (;;) {
    ssize_t count = ::read(fd, buffer.data(), buffer.size());
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("read");
  }
}

Result<std::size_t> readAt(int fd, std::span<std::uint8_t> buffer, off_t offset) {
  for (;;) {
    ssize_t count = ::pread(fd, buffer.data(), buffer.size(), offset);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("pread");
  }
}

Result<std::size_t> writeAt(int fd, std::span<const std::uint8_t> buffer, off_t offset) {
  for (;;) {
    ssize_t count = ::pwrite(fd, buffer.data(), buffer.size(), offset);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("pwrite");
  }
}

Result<std::size_t> write(int fd, std::span<const std::uint8_t> buffer) {
  for (;;) {
    ssize_t count = ::write(fd, buffer.data(), buffer.size());
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("write");
  }
}

Status writeAll(int fd, std::span<const std::uint8_t> buffer) {
  while (!buffer.empty()) {
    KRV_TRY(std::size_t count, write(fd, buffer));
    if (count == 0) return Error::posix(EPIPE, "write");
    buffer = buffer.subspan(count);
  }
  return {};
}

Result<std::string> readFile(const std::string& path, std::size_t maxSize) {
  KRV_TRY(UniqueFd fd, open(path, O_RDONLY | O_NOCTTY));
  std::string contents;
  std::uint8_t buffer[4096];
  for (;;) {
    KRV_TRY(std::size_t count, read(fd.get(), buffer));
    if (count == 0) return contents;
    if (contents.size() + count > maxSize) return Error::posix(EFBIG, "read");
    contents.append(reinterpret_cast<const char*>(buffer), count);
  }
}

Result<struct stat> lstat(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return Error::fromErrno("lstat");
  return status;
}

Result<struct stat> stat(const std::string& path) {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return Error::fromErrno("stat");
  return status;
}

Result<struct stat> fstat(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) return Error::fromErrno("fstat");
  return status;
}

Result<struct statvfs> fileSystemStatus(int fd) {
  struct statvfs status {};
  while (::fstatvfs(fd, &status) != 0) {
    if (errno != EINTR) return Error::fromErrno("fstatvfs");
  }
  return status;
}

Result<UniqueFd> duplicate(int fd, int lowest) {
  int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, lowest);
  if (copy < 0) return Error::fromErrno("fcntl");
  return UniqueFd(copy);
}

Result<struct stat> statAt(int directoryFd, const char* path, int flags) {
  struct stat status {};
  if (::fstatat(directoryFd, path, &status, flags) != 0) return Error::fromErrno("fstatat");
  return status;
}

Result<std::size_t> readDirectoryEntries(int directoryFd, std::span<char> buffer) {
  for (;;) {
    ssize_t count = ::getdents64(directoryFd, buffer.data(), buffer.size());
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("getdents64");
  }
}

Result<off_t> seek(int fd, off_t offset, int whence) {
  const off_t position = ::lseek(fd, offset, whence);
  if (position < 0) return Error::fromErrno("lseek");
  return position;
}

Result<char*> mapPrivateMemory(std::size_t size) {
  void* mapping = ::mmap(nullptr, size, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
  if (mapping == MAP_FAILED) return Error::fromErrno("mmap");
  return static_cast<char*>(mapping);
}

void unmapMemory(char* address, std::size_t size) { ::munmap(address, size); }

Status unlink(const std::string& path) {
  if (::unlink(path.c_str()) != 0) return Error::fromErrno("unlink");
  return {};
}

Status rmdir(const std::string& path) {
  if (::rmdir(path.c_str()) != 0) return Error::fromErrno("rmdir");
  return {};
}

Status rename(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) return Error::fromErrno("rename");
  return {};
}

Status mkdir(const std::string& path, mode_t mode) {
  if (::mkdir(path.c_str(), mode) != 0) return Error::fromErrno("mkdir");
  return {};
}

Status mkfifo(const std::string& path, mode_t mode) {
  if (::mkfifo(path.c_str(), mode) != 0) return Error::fromErrno("mkfifo");
  return {};
}

Status lchown(const std::string& path, uid_t owner, gid_t group) {
  if (::lchown(path.c_str(), owner, group) != 0) return Error::fromErrno("lchown");
  return {};
}

Status chmod(const std::string& path, mode_t mode) {
  if (::chmod(path.c_str(), mode) != 0) return Error::fromErrno("chmod");
  return {};
}

Status fsync(int fd) {
  for (;;) {
    if (::fsync(fd) == 0) return {};
    if (errno != EINTR) return Error::fromErrno("fsync");
  }
}

Status truncate(int fd, off_t length) {
  for (;;) {
    if (::ftruncate(fd, length) == 0) return {};
    if (errno != EINTR) return Error::fromErrno("ftruncate");
  }
}

Status lockWaiting(int fd, LockKind kind) {
  struct flock lock {};
  lock.l_type = kind == LockKind::Exclusive ? F_WRLCK : F_RDLCK;
  lock.l_whence = SEEK_SET;  // l_start 0 and l_len 0: the whole file, however large it grows
  for (;;) {
    if (::fcntl(fd, F_OFD_SETLKW, &lock) == 0) return {};
    if (errno != EINTR) return Error::fromErrno("fcntl");
  }
}

Result<PipeEnds> pipe(int extraFlags) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC | extraFlags) != 0) return Error::fromErrno("pipe2");
  return PipeEnds{UniqueFd(ends[0]), UniqueFd(ends[1])};
}

Status setNonBlocking(int fd, bool nonBlocking) {
  int flags = ::fcntl(fd, F_GETFL);
  if (flags < 0) return Error::fromErrno("fcntl");
  bool isNonBlocking = (flags & O_NONBLOCK) != 0;
  if (isNonBlocking == nonBlocking) return {};
  if (::fcntl(fd, F_SETFL, flags ^ O_NONBLOCK) != 0) return Error::fromErrno("fcntl");
  return {};
}

Status setCloseOnExec(int fd) {
  int flags = ::fcntl(fd, F_GETFD);
  if (flags < 0) return Error::fromErrno("fcntl");
  if ((flags & FD_CLOEXEC) != 0) return {};
  if (::fcntl(fd, F_SETFD, flags | FD_CLOEXEC) != 0) return Error::fromErrno("fcntl");
  return {};
}

Result<UniqueFd> socket(int domain, int type, int protocol) {
  const int fd = ::socket(domain, type | SOCK_CLOEXEC, protocol);
  if (fd < 0) return Error::fromErrno("socket");
  return UniqueFd(fd);
}

Result<UniqueFd> connectLocalSocket(std::string_view path, int type) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path)
    return Error::posix(EINVAL, "connect");
  std::memcpy(address.sun_path, path.data(), path.size());
  KRV_TRY(UniqueFd fd, socket(AF_UNIX, type));
  const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + path.size() + 1);
  bool interrupted = false;
  for (;;) {
    if (::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), length) == 0) return fd;
    // An interrupted connect goes on in the background: asked again, it may be done already.
    if (errno == EISCONN && interrupted) return fd;
    if (errno != EINTR) return Error::fromErrno("connect");
    interrupted = true;
  }
}

Result<UniqueFd> accept(int listeningFd) {
  const int fd = ::accept4(listeningFd, nullptr, nullptr, SOCK_CLOEXEC);
  if (fd < 0) return Error::fromErrno("accept");
  return UniqueFd(fd);
}

Result<std::size_t> send(int fd, std::span<const std::uint8_t> buffer, int flags) {
  for (;;) {
    const ssize_t count = ::send(fd, buffer.data(), buffer.size(), flags);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("send");
  }
}

Result<std::size_t> receive(int fd, std::span<std::uint8_t> buffer, int flags) {
  for (;;) {
    const ssize_t count = ::recv(fd, buffer.data(), buffer.size(), flags);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("recv");
  }
}

Result<int> socketOption(int fd, int level, int name) {
  int value = 0;
  socklen_t length = sizeof value;
  if (::getsockopt(fd, level, name, &value, &length) != 0) return Error::fromErrno("getsockopt");
  return value;
}

Result<ucred> peerCredentials(int fd) {
  ucred credentials{};
  socklen_t length = sizeof credentials;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
    return Error::fromErrno("getsockopt SO_PEERCRED");
  }
  return credentials;
}

Result<UniqueFd> peerProcess(int fd) {
#ifndef SO_PEERPIDFD
  constexpr int SO_PEERPIDFD = 77;  // Linux 6.5; older C libraries do not name it
#endif
  int pidfd = -1;
  socklen_t length = sizeof pidfd;
  if (::getsockopt(fd, SOL_SOCKET, SO_PEERPIDFD, &pidfd, &length) != 0) {
    return Error::fromErrno("getsockopt SO_PEERPIDFD");
  }
  if (pidfd < 0) return Error::posix(ESRCH, "getsockopt SO_PEERPIDFD");
  return UniqueFd(pidfd);
}

Result<std::size_t> poll(std::span<pollfd> entries, int timeoutMilliseconds) {
  const int ready = ::poll(entries.data(), entries.size(), timeoutMilliseconds);
  if (ready < 0) return Error::fromErrno("poll");
  return static_cast<std::size_t>(ready);
}

Result<UniqueFd> epollCreate() {
  const int fd = ::epoll_create1(EPOLL_CLOEXEC);
  if (fd < 0) return Error::fromErrno("epoll_create1");
  return UniqueFd(fd);
}

Status epollAdd(int queue, int fd, std::uint32_t events) {
  epoll_event interest{};
  interest.events = events;
  interest.data.fd = fd;
  if (::epoll_ctl(queue, EPOLL_CTL_ADD, fd, &interest) != 0) return Error::fromErrno("epoll_ctl");
  return {};
}

Result<std::size_t> epollWait(int queue, std::span<epoll_event> events, int timeoutMilliseconds) {
  const int count =
      ::epoll_wait(queue, events.data(), static_cast<int>(events.size()), timeoutMilliseconds);
  if (count < 0) return Error::fromErrno("epoll_wait");
  return static_cast<std::size_t>(count);
}

Result<UniqueFd> eventFd(int flags) {
  const int fd = ::eventfd(0, flags | EFD_CLOEXEC);
  if (fd < 0) return Error::fromErrno("eventfd");
  return UniqueFd(fd);
}

mode_t setFileCreationMask(mode_t mask) { return ::umask(mask); }

void setAlarm(unsigned seconds) { ::alarm(seconds); }

Result<struct sigaction> setSignalHandler(int signal, void (*handler)(int)) {
  struct sigaction action {};
  action.sa_handler = handler;
  sigemptyset(&action.sa_mask);
  action.sa_flags = 0;
  struct sigaction previous {};
  if (::sigaction(signal, &action, &previous) != 0) return Error::fromErrno("sigaction");
  return previous;
}

Status restoreSignalAction(int signal, const struct sigaction& previous) {
  if (::sigaction(signal, &previous, nullptr) != 0) return Error::fromErrno("sigaction");
  return {};
}

Status kill(pid_t pid, int signal) {
  if (::kill(pid, signal) != 0) return Error::fromErrno("kill");
  return {};
}

Result<int> waitForProcess(pid_t pid) {
  int status = 0;
  while (::waitpid(pid, &status, 0) < 0) {
    if (errno != EINTR) return Error::fromErrno("waitpid");
  }
  return status;
}

void writeFromSignalHandler(int fd, std::uint8_t byte) noexcept {
  const int savedErrno = errno;
  (void)!::write(fd, &byte, 1);
  errno = savedErrno;
}

Status startDetachedThread(void* (*body)(void*), void* argument, std::size_t stackSize) {
  pthread_attr_t attributes;
  int error = ::pthread_attr_init(&attributes);
  if (error != 0) return Error::posix(error, "pthread_attr_init");
  ::pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  error = ::pthread_attr_setstacksize(&attributes, stackSize);
  if (error == 0) {
    pthread_t thread;
    error = ::pthread_create(&thread, &attributes, body, argument);
  }
  ::pthread_attr_destroy(&attributes);
  if (error != 0) return Error::posix(error, "pthread_create");
  return {};
}

ThreadSignalTimer::ThreadSignalTimer(int signal, std::chrono::seconds delay,
                                     std::chrono::seconds interval) {
  sigevent event{};
  event.sigev_notify = SIGEV_THREAD_ID;
  event.sigev_signo = signal;
  event._sigev_un._tid = static_cast<pid_t>(::gettid());
  if (::timer_create(CLOCK_MONOTONIC, &event, &m_timer) != 0) return;
  m_armed = true;
  itimerspec schedule{};
  schedule.it_value.tv_sec = delay.count();
  schedule.it_interval.tv_sec = interval.count();
  ::timer_settime(m_timer, 0, &schedule, nullptr);
}

ThreadSignalTimer::~ThreadSignalTimer() {
  if (m_armed) ::timer_delete(m_timer);
}

bool isTerminal(int fd) { return ::isatty(fd) == 1; }

Result<termios> terminalAttributes(int fd) {
  termios attributes{};
  if (::tcgetattr(fd, &attributes) != 0) return Error::fromErrno("tcgetattr");
  return attributes;
}

Status setTerminalAttributes(int fd, const termios& attributes) {
  for (;;) {
    if (::tcsetattr(fd, TCSAFLUSH, &attributes) == 0) return {};
    if (errno != EINTR) return Error::fromErrno("tcsetattr");
  }
}

DirectoryStream::~DirectoryStream() {
  if (m_stream != nullptr) ::closedir(m_stream);
}

DirectoryStream::DirectoryStream(DirectoryStream&& other) noexcept
    : m_stream(std::exchange(other.m_stream, nullptr)) {}

DirectoryStream& DirectoryStream::operator=(DirectoryStream&& other) noexcept {
  if (this != &other) {
    if (m_stream != nullptr) ::closedir(m_stream);
    m_stream = std::exchange(other.m_stream, nullptr);
  }
  return *this;
}

Result<DirectoryStream> openDirectory(const std::string& path) {
  KRV_TRY(UniqueFd fd, open(path, O_RDONLY | O_DIRECTORY | O_NOCTTY));
  DIR* stream = ::fdopendir(fd.get());
  if (stream == nullptr) return Error::fromErrno("fdopendir");
  fd.release();
  return DirectoryStream(stream);
}

Status getRandom(std::span<std::uint8_t> buffer) {
  while (!buffer.empty()) {
    ssize_t count = ::getrandom(buffer.data(), buffer.size(), 0);
    if (count < 0) {
      if (errno == EINTR) continue;
      return Error::fromErrno("getrandom");
    }
    buffer = buffer.subspan(static_cast<std::size_t>(count));
  }
  return {};
}

Result<UniqueFd> pidfdOpen(pid_t pid) {
  // pidfd descriptors are always close-on-exec.
  long fd = ::syscall(SYS_pidfd_open, pid, 0);
  if (fd < 0) return Error::fromErrno("pidfd_open");
  return UniqueFd(static_cast<int>(fd));
}

Status pidfdSendSignal(int pidfd, int signal) {
  if (::syscall(SYS_pidfd_send_signal, pidfd, signal, nullptr, 0) != 0) {
    return Error::fromErrno("pidfd_send_signal");
  }
  return {};
}

std::string errorText(int errnoValue) {
  char buffer[256];
  // The GNU strerror_r returns the text, which may or may not be in the buffer.
  const char* text = ::strerror_r(errnoValue, buffer, sizeof buffer);
  return text;
}

bool isResourceExhaustion(int errnoValue) {
  switch (errnoValue) {
    case EMFILE:
    case ENFILE:
    case ENOMEM:
    case ENOBUFS:
    case EAGAIN:
    case EINTR:
    case EIO:
    case ENOSPC:
    case EDQUOT:
      return true;
    default:
      return false;
  }
}

Result<std::uint64_t> raiseDescriptorLimit(std::uint64_t wanted) {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return Error::fromErrno("getrlimit");
  const rlim_t target = std::min<rlim_t>(static_cast<rlim_t>(wanted), limit.rlim_max);
  if (limit.rlim_cur < target) {
    limit.rlim_cur = target;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) return Error::fromErrno("setrlimit");
  }
  return static_cast<std::uint64_t>(limit.rlim_cur);
}

}  // namespace krv::sys
