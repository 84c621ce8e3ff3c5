#include "filesystem/WalkGuard.h"

#include <sys/stat.h>

#include <cerrno>

#include "foundation/System.h"

namespace krv {

WalkGuard::WalkGuard(std::size_t maximumDepth) : m_maximumDepth(maximumDepth) {
  m_open.reserve(maximumDepth);
}

Status WalkGuard::admit(std::size_t level, int folderFd) {
  // A level above the open ones would leave a gap whose folder was never compared.
  if (level >= m_maximumDepth || level > m_open.size()) {
    return Error::posix(ELOOP, "folder nesting");
  }
  m_open.resize(level);
  KRV_TRY(struct stat status, sys::fstat(folderFd));
  for (const Identity& open : m_open) {
    if (open.inode == status.st_ino && open.device == status.st_dev) {
      return Error::posix(ELOOP, "folder already open in the walk");
    }
  }
  m_open.push_back(Identity{status.st_dev, status.st_ino});
  return {};
}

}  // namespace krv
