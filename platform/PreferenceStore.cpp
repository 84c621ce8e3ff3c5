#include "platform/PreferenceStore.h"

#include <fcntl.h>

#include <cerrno>
#include <mutex>

#include "foundation/System.h"
#include "platform/FileSystemCalls.h"
#include "platform/PropertyListFile.h"
#include "platform/SafePathResolver.h"

namespace krv {

namespace {

constexpr std::size_t kMaximumMachineIdentitySize = 128;
constexpr const char* kUserFolders[] = {".config", "preferences"};
constexpr const char* kHostFolder = "ByHost";

std::mutex& writerLock() {
  static std::mutex lock;
  return lock;
}

bool isOwnedBy(const PathHandle& object, uid_t uid) { return object.status().stx_uid == uid; }

}  // namespace

PreferenceStore::PreferenceStore(HostRoot root, SystemLog* log)
    : m_root(std::move(root)), m_log(log) {}

bool PreferenceStore::isValidName(std::string_view name) {
  return !name.empty() && name != "." && name.find('/') == std::string_view::npos &&
         name.find('\0') == std::string_view::npos && name.find("..") == std::string_view::npos;
}

Result<std::string> PreferenceStore::currentHostName() const {
  KRV_TRY(std::string text,
          sys::readFile(m_root.path(kMachineIdentityPath), kMaximumMachineIdentitySize));
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  if (text.empty()) return Error::posix(EINVAL, "machine identity");
  for (char c : text) {
    const bool isAlphanumeric =
        (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!isAlphanumeric) return Error::posix(EINVAL, "machine identity");
  }
  return text;
}

Result<UniqueFd> PreferenceStore::openUserFolder(const PreferenceUser& user, bool byHost) const {
  if (user.home.empty() || user.home.front() != '/') return Error::posix(EINVAL, "home folder");
  const SafePathResolver resolver(m_log);
  std::string path = m_root.path(user.home);
  KRV_TRY(PathHandle folder, resolver.object(path, LinkHandling::Follow));
  if (!folder.isDirectory()) return Error::posix(ENOTDIR, "home folder");
  if (!isOwnedBy(folder, user.uid)) return Error::posix(EACCES, "home folder");

  std::vector<const char*> names(std::begin(kUserFolders), std::end(kUserFolders));
  if (byHost) names.push_back(kHostFolder);
  for (const char* name : names) {
    path += "/";
    path += name;
    KRV_TRY(PinnedEntry entry, resolver.entry(path, LinkHandling::Follow));
    bool made = false;
    if (!entry.object) {
      Status created = sys::mkdirAt(entry.folder.fd(), entry.name.c_str(), 0700);
      if (!created && created.error().code() != EEXIST) return std::move(created).error();
      made = static_cast<bool>(created);
      KRV_TRY(entry, resolver.entry(path, LinkHandling::Follow));
      if (!entry.object) return Error::posix(ENOENT, "preference folder");
    }
    KRV_TRY(folder, resolver.follow(entry, path));
    if (!folder.isDirectory()) return Error::posix(ENOTDIR, "preference folder");
    if (made && !isOwnedBy(folder, user.uid)) {
      KRV_TRY_VOID(sys::fchownAt(folder.fd(), "", user.uid, user.gid, AT_EMPTY_PATH));
      KRV_TRY_VOID(folder.refresh());
    }
    if (!isOwnedBy(folder, user.uid) && !isOwnedBy(folder, 0)) {
      return Error::posix(EACCES, "preference folder");
    }
  }
  return folder.reopen(O_RDONLY | O_DIRECTORY);
}

Status PreferenceStore::setValue(const std::string& key, const std::optional<Value>& value,
                                 const std::string& domain,
                                 const std::optional<PreferenceUser>& user,
                                 const std::optional<std::string>& host) const {
  if (!isValidName(domain) || (host && !isValidName(*host))) {
    return Error::posix(EINVAL, "preference domain");
  }
  const std::string fileName = domain + (host ? "." + *host : std::string()) + ".plist";

  std::lock_guard<std::mutex> lock(writerLock());
  UniqueFd folder;
  if (user) {
    KRV_TRY(folder, openUserFolder(*user, host.has_value()));
  } else {
    std::string path = m_root.path(kSystemFolder);
    if (host) path += std::string("/") + kHostFolder;
    KRV_TRY(folder, openSystemFolder(path));
  }

  KRV_TRY(std::optional<PropertyListFile> file,
          readPropertyListFile(folder.get(), fileName, kMaximumFileSize));
  Dictionary values;
  if (file) {
    if (user && file->status.st_uid != user->uid) return Error::posix(EACCES, "preference file");
    const Dictionary* existing = file->value.asDictionary();
    if (existing == nullptr) return Error::posix(EINVAL, "preference file");
    values = *existing;
  }
  if (value) {
    values.set(key, *value);
  } else if (!values.remove(key)) {
    return {};  // nothing to remove
  }
  const FileOwnership ownership =
      user ? FileOwnership{0600, user->uid, user->gid} : FileOwnership{0644, 0, 0};
  Status written =
      writePropertyListFile(folder.get(), fileName, Value(std::move(values)), ownership);
  if (!written && !written.error().isPosix()) return Error::posix(EINVAL, "preference value");
  return written;
}

}  // namespace krv
