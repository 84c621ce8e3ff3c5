#pragma once
// UserDirectory: who a user is and whether they are an administrator, as the rules need it.
//
// Administrators are the members of the administrators group: the first of "sudo", "wheel" and
// "admin" that exists. Membership is read with getgrouplist(), so it includes the user's primary
// group and every group listing the user. SystemUserDirectory asks the system's name services
// (NSS) on every call; nothing is cached, so a change of group membership counts at once.
//
// Every answer tells "no such user" (nothing) from "the name services could not answer" (an
// error: out of descriptors or memory, an input/output error, an entry larger than 1 MiB): a user
// is never taken for absent, or for no administrator, because the service ran short of something.
// One limit remains: getgrouplist() reports no failure of its own, so a failure while it lists the
// groups reads as fewer groups (the administrators group itself is looked up with errors told).
//
// The interface exists so that the rules can be tested with an invented directory. The system
// directory is thread-safe (it uses the reentrant lookups only).

#include <sys/types.h>

#include <optional>
#include <string>

#include "foundation/Result.h"

namespace krv::auth {

inline constexpr const char* kAdministratorGroupCandidates[] = {"sudo", "wheel", "admin"};

struct UserAccount {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;  // the home folder of the account's entry, as written there
};

class UserDirectory {
 public:
  virtual ~UserDirectory() = default;
  virtual Result<std::optional<UserAccount>> accountOf(uid_t uid) const = 0;
  virtual Result<std::optional<UserAccount>> accountNamed(const std::string& name) const = 0;
  virtual Result<bool> isAdministrator(const UserAccount& account) const = 0;

  Result<bool> isAdministrator(uid_t uid) const {
    KRV_TRY(std::optional<UserAccount> account, accountOf(uid));
    if (!account) return false;
    return isAdministrator(*account);
  }
};

class SystemUserDirectory final : public UserDirectory {
 public:
  Result<std::optional<UserAccount>> accountOf(uid_t uid) const override;
  Result<std::optional<UserAccount>> accountNamed(const std::string& name) const override;
  Result<bool> isAdministrator(const UserAccount& account) const override;
  using UserDirectory::isAdministrator;

  // The gid of the administrators group, if one of the candidates exists.
  static Result<std::optional<gid_t>> administratorsGroup();
};

}  // namespace krv::auth
