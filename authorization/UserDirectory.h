#pragma once
// UserDirectory: who a user is and whether they are an administrator, as the rules need it.
//
// Administrators are the members of the administrators group: the first of "sudo", "wheel" and
// "admin" that exists. Membership is read with getgrouplist(), so it includes the user's primary
// group and every group listing the user. SystemUserDirectory asks the system's name services
// (NSS) on every call; nothing is cached, so a change of group membership counts at once.
//
// The interface exists so that the rules can be tested with an invented directory. The system
// directory is thread-safe (it uses the reentrant lookups only); answers are best effort: a user
// or group the name services cannot resolve is simply absent.

#include <sys/types.h>

#include <optional>
#include <string>

namespace krv::auth {

inline constexpr const char* kAdministratorGroupCandidates[] = {"sudo", "wheel", "admin"};

struct UserAccount {
  std::string name;
  uid_t uid = 0;
  gid_t gid = 0;
};

class UserDirectory {
 public:
  virtual ~UserDirectory() = default;
  virtual std::optional<UserAccount> accountOf(uid_t uid) const = 0;
  virtual std::optional<UserAccount> accountNamed(const std::string& name) const = 0;
  virtual bool isAdministrator(const UserAccount& account) const = 0;

  bool isAdministrator(uid_t uid) const {
    std::optional<UserAccount> account = accountOf(uid);
    return account && isAdministrator(*account);
  }
};

class SystemUserDirectory final : public UserDirectory {
 public:
  std::optional<UserAccount> accountOf(uid_t uid) const override;
  std::optional<UserAccount> accountNamed(const std::string& name) const override;
  bool isAdministrator(const UserAccount& account) const override;
  using UserDirectory::isAdministrator;

  // The gid of the administrators group, if one of the candidates exists.
  static std::optional<gid_t> administratorsGroup();
};

}  // namespace krv::auth
