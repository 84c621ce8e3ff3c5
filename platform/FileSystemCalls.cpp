#include "platform/FileSystemCalls.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>

#include "foundation/System.h"

namespace krv::sys {

namespace {

// The numbers of getxattrat and listxattrat, the same on every architecture of the shared table.
constexpr long kGetXattrAtCall = 464;
constexpr long kListXattrAtCall = 465;

// The argument block of getxattrat.
struct XattrArguments {
  std::uint64_t value;
  std::uint32_t size;
  std::uint32_t flags;
};

// Cleared once the kernel (or a sandbox) turns out to refuse the *xattrat calls.
std::atomic<bool> g_hasXattrAtCalls{true};

// The path a path-based call takes for `path` relative to directoryFd.
std::string pathFromFolder(int directoryFd, const char* path) {
  if (directoryFd == AT_FDCWD || path[0] == '/') return path;
  std::string result = "/proc/self/fd/" + std::to_string(directoryFd);
  if (path[0] != '\0') {
    result += '/';
    result += path;
  }
  return result;
}

// Runs the *xattrat form while the kernel has it, else (or when it turns out to be missing or
// refused by a sandbox) the path-based form.
template <class AtCall, class PathCall>
Result<std::size_t> xattrCall(const char* name, AtCall atCall, PathCall pathCall) {
  if (g_hasXattrAtCalls.load(std::memory_order_relaxed)) {
    long result = atCall();
    if (result >= 0) return static_cast<std::size_t>(result);
    if (errno != ENOSYS && errno != EPERM) return Error::fromErrno(name);
    const bool missing = errno == ENOSYS;
    ssize_t fallback = pathCall();
    // A sandbox answers EPERM for calls it does not know; the call itself never does.
    if (missing || fallback >= 0) g_hasXattrAtCalls.store(false, std::memory_order_relaxed);
    if (fallback >= 0) return static_cast<std::size_t>(fallback);
    return Error::fromErrno(name);
  }
  ssize_t result = pathCall();
  if (result >= 0) return static_cast<std::size_t>(result);
  return Error::fromErrno(name);
}

}  // namespace

Result<struct statx> statxAt(int directoryFd, const char* path, int flags, unsigned mask) {
  struct statx status {};
  if (::statx(directoryFd, path, flags, mask, &status) != 0) return Error::fromErrno("statx");
  return status;
}

Result<std::string> readLinkAt(int directoryFd, const char* path) {
  char buffer[PATH_MAX];
  ssize_t length = ::readlinkat(directoryFd, path, buffer, sizeof buffer);
  if (length < 0) return Error::fromErrno("readlinkat");
  // The kernel never stores a destination of PATH_MAX bytes or more; a full buffer means the
  // answer was cut short.
  if (static_cast<std::size_t>(length) >= sizeof buffer) {
    return Error::posix(ENAMETOOLONG, "readlinkat");
  }
  return std::string(buffer, static_cast<std::size_t>(length));
}

Status unlinkAt(int directoryFd, const char* path, int flags) {
  if (::unlinkat(directoryFd, path, flags) != 0) return Error::fromErrno("unlinkat");
  return {};
}

Status mkdirAt(int directoryFd, const char* path, mode_t mode) {
  if (::mkdirat(directoryFd, path, mode) != 0) return Error::fromErrno("mkdirat");
  return {};
}

Status mknodAt(int directoryFd, const char* path, mode_t mode, dev_t device) {
  if (::mknodat(directoryFd, path, mode, device) != 0) return Error::fromErrno("mknodat");
  return {};
}

Status symlinkAt(const char* destination, int directoryFd, const char* path) {
  if (::symlinkat(destination, directoryFd, path) != 0) return Error::fromErrno("symlinkat");
  return {};
}

Status linkAt(int fromDirectoryFd, const char* from, int toDirectoryFd, const char* to, int flags) {
  if (::linkat(fromDirectoryFd, from, toDirectoryFd, to, flags) != 0) {
    return Error::fromErrno("linkat");
  }
  return {};
}

Status renameNoReplace(int fromDirectoryFd, const char* from, int toDirectoryFd, const char* to) {
  if (::renameat2(fromDirectoryFd, from, toDirectoryFd, to, RENAME_NOREPLACE) == 0) return {};
  if (errno != EINVAL) return Error::fromErrno("renameat2");
  // EINVAL is also what renaming a folder into itself gives; the fallback lets renameat report
  // that case again. Otherwise the file system has no RENAME_NOREPLACE: check, then rename.
  struct stat status {};
  if (::fstatat(toDirectoryFd, to, &status, AT_SYMLINK_NOFOLLOW) == 0) {
    return Error::posix(EEXIST, "renameat");
  }
  return renameAt(fromDirectoryFd, from, toDirectoryFd, to);
}

Status renameAt(int fromDirectoryFd, const char* from, int toDirectoryFd, const char* to) {
  if (::renameat(fromDirectoryFd, from, toDirectoryFd, to) != 0) {
    return Error::fromErrno("renameat");
  }
  return {};
}

Status fchownAt(int directoryFd, const char* path, uid_t owner, gid_t group, int flags) {
  if (::fchownat(directoryFd, path, owner, group, flags) != 0) return Error::fromErrno("fchownat");
  return {};
}

Status chmodPath(const char* path, mode_t mode) {
  if (::chmod(path, mode) != 0) return Error::fromErrno("chmod");
  return {};
}

Status chmodDescriptor(int fd, mode_t mode) {
  if (::fchmod(fd, mode) != 0) return Error::fromErrno("fchmod");
  return {};
}

Status utimensAt(int directoryFd, const char* path, const struct timespec times[2], int flags) {
  if (::utimensat(directoryFd, path, times, flags) != 0) return Error::fromErrno("utimensat");
  return {};
}

Result<std::size_t> copyFileRange(int fromFd, int toFd, std::size_t length) {
  for (;;) {
    ssize_t count = ::copy_file_range(fromFd, nullptr, toFd, nullptr, length, 0);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) return Error::fromErrno("copy_file_range");
  }
}

Result<std::optional<Data>> getExtendedAttribute(const char* path, const char* name,
                                                 LinkHandling links, std::size_t maxSize) {
  auto get = [&](void* buffer, std::size_t size) {
    return links == LinkHandling::Follow ? ::getxattr(path, name, buffer, size)
                                         : ::lgetxattr(path, name, buffer, size);
  };
  // The value may change between asking its size and reading it; a few rounds settle that.
  for (int attempt = 0; attempt < 4; ++attempt) {
    ssize_t size = get(nullptr, 0);
    if (size < 0) {
      if (errno == ENODATA || errno == EOPNOTSUPP) return std::optional<Data>();
      return Error::fromErrno("getxattr");
    }
    if (static_cast<std::size_t>(size) > maxSize) return Error::posix(E2BIG, "getxattr");
    Data value(static_cast<std::size_t>(size));
    ssize_t length = get(value.data(), value.size());
    if (length >= 0) {
      value.resize(static_cast<std::size_t>(length));
      return std::optional<Data>(std::move(value));
    }
    if (errno == ENODATA || errno == EOPNOTSUPP) return std::optional<Data>();
    if (errno != ERANGE) return Error::fromErrno("getxattr");
  }
  return Error::posix(ERANGE, "getxattr");
}

Status setExtendedAttribute(const char* path, const char* name, std::span<const std::uint8_t> value,
                            LinkHandling links) {
  int result = links == LinkHandling::Follow
                   ? ::setxattr(path, name, value.data(), value.size(), 0)
                   : ::lsetxattr(path, name, value.data(), value.size(), 0);
  if (result != 0) return Error::fromErrno("setxattr");
  return {};
}

Status removeExtendedAttribute(const char* path, const char* name, LinkHandling links) {
  int result =
      links == LinkHandling::Follow ? ::removexattr(path, name) : ::lremovexattr(path, name);
  if (result != 0 && errno != ENODATA) return Error::fromErrno("removexattr");
  return {};
}

Result<std::vector<std::string>> listExtendedAttributes(const char* path, LinkHandling links) {
  auto list = [&](char* buffer, std::size_t size) {
    return links == LinkHandling::Follow ? ::listxattr(path, buffer, size)
                                         : ::llistxattr(path, buffer, size);
  };
  for (int attempt = 0; attempt < 4; ++attempt) {
    ssize_t size = list(nullptr, 0);
    if (size < 0) {
      if (errno == EOPNOTSUPP) return std::vector<std::string>();
      return Error::fromErrno("listxattr");
    }
    if (static_cast<std::size_t>(size) > kMaxAttributeListSize) {
      return Error::posix(E2BIG, "listxattr");
    }
    std::string buffer(static_cast<std::size_t>(size), '\0');
    ssize_t length = list(buffer.data(), buffer.size());
    if (length < 0) {
      if (errno == ERANGE) continue;
      return Error::fromErrno("listxattr");
    }
    std::vector<std::string> names;
    std::size_t start = 0;
    auto end = static_cast<std::size_t>(length);
    while (start < end) {
      std::size_t stop = buffer.find('\0', start);
      if (stop == std::string::npos || stop > end) stop = end;
      if (stop > start) names.emplace_back(buffer, start, stop - start);
      start = stop + 1;
    }
    return names;
  }
  return Error::posix(ERANGE, "listxattr");
}

Result<std::size_t> listExtendedAttributesAt(int directoryFd, const char* path, LinkHandling links,
                                             std::span<char> buffer) {
  if (path[0] == '\0') {
    const ssize_t length = ::flistxattr(directoryFd, buffer.data(), buffer.size());
    if (length < 0) return Error::fromErrno("flistxattr");
    return static_cast<std::size_t>(length);
  }
  const bool follow = links == LinkHandling::Follow;
  return xattrCall(
      "listxattrat",
      [&] {
        return ::syscall(kListXattrAtCall, directoryFd, path, follow ? 0 : AT_SYMLINK_NOFOLLOW,
                         buffer.data(), buffer.size());
      },
      [&] {
        const std::string target = pathFromFolder(directoryFd, path);
        return follow ? ::listxattr(target.c_str(), buffer.data(), buffer.size())
                      : ::llistxattr(target.c_str(), buffer.data(), buffer.size());
      });
}

Result<std::size_t> getExtendedAttributeAt(int directoryFd, const char* path, const char* name,
                                           LinkHandling links, std::span<std::uint8_t> buffer) {
  if (path[0] == '\0') {
    const ssize_t length = ::fgetxattr(directoryFd, name, buffer.data(), buffer.size());
    if (length < 0) return Error::fromErrno("fgetxattr");
    return static_cast<std::size_t>(length);
  }
  const bool follow = links == LinkHandling::Follow;
  return xattrCall(
      "getxattrat",
      [&] {
        XattrArguments arguments{reinterpret_cast<std::uintptr_t>(buffer.data()),
                                 static_cast<std::uint32_t>(buffer.size()), 0};
        return ::syscall(kGetXattrAtCall, directoryFd, path, follow ? 0 : AT_SYMLINK_NOFOLLOW, name,
                         &arguments, sizeof arguments);
      },
      [&] {
        const std::string target = pathFromFolder(directoryFd, path);
        return follow ? ::getxattr(target.c_str(), name, buffer.data(), buffer.size())
                      : ::lgetxattr(target.c_str(), name, buffer.data(), buffer.size());
      });
}

Result<int> getInodeFlags(int fd) {
  // The kernel reads and writes an int, whatever the ioctl number says.
  int flags = 0;
  if (::ioctl(fd, FS_IOC_GETFLAGS, &flags) != 0) return Error::fromErrno("ioctl FS_IOC_GETFLAGS");
  return flags;
}

Status setInodeFlags(int fd, int flags) {
  if (::ioctl(fd, FS_IOC_SETFLAGS, &flags) != 0) return Error::fromErrno("ioctl FS_IOC_SETFLAGS");
  return {};
}

}  // namespace krv::sys

namespace krv {

Status checkPath(const std::string& path) {
  if (path.find('\0') != std::string::npos) return Error::posix(EINVAL, "path");
  return {};
}

PathHandle::PathHandle(UniqueFd fd) : m_fd(std::move(fd)) {
  std::snprintf(m_procPath, sizeof m_procPath, "/proc/self/fd/%d", m_fd.get());
}

Result<PathHandle> PathHandle::open(const std::string& path, LinkHandling links) {
  KRV_TRY_VOID(checkPath(path));
  return openAt(AT_FDCWD, path.c_str(), links);
}

Result<PathHandle> PathHandle::openAt(int directoryFd, const char* name, LinkHandling links) {
  int flags = O_PATH | (links == LinkHandling::NoFollow ? O_NOFOLLOW : 0);
  KRV_TRY(UniqueFd fd, sys::openAt(directoryFd, name, flags));
  return adopt(std::move(fd));
}

Result<PathHandle> PathHandle::adopt(UniqueFd fd) {
  PathHandle handle(std::move(fd));
  KRV_TRY_VOID(handle.refresh());
  return handle;
}

Status PathHandle::refresh() {
  KRV_TRY(m_status, sys::statxAt(m_fd.get(), "", AT_EMPTY_PATH));
  return {};
}

Result<UniqueFd> PathHandle::reopen(int flags) const {
  if (!isRegularFile() && !isDirectory()) return Error::posix(EOPNOTSUPP, "open");
  return sys::open(m_procPath, flags);
}

}  // namespace krv
