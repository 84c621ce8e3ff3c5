#include "platform/SafePathResolver.h"

#include <fcntl.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Format.h"
#include "foundation/PathComponents.h"
#include "foundation/System.h"

namespace krv {
namespace {

// The operation of a refusal's error; nothing else uses it.
constexpr std::string_view kRefusedOperation = "follow symbolic link";
// Paths in a log line are cut to this many bytes: a client chooses their length.
constexpr std::size_t kLoggedPathBytes = 1024;

// A path for a log line, quoted: bytes that could end or forge a line, "%" and anything outside
// printable ASCII are written as \xNN. File names are bytes, not text. (The log never expands
// what is inserted into a line; "%" stays escaped so that the lines read as they always did.)
std::string quotedForLog(std::string_view path) {
  std::string text = "\"";
  const std::size_t shown = path.size() < kLoggedPathBytes ? path.size() : kLoggedPathBytes;
  for (std::size_t i = 0; i < shown; ++i) {
    const auto byte = static_cast<unsigned char>(path[i]);
    if (byte < 0x20 || byte >= 0x7F || byte == '"' || byte == '\\' || byte == '%') {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
      text += escaped;
    } else {
      text += static_cast<char>(byte);
    }
  }
  text += shown < path.size() ? "\"..." : "\"";
  return text;
}

// One item waiting to be resolved: a name, or the end of a user's link's destination, where the
// object reached must have the link's owner.
struct Step {
  enum class Kind : std::uint8_t { Name, LinkEnd };
  Kind kind;
  std::string text;  // the name, or the link's own resolved path (for the log)
  uid_t owner = 0;   // LinkEnd: the link's owner
};

// One resolution: the object reached so far, its path, and what is still to be resolved.
class Resolution {
 public:
  Resolution(SystemLog* log, const std::string& clientPath) : m_log(log), m_client(clientPath) {}

  // From "/" or the working folder, with every component of `path` to be resolved.
  Status start(const std::string& path);
  // From the folder of an entry, with its name to be resolved.
  Status startAt(const PinnedEntry& entry);

  Result<PathHandle> toObject(LinkHandling finalLink);
  Result<PinnedEntry> toEntry(LinkHandling finalLink);

 private:
  Status restartAtRoot();
  void pushFront(std::string_view destination);
  // Opens `name` in the current folder; a link is followed when `followingLinks`, else it becomes
  // the current object.
  Status enter(const std::string& name, bool followingLinks);
  Status followLink(const PathHandle& link, const std::string& name);
  Status checkLinkEnd(const Step& end, const PathHandle* reached, const std::string& reachedPath);
  Status checkLinkEndsAfterLastName(const PinnedEntry& entry);
  std::string pathOf(std::string_view name) const;
  void appendToPath(std::string_view name);
  void removeLastFromPath();

  SystemLog* m_log;
  const std::string& m_client;
  std::optional<PathHandle> m_current;
  std::string m_path;  // the resolved path of m_current ("" for the working folder)
  std::deque<Step> m_pending;
  std::size_t m_pendingNames = 0;
  bool m_folderNamed = false;  // the client's path ends in "/"
  int m_linksFollowed = 0;
};

Status Resolution::start(const std::string& path) {
  if (path.find('\0') != std::string::npos) return Error::posix(EINVAL, "path");
  if (path.empty()) return Error::posix(ENOENT, "path");
  if (path.size() >= PATH_MAX) return Error::posix(ENAMETOOLONG, "path");
  if (path.front() == '/') {
    KRV_TRY_VOID(restartAtRoot());
  } else {
    KRV_TRY(PathHandle folder, PathHandle::openAt(AT_FDCWD, ".", LinkHandling::NoFollow));
    m_current.emplace(std::move(folder));
    m_path.clear();
  }
  pushFront(path);
  m_folderNamed = path.back() == '/' && m_pendingNames > 0;
  return {};
}

Status Resolution::startAt(const PinnedEntry& entry) {
  KRV_TRY(UniqueFd folder, sys::duplicate(entry.folder.fd()));
  KRV_TRY(PathHandle handle, PathHandle::adopt(std::move(folder)));
  m_current.emplace(std::move(handle));
  // The entry's path less its name: where its name is resolved.
  const std::size_t slash = entry.path.rfind('/');
  if (slash == std::string::npos) {
    m_path.clear();
  } else {
    m_path = entry.path.substr(0, slash == 0 ? 1 : slash);
  }
  m_pending.push_back(Step{Step::Kind::Name, entry.name});
  m_pendingNames = 1;
  return {};
}

Status Resolution::restartAtRoot() {
  KRV_TRY(PathHandle root, PathHandle::openAt(AT_FDCWD, "/", LinkHandling::NoFollow));
  m_current.emplace(std::move(root));
  // (Assigned as one character: g++ 12 at -O2 mistakes the copy of a literal here for an overlap.)
  m_path.assign(1, '/');
  return {};
}

void Resolution::pushFront(std::string_view destination) {
  std::vector<Step> names;
  bool endsInDot = false;
  forEachPathComponent(destination, [&](std::string_view component) {
    endsInDot = component == ".";
    if (!endsInDot) names.push_back(Step{Step::Kind::Name, std::string(component)});
  });
  // "." changes nothing, except as the last component, where it names the folder itself as an
  // entry: "a/." is not "a" for a rename or a removal.
  if (endsInDot) names.push_back(Step{Step::Kind::Name, "."});
  m_pendingNames += names.size();
  m_pending.insert(m_pending.begin(), std::make_move_iterator(names.begin()),
                   std::make_move_iterator(names.end()));
}

std::string Resolution::pathOf(std::string_view name) const {
  if (m_path.empty()) return std::string(name);
  std::string path = m_path;
  if (path != "/") path += '/';
  path += name;
  return path;
}

void Resolution::appendToPath(std::string_view name) { m_path = pathOf(name); }

void Resolution::removeLastFromPath() {
  if (m_path == "/") return;
  const std::size_t slash = m_path.rfind('/');
  const std::string_view last = slash == std::string::npos
                                    ? std::string_view(m_path)
                                    : std::string_view(m_path).substr(slash + 1);
  // Above the working folder a relative path can only say so.
  if (m_path.empty() || last == "..") {
    appendToPath("..");
  } else if (slash == std::string::npos) {
    m_path.clear();
  } else {
    m_path.resize(slash == 0 ? 1 : slash);
  }
}

Status Resolution::enter(const std::string& name, bool followingLinks) {
  if (name == ".") return {};
  if (name == "..") {
    KRV_TRY(PathHandle parent, PathHandle::openAt(m_current->fd(), "..", LinkHandling::NoFollow));
    m_current.emplace(std::move(parent));
    removeLastFromPath();
    return {};
  }
  KRV_TRY(PathHandle next,
          PathHandle::openAt(m_current->fd(), name.c_str(), LinkHandling::NoFollow));
  if (next.isSymbolicLink() && followingLinks) return followLink(next, name);
  m_current.emplace(std::move(next));
  appendToPath(name);
  return {};
}

Status Resolution::followLink(const PathHandle& link, const std::string& name) {
  if (++m_linksFollowed > SafePathResolver::kMaximumLinks) {
    return Error::posix(ELOOP, "follow symbolic link");
  }
  KRV_TRY(std::string destination, sys::readLinkAt(link.fd(), ""));
  if (destination.empty()) return Error::posix(ENOENT, "readlinkat");
  const uid_t owner = link.status().stx_uid;
  if (owner != 0) m_pending.push_front(Step{Step::Kind::LinkEnd, pathOf(name), owner});
  pushFront(destination);
  // A relative destination goes on from the link's folder, which is still the current one.
  if (destination.front() == '/') KRV_TRY_VOID(restartAtRoot());
  return {};
}

Status Resolution::checkLinkEnd(const Step& end, const PathHandle* reached,
                                const std::string& reachedPath) {
  // A user's link that leads nowhere is not followed: nothing is there.
  if (reached == nullptr) return Error::posix(ENOENT, "follow symbolic link");
  const uid_t reachedOwner = reached->status().stx_uid;
  if (reachedOwner == end.owner) return {};
  if (m_log != nullptr) {
    m_log->log(
        SystemLog::Level::Notice,
        format("Refused to follow the symbolic link %s of user %u to %s of user %u (path %s)",
               quotedForLog(end.text).c_str(), static_cast<unsigned>(end.owner),
               quotedForLog(reachedPath).c_str(), static_cast<unsigned>(reachedOwner),
               quotedForLog(m_client).c_str()));
  }
  return Error::posix(EACCES, kRefusedOperation);
}

Result<PathHandle> Resolution::toObject(LinkHandling finalLink) {
  while (!m_pending.empty()) {
    Step step = std::move(m_pending.front());
    m_pending.pop_front();
    if (step.kind == Step::Kind::LinkEnd) {
      KRV_TRY_VOID(checkLinkEnd(step, &*m_current, m_path));
      continue;
    }
    const bool last = --m_pendingNames == 0;
    KRV_TRY_VOID(enter(step.text, !last || finalLink == LinkHandling::Follow || m_folderNamed));
  }
  if (m_folderNamed && !m_current->isDirectory()) return Error::posix(ENOTDIR, "openat");
  return std::move(*m_current);
}

Status Resolution::checkLinkEndsAfterLastName(const PinnedEntry& entry) {
  while (!m_pending.empty()) {
    Step end = std::move(m_pending.front());
    m_pending.pop_front();
    KRV_TRY_VOID(checkLinkEnd(end, entry.object ? &*entry.object : nullptr, entry.path));
  }
  return {};
}

Result<PinnedEntry> Resolution::toEntry(LinkHandling finalLink) {
  for (;;) {
    while (!m_pending.empty() && m_pending.front().kind == Step::Kind::LinkEnd) {
      KRV_TRY_VOID(checkLinkEnd(m_pending.front(), &*m_current, m_path));
      m_pending.pop_front();
    }
    // A path that ends in a folder without naming an entry in it ("/", or a link to "/") names
    // that folder as its own entry ".".
    std::string name = ".";
    if (m_pendingNames > 0) {
      name = std::move(m_pending.front().text);
      m_pending.pop_front();
      if (--m_pendingNames > 0) {
        KRV_TRY_VOID(enter(name, true));
        continue;
      }
    }
    // The last name stays a name in the folder reached: it is looked at, not entered.
    if (!m_current->isDirectory()) return Error::posix(ENOTDIR, "openat");
    std::optional<PathHandle> object;
    Result<PathHandle> opened =
        PathHandle::openAt(m_current->fd(), name.c_str(), LinkHandling::NoFollow);
    if (opened) {
      object.emplace(std::move(*opened));
    } else if (opened.error().code() != ENOENT) {
      return std::move(opened).error();
    }
    if (object && object->isSymbolicLink() &&
        (finalLink == LinkHandling::Follow || m_folderNamed)) {
      KRV_TRY_VOID(followLink(*object, name));
      continue;
    }
    if (m_folderNamed && object && !object->isDirectory()) {
      return Error::posix(ENOTDIR, "openat");
    }
    // A folder to be made keeps its slash, so that each creating call answers as it does for
    // "x/" (a folder can be made there, a file or a link cannot); none of them follows a link.
    if (m_folderNamed && !object && m_pending.empty()) name += '/';
    PinnedEntry entry{std::move(*m_current), std::move(name), std::move(object), {}};
    m_current.reset();
    entry.path = pathOf(entry.name);
    KRV_TRY_VOID(checkLinkEndsAfterLastName(entry));
    return entry;
  }
}

}  // namespace

Result<PathHandle> SafePathResolver::object(const std::string& path, LinkHandling finalLink) const {
  Resolution resolution(m_log, path);
  KRV_TRY_VOID(resolution.start(path));
  return resolution.toObject(finalLink);
}

Result<PinnedEntry> SafePathResolver::entry(const std::string& path, LinkHandling finalLink) const {
  Resolution resolution(m_log, path);
  KRV_TRY_VOID(resolution.start(path));
  return resolution.toEntry(finalLink);
}

Result<PathHandle> SafePathResolver::follow(const PinnedEntry& entry,
                                            const std::string& path) const {
  if (!entry.object) return Error::posix(ENOENT, "openat");
  if (!entry.object->isSymbolicLink()) {
    KRV_TRY(UniqueFd same, sys::duplicate(entry.object->fd()));
    return PathHandle::adopt(std::move(same));
  }
  Resolution resolution(m_log, path);
  KRV_TRY_VOID(resolution.startAt(entry));
  return resolution.toObject(LinkHandling::Follow);
}

bool SafePathResolver::isRefusal(const Error& error) {
  return error.isPosix() && error.code() == EACCES && error.operation() == kRefusedOperation;
}

}  // namespace krv
