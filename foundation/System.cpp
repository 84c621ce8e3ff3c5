#include "foundation/System.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/random.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

Result<UniqueFd> duplicate(int fd) {
  int copy = ::fcntl(fd, F_DUPFD_CLOEXEC, 0);
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
