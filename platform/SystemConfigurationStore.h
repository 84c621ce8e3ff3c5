#pragma once
// SystemConfigurationStore: the system configuration values of one preferences domain, kept as a
// property-list dictionary in
// "/var/lib/com.tavorin.system.securityagent3/SystemConfiguration/<domain>" ("preferences.plist"
// when no domain is named), and changed under a lock.
//
// A change goes through a Session: open (the folder is made when missing), lock, set or remove
// values, apply, commit, unlock. The lock is an open file description lock (F_OFD_SETLKW, which
// waits) on the file "<domain>.lock" beside the store, so changes of different threads and
// processes never interleave; it ends with unlock() or with the session. The store is read when
// the lock is taken, and commit replaces it atomically. Nothing on Linux consumes applied changes:
// apply only checks that there is a session's worth of values to apply.
//
// Domain names are file names: not empty and not ".", no "/", "..", or NUL, and not ending in
// ".lock" (the name of another domain's lock).
//
// Errors: EINVAL for a domain that names no store; EBUSY when the lock file cannot be opened or
// locked; otherwise the errno of the failed call. A store that cannot be read (too large, not a
// property list, no dictionary) makes every change of the session fail and is never overwritten.
// A session belongs to one thread.

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"
#include "platform/HostRoot.h"

namespace krv {

class SystemConfigurationStore {
 public:
  static constexpr const char* kFolder =
      "/var/lib/com.tavorin.system.securityagent3/SystemConfiguration";
  static constexpr const char* kDefaultDomain = "preferences.plist";
  static constexpr std::size_t kMaximumStoreSize = 8 << 20;

  class Session {
   public:
    Session(Session&&) noexcept = default;
    Session& operator=(Session&&) noexcept = default;

    // Takes the lock (waiting for it) and reads the store.
    Status lock();
    // Change the values read at lock(); false without the lock or a readable store, and for the
    // removal of a key that is not there.
    bool setValue(const std::string& key, Value value);
    bool removeValue(const std::string& key);
    bool applyChanges() const { return m_locked; }
    Status commitChanges();
    void unlock();

   private:
    friend class SystemConfigurationStore;
    Session(UniqueFd folder, std::string name);

    UniqueFd m_folder;
    std::string m_name;
    UniqueFd m_lock;
    std::optional<Dictionary> m_values;  // nothing until read, or when the store is unreadable
    bool m_locked = false;
  };

  explicit SystemConfigurationStore(HostRoot root = HostRoot());

  static bool isValidDomain(std::string_view domain);
  // A session on the domain's store (the default store for an empty domain).
  Result<Session> open(const std::string& domain) const;

 private:
  HostRoot m_root;
};

}  // namespace krv
