// System setting commands that change the machine itself: power management settings and the disk
// sleep time, kernel values, firmware variables and an interface's maximum transfer unit. Each
// acts through its platform layer, pointed at the host root of the executor's settings host.

#include <cerrno>

#include "executor/KRVCommandExecutor.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "platform/FirmwareVariables.h"
#include "platform/KernelValues.h"
#include "platform/NetworkInterfaces.h"
#include "platform/PowerManagement.h"
#include "platform/SettingValues.h"
#include "protocol/CommandCodes.h"

namespace krv {

namespace {

Error posixResult(const Error& failure) {
  return Error(std::string(kPosixErrorDomain), failure.isPosix() ? failure.code() : EIO);
}

}  // namespace

bool KRVCommandExecutor::setPowerManagementValue(const std::optional<Value>& value,
                                                 const std::string& key, Dictionary* preferences,
                                                 const std::string& powerSource,
                                                 Dictionary* profiles) {
  if (!value || key.empty() || powerSource.empty() || preferences == nullptr ||
      profiles == nullptr) {
    return false;
  }
  if (!profiles->contains(powerSource)) return true;  // the machine has no such source

  profiles->set(powerSource, Value::integer(PowerManagement::kCustomProfile));
  const int activated = PowerManagement(m_settingsHost.root).setActivePowerProfiles(*profiles);
  if (activated != 0) {
    if (m_log) {
      m_log->log(SystemLog::Level::Warning,
                 format("Could not set active power profiles (%d).", activated));
    }
    return false;
  }
  const Value* settings = preferences->find(powerSource);
  if (settings != nullptr && settings->asDictionary() != nullptr &&
      settings->asDictionary()->contains(key)) {
    Dictionary changed = *settings->asDictionary();
    changed.set(key, *value);
    preferences->set(powerSource, Value(std::move(changed)));
    return true;
  }
  // The names come from the client: shown escaped, they cannot forge a line of the log.
  if (m_log) {
    m_log->log(SystemLog::Level::Warning,
               format("Key '%s' expected but not found in power management settings for source %s.",
                      escapedName(key).c_str(), escapedName(powerSource).c_str()));
  }
  return false;
}

Error KRVCommandExecutor::setPowerManagementOptionNamed(const std::string& key,
                                                        std::int64_t value) {
  if (key.empty()) return commandError(kResultBadArgument);
  const PowerManagement power(m_settingsHost.root);
  std::optional<Dictionary> profiles = power.copyActivePowerProfiles();
  std::optional<Dictionary> preferences = power.copyPreferences();
  Dictionary* profilesCopy = profiles ? &*profiles : nullptr;
  Dictionary* preferencesCopy = preferences ? &*preferences : nullptr;
  const std::optional<Value> number = Value::integer(value);
  // Battery first: when it fails, AC power is not touched. Profiles activated stay active.
  if (!setPowerManagementValue(number, key, preferencesCopy,
                               std::string(PowerManagement::kBatteryPower), profilesCopy) ||
      !setPowerManagementValue(number, key, preferencesCopy, std::string(PowerManagement::kACPower),
                               profilesCopy)) {
    return commandError(kResultPowerManagementFailed);
  }
  const int stored = power.setPreferences(*preferences);
  Dictionary userInfo;
  userInfo.set(key::kUnderlyingErrorCode, Value::integer(stored));
  return commandError(stored != 0 ? kResultPowerManagementFailed : kResultSuccess,
                      std::move(userInfo));
}

Error KRVCommandExecutor::setDiskSpindownTime(std::uint64_t minutes) {
  const PowerManagement power(m_settingsHost.root);
  // Only the source in use changes, unlike the option command, which changes both.
  const std::string source =
      power.providingPowerSourceType().value_or(std::string(PowerManagement::kACPower));
  std::optional<Dictionary> profiles = power.copyActivePowerProfiles();
  std::optional<Dictionary> preferences = power.copyPreferences();
  if (!profiles || !preferences) return commandError(kResultPowerManagementFailed);
  profiles->set(source, Value::integer(PowerManagement::kCustomProfile));
  if (power.setActivePowerProfiles(*profiles) != 0)
    return commandError(kResultPowerManagementFailed);

  const Value* settings = preferences->find(source);
  if (settings == nullptr || settings->asDictionary() == nullptr) {
    return commandError(kResultPowerManagementFailed);
  }
  Dictionary changed = *settings->asDictionary();
  changed.set(PowerManagement::kDiskSleepTimer, Value::unsignedInteger(minutes));
  preferences->set(source, Value(std::move(changed)));
  if (power.setPreferences(*preferences) != 0) return commandError(kResultPowerManagementFailed);
  return commandSuccess();
}

Error KRVCommandExecutor::setKernelSettingNamed(const std::string& name, std::int64_t value) {
  if (name.empty()) return commandError(kResultBadArgument);
  Status set = KernelValues(m_settingsHost.root).set(name, value);
  if (!set) return posixResult(set.error());
  return commandSuccess();
}

Error KRVCommandExecutor::setNVRAMVariableNamed(const std::string& name, const std::string& value) {
  // The wire has no "no value": an empty text stands for it.
  if (name.empty() || value.empty()) return commandError(kResultBadArgument);
  const FirmwareVariables variables(m_settingsHost.root);
  // No firmware variables on this machine: nothing is done, as where the platform has no
  // options entry.
  if (!variables.isAvailable()) return commandSuccess();

  Result<std::optional<SettingValueType>> existing = variables.typeOfVariable(name);
  if (!existing) return commandError(kResultFirmwareVariableFailed);
  std::optional<Value> converted;
  if (*existing) {
    converted = convertSettingValue(**existing, value);
  } else {
    // A new variable: the first type whose conversion gives a value. String never fails, so a
    // text in percent-hex form becomes Data and any other text a String.
    for (SettingValueType type : {SettingValueType::Data, SettingValueType::String,
                                  SettingValueType::Number, SettingValueType::Boolean}) {
      converted = convertSettingValue(type, value);
      if (converted) break;
    }
  }
  if (!converted) return commandError(kResultBadArgument);
  // A variable cannot hold nothing (the kernel would take an empty write as its deletion).
  Result<std::pair<Data, SettingValueType>> encoded = FirmwareVariables::encode(*converted);
  if (!encoded || encoded->first.empty()) return commandError(kResultBadArgument);
  if (!variables.setVariable(name, *converted)) return commandError(kResultFirmwareVariableFailed);
  return commandSuccess();
}

Error KRVCommandExecutor::setNetworkInterface(const std::string& name, std::int32_t mtu) {
  if (name.empty() || mtu == 0) return commandError(kResultBadArgument);
  Result<UniqueFd> socket = openInterfaceRequestSocket();
  // Without a socket no request is made, and the answer is success all the same: that lapse is
  // part of the command's behaviour, kept for the clients that rely on it.
  if (!socket) return commandSuccess();
  Status set = setMaximumTransferUnit(socket->get(), name, mtu);
  if (!set) return posixResult(set.error());
  return commandSuccess();
}

}  // namespace krv
