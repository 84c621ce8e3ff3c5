#include "filesystem/FileTrees.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstdio>
#include <span>
#include <vector>

#include "filesystem/DirectoryReader.h"
#include "filesystem/FileManager.h"
#include "filesystem/PathNames.h"
#include "filesystem/WalkGuard.h"
#include "foundation/System.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"

namespace krv {
namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOCTTY | O_NONBLOCK | O_NOFOLLOW;
constexpr int kMaximumPasses = 3;
constexpr std::size_t kCopyChunk = 1U << 30;
constexpr std::size_t kCopyBuffer = 64 * 1024;
// Far beyond any real depth; only a broken file system could make ".." go on for ever.
constexpr int kMaximumClimb = 1 << 20;

struct ProcPath {
  explicit ProcPath(int fd) { std::snprintf(text, sizeof text, "/proc/self/fd/%d", fd); }
  char text[32];
};

Status copyData(int from, int to) {
  // copy_file_range lets the file systems share or offload the work; where it cannot be used (or
  // claims an end at once, as pseudo-files do) plain reads and writes take over.
  bool rangeCopy = true;
  bool copiedAny = false;
  std::vector<std::uint8_t> buffer;
  for (;;) {
    if (rangeCopy) {
      Result<std::size_t> count = sys::copyFileRange(from, to, kCopyChunk);
      if (count && *count > 0) {
        copiedAny = true;
        continue;
      }
      if (count && copiedAny) return {};
      if (!count) {
        std::int64_t code = count.error().code();
        if (code != EXDEV && code != EINVAL && code != ENOSYS && code != EOPNOTSUPP &&
            code != EBADF) {
          return std::move(count).error();
        }
      }
      rangeCopy = false;
      buffer.resize(kCopyBuffer);
      continue;
    }
    KRV_TRY(std::size_t count, sys::read(from, buffer));
    if (count == 0) return {};
    KRV_TRY_VOID(sys::writeAll(to, std::span<const std::uint8_t>(buffer.data(), count)));
  }
}

void copyExtendedAttributes(const char* from, const char* to) {
  Result<std::vector<std::string>> names = sys::listExtendedAttributes(from, LinkHandling::Follow);
  if (!names) return;
  for (const std::string& name : *names) {
    // The flags record is written with the flags, which keep it consistent with the kernel's.
    if (name == kFlagsRecordAttribute) continue;
    Result<std::optional<Data>> value =
        sys::getExtendedAttribute(from, name.c_str(), LinkHandling::Follow);
    if (!value || !*value) continue;
    (void)sys::setExtendedAttribute(to, name.c_str(), **value, LinkHandling::Follow);
  }
}

// Owner, group, extended attributes, mode, times and flags, in an order that keeps each: chown
// clears set-id bits and capabilities (so attributes and mode follow it), and flags come last
// because an immutable object takes no further change. Each step is kept where the destination
// allows it; a file system that cannot hold one simply goes without.
void applyCopiedAttributes(const char* source, const struct statx& status, std::uint32_t flags,
                           const PathHandle& destination) {
  (void)sys::fchownAt(destination.fd(), "", status.stx_uid, status.stx_gid, AT_EMPTY_PATH);
  copyExtendedAttributes(source, destination.procPath());
  if (!destination.isSymbolicLink()) {
    (void)sys::chmodPath(destination.procPath(), status.stx_mode & 07777);
  }
  const struct timespec times[2] = {
      {static_cast<time_t>(status.stx_atime.tv_sec), static_cast<long>(status.stx_atime.tv_nsec)},
      {static_cast<time_t>(status.stx_mtime.tv_sec), static_cast<long>(status.stx_mtime.tv_nsec)}};
  (void)sys::utimensAt(AT_FDCWD, destination.procPath(), times, 0);
  flags &= ~kCompressedFlag;
  if (flags != 0) (void)writeFileFlags(destination, flags);
}

class TreeCopy {
 public:
  TreeCopy(TreeCopyMode mode, const std::string& fromPath, const std::string& toPath)
      : m_mode(mode), m_from(fromPath), m_to(toPath) {}

  Status run(int fromParentFd, const std::string& fromName, int toParentFd,
             const std::string& toName);

 private:
  // One per source folder open in m_sources, at the same level.
  struct Frame {
    struct statx status;
    UniqueFd destination;
    std::size_t fromLength;  // lengths of m_from and m_to for this folder
    std::size_t toLength;
  };

  Status copyTop(int fromParentFd, const std::string& fromName, int toParentFd,
                 const std::string& toName);
  Status enterFolder(int fromFd, const char* name, int toFd, const char* toName);
  Status finishFolder(Frame& frame, int sourceFd);
  Status copyLeaf(int fromFd, const char* name, int toFd, const char* toName);
  Error atSource(const Error& cause) const { return FileManager::error(cause, m_from); }
  Error atDestination(const Error& cause) const { return FileManager::error(cause, m_to); }

  TreeCopyMode m_mode;
  std::string m_from;  // path of the object at hand on either side, for errors
  std::string m_to;
  std::vector<Frame> m_frames;
  std::optional<DirectoryReader> m_sources;                 // the source folders of m_frames
  WalkGuard m_guard{FileManagerEnumerator::kMaximumDepth};  // their identities
  bool m_topMade = false;
  dev_t m_topDevice = 0;
  ino_t m_topInode = 0;
};

Status TreeCopy::run(int fromParentFd, const std::string& fromName, int toParentFd,
                     const std::string& toName) {
  std::string topPath = m_to;
  Status copied = copyTop(fromParentFd, fromName, toParentFd, toName);
  if (!copied && m_topMade) {
    m_frames.clear();
    m_sources.reset();
    (void)removeTree(toParentFd, toName, topPath);
  }
  return copied;
}

Status TreeCopy::copyTop(int fromParentFd, const std::string& fromName, int toParentFd,
                         const std::string& toName) {
  Result<struct stat> status = sys::statAt(fromParentFd, fromName.c_str(), AT_SYMLINK_NOFOLLOW);
  if (!status) return atSource(status.error());
  if (!S_ISDIR(status->st_mode)) {
    return copyLeaf(fromParentFd, fromName.c_str(), toParentFd, toName.c_str());
  }
  KRV_TRY_VOID(enterFolder(fromParentFd, fromName.c_str(), toParentFd, toName.c_str()));
  KRV_TRY(struct stat top, sys::fstat(m_frames.back().destination.get()));
  m_topDevice = top.st_dev;
  m_topInode = top.st_ino;

  while (!m_frames.empty()) {
    Frame& frame = m_frames.back();
    m_from.resize(frame.fromLength);
    m_to.resize(frame.toLength);
    std::optional<DirectoryReader::Entry> entry = m_sources->next();
    if (!entry) {
      if (std::optional<Error> failure = m_sources->readError()) return atSource(*failure);
      KRV_TRY_VOID(finishFolder(frame, m_sources->fd(m_frames.size() - 1)));
      m_frames.pop_back();
      m_sources->pop();
      continue;
    }
    std::string name(entry->name);
    appendPathComponent(m_from, name);
    appendPathComponent(m_to, name);
    int fromFd = m_sources->fd(m_frames.size() - 1);
    int toFd = frame.destination.get();
    Result<struct stat> entryStatus = sys::statAt(fromFd, name.c_str(), AT_SYMLINK_NOFOLLOW);
    if (!entryStatus) {
      if (entryStatus.error().code() == ENOENT) continue;  // gone meanwhile
      return atSource(entryStatus.error());
    }
    if (!S_ISDIR(entryStatus->st_mode)) {
      KRV_TRY_VOID(copyLeaf(fromFd, name.c_str(), toFd, name.c_str()));
      continue;
    }
    // The copy itself, met again where the destination lies inside the source: not copied.
    if (entryStatus->st_dev == m_topDevice && entryStatus->st_ino == m_topInode) continue;
    KRV_TRY_VOID(enterFolder(fromFd, name.c_str(), toFd, name.c_str()));
  }
  return {};
}

Status TreeCopy::enterFolder(int fromFd, const char* name, int toFd, const char* toName) {
  if (!m_sources) {
    Result<DirectoryReader> reader = DirectoryReader::create(FileManagerEnumerator::kMaximumDepth);
    if (!reader) return atSource(reader.error());
    m_sources.emplace(std::move(*reader));
  }
  // A folder already open further up (mounted into its own subtree) would be copied without end.
  Result<UniqueFd> source = m_guard.enter(m_frames.size(), fromFd, name, kFolderFlags);
  if (!source) return atSource(source.error());
  Result<struct statx> status = sys::statxAt(source->get(), "", AT_EMPTY_PATH);
  if (!status) return atSource(status.error());
  // Owner only until the folder is finished: nobody else gets in while it fills.
  Status made = sys::mkdirAt(toFd, toName, 0700);
  if (!made) return atDestination(made.error());
  if (m_frames.empty()) m_topMade = true;
  Result<UniqueFd> destination = sys::openAt(toFd, toName, kFolderFlags);
  if (!destination) return atDestination(destination.error());
  m_frames.push_back(Frame{*status, std::move(*destination), m_from.size(), m_to.size()});
  m_sources->push(std::move(*source));
  return {};
}

Status TreeCopy::finishFolder(Frame& frame, int sourceFd) {
  ProcPath source(sourceFd);
  Result<std::uint32_t> flags = readFileFlags(source.text, LinkHandling::Follow);
  if (!flags) return atSource(flags.error());
  Result<PathHandle> destination = PathHandle::adopt(std::move(frame.destination));
  if (!destination) return atDestination(destination.error());
  applyCopiedAttributes(source.text, frame.status, *flags, *destination);
  return {};
}

Status TreeCopy::copyLeaf(int fromFd, const char* name, int toFd, const char* toName) {
  if (m_mode == TreeCopyMode::HardLink) {
    Status linked = sys::linkAt(fromFd, name, toFd, toName, 0);
    if (!linked) return atDestination(linked.error());
    if (m_frames.empty()) m_topMade = true;
    return {};
  }

  Result<PathHandle> source = PathHandle::openAt(fromFd, name, LinkHandling::NoFollow);
  if (!source) return atSource(source.error());
  std::optional<PathHandle> destination;
  if (source->isRegularFile()) {
    Result<UniqueFd> reader = source->reopen(O_RDONLY | O_NOCTTY | O_NONBLOCK);
    if (!reader) return atSource(reader.error());
    // Readable by the owner only until the attributes are in place.
    Result<UniqueFd> writer =
        sys::openAt(toFd, toName, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0600);
    if (!writer) return atDestination(writer.error());
    if (m_frames.empty()) m_topMade = true;
    Status copied = copyData(reader->get(), writer->get());
    if (!copied) return atDestination(copied.error());
    Result<PathHandle> written = PathHandle::adopt(std::move(*writer));
    if (!written) return atDestination(written.error());
    destination.emplace(std::move(*written));
  } else {
    Status made;
    if (source->isSymbolicLink()) {
      Result<std::string> target = sys::readLinkAt(source->fd(), "");
      if (!target) return atSource(target.error());
      made = sys::symlinkAt(target->c_str(), toFd, toName);
    } else {
      // FIFOs, sockets and device nodes are made anew (a socket node is only a name).
      const struct statx& status = source->status();
      made = sys::mknodAt(toFd, toName, (status.stx_mode & S_IFMT) | 0600,
                          makedev(status.stx_rdev_major, status.stx_rdev_minor));
    }
    if (!made) return atDestination(made.error());
    if (m_frames.empty()) m_topMade = true;
    Result<PathHandle> node = PathHandle::openAt(toFd, toName, LinkHandling::NoFollow);
    if (!node) return atDestination(node.error());
    destination.emplace(std::move(*node));
  }
  Result<std::uint32_t> flags = readFileFlags(*source);
  if (!flags) return atSource(flags.error());
  applyCopiedAttributes(source->procPath(), source->status(), *flags, *destination);
  return {};
}

// One per folder open in the removal's reader, at the same level.
struct RemovalFrame {
  std::string name;
  std::size_t pathLength;
  int passes;
};

}  // namespace

Status removeTree(int parentFd, const std::string& name, const std::string& path) {
  Status removed = sys::unlinkAt(parentFd, name.c_str(), 0);
  if (removed) return {};
  if (removed.error().code() != EISDIR) return FileManager::error(removed.error(), path);

  WalkGuard guard(FileManagerEnumerator::kMaximumDepth);
  Result<UniqueFd> top = guard.enter(0, parentFd, name.c_str(), kFolderFlags);
  if (!top) return FileManager::error(top.error(), path);
  Result<DirectoryReader> reader = DirectoryReader::create(FileManagerEnumerator::kMaximumDepth);
  if (!reader) return FileManager::error(reader.error(), path);
  std::string current = path;
  std::vector<RemovalFrame> frames;
  frames.push_back(RemovalFrame{name, current.size(), 0});
  reader->push(std::move(*top));
  while (!frames.empty()) {
    RemovalFrame& frame = frames.back();
    current.resize(frame.pathLength);
    std::optional<DirectoryReader::Entry> entry = reader->next();
    if (!entry) {
      if (std::optional<Error> failure = reader->readError()) {
        return FileManager::error(*failure, current);
      }
      int parent = frames.size() > 1 ? reader->fd(frames.size() - 2) : parentFd;
      Status gone = sys::unlinkAt(parent, frame.name.c_str(), AT_REMOVEDIR);
      if (!gone) {
        // Entries added (or missed by the listing) while it was read: list it again.
        if (gone.error().code() == ENOTEMPTY && frame.passes < kMaximumPasses) {
          ++frame.passes;
          Status rewound = reader->rewind();
          if (!rewound) return FileManager::error(rewound.error(), current);
          continue;
        }
        return FileManager::error(gone.error(), current);
      }
      frames.pop_back();
      reader->pop();
      continue;
    }

    std::string entryName(entry->name);
    appendPathComponent(current, entryName);
    int folderFd = reader->fd(frames.size() - 1);
    if (entry->type != DT_DIR) {
      Status unlinked = sys::unlinkAt(folderFd, entryName.c_str(), 0);
      if (unlinked || unlinked.error().code() == ENOENT) continue;
      if (unlinked.error().code() != EISDIR) {
        return FileManager::error(unlinked.error(), current);
      }
    }
    // A folder already open further up (mounted into its own subtree) is not emptied through the
    // loop, and a tree deeper than any real one is not followed: the removal stops there, as at a
    // folder it cannot open.
    Result<UniqueFd> folder = guard.enter(frames.size(), folderFd, entryName.c_str(), kFolderFlags);
    if (!folder) {
      if (WalkGuard::isRefusal(folder.error())) {
        return FileManager::error(folder.error(), current);
      }
      std::int64_t code = folder.error().code();
      if (code == ENOENT) continue;
      // No longer a folder (or a link put in its place): removed as it is now.
      if (code == ENOTDIR || code == ELOOP) {
        Status unlinked = sys::unlinkAt(folderFd, entryName.c_str(), 0);
        if (unlinked || unlinked.error().code() == ENOENT) continue;
        return FileManager::error(unlinked.error(), current);
      }
      return FileManager::error(folder.error(), current);
    }
    frames.push_back(RemovalFrame{std::move(entryName), current.size(), 0});
    reader->push(std::move(*folder));
  }
  return {};
}

Status copyTree(int fromParentFd, const std::string& fromName, const std::string& fromPath,
                int toParentFd, const std::string& toName, const std::string& toPath,
                TreeCopyMode mode) {
  TreeCopy copy(mode, fromPath, toPath);
  return copy.run(fromParentFd, fromName, toParentFd, toName);
}

Result<bool> folderLiesWithin(int folderFd, dev_t device, ino_t inode) {
  Result<UniqueFd> current = sys::openAt(folderFd, ".", O_PATH | O_DIRECTORY);
  if (!current) return std::move(current).error();
  for (int climb = 0; climb < kMaximumClimb; ++climb) {
    KRV_TRY(struct stat status, sys::statAt(current->get(), "", AT_EMPTY_PATH));
    if (status.st_dev == device && status.st_ino == inode) return true;
    KRV_TRY(UniqueFd parent, sys::openAt(current->get(), "..", O_PATH | O_DIRECTORY));
    KRV_TRY(struct stat parentStatus, sys::statAt(parent.get(), "", AT_EMPTY_PATH));
    if (parentStatus.st_dev == status.st_dev && parentStatus.st_ino == status.st_ino) {
      return false;  // the root
    }
    *current = std::move(parent);
  }
  return Error::posix(ELOOP, "openat ..");
}

}  // namespace krv
