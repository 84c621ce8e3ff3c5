#include "platform/SystemConfigurationStore.h"

#include <fcntl.h>

#include <cerrno>

#include "foundation/System.h"
#include "platform/PropertyListFile.h"

namespace krv {

SystemConfigurationStore::SystemConfigurationStore(HostRoot root) : m_root(std::move(root)) {}

bool SystemConfigurationStore::isValidDomain(std::string_view domain) {
  return !domain.empty() && domain != "." && domain.find('/') == std::string_view::npos &&
         domain.find('\0') == std::string_view::npos &&
         domain.find("..") == std::string_view::npos && !domain.ends_with(".lock");
}

Result<SystemConfigurationStore::Session> SystemConfigurationStore::open(
    const std::string& domain) const {
  const std::string name = domain.empty() ? std::string(kDefaultDomain) : domain;
  if (!isValidDomain(name)) return Error::posix(EINVAL, "configuration domain");
  KRV_TRY(UniqueFd folder, openSystemFolder(m_root.path(kFolder)));
  return Session(std::move(folder), name);
}

SystemConfigurationStore::Session::Session(UniqueFd folder, std::string name)
    : m_folder(std::move(folder)), m_name(std::move(name)) {}

Status SystemConfigurationStore::Session::lock() {
  const std::string lockName = m_name + ".lock";
  Result<UniqueFd> file = sys::openAt(m_folder.get(), lockName.c_str(),
                                      O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, 0600);
  if (!file) return Error::posix(EBUSY, "open lock");
  if (!sys::lockWaiting(file->get(), sys::LockKind::Exclusive)) {
    return Error::posix(EBUSY, "lock");
  }
  m_lock = std::move(*file);
  m_locked = true;
  m_values.reset();
  Result<std::optional<PropertyListFile>> store =
      readPropertyListFile(m_folder.get(), m_name, kMaximumStoreSize);
  if (!store) return {};
  if (!*store) {
    m_values = Dictionary();
  } else if (const Dictionary* values = (*store)->value.asDictionary()) {
    m_values = *values;
  }
  return {};
}

bool SystemConfigurationStore::Session::setValue(const std::string& key, Value value) {
  if (!m_locked || !m_values) return false;
  m_values->set(key, std::move(value));
  return true;
}

bool SystemConfigurationStore::Session::removeValue(const std::string& key) {
  return m_locked && m_values && m_values->remove(key);
}

Status SystemConfigurationStore::Session::commitChanges() {
  if (!m_locked || !m_values) return Error::posix(ENOLCK, "commit");
  Status written =
      writePropertyListFile(m_folder.get(), m_name, Value(*m_values), FileOwnership{0644, 0, 0});
  if (!written && !written.error().isPosix()) return Error::posix(EINVAL, "configuration value");
  return written;
}

void SystemConfigurationStore::Session::unlock() {
  m_lock.reset();
  m_locked = false;
  m_values.reset();
}

}  // namespace krv
