#pragma once
// FileAttributes: what the file manager reports about one object (its attribute dictionary), and
// FileAttributeChanges: the attributes a caller asks it to set.
//
// Type names are the fixed texts clients see everywhere ("NSFileTypeRegular", ...); a FIFO, and
// anything else without a name of its own, is "NSFileTypeUnknown". Times are dates with
// nanosecond precision; the creation date is the birth time, 0 where the file system keeps none.
// Owner and group names are empty when the account database has no entry for the id.
//
// Plain values; not synchronised. The name lookups are thread-safe.

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

inline constexpr std::string_view kFileTypeRegular = "NSFileTypeRegular";
inline constexpr std::string_view kFileTypeDirectory = "NSFileTypeDirectory";
inline constexpr std::string_view kFileTypeSymbolicLink = "NSFileTypeSymbolicLink";
inline constexpr std::string_view kFileTypeSocket = "NSFileTypeSocket";
inline constexpr std::string_view kFileTypeCharacterSpecial = "NSFileTypeCharacterSpecial";
inline constexpr std::string_view kFileTypeBlockSpecial = "NSFileTypeBlockSpecial";
inline constexpr std::string_view kFileTypeUnknown = "NSFileTypeUnknown";

// The type name for the file-type bits of a mode.
std::string_view fileTypeName(mode_t mode);

struct FileAttributes {
  std::string_view type = kFileTypeUnknown;  // one of the kFileType constants
  std::uint64_t size = 0;
  Date modificationDate;
  Date creationDate;                   // 0 when the file system records no birth time
  std::uint32_t posixPermissions = 0;  // mode & 07777
  uid_t ownerAccountId = 0;
  std::string ownerAccountName;
  gid_t groupOwnerAccountId = 0;
  std::string groupOwnerAccountName;
  std::uint64_t referenceCount = 0;    // hard links
  std::uint64_t deviceIdentifier = 0;  // the device a special file stands for (rdev)
  std::uint64_t systemNumber = 0;      // the file system's device (dev)
  std::uint64_t systemFileNumber = 0;  // the inode number
  std::uint32_t flags = 0;             // the BSD flags word (platform/FileFlags.h)
  std::uint32_t hfsTypeCode = 0;
  std::uint32_t hfsCreatorCode = 0;
  bool immutable = false;   // UF_IMMUTABLE or SF_IMMUTABLE
  bool appendOnly = false;  // UF_APPEND or SF_APPEND

  bool isDirectory() const { return type == kFileTypeDirectory; }
  bool isSymbolicLink() const { return type == kFileTypeSymbolicLink; }
  bool isRegularFile() const { return type == kFileTypeRegular; }
};

// Each field that holds a value is applied; the others are left alone.
struct FileAttributeChanges {
  std::optional<uid_t> ownerAccountId;
  std::optional<gid_t> groupOwnerAccountId;
  std::optional<std::uint32_t> posixPermissions;  // only the bits 07777 are used
  std::optional<std::uint32_t> flags;
  std::optional<std::uint32_t> hfsTypeCode;
  std::optional<std::uint32_t> hfsCreatorCode;
  std::optional<Date> creationDate;  // accepted and ignored: Linux cannot set a birth time
  std::optional<Date> modificationDate;

  // The attributes of `attributes` that survive a replacement of the object's contents: owner,
  // group, permissions, flags, HFS codes and the creation date (no size, dates of change, type or
  // numbers of identity).
  static FileAttributeChanges reapplying(const FileAttributes& attributes);
};

// The account names for ids; empty when there is no entry.
std::string userName(uid_t uid);
std::string groupName(gid_t gid);

// A statx time as a date, and a date as a time for utimensat: EINVAL when the date is not finite
// or out of the range of time_t.
Date dateFromTimestamp(std::int64_t seconds, std::uint32_t nanoseconds);
Result<struct timespec> timespecFromDate(Date date);

}  // namespace krv
