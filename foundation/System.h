#pragma once
// Thin wrappers of the system calls the project uses, each written once: EINTR is retried where a
// retry is correct, every descriptor is opened close-on-exec, and a failure becomes the POSIX
// error of its errno with the call's name (Error::operation()). Thread-safe as the calls are.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

namespace krv::sys {

Result<UniqueFd> open(const std::string& path, int flags, mode_t mode = 0);
Result<UniqueFd> openAt(int directoryFd, const char* path, int flags, mode_t mode = 0);
// openat2 with RESOLVE_NO_XDEV: as openAt without creation, but EXDEV when the path would cross a
// mount point (bind mounts included); ENOSYS where the kernel (or a sandbox) has no openat2.
Result<UniqueFd> openAtWithinMount(int directoryFd, const char* path, int flags);

// One read or write of at most `buffer.size()` bytes, retried on EINTR; returns the count.
Result<std::size_t> read(int fd, std::span<std::uint8_t> buffer);
Result<std::size_t> write(int fd, std::span<const std::uint8_t> buffer);
// pread: one read at `offset` without moving the file position, retried on EINTR.
Result<std::size_t> readAt(int fd, std::span<std::uint8_t> buffer, off_t offset);
// pwrite: one write at `offset` without moving the file position, retried on EINTR.
Result<std::size_t> writeAt(int fd, std::span<const std::uint8_t> buffer, off_t offset);
// Writes the whole buffer; a write of 0 bytes is EPIPE.
Status writeAll(int fd, std::span<const std::uint8_t> buffer);
// Reads a whole (small) file; refuses files larger than maxSize with EFBIG.
Result<std::string> readFile(const std::string& path, std::size_t maxSize);

// lstat-like (no follow) and stat-like (follow) status of a path.
Result<struct stat> lstat(const std::string& path);
Result<struct stat> stat(const std::string& path);
Result<struct stat> fstat(int fd);
// fstatvfs: the size and free space of the file system holding an open file, retried on EINTR.
Result<struct statvfs> fileSystemStatus(int fd);
// A second descriptor for the same open file (F_DUPFD_CLOEXEC).
Result<UniqueFd> duplicate(int fd);
// fstatat: status of `path` relative to an open folder; flags as for fstatat (AT_SYMLINK_NOFOLLOW).
Result<struct stat> statAt(int directoryFd, const char* path, int flags);
// One getdents64 batch of raw directory records into `buffer`, retried on EINTR; returns the
// number of bytes filled, 0 at the end of the folder.
Result<std::size_t> readDirectoryEntries(int directoryFd, std::span<char> buffer);

Status unlink(const std::string& path);
Status rmdir(const std::string& path);
Status rename(const std::string& from, const std::string& to);
Status mkdir(const std::string& path, mode_t mode);
Status mkfifo(const std::string& path, mode_t mode);
Status lchown(const std::string& path, uid_t owner, gid_t group);
Status chmod(const std::string& path, mode_t mode);
Status fsync(int fd);

// Both ends of a pipe, close-on-exec.
struct PipeEnds {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};
Result<PipeEnds> pipe(int extraFlags = 0);

// Sets or clears O_NONBLOCK; touches the flags only when they differ.
Status setNonBlocking(int fd, bool nonBlocking);
Status setCloseOnExec(int fd);

// RAII holder of a DIR stream.
class DirectoryStream {
 public:
  DirectoryStream() = default;
  explicit DirectoryStream(DIR* stream) : m_stream(stream) {}
  ~DirectoryStream();
  DirectoryStream(DirectoryStream&& other) noexcept;
  DirectoryStream& operator=(DirectoryStream&& other) noexcept;
  DirectoryStream(const DirectoryStream&) = delete;
  DirectoryStream& operator=(const DirectoryStream&) = delete;

  DIR* get() const { return m_stream; }
  explicit operator bool() const { return m_stream != nullptr; }

 private:
  DIR* m_stream = nullptr;
};
Result<DirectoryStream> openDirectory(const std::string& path);

// Fills the whole buffer from the kernel's random source (getrandom, blocking until the pool is
// initialised; short reads and EINTR are retried).
Status getRandom(std::span<std::uint8_t> buffer);
// A process descriptor for pid (pidfd_open), close-on-exec; readable once the process has exited.
Result<UniqueFd> pidfdOpen(pid_t pid);

// The text of an errno value (strerror_r, thread-safe).
std::string errorText(int errnoValue);

// True for the errors that say the system is short of something for now (descriptors, memory,
// buffers, space) or could not do the input or output, as opposed to an answer about the object
// itself: EMFILE, ENFILE, ENOMEM, ENOBUFS, EAGAIN, EINTR, EIO, ENOSPC, EDQUOT.
bool isResourceExhaustion(int errnoValue);

// Raises the soft limit of open descriptors to `wanted`, or to the hard limit when that is lower;
// never lowers it. Returns the soft limit in effect afterwards.
Result<std::uint64_t> raiseDescriptorLimit(std::uint64_t wanted);

}  // namespace krv::sys
