#include "authorization/UserDirectory.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace krv::auth {

namespace {

// Buffers of the reentrant lookups grow on ERANGE up to this size; a larger entry is treated as
// absent rather than allowed to make us allocate without bound.
constexpr std::size_t kMaximumEntrySize = 1 << 20;
constexpr int kMaximumGroups = 65536;

template <class Lookup>
std::optional<UserAccount> lookUpAccount(Lookup lookup) {
  std::vector<char> buffer(1024);
  for (;;) {
    passwd entry{};
    passwd* found = nullptr;
    int error = lookup(&entry, buffer.data(), buffer.size(), &found);
    if (error == 0) {
      if (found == nullptr || found->pw_name == nullptr) return std::nullopt;
      return UserAccount{found->pw_name, found->pw_uid, found->pw_gid};
    }
    if (error != ERANGE || buffer.size() >= kMaximumEntrySize) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
}

std::optional<gid_t> groupNamed(const char* name) {
  std::vector<char> buffer(1024);
  for (;;) {
    group entry{};
    group* found = nullptr;
    int error = ::getgrnam_r(name, &entry, buffer.data(), buffer.size(), &found);
    if (error == 0) {
      if (found == nullptr) return std::nullopt;
      return found->gr_gid;
    }
    if (error != ERANGE || buffer.size() >= kMaximumEntrySize) return std::nullopt;
    buffer.resize(buffer.size() * 2);
  }
}

}  // namespace

std::optional<UserAccount> SystemUserDirectory::accountOf(uid_t uid) const {
  return lookUpAccount([uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    return ::getpwuid_r(uid, entry, buffer, size, found);
  });
}

std::optional<UserAccount> SystemUserDirectory::accountNamed(const std::string& name) const {
  if (name.empty()) return std::nullopt;
  return lookUpAccount([&name](passwd* entry, char* buffer, std::size_t size, passwd** found) {
    return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
  });
}

std::optional<gid_t> SystemUserDirectory::administratorsGroup() {
  for (const char* candidate : kAdministratorGroupCandidates) {
    if (std::optional<gid_t> gid = groupNamed(candidate)) return gid;
  }
  return std::nullopt;
}

bool SystemUserDirectory::isAdministrator(const UserAccount& account) const {
  std::optional<gid_t> administrators = administratorsGroup();
  if (!administrators) return false;
  std::vector<gid_t> groups(64);
  for (;;) {
    int count = static_cast<int>(groups.size());
    if (::getgrouplist(account.name.c_str(), account.gid, groups.data(), &count) >= 0) {
      groups.resize(static_cast<std::size_t>(count));
      return std::find(groups.begin(), groups.end(), *administrators) != groups.end();
    }
    // count now holds the number needed.
    if (count <= static_cast<int>(groups.size()) || count > kMaximumGroups) return false;
    groups.resize(static_cast<std::size_t>(count));
  }
}

}  // namespace krv::auth
