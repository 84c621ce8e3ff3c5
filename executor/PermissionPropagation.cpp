#include "executor/PermissionPropagation.h"

#include <fcntl.h>

#include <cerrno>
#include <utility>

#include "executor/KRVCommandExecutor.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/UserInformationKeys.h"
#include "platform/AccessControlListStorage.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

// The type bit that makes an object directory-like, tested alone.
constexpr mode_t kDirectoryLikeBit = 0x4000;
constexpr std::uint32_t kOwnershipSettings = kPropagateSettingOwner | kPropagateSettingGroupOwner;
constexpr std::uint32_t kAccessSettings =
    kPropagateSettingOwnerAccess | kPropagateSettingGroupAccess | kPropagateSettingOthersAccess;
constexpr std::uint32_t kAllSettings = kPropagateSettingAcl | kOwnershipSettings | kAccessSettings;

int errnoOf(const Error& error) { return error.isPosix() ? static_cast<int>(error.code()) : EIO; }

Error stepFailure(std::int64_t code, const Error& cause, std::string_view path) {
  return commandErrorWithUnderlyingError(code, path, errnoOf(cause));
}

}  // namespace

Error commandErrorWithUnderlyingError(std::int64_t code, std::string_view path, int errnoValue) {
  Dictionary userInfo;
  userInfo.set(key::kFailingPath, nameValue(std::string(path)));
  userInfo.set(key::kUnderlyingErrorCode, Value::integer(errnoValue));
  return commandError(code, std::move(userInfo));
}

PermissionPropagation::PermissionPropagation(const struct statx& folder,
                                             std::optional<ExtendedAcl> folderList,
                                             std::uint32_t settingsMask, SafePathResolver resolver)
    : m_folderMode(folder.stx_mode),
      m_folderOwner(folder.stx_uid),
      m_folderGroup(folder.stx_gid),
      m_folderList(std::move(folderList)),
      m_mask(settingsMask & kAllSettings),
      m_resolver(resolver) {}

mode_t PermissionPropagation::propagatedMode(mode_t objectMode, mode_t folderMode,
                                             std::uint32_t settingsMask) {
  const bool directoryLike = (objectMode & kDirectoryLikeBit) != 0;
  const mode_t taken = directoryLike ? 0777 : 0666;
  mode_t mode = objectMode & 07777;
  const std::pair<std::uint32_t, mode_t> classes[] = {
      {kPropagateSettingOwnerAccess, 0700},
      {kPropagateSettingGroupAccess, 0070},
      {kPropagateSettingOthersAccess, 0007},
  };
  for (const auto& [setting, bits] : classes) {
    if ((settingsMask & setting) == 0) continue;
    const mode_t copied = bits & taken;
    mode = (mode & ~copied) | (folderMode & copied);
  }
  return mode;
}

std::optional<Error> PermissionPropagation::applyTo(int folderFd, const char* name,
                                                    std::string_view path) const {
  if (m_mask == 0) return std::nullopt;
  Result<PathHandle> pinned = PathHandle::openAt(folderFd, name, LinkHandling::NoFollow);
  if (!pinned) {
    // Gone since the walk returned it: the first step the mask asks for fails.
    const bool listFirst = (m_mask & kPropagateSettingAcl) != 0;
    return stepFailure(listFirst ? kResultAclNotSet : kResultStatusNotRead, pinned.error(), path);
  }
  PathHandle& object = *pinned;
  // Whether a step changed the object since its status was read.
  bool changed = false;

  if ((m_mask & kPropagateSettingAcl) != 0) {
    if (std::optional<Error> failed = applyList(folderFd, name, object, path)) return failed;
    // Mirroring a list into POSIX ACLs changes the group bits of the mode.
    changed = true;
  }

  if ((m_mask & kOwnershipSettings) != 0) {
    if (changed) {
      if (Status read = object.refresh(); !read) {
        return stepFailure(kResultStatusNotRead, read.error(), path);
      }
    }
    if ((object.status().stx_mode & (S_ISUID | S_ISGID)) != 0) {
      return commandErrorWithFailingPath(kResultBadArgument, std::string(path));
    }
    // The id the mask leaves alone is not passed, so that whatever changed it meanwhile stands.
    const uid_t owner =
        (m_mask & kPropagateSettingOwner) != 0 ? m_folderOwner : static_cast<uid_t>(-1);
    const gid_t group =
        (m_mask & kPropagateSettingGroupOwner) != 0 ? m_folderGroup : static_cast<gid_t>(-1);
    // The pinned object itself, a symbolic link included (AT_EMPTY_PATH never follows one).
    if (Status owned = sys::fchownAt(object.fd(), "", owner, group, AT_EMPTY_PATH); !owned) {
      return stepFailure(kResultPermissionsNotChanged, owned.error(), path);
    }
    changed = true;
  }

  if ((m_mask & kAccessSettings) != 0) {
    if (changed) {
      if (Status read = object.refresh(); !read) {
        return stepFailure(kResultStatusNotRead, read.error(), path);
      }
    }
    // A symbolic link has no permission bits of its own on Linux: nothing to change.
    if (object.isSymbolicLink()) return std::nullopt;
    const mode_t mode = propagatedMode(object.status().stx_mode, m_folderMode, m_mask);
    if (Status set = sys::chmodPath(object.procPath(), mode); !set) {
      return stepFailure(kResultPermissionsNotChanged, set.error(), path);
    }
  }
  return std::nullopt;
}

std::optional<Error> PermissionPropagation::applyList(int folderFd, const char* name,
                                                      const PathHandle& object,
                                                      std::string_view path) const {
  std::optional<PathHandle> destination;
  if (object.isSymbolicLink()) {
    // The link is followed from the pinned folder by the rule, never through the full path.
    Result<PinnedEntry> entry = [&]() -> Result<PinnedEntry> {
      KRV_TRY(UniqueFd folder, sys::duplicate(folderFd));
      KRV_TRY(PathHandle folderHandle, PathHandle::adopt(std::move(folder)));
      KRV_TRY(PathHandle link, PathHandle::openAt(folderFd, name, LinkHandling::NoFollow));
      return PinnedEntry{std::move(folderHandle), name, std::move(link), std::string(path)};
    }();
    Result<PathHandle> reached = entry ? m_resolver.follow(*entry, entry->path) : entry.error();
    if (!reached) return stepFailure(kResultAclNotSet, reached.error(), path);
    destination.emplace(std::move(*reached));
  }
  const PathHandle& target = destination ? *destination : object;
  Status applied = m_folderList ? writeAccessControlList(target, *m_folderList)
                                : removeAccessControlList(target);
  if (!applied) return stepFailure(kResultAclNotSet, applied.error(), path);
  return std::nullopt;
}

}  // namespace krv
