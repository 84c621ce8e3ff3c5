#pragma once
// PowerManagement: the power sources of the machine and the power management settings, as the
// power commands see them.
//
// Power sources are read from the kernel's power supply class ("/sys/class/power_supply"): an
// online supply that is not a battery means "AC Power"; otherwise a present battery that is
// discharging means "Battery Power"; otherwise "AC Power". Batteries of devices (a mouse, a
// keyboard: scope "Device") are not the machine's and are passed over. The machine has a
// "Battery Power" source only while a battery of its own is present.
//
// The settings live in one property-list store,
// "/var/lib/com.tavorin.system.securityagent3/PowerManagement.plist": a dictionary with
// "ActivePowerProfiles" (source name -> profile number; -1 is the custom profile) and
// "PowerManagementPreferences" (source name -> settings dictionary). A machine without the store
// starts from the standard settings (seedStore) for the sources it has, each on profile 2; the
// store is written at the first change. Activating profiles writes the store's profiles at once;
// storing preferences writes its preferences. The settings are kept, not yet applied to the
// kernel's power knobs.
//
// Errors: the copies answer nothing when the store cannot be read or has not the form above (the
// power commands then fail as the platform's copies would); the setters answer 0 or the errno of
// the failed step. Thread-safe: writers of the store are serialised within the process, and each
// write replaces the file atomically.

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Value.h"
#include "platform/HostRoot.h"

namespace krv {

class PowerManagement {
 public:
  static constexpr std::string_view kACPower = "AC Power";
  static constexpr std::string_view kBatteryPower = "Battery Power";
  static constexpr std::string_view kDiskSleepTimer = "Disk Sleep Timer";
  static constexpr std::string_view kActivePowerProfilesKey = "ActivePowerProfiles";
  static constexpr std::string_view kPreferencesKey = "PowerManagementPreferences";
  static constexpr const char* kStoreFolder = "/var/lib/com.tavorin.system.securityagent3";
  static constexpr const char* kStoreName = "PowerManagement.plist";
  static constexpr const char* kPowerSupplyFolder = "/sys/class/power_supply";
  // The standard profile of every source in a new store; -1 is the custom profile.
  static constexpr std::int64_t kStandardProfile = 2;
  static constexpr std::int64_t kCustomProfile = -1;

  explicit PowerManagement(HostRoot root = HostRoot());

  // The source the machine runs on now; nothing when the power supply class cannot be read.
  std::optional<std::string> providingPowerSourceType() const;
  // Whether a battery of the machine's own is present.
  bool hasBattery() const;

  std::optional<Dictionary> copyActivePowerProfiles() const;
  std::optional<Dictionary> copyPreferences() const;
  int setActivePowerProfiles(const Dictionary& profiles) const;
  int setPreferences(const Dictionary& preferences) const;

  // The store of a machine that has none yet: the standard settings of AC power, and of battery
  // power when a battery is present, each source on the standard profile.
  static Dictionary seedStore(bool withBattery);

 private:
  struct Supplies {
    bool readable = false;
    bool externalOnline = false;
    bool batteryPresent = false;
    bool batteryDischarging = false;
  };
  Supplies readSupplies() const;
  std::optional<Dictionary> readStore() const;
  std::optional<Dictionary> copyPart(std::string_view key) const;
  int writePart(std::string_view key, const Dictionary& part) const;

  HostRoot m_root;
};

}  // namespace krv
