#include "filesystem/WalkGuard.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

#include "foundation/System.h"

namespace krv {
namespace {

constexpr const char* kTooDeep = "folder nesting";
constexpr const char* kAlreadyOpen = "folder already open in the walk";

}  // namespace

WalkGuard::WalkGuard(std::size_t maximumDepth) : m_maximumDepth(maximumDepth) {
  m_levels.reserve(maximumDepth);
}

void WalkGuard::beginAt(int folderFd) {
  m_levels.clear();
  m_levels.push_back(Level{folderFd, false, false, 0, 0});
}

Status WalkGuard::identify(Level& level) {
  if (level.identified) return {};
  KRV_TRY(struct stat status, sys::fstat(level.fd));
  level.device = status.st_dev;
  level.inode = status.st_ino;
  level.identified = true;
  return {};
}

Result<UniqueFd> WalkGuard::enter(std::size_t level, int parentFd, const char* name, int flags) {
  // A level above the open ones would leave a gap whose folder was never compared.
  if (level >= m_maximumDepth || level > m_levels.size()) {
    return Error::posix(ELOOP, kTooDeep);
  }
  m_levels.resize(level);
  if (level > 0 && std::strcmp(name, ".") == 0) {
    return Error::posix(ELOOP, kAlreadyOpen);
  }

  bool crossesMount = !m_detectsMounts;
  bool withoutOpenat2 = false;
  Result<UniqueFd> folder = Error::posix(EXDEV);
  if (m_detectsMounts) {
    folder = sys::openAtWithinMount(parentFd, name, flags);
    const std::int64_t code = folder ? 0 : folder.error().code();
    crossesMount = code == EXDEV;
    // Sandboxes that do not know openat2 refuse it with ENOSYS or EPERM.
    withoutOpenat2 = code == ENOSYS || code == EPERM;
  }
  if (crossesMount || withoutOpenat2) folder = sys::openAt(parentFd, name, flags);
  if (!folder) return folder;
  if (withoutOpenat2) {
    // The plain opening worked: mount points cannot be told apart, so every folder is compared.
    m_detectsMounts = false;
    crossesMount = true;
  }

  const bool checksHere = level > 0 && m_levels.back().checksBelow;
  Level entered{folder->get(), false, checksHere, 0, 0};
  if (crossesMount || checksHere) {
    KRV_TRY_VOID(identify(entered));
    bool sharesFileSystem = false;
    for (Level& open : m_levels) {
      KRV_TRY_VOID(identify(open));
      if (open.device != entered.device) continue;
      if (open.inode == entered.inode) return Error::posix(ELOOP, kAlreadyOpen);
      sharesFileSystem = true;
    }
    // Below a mount of a file system that also holds a level above, a folder entered by name may
    // be that level again.
    if (crossesMount && sharesFileSystem) entered.checksBelow = true;
  }
  m_levels.push_back(entered);
  return folder;
}

bool WalkGuard::isRefusal(const Error& error) {
  return error.isPosix() && error.code() == ELOOP &&
         (error.operation() == kTooDeep || error.operation() == kAlreadyOpen);
}

}  // namespace krv
