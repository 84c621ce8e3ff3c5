#pragma once
// Thin wrappers of the system calls the project uses, each written once: EINTR is retried where a
// retry is correct, every descriptor is opened close-on-exec, and a failure becomes the POSIX
// error of its errno with the call's name (Error::operation()). Product code makes no system call
// but through these (and platform/FileSystemCalls.h). Thread-safe as the calls are.
//
// The calls that wait for a while (poll, epollWait, accept, openInterruptibly) return EINTR rather
// than retry it: a signal is how their callers are woken, and a retry would start a timeout anew.

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/types.h>
#include <time.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"

struct termios;  // <termios.h>, left to the callers: its many macros would reach every file

namespace krv::sys {

Result<UniqueFd> open(const std::string& path, int flags, mode_t mode = 0);
Result<UniqueFd> openAt(int directoryFd, const char* path, int flags, mode_t mode = 0);
// openat2 with RESOLVE_NO_XDEV: as openAt without creation, but EXDEV when the path would cross a
// mount point (bind mounts included); ENOSYS where the kernel (or a sandbox) has no openat2.
Result<UniqueFd> openAtWithinMount(int directoryFd, const char* path, int flags);
// One open, EINTR included: for opening a FIFO, which waits for its other end until a signal ends
// the wait.
Result<UniqueFd> openInterruptibly(const std::string& path, int flags);

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
// A second descriptor for the same open file (F_DUPFD_CLOEXEC), numbered `lowest` or above.
Result<UniqueFd> duplicate(int fd, int lowest = 0);
// fstatat: status of `path` relative to an open folder; flags as for fstatat (AT_SYMLINK_NOFOLLOW).
Result<struct stat> statAt(int directoryFd, const char* path, int flags);
// One getdents64 batch of raw directory records into `buffer`, retried on EINTR; returns the
// number of bytes filled, 0 at the end of the folder.
Result<std::size_t> readDirectoryEntries(int directoryFd, std::span<char> buffer);
// lseek: moves the file position; returns the new offset.
Result<off_t> seek(int fd, off_t offset, int whence);
// A private anonymous mapping of `size` bytes for reading and writing, without a reservation of
// swap (MAP_NORESERVE): only the pages touched take memory. unmapMemory gives it back.
Result<char*> mapPrivateMemory(std::size_t size);
void unmapMemory(char* address, std::size_t size);

Status unlink(const std::string& path);
Status rmdir(const std::string& path);
Status rename(const std::string& from, const std::string& to);
Status mkdir(const std::string& path, mode_t mode);
Status mkfifo(const std::string& path, mode_t mode);
Status lchown(const std::string& path, uid_t owner, gid_t group);
Status chmod(const std::string& path, mode_t mode);
Status fsync(int fd);
// ftruncate, retried on EINTR.
Status truncate(int fd, off_t length);
// Takes an open file description lock (F_OFD_SETLKW) on the whole file, waiting while another
// description holds it (EINTR retried); exclusive or shared. It ends when every descriptor of this
// open file description is closed.
enum class LockKind : std::uint8_t { Shared, Exclusive };
Status lockWaiting(int fd, LockKind kind);

// Both ends of a pipe, close-on-exec.
struct PipeEnds {
  UniqueFd readEnd;
  UniqueFd writeEnd;
};
Result<PipeEnds> pipe(int extraFlags = 0);

// Sets or clears O_NONBLOCK; touches the flags only when they differ.
Status setNonBlocking(int fd, bool nonBlocking);
Status setCloseOnExec(int fd);

// ---- Sockets ----
// socket(2), close-on-exec.
Result<UniqueFd> socket(int domain, int type, int protocol = 0);
// A new socket of `type` connected to the Unix socket at `path`. EINVAL for an empty path or one
// that does not fit a socket address.
Result<UniqueFd> connectLocalSocket(std::string_view path, int type);
// accept4 of one pending connection, close-on-exec.
Result<UniqueFd> accept(int listeningFd);
// One send or recv of at most `buffer.size()` bytes (flags as for the calls), retried on EINTR.
Result<std::size_t> send(int fd, std::span<const std::uint8_t> buffer, int flags);
Result<std::size_t> receive(int fd, std::span<std::uint8_t> buffer, int flags);
// getsockopt of an int-valued option.
Result<int> socketOption(int fd, int level, int name);
// The credentials of a connected Unix socket's peer (SO_PEERCRED), and a process descriptor of
// the peer (SO_PEERPIDFD; ENOPROTOOPT on kernels without it).
Result<ucred> peerCredentials(int fd);
Result<UniqueFd> peerProcess(int fd);

// ---- Waiting ----
// The number of entries with events; 0 at the timeout (milliseconds, -1 waits without one).
Result<std::size_t> poll(std::span<pollfd> entries, int timeoutMilliseconds);
Result<UniqueFd> epollCreate();
Status epollAdd(int queue, int fd, std::uint32_t events);
// The number of events filled in; 0 at the timeout.
Result<std::size_t> epollWait(int queue, std::span<epoll_event> events, int timeoutMilliseconds);
Result<UniqueFd> eventFd(int flags);

// ---- Processes and signals ----
// umask: sets the file creation mask and returns the previous one (it cannot fail).
mode_t setFileCreationMask(mode_t mask);
// alarm: SIGALRM to the process after `seconds` (0 cancels); replaces an earlier alarm.
void setAlarm(unsigned seconds);
// Installs a handler (or SIG_IGN, SIG_DFL) with an empty mask and without SA_RESTART, so that a
// blocked call returns EINTR when the signal arrives; returns the action it replaced, which
// restoreSignalAction() puts back.
Result<struct sigaction> setSignalHandler(int signal, void (*handler)(int));
Status restoreSignalAction(int signal, const struct sigaction& previous);
Status kill(pid_t pid, int signal);
// waitpid without options, retried on EINTR: the wait status of an ended child.
Result<int> waitForProcess(pid_t pid);
// One byte written from inside a signal handler (to wake a waiting poll): async-signal-safe,
// leaves errno as it was, ignores every failure.
void writeFromSignalHandler(int fd, std::uint8_t byte) noexcept;

// Starts a detached thread running body(argument) on a stack of `stackSize` bytes. On success the
// thread owns `argument`; on failure the caller still does (the thread never ran).
Status startDetachedThread(void* (*body)(void*), void* argument, std::size_t stackSize);

// A timer that sends `signal` to the calling thread after `delay`, then every `interval` (none
// when zero), until it is destroyed. A timer the kernel refuses is never armed (armed() false).
class ThreadSignalTimer {
 public:
  ThreadSignalTimer(int signal, std::chrono::seconds delay, std::chrono::seconds interval);
  ~ThreadSignalTimer();
  ThreadSignalTimer(const ThreadSignalTimer&) = delete;
  ThreadSignalTimer& operator=(const ThreadSignalTimer&) = delete;
  bool armed() const { return m_armed; }

 private:
  timer_t m_timer{};
  bool m_armed = false;
};

// ---- Terminals ----
bool isTerminal(int fd);
Result<termios> terminalAttributes(int fd);
// tcsetattr with TCSAFLUSH, retried on EINTR.
Status setTerminalAttributes(int fd, const termios& attributes);

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
// Sends a signal to the process a pidfd refers to; ESRCH once that process has exited, even when
// its process id has been given to another process since.
Status pidfdSendSignal(int pidfd, int signal);

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
