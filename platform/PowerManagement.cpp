#include "platform/PowerManagement.h"

#include <dirent.h>
#include <fcntl.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "foundation/System.h"
#include "platform/PropertyListFile.h"

namespace krv {

namespace {

// Bounds on what the kernel's class folder and the store may make the daemon read.
constexpr int kMaximumSupplies = 256;
constexpr std::size_t kMaximumAttributeSize = 64;
constexpr std::size_t kMaximumStoreSize = 1 << 20;

std::mutex& storeLock() {
  static std::mutex lock;
  return lock;
}

// One attribute of a supply ("type", "online", ...), without its line end; nothing when the
// supply has no such attribute or it cannot be read.
std::optional<std::string> supplyAttribute(int classFd, const char* supply, const char* name) {
  const std::string path = std::string(supply) + "/" + name;
  Result<UniqueFd> file = sys::openAt(classFd, path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!file) return std::nullopt;
  std::uint8_t buffer[kMaximumAttributeSize];
  Result<std::size_t> count = sys::read(file->get(), buffer);
  if (!count) return std::nullopt;
  std::string text(reinterpret_cast<const char*>(buffer), *count);
  while (!text.empty() && (text.back() == '\n' || text.back() == ' ')) text.pop_back();
  return text;
}

Dictionary numbers(std::initializer_list<std::pair<const char*, std::int64_t>> entries) {
  Dictionary dictionary;
  for (const auto& [key, value] : entries) dictionary.append(key, Value::integer(value));
  return dictionary;
}

bool isStore(const Dictionary& store) {
  for (std::string_view key :
       {PowerManagement::kActivePowerProfilesKey, PowerManagement::kPreferencesKey}) {
    const Value* part = store.find(key);
    if (part == nullptr || part->asDictionary() == nullptr) return false;
  }
  return true;
}

}  // namespace

PowerManagement::PowerManagement(HostRoot root) : m_root(std::move(root)) {}

Dictionary PowerManagement::seedStore(bool withBattery) {
  Dictionary profiles;
  Dictionary preferences;
  profiles.append(std::string(kACPower), Value::integer(kStandardProfile));
  preferences.append(std::string(kACPower), Value(numbers({{"Disk Sleep Timer", 10},
                                                           {"System Sleep Timer", 10},
                                                           {"Display Sleep Timer", 10},
                                                           {"Wake On LAN", 1},
                                                           {"Wake On AC Change", 0},
                                                           {"Automatic Restart On Power Loss", 0},
                                                           {"Sleep On Power Button", 1},
                                                           {"Display Sleep Uses Dim", 1}})));
  if (withBattery) {
    profiles.append(std::string(kBatteryPower), Value::integer(kStandardProfile));
    preferences.append(std::string(kBatteryPower), Value(numbers({{"Disk Sleep Timer", 10},
                                                                  {"System Sleep Timer", 5},
                                                                  {"Display Sleep Timer", 2},
                                                                  {"Wake On LAN", 0},
                                                                  {"Wake On AC Change", 0},
                                                                  {"Sleep On Power Button", 1},
                                                                  {"Display Sleep Uses Dim", 1},
                                                                  {"Reduce Brightness", 1}})));
  }
  Dictionary store;
  store.append(std::string(kActivePowerProfilesKey), Value(std::move(profiles)));
  store.append(std::string(kPreferencesKey), Value(std::move(preferences)));
  return store;
}

PowerManagement::Supplies PowerManagement::readSupplies() const {
  Supplies supplies;
  Result<sys::DirectoryStream> folder = sys::openDirectory(m_root.path(kPowerSupplyFolder));
  if (!folder) return supplies;
  supplies.readable = true;
  const int classFd = ::dirfd(folder->get());
  for (int seen = 0; seen < kMaximumSupplies; ++seen) {
    const dirent* entry = ::readdir(folder->get());
    if (entry == nullptr) break;
    const char* name = entry->d_name;
    if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
    const std::string type = supplyAttribute(classFd, name, "type").value_or("");
    if (type == "Battery") {
      if (supplyAttribute(classFd, name, "scope") == "Device") continue;
      // A battery slot reports "present" 0 while empty; a battery without the attribute is there.
      if (supplyAttribute(classFd, name, "present").value_or("1") == "0") continue;
      supplies.batteryPresent = true;
      if (supplyAttribute(classFd, name, "status") == "Discharging") {
        supplies.batteryDischarging = true;
      }
    } else if (!type.empty() && supplyAttribute(classFd, name, "online") == "1") {
      supplies.externalOnline = true;
    }
  }
  return supplies;
}

std::optional<std::string> PowerManagement::providingPowerSourceType() const {
  Supplies supplies = readSupplies();
  if (!supplies.readable) return std::nullopt;
  if (!supplies.externalOnline && supplies.batteryPresent && supplies.batteryDischarging) {
    return std::string(kBatteryPower);
  }
  return std::string(kACPower);
}

bool PowerManagement::hasBattery() const { return readSupplies().batteryPresent; }

std::optional<Dictionary> PowerManagement::readStore() const {
  Result<UniqueFd> folder = sys::open(m_root.path(kStoreFolder), O_RDONLY | O_DIRECTORY);
  if (!folder) {
    if (folder.error().code() == ENOENT) return seedStore(hasBattery());
    return std::nullopt;
  }
  Result<std::optional<PropertyListFile>> file =
      readPropertyListFile(folder->get(), kStoreName, kMaximumStoreSize);
  if (!file) return std::nullopt;
  if (!*file) return seedStore(hasBattery());
  const Dictionary* store = (*file)->value.asDictionary();
  if (store == nullptr || !isStore(*store)) return std::nullopt;
  return *store;
}

std::optional<Dictionary> PowerManagement::copyPart(std::string_view key) const {
  std::optional<Dictionary> store = readStore();
  if (!store) return std::nullopt;
  return *store->find(key)->asDictionary();
}

std::optional<Dictionary> PowerManagement::copyActivePowerProfiles() const {
  return copyPart(kActivePowerProfilesKey);
}

std::optional<Dictionary> PowerManagement::copyPreferences() const {
  return copyPart(kPreferencesKey);
}

int PowerManagement::writePart(std::string_view key, const Dictionary& part) const {
  std::lock_guard<std::mutex> lock(storeLock());
  std::optional<Dictionary> store = readStore();
  if (!store) return EINVAL;
  store->set(key, Value(part));
  Result<UniqueFd> folder = openSystemFolder(m_root.path(kStoreFolder));
  if (!folder) return static_cast<int>(folder.error().code());
  Status written = writePropertyListFile(folder->get(), kStoreName, Value(std::move(*store)),
                                         FileOwnership{0644, 0, 0});
  if (!written) {
    // A value the XML form cannot hold is a property-list error, not an errno.
    return written.error().isPosix() ? static_cast<int>(written.error().code()) : EINVAL;
  }
  return 0;
}

int PowerManagement::setActivePowerProfiles(const Dictionary& profiles) const {
  return writePart(kActivePowerProfilesKey, profiles);
}

int PowerManagement::setPreferences(const Dictionary& preferences) const {
  return writePart(kPreferencesKey, preferences);
}

}  // namespace krv
