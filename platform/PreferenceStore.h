#pragma once
// PreferenceStore: preference values by application domain, user and host, kept as property-list
// files (the XML form is written; any of the three forms is read).
//
//   any user, any host      /etc/preferences/<domain>.plist                         root, 0644
//   any user, one host      /etc/preferences/ByHost/<domain>.<host>.plist           root, 0644
//   one user, any host      <home>/.config/preferences/<domain>.plist               user, 0600
//   one user, one host      <home>/.config/preferences/ByHost/<domain>.<host>.plist user, 0600
//
// <home> is the home folder of the user's account. The global domain's file name is
// ".GlobalPreferences"; the current host's name is the machine's identity (/etc/machine-id).
//
// A user's home is hers, so nothing in it may lead the daemon elsewhere: the path is resolved by
// the safe resolution (platform/SafePathResolver.h: a symbolic link of hers leads only to her own
// objects), the home must belong to her, every folder on the way must belong to her or to root,
// and missing folders are made by the daemon (mode 0700) and given to her through the descriptor
// of the folder just made. An existing file of hers must be a regular file she owns. The system's
// folders (/etc/preferences) are made when missing, root's and 0755.
//
// Setting reads the file (at most 8 MiB), which must hold a dictionary, changes the one key and
// writes the whole dictionary to a new file that replaces the old one atomically. A file that is
// there but holds no dictionary is never overwritten: the change fails. Removing a key that is not
// there changes nothing and writes nothing.
//
// Errors: EINVAL for a domain or host name that names no file (empty, ".", or "/", ".." or NUL in
// it; see isValidName), for a file that holds no dictionary, and for a value the XML form cannot
// hold; EACCES for a home, folder or file that is not the user's, or a link the resolution refused;
// the property-list reader's error for a file that does not parse; otherwise the failed call's
// errno. Thread-safe: writers are serialised within the process.

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/SystemLog.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"
#include "platform/HostRoot.h"

namespace krv {

// The user whose preferences are meant, as her account names her.
struct PreferenceUser {
  uid_t uid = 0;
  gid_t gid = 0;
  std::string home;  // absolute
};

class PreferenceStore {
 public:
  static constexpr const char* kSystemFolder = "/etc/preferences";
  static constexpr const char* kMachineIdentityPath = "/etc/machine-id";
  static constexpr std::string_view kGlobalDomain = ".GlobalPreferences";
  static constexpr std::size_t kMaximumFileSize = 8 << 20;

  // Refusals of the safe resolution go to `log` (not owned; may be null).
  explicit PreferenceStore(HostRoot root = HostRoot(), SystemLog* log = nullptr);

  // A domain or host name that can be part of a file name: not empty and not ".", no "/", no
  // "..", no NUL.
  static bool isValidName(std::string_view name);
  // The current host's name: the machine identity (letters and digits only).
  Result<std::string> currentHostName() const;

  // Sets the key to the value, or removes it (no value), in the domain of the user (none: any
  // user) and host (none: any host).
  Status setValue(const std::string& key, const std::optional<Value>& value,
                  const std::string& domain, const std::optional<PreferenceUser>& user,
                  const std::optional<std::string>& host) const;

 private:
  Result<UniqueFd> openUserFolder(const PreferenceUser& user, bool byHost) const;

  HostRoot m_root;
  SystemLog* m_log;
};

}  // namespace krv
