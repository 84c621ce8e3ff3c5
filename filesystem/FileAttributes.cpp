#include "filesystem/FileAttributes.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <limits>
#include <vector>

namespace krv {
namespace {

// Account entries can be large (long member lists of a group); the buffer grows on ERANGE up to a
// bound no sane database reaches.
constexpr std::size_t kFirstEntryBuffer = 1024;
constexpr std::size_t kLargestEntryBuffer = 1024 * 1024;

template <class Entry, class Id, class Lookup, class NameOf>
std::string lookUpName(Id id, Lookup lookup, NameOf nameOf) {
  std::vector<char> buffer(kFirstEntryBuffer);
  for (;;) {
    Entry entry{};
    Entry* found = nullptr;
    int result = lookup(id, &entry, buffer.data(), buffer.size(), &found);
    if (result == 0) return found != nullptr ? std::string(nameOf(*found)) : std::string();
    if (result != ERANGE || buffer.size() >= kLargestEntryBuffer) return std::string();
    buffer.resize(buffer.size() * 2);
  }
}

// Walks look up the same few owners over and over; each thread remembers its last answer. An
// executor thread lives for one command, so a renamed account is seen by the next command.
struct NameCache {
  bool valid = false;
  unsigned id = 0;
  std::string name;
};
thread_local NameCache t_userCache;
thread_local NameCache t_groupCache;

}  // namespace

std::string_view fileTypeName(mode_t mode) {
  switch (mode & S_IFMT) {
    case S_IFREG:
      return kFileTypeRegular;
    case S_IFDIR:
      return kFileTypeDirectory;
    case S_IFLNK:
      return kFileTypeSymbolicLink;
    case S_IFSOCK:
      return kFileTypeSocket;
    case S_IFCHR:
      return kFileTypeCharacterSpecial;
    case S_IFBLK:
      return kFileTypeBlockSpecial;
    default:
      return kFileTypeUnknown;
  }
}

FileAttributeChanges FileAttributeChanges::reapplying(const FileAttributes& attributes) {
  FileAttributeChanges changes;
  changes.ownerAccountId = attributes.ownerAccountId;
  changes.groupOwnerAccountId = attributes.groupOwnerAccountId;
  changes.posixPermissions = attributes.posixPermissions;
  changes.flags = attributes.flags;
  changes.hfsTypeCode = attributes.hfsTypeCode;
  changes.hfsCreatorCode = attributes.hfsCreatorCode;
  changes.creationDate = attributes.creationDate;
  return changes;
}

std::string userName(uid_t uid) {
  if (t_userCache.valid && t_userCache.id == uid) return t_userCache.name;
  std::string name = lookUpName<struct passwd>(
      uid, ::getpwuid_r, [](const struct passwd& entry) { return entry.pw_name; });
  t_userCache = NameCache{true, uid, name};
  return name;
}

std::string groupName(gid_t gid) {
  if (t_groupCache.valid && t_groupCache.id == gid) return t_groupCache.name;
  std::string name = lookUpName<struct group>(
      gid, ::getgrgid_r, [](const struct group& entry) { return entry.gr_name; });
  t_groupCache = NameCache{true, gid, name};
  return name;
}

Date dateFromTimestamp(std::int64_t seconds, std::uint32_t nanoseconds) {
  return Date{static_cast<double>(seconds) + static_cast<double>(nanoseconds) / 1e9};
}

Result<struct timespec> timespecFromDate(Date date) {
  double seconds = date.secondsSince1970;
  // Beyond ±2^62 seconds no double keeps a second's precision anyway; the bound keeps the
  // conversion defined.
  constexpr double kLimit = 4611686018427387904.0;
  if (!std::isfinite(seconds) || seconds >= kLimit || seconds <= -kLimit) {
    return Error::posix(EINVAL, "date");
  }
  double whole = std::floor(seconds);
  auto nanoseconds = static_cast<long>(std::llround((seconds - whole) * 1e9));
  auto wholeSeconds = static_cast<std::int64_t>(whole);
  if (nanoseconds >= 1000000000L) {
    nanoseconds -= 1000000000L;
    wholeSeconds += 1;
  }
  if (wholeSeconds > std::numeric_limits<time_t>::max() ||
      wholeSeconds < std::numeric_limits<time_t>::min()) {
    return Error::posix(EINVAL, "date");
  }
  struct timespec time {};
  time.tv_sec = static_cast<time_t>(wholeSeconds);
  time.tv_nsec = nanoseconds;
  return time;
}

}  // namespace krv
