#pragma once
// PermissionPropagation: what the propagation of a folder's permissions (command 35) does to one
// object inside the folder. The settings mask says what is copied from the folder:
//
//   0x01  its access control list; when the folder has none, the object's list is removed
//   0x02  its permission bits for others       (propagatedMode says which bits, by object kind)
//   0x04  its permission bits for the group
//   0x08  its permission bits for the owner
//   0x10  its group
//   0x20  its owner
//
// Other bits are ignored. The steps run in this order - list, ownership, permission bits - each on
// the object as the step before left it. The object is reached by its name in the open folder that
// holds it (the walk's descriptor) and pinned once, without following a final symbolic link: owner,
// group and bits change the object itself, so a link gets the folder's owner and group (never its
// destination) and keeps its bits (a link has none on Linux: that step succeeds and changes
// nothing). The list step alone reaches through a link, by the link rule of the client paths
// (platform/SafePathResolver.h: a user's link leads only to her own objects), as setting a list
// always has. Nothing is looked up by a full path that someone could swap.
//
// Refusals and errors, command errors whose FailingPath is the object's path:
//   - an object with the set-user-id or set-group-id bit when owner or group is to change: code 3
//     with FailingPath only. Such objects never change hands; their bits may still be propagated,
//     and their set-id bits are kept;
//   - the list could not be set or removed (the object is gone, the link rule refused, the file
//     system keeps no lists...): code 20;
//   - the object could not be read (gone since the walk returned it): code 22;
//   - its owner, group or mode could not be changed: code 24.
// Codes 20, 22 and 24 also carry UnderlyingErrorCode, the errno of the failed call.
//
// A value made once per command from the folder's settings; used by the command's one thread.

#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "platform/ExtendedAcl.h"
#include "platform/SafePathResolver.h"

namespace krv {

inline constexpr std::uint32_t kPropagateSettingAcl = 0x01;
inline constexpr std::uint32_t kPropagateSettingOthersAccess = 0x02;
inline constexpr std::uint32_t kPropagateSettingGroupAccess = 0x04;
inline constexpr std::uint32_t kPropagateSettingOwnerAccess = 0x08;
inline constexpr std::uint32_t kPropagateSettingGroupOwner = 0x10;
inline constexpr std::uint32_t kPropagateSettingOwner = 0x20;

// A command error of `code` with FailingPath and UnderlyingErrorCode (the errno, 0 for none).
Error commandErrorWithUnderlyingError(std::int64_t code, std::string_view path, int errnoValue);

class PermissionPropagation {
 public:
  // The folder's status (mode, owner and group, links followed), its list (nothing when it has
  // none), the settings mask, and the resolution whose link rule the list step follows.
  PermissionPropagation(const struct statx& folder, std::optional<ExtendedAcl> folderList,
                        std::uint32_t settingsMask, SafePathResolver resolver);

  // The permission bits an object of `objectMode` gets from a folder of `folderMode`. Each class
  // the mask names (owner 0x08, group 0x04, others 0x02) takes the folder's read, write and
  // execute bits when the object is directory-like, its read and write bits otherwise (the object
  // keeps its own execute bit). Directory-like means the mode has the bit 0x4000: folders, and so
  // also block devices (0x6000) and sockets (0xC000). The set-user-id, set-group-id and sticky
  // bits of the object are always kept; the result has no file type bits.
  static mode_t propagatedMode(mode_t objectMode, mode_t folderMode, std::uint32_t settingsMask);

  // Applies the mask to the object `name` in the folder open at folderFd, whose path (for errors,
  // and the log of a refused link) is `path`. Nothing on success.
  std::optional<Error> applyTo(int folderFd, const char* name, std::string_view path) const;

 private:
  std::optional<Error> applyList(int folderFd, const char* name, const PathHandle& object,
                                 std::string_view path) const;

  mode_t m_folderMode;
  uid_t m_folderOwner;
  gid_t m_folderGroup;
  std::optional<ExtendedAcl> m_folderList;
  std::uint32_t m_mask;
  SafePathResolver m_resolver;
};

}  // namespace krv
