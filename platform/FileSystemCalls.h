#pragma once
// File-system calls beyond foundation/System.h: statx, the *at() family, extended attributes and
// the kernel's inode flags, each wrapped once (EINTR retried where a retry is correct, a failure is
// the POSIX error of its errno with the call's name) - and PathHandle, which pins one object.
//
// PathHandle holds an O_PATH descriptor of one object (never a device open: no driver code runs),
// with the status read through it. Every later operation on the handle reaches that same inode,
// even if the path it was opened by is renamed or replaced meanwhile; path-based calls that have
// no descriptor form go through "/proc/self/fd/N", which the kernel resolves to the object itself
// (a symbolic link included, it is not followed a second time). The handle therefore needs /proc
// mounted, as it always is for the daemon. A PathHandle is movable, not copyable; one owner, one
// thread at a time. The free functions are thread-safe as the calls are.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"

namespace krv {

// Whether an operation on a path acts on a final symbolic link itself or on what it points to.
enum class LinkHandling : std::uint8_t { NoFollow, Follow };

// EINVAL for a path with an embedded NUL character: the kernel would see a different, shorter path.
Status checkPath(const std::string& path);

// The kernel's limits for one extended attribute value and for a name list.
inline constexpr std::size_t kMaxAttributeValueSize = 65536;
inline constexpr std::size_t kMaxAttributeListSize = 65536;

namespace sys {

// What attributesOfItem and the handles ask statx for.
inline constexpr unsigned kStatusMask = STATX_BASIC_STATS | STATX_BTIME;

Result<struct statx> statxAt(int directoryFd, const char* path, int flags,
                             unsigned mask = kStatusMask);

// The destination of a symbolic link (at most PATH_MAX - 1 bytes, as the kernel stores them).
Result<std::string> readLinkAt(int directoryFd, const char* path);

Status unlinkAt(int directoryFd, const char* path, int flags);
Status mkdirAt(int directoryFd, const char* path, mode_t mode);
Status mknodAt(int directoryFd, const char* path, mode_t mode, dev_t device);
Status symlinkAt(const char* destination, int directoryFd, const char* path);
Status linkAt(int fromDirectoryFd, const char* from, int toDirectoryFd, const char* to, int flags);
// renameat2 with RENAME_NOREPLACE: an existing destination is EEXIST and is never replaced. Where
// the file system cannot do that atomically (EINVAL), an lstat check precedes a plain rename.
Status renameNoReplace(int fromDirectoryFd, const char* from, int toDirectoryFd, const char* to);
// renameat: replaces an existing destination atomically.
Status renameAt(int fromDirectoryFd, const char* from, int toDirectoryFd, const char* to);
Status fchownAt(int directoryFd, const char* path, uid_t owner, gid_t group, int flags);
Status chmodPath(const char* path, mode_t mode);
// fchmod: the mode of an open object, exactly (no umask applies).
Status chmodDescriptor(int fd, mode_t mode);
Status utimensAt(int directoryFd, const char* path, const struct timespec times[2], int flags);
// One copy_file_range between the descriptors' current offsets; returns the count (0 at the end).
Result<std::size_t> copyFileRange(int fromFd, int toFd, std::size_t length);

// Extended attributes by path. A missing attribute reads as nullopt (ENODATA), and so does a file
// system without attributes (EOPNOTSUPP). Values larger than maxSize are E2BIG.
Result<std::optional<Data>> getExtendedAttribute(const char* path, const char* name,
                                                 LinkHandling links,
                                                 std::size_t maxSize = kMaxAttributeValueSize);
Status setExtendedAttribute(const char* path, const char* name, std::span<const std::uint8_t> value,
                            LinkHandling links);
// Removing an attribute that is not there succeeds.
Status removeExtendedAttribute(const char* path, const char* name, LinkHandling links);
// The names of an object's attributes; a file system without attributes lists none.
Result<std::vector<std::string>> listExtendedAttributes(const char* path, LinkHandling links);

// Extended attributes of `path` relative to an open folder, as the *at() calls take it (AT_FDCWD
// and absolute paths work too), one call each: the kernel's getxattrat and listxattrat (Linux
// 6.13), or where it has none (or a sandbox refuses them) the path-based calls through the
// folder's /proc/self/fd path. The kernel's answer is passed on as it is: the length, ERANGE for a
// buffer that is too small, ENODATA for a missing attribute, EOPNOTSUPP where the file system keeps
// none. An empty buffer asks for the length. The kernel prepares room for the whole buffer, so
// callers start small and grow on ERANGE. An empty path means the object open at directoryFd (an
// ordinary descriptor, not O_PATH), whose attributes are read through it.
Result<std::size_t> listExtendedAttributesAt(int directoryFd, const char* path, LinkHandling links,
                                             std::span<char> buffer);
Result<std::size_t> getExtendedAttributeAt(int directoryFd, const char* path, const char* name,
                                           LinkHandling links, std::span<std::uint8_t> buffer);

// FS_IOC_GETFLAGS / FS_IOC_SETFLAGS on a descriptor opened for reading. The errno of the kernel
// is passed on unchanged (ENOTTY: the file system has no inode flags).
Result<int> getInodeFlags(int fd);
Status setInodeFlags(int fd, int flags);

}  // namespace sys

class PathHandle {
 public:
  // Opens `path` with O_PATH; with NoFollow a final symbolic link is the object held.
  static Result<PathHandle> open(const std::string& path, LinkHandling links);
  static Result<PathHandle> openAt(int directoryFd, const char* name, LinkHandling links);
  // Takes over an ordinary descriptor (from open/openat) and reads its status.
  static Result<PathHandle> adopt(UniqueFd fd);

  PathHandle(PathHandle&&) noexcept = default;
  PathHandle& operator=(PathHandle&&) noexcept = default;
  PathHandle(const PathHandle&) = delete;
  PathHandle& operator=(const PathHandle&) = delete;

  int fd() const { return m_fd.get(); }
  // The status as read when the handle was made or last refreshed.
  const struct statx& status() const { return m_status; }
  Status refresh();

  mode_t fileType() const { return m_status.stx_mode & S_IFMT; }
  bool isDirectory() const { return fileType() == S_IFDIR; }
  bool isRegularFile() const { return fileType() == S_IFREG; }
  bool isSymbolicLink() const { return fileType() == S_IFLNK; }

  // "/proc/self/fd/N": a path naming exactly this object (following it reaches the object itself).
  const char* procPath() const { return m_procPath; }

  // Opens the object itself with `flags` (O_CLOEXEC added). Only regular files and folders are
  // opened; anything else is EOPNOTSUPP, so no device or FIFO is ever opened by accident.
  Result<UniqueFd> reopen(int flags) const;

 private:
  explicit PathHandle(UniqueFd fd);

  UniqueFd m_fd;
  struct statx m_status {};
  char m_procPath[32] = {};
};

}  // namespace krv
