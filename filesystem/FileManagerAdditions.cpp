#include "filesystem/FileManagerAdditions.h"

#include <cerrno>

#include "filesystem/FileManager.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"

namespace krv {

bool isHiddenObject(const std::string& path) {
  if (path.empty()) return false;
  Result<std::uint32_t> flags = readFileFlags(path, LinkHandling::NoFollow);
  return flags && (*flags & kHiddenFlag) != 0;
}

Status setHidden(bool hidden, const std::string& path) {
  if (path.empty() || path.find('\0') != std::string::npos) return FileManager::error(EINVAL, path);
  Result<PathHandle> object = PathHandle::open(path, LinkHandling::NoFollow);
  if (!object) return FileManager::error(object.error(), path);
  Status set = setHidden(hidden, *object);
  if (!set) return FileManager::error(set.error(), path);
  return {};
}

Status setHidden(bool hidden, const PathHandle& object) {
  KRV_TRY(std::uint32_t flags, readFileFlags(object));
  std::uint32_t wanted = hidden ? (flags | kHiddenFlag) : (flags & ~kHiddenFlag);
  if (wanted == flags) return {};
  return writeFileFlags(object, wanted & ~kCompressedFlag);
}

}  // namespace krv
