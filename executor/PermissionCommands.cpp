// The permission commands that act on access control lists: setting one object's list from a
// client's byte form (34), and propagating a folder's owner, group, permission bits and list to
// everything inside it (35). Commands 31 to 33 run programs (ProgramCommands.cpp).
//
// Client paths are resolved safely (platform/SafePathResolver.h), a final symbolic link followed by
// the link rule, and the commands act on what the resolution pinned. The propagation walks the
// pinned folder itself and reaches each object relative to the open folder that holds it
// (PermissionPropagation.h).

#include <fcntl.h>

#include <cerrno>
#include <memory>

#include "executor/KRVCommandExecutor.h"
#include "executor/PermissionPropagation.h"
#include "filesystem/FileManager.h"
#include "filesystem/KRVDirectoryEnumerator.h"
#include "filesystem/PathNames.h"
#include "platform/AccessControlListStorage.h"
#include "platform/ExtendedAcl.h"

namespace krv {

namespace {

// The propagation reports its progress after every this many objects.
constexpr std::uint64_t kProgressInterval = 100;

}  // namespace

Error KRVCommandExecutor::setAccessControlListAtPath(const std::string& path, const Data& data) {
  if (path.empty() || data.empty()) return commandError(kResultBadArgument);
  Result<ExtendedAcl> list = readAclExternalForm(data);
  if (!list) return commandError(kResultBadArgument);
  // Every failure, of the resolution as of the writing, is the list not set, with its errno; a
  // success says so with an errno of 0.
  Result<PathHandle> object = pathResolver().object(path, LinkHandling::Follow);
  Status written = object ? writeAccessControlList(*object, *list) : Status(object.error());
  if (!written) {
    const Error& cause = written.error();
    return commandErrorWithUnderlyingError(kResultAclNotSet, path,
                                           cause.isPosix() ? static_cast<int>(cause.code()) : EIO);
  }
  return commandErrorWithUnderlyingError(kResultSuccess, path, 0);
}

CommandResult KRVCommandExecutor::propagatePermissionsAtPath(const std::string& path,
                                                             std::uint64_t expectedObjectCount,
                                                             bool stayOnFileSystem,
                                                             std::uint32_t settingsMask) {
  if (path.empty()) return commandError(kResultBadArgument);
  // The folder with every link in its path resolved (by the rule); it is the source of everything
  // below and is itself never changed.
  const SafePathResolver resolver = pathResolver();
  Result<PinnedEntry> resolved = resolver.entry(path, LinkHandling::Follow);
  if (!resolved) return FileManager::error(resolved.error(), path);
  if (!resolved->object) return FileManager::error(ENOENT, path);
  const PathHandle& folder = *resolved->object;
  if (!folder.isDirectory()) return FileManager::error(ENOTDIR, path);
  // A record that is not a list is an error here, not "no list": that would remove every list
  // inside the folder.
  Result<std::optional<ExtendedAcl>> folderList = readAccessControlList(folder);
  if (!folderList) return FileManager::error(folderList.error(), path);
  Result<UniqueFd> opened = folder.reopen(O_RDONLY | O_DIRECTORY | O_NOCTTY);
  if (!opened) return FileManager::error(opened.error(), path);
  // The paths of the objects begin with the folder's resolved path, without the final "." or ".."
  // that the resolution keeps when the client's path ends so (every other component is a real
  // folder, so the text arithmetic is right).
  std::unique_ptr<KRVDirectoryEnumerator> walk = KRVDirectoryEnumerator::enumeratorAtFolder(
      std::move(*opened), standardizedPath(resolved->path), stayOnFileSystem);
  if (!walk) return FileManager::error(ENOMEM, path);

  const PermissionPropagation propagation(folder.status(), std::move(*folderList), settingsMask,
                                          resolver);
  const double denominator =
      expectedObjectCount == 0 ? 1.0 : static_cast<double>(expectedObjectCount);
  std::optional<Error> failure;
  for (std::uint64_t counter = 1; walk->nextObject(); ++counter) {
    failure = propagation.applyTo(walk->currentEntryDirectoryFd(), walk->currentEntryName().data(),
                                  walk->currentAbsolutePath());
    if (failure) break;
    if (counter % kProgressInterval == 0 &&
        !sendProgressMessageToClient(static_cast<double>(counter) / denominator)) {
      break;  // the client stopped listening: no error, but the final report is still tried
    }
  }
  // Without the final report the client gets no result at all, whatever happened before.
  if (!sendProgressMessageToClient(1.0)) return std::nullopt;
  return failure ? std::move(*failure) : commandSuccess();
}

}  // namespace krv
