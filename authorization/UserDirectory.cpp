#include "authorization/UserDirectory.h"

#include <grp.h>
#include <pwd.h>

#include <algorithm>
#include <cerrno>
#include <utility>
#include <vector>

namespace krv::auth {

namespace {

// Buffers of the reentrant lookups grow on ERANGE up to this size; a larger entry is a failure
// rather than a reason to allocate without bound.
constexpr std::size_t kMaximumEntrySize = 1 << 20;
constexpr int kMaximumGroups = 65536;

// The reentrant lookups answer "not found" with 0 and no entry, or, depending on the name service,
// with one of these; anything else is a failure to answer.
bool meansNotFound(int error) {
  return error == 0 || error == ENOENT || error == ESRCH || error == EBADF || error == EPERM;
}

// Runs lookup(buffer, size), which answers {error, entry}, with a buffer that grows on ERANGE.
template <class Entry, class Lookup>
Result<std::optional<Entry>> lookUp(Lookup lookup, const char* operation) {
  std::vector<char> buffer(1024);
  for (;;) {
    std::pair<int, std::optional<Entry>> answer = lookup(buffer.data(), buffer.size());
    if (answer.first == ERANGE && buffer.size() < kMaximumEntrySize) {
      buffer.resize(buffer.size() * 2);
      continue;
    }
    if (meansNotFound(answer.first)) return std::move(answer.second);
    return Error::posix(answer.first, operation);
  }
}

template <class Call>
Result<std::optional<UserAccount>> lookUpAccount(Call call, const char* operation) {
  return lookUp<UserAccount>(
      [&call](char* buffer, std::size_t size) {
        passwd entry{};
        passwd* found = nullptr;
        std::pair<int, std::optional<UserAccount>> answer{call(&entry, buffer, size, &found), {}};
        if (answer.first == 0 && found != nullptr && found->pw_name != nullptr) {
          answer.second = UserAccount{found->pw_name, found->pw_uid, found->pw_gid,
                                      found->pw_dir != nullptr ? found->pw_dir : ""};
        }
        return answer;
      },
      operation);
}

Result<std::optional<gid_t>> groupNamed(const char* name) {
  return lookUp<gid_t>(
      [name](char* buffer, std::size_t size) {
        group entry{};
        group* found = nullptr;
        const int error = ::getgrnam_r(name, &entry, buffer, size, &found);
        std::optional<gid_t> gid;
        if (error == 0 && found != nullptr) gid = found->gr_gid;
        return std::make_pair(error, gid);
      },
      "getgrnam_r");
}

}  // namespace

Result<std::optional<UserAccount>> SystemUserDirectory::accountOf(uid_t uid) const {
  return lookUpAccount(
      [uid](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return ::getpwuid_r(uid, entry, buffer, size, found);
      },
      "getpwuid_r");
}

Result<std::optional<UserAccount>> SystemUserDirectory::accountNamed(
    const std::string& name) const {
  if (name.empty()) return std::optional<UserAccount>();
  return lookUpAccount(
      [&name](passwd* entry, char* buffer, std::size_t size, passwd** found) {
        return ::getpwnam_r(name.c_str(), entry, buffer, size, found);
      },
      "getpwnam_r");
}

Result<std::optional<gid_t>> SystemUserDirectory::administratorsGroup() {
  for (const char* candidate : kAdministratorGroupCandidates) {
    KRV_TRY(std::optional<gid_t> gid, groupNamed(candidate));
    if (gid) return gid;
  }
  return std::optional<gid_t>();
}

Result<bool> SystemUserDirectory::isAdministrator(const UserAccount& account) const {
  KRV_TRY(std::optional<gid_t> administrators, administratorsGroup());
  if (!administrators) return false;
  std::vector<gid_t> groups(64);
  for (;;) {
    int count = static_cast<int>(groups.size());
    if (::getgrouplist(account.name.c_str(), account.gid, groups.data(), &count) >= 0) {
      groups.resize(static_cast<std::size_t>(count));
      return std::find(groups.begin(), groups.end(), *administrators) != groups.end();
    }
    // count now holds the number needed.
    if (count <= static_cast<int>(groups.size()) || count > kMaximumGroups) {
      return Error::posix(ERANGE, "getgrouplist");
    }
    groups.resize(static_cast<std::size_t>(count));
  }
}

}  // namespace krv::auth
