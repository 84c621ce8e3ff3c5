#pragma once
// The property-list files that the system setting layers keep (power management store, firmware
// variable types, preferences, system configuration): read whole and bounded, replaced
// atomically, always relative to a folder held open so that nothing is looked up by path twice.
//
// Reading opens the file without following a final symbolic link and without blocking (a FIFO
// put in its place never stalls a command), accepts only a regular file of at most maxSize bytes,
// and parses any of the three property-list forms. Writing puts the XML form into a new file
// beside the old one (".<name>.<random>.tmp", created exclusively), sets its owner, flushes it to
// disk, renames it over the old name and flushes the folder; a failure removes the new file and
// leaves the old one as it was.
//
// Errors: POSIX errors of the failed call (EINVAL for an object that is no regular file, EFBIG
// for a file over the bound), or the property-list reader's error for a file that does not parse.
// Stateless and thread-safe; callers serialise writers of the same file themselves.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"

namespace krv {

struct PropertyListFile {
  Value value;
  struct stat status;  // of the file that was read: owner, links, ...
};

// The file `name` of the open folder; nothing when there is no such entry.
Result<std::optional<PropertyListFile>> readPropertyListFile(int folderFd, const std::string& name,
                                                             std::size_t maxSize);

struct FileOwnership {
  mode_t mode = 0644;
  uid_t owner = 0;
  gid_t group = 0;
};

// Replaces (or creates) the file `name` of the open folder with the XML form of `value`.
Status writePropertyListFile(int folderFd, const std::string& name, const Value& value,
                             const FileOwnership& ownership);

// Opens the folder at an absolute path for the *at() calls, first making each missing folder on
// the way (mode 0755, owned by the daemon's user). For the system's own folders only, whose links
// are root's: links on the way are followed.
Result<UniqueFd> openSystemFolder(const std::string& path);

}  // namespace krv
