// Preference and system configuration values (platform/PreferenceStore.h,
// platform/SystemConfigurationStore.h). Value texts are property lists in any of the three forms;
// an empty text removes the key.

#include <cerrno>

#include "executor/KRVCommandExecutor.h"
#include "foundation/PropertyList.h"
#include "platform/PreferenceStore.h"
#include "platform/SystemConfigurationStore.h"
#include "protocol/CommandCodes.h"

namespace krv {

namespace {

// The domain constants clients send.
constexpr std::string_view kGlobalDomain = "NSGlobalDomain";
constexpr std::string_view kAnyUser = "kCFPreferencesAnyUser";
constexpr std::string_view kCurrentUser = "kCFPreferencesCurrentUser";
constexpr std::string_view kAnyHost = "kCFPreferencesAnyHost";
constexpr std::string_view kCurrentHost = "kCFPreferencesCurrentHost";

// The value a text stands for: nothing for an empty text (the key is to be removed), otherwise
// the property list it holds, or code 14 with the parser's description.
Result<std::optional<Value>> valueOfText(const std::string& text) {
  if (text.empty()) return std::optional<Value>();
  Result<Value> value =
      plist::read(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
  if (!value) {
    Dictionary userInfo;
    userInfo.set(key::kUnderlyingErrorMessage, Value(plist::describeParseError(value.error())));
    return commandError(kResultNotAPropertyList, std::move(userInfo));
  }
  return std::optional<Value>(std::move(*value));
}

const auth::UserDirectory& accountsOf(const SystemSettingsHost& host) {
  static const auth::SystemUserDirectory systemAccounts;
  return host.accounts ? *host.accounts : systemAccounts;
}

}  // namespace

Error KRVCommandExecutor::setPreferenceWithKey(const std::string& key,
                                               const std::string& applicationDomain,
                                               const std::string& userDomain,
                                               const std::string& hostDomain,
                                               const std::string& value, uid_t requestingUser) {
  if (key.empty() || applicationDomain.empty() || userDomain.empty() || hostDomain.empty()) {
    return commandError(kResultBadArgument);
  }
  Result<std::optional<Value>> newValue = valueOfText(value);
  if (!newValue) return std::move(newValue).error();

  const std::string domain = applicationDomain == kGlobalDomain
                                 ? std::string(PreferenceStore::kGlobalDomain)
                                 : applicationDomain;
  if (!PreferenceStore::isValidName(domain)) return commandError(kResultBadArgument);
  const PreferenceStore store(m_settingsHost.root, m_log.get());

  std::optional<PreferenceUser> user;
  if (userDomain != kAnyUser) {
    // The current user is the one the request names: the user on whose behalf it runs.
    const auth::UserDirectory& accounts = accountsOf(m_settingsHost);
    Result<std::optional<auth::UserAccount>> account = userDomain == kCurrentUser
                                                           ? accounts.accountOf(requestingUser)
                                                           : accounts.accountNamed(userDomain);
    if (!account || !*account) return commandError(kResultNotStored);
    user = PreferenceUser{(*account)->uid, (*account)->gid, (*account)->home};
  }
  std::optional<std::string> host;
  if (hostDomain == kCurrentHost) {
    Result<std::string> name = store.currentHostName();
    if (!name) return commandError(kResultNotStored);
    host = std::move(*name);
  } else if (hostDomain != kAnyHost) {
    if (!PreferenceStore::isValidName(hostDomain)) return commandError(kResultBadArgument);
    host = hostDomain;
  }

  if (!store.setValue(key, *newValue, domain, user, host)) return commandError(kResultNotStored);
  return commandSuccess();
}

Error KRVCommandExecutor::setSystemConfigurationForApplicationID(const std::string& applicationID,
                                                                 const std::string& domain,
                                                                 const std::string& key,
                                                                 const std::string& value) {
  if (applicationID.empty() || key.empty()) return commandError(kResultBadArgument);
  Result<std::optional<Value>> newValue = valueOfText(value);
  if (!newValue) return std::move(newValue).error();

  // The application id names the writer only; the store is the domain's.
  Result<SystemConfigurationStore::Session> session =
      SystemConfigurationStore(m_settingsHost.root).open(domain);
  if (!session) return commandError(kResultNotStored);
  if (!session->lock()) return Error(std::string(kPosixErrorDomain), EBUSY);
  bool done = *newValue ? session->setValue(key, std::move(**newValue)) : session->removeValue(key);
  // Applied before committed, and committed only once applied.
  done = done && session->applyChanges();
  done = done && session->commitChanges();
  session->unlock();
  return done ? commandSuccess() : commandError(kResultNotStored);
}

}  // namespace krv
