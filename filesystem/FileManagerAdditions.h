#pragma once
// The file manager's visibility additions: the hidden flag of one object, which is the UF_HIDDEN
// bit of its flags word (kept in the flags record, platform/FileFlags.h). The flag belongs to the
// object itself: a symbolic link is neither followed when read nor when set, and a link can be
// hidden on its own.
//
// Thread-safe. Errors: POSIX errors with {"FailingPath": path}; an empty path is EINVAL.

#include <string>

#include "foundation/Result.h"

namespace krv {

class PathHandle;

// Whether the object is hidden; false for an empty path, a missing object or an unreadable flag.
bool isHiddenObject(const std::string& path);

// Sets or clears the hidden flag; every other flag is kept.
Status setHidden(bool hidden, const std::string& path);
// The same for a pinned object (a link is the link itself); errors carry no FailingPath.
Status setHidden(bool hidden, const PathHandle& object);

}  // namespace krv
