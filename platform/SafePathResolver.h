#pragma once
// SafePathResolver: how every command that changes something reaches the object a client named.
//
// A client's path is hostile: any folder in it may be a symbolic link its owner can swap at any
// moment. The resolver therefore never hands a path to the kernel's own lookup. It walks the path
// one component at a time - from "/" for an absolute path, from the working folder for a relative
// one - opening each component with O_PATH|O_NOFOLLOW relative to the folder pinned before it, and
// hands back what it pinned: descriptors, on which callers act with descriptor-relative calls
// (the *at() family, or "/proc/self/fd/N" where no such call exists). The path is never looked up
// again, so a swap after the resolution changes nothing either.
//
// The link rule. A symbolic link met on the way - in the middle of the path, or last where the
// caller asks for a final link to be followed - is followed only when root owns it, or when the
// object it leads to has the link's owner. "The object it leads to" is what the link's
// destination names once resolved completely, under the same rule for any link inside it. So a
// user's link leads only to that user's own objects; the system's links (root's) lead anywhere, and
// a user's links inside her own files behave as they always did. A refused link fails the
// resolution with EACCES (isRefusal() tells it from any other EACCES) and is logged at notice
// level, naming the link, both owners and the client's path. A user's link that leads nowhere (a
// dangling one, or one whose destination fails) fails with that error: it is not followed.
//
// Components and bounds:
// - "" and "." change nothing. ".." goes to the parent of the folder reached so far (after a link
//   before it was followed, to the parent of where the link led, as the kernel does); at the top
//   it stays there. It names a real folder, never a link, so the rule does not apply to it.
// - A trailing slash names a folder, as for the kernel: a final link is followed (by the rule)
//   whatever the caller asked, and anything there that is not a folder is ENOTDIR.
// - At most kMaximumLinks links are followed in one resolution, nested ones included; one more is
//   ELOOP, which also ends any loop of links.
// - A path of PATH_MAX bytes or more is ENAMETOOLONG before anything is looked at, as the kernel
//   would answer; a component longer than NAME_MAX is the kernel's ENAMETOOLONG. A link's
//   destination is at most PATH_MAX - 1 bytes, so the work of one resolution is bounded.
// - A path with a NUL byte is EINVAL; an empty path is ENOENT.
// - Through a file, the next component is ENOTDIR.
//
// Errors are POSIX errors without FailingPath (the caller adds the client's path, as each
// command's contract says): EACCES for a refused link, ENOENT, ENOTDIR, ELOOP, ENAMETOOLONG,
// EINVAL, or whatever else the kernel answered for one component.
//
// Threads: a resolver holds only its log pointer and keeps nothing between calls; one may be used
// from several threads as the log allows. The log is not owned and must outlive the resolver; with
// no log, refusals are simply not logged.

#include <sys/types.h>

#include <optional>
#include <string>

#include "foundation/Result.h"
#include "foundation/SystemLog.h"
#include "platform/FileSystemCalls.h"

namespace krv {

// Where a command creates, renames, links or removes: one entry of a pinned folder.
struct PinnedEntry {
  PathHandle folder;                 // the folder holding the entry, pinned with O_PATH
  std::string name;                  // the entry's name: one component ("." or ".." when the
                                     // path ends so, "." for "/"; "x/" for a folder to be made)
  std::optional<PathHandle> object;  // what the name held when resolved; empty when nothing did
  std::string path;                  // the entry's path with every followed link resolved, for
                                     // messages (relative when the client's path was)
};

class SafePathResolver {
 public:
  // The kernel's own bound on the links followed in one lookup.
  static constexpr int kMaximumLinks = 40;

  explicit SafePathResolver(SystemLog* log = nullptr) : m_log(log) {}

  // The object `path` names, pinned. With Follow a final symbolic link is followed by the rule;
  // with NoFollow the link itself is the object.
  Result<PathHandle> object(const std::string& path, LinkHandling finalLink) const;

  // The folder holding the last component of `path`, pinned, with the component's name and what
  // it holds now (nothing, for an object that is to be created). With Follow, a last component
  // that is a link is followed by the rule, and the entry is the one the link leads to - the folder
  // of its destination's last component; a link that leads nowhere and belongs to root gives that
  // empty entry, a user's such link gives ENOENT.
  Result<PinnedEntry> entry(const std::string& path, LinkHandling finalLink) const;

  // What the entry's object leads to: itself when it is no symbolic link, otherwise the object its
  // link leads to, by the rule, as if the entry's path had been resolved with Follow. `path` is the
  // client's path, for the log. ENOENT when the entry holds nothing.
  Result<PathHandle> follow(const PinnedEntry& entry, const std::string& path) const;

  // Whether a resolution failed because the rule refused a link.
  static bool isRefusal(const Error& error);

 private:
  SystemLog* m_log;
};

}  // namespace krv
