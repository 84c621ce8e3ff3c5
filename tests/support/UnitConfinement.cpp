#include "tests/support/UnitConfinement.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <fstream>
#include <sstream>

namespace krv::test {

namespace {

// The kernel's capability numbers, 0 to 40, in order.
constexpr std::array<const char*, 41> kCapabilityNames = {"CAP_CHOWN",
                                                          "CAP_DAC_OVERRIDE",
                                                          "CAP_DAC_READ_SEARCH",
                                                          "CAP_FOWNER",
                                                          "CAP_FSETID",
                                                          "CAP_KILL",
                                                          "CAP_SETGID",
                                                          "CAP_SETUID",
                                                          "CAP_SETPCAP",
                                                          "CAP_LINUX_IMMUTABLE",
                                                          "CAP_NET_BIND_SERVICE",
                                                          "CAP_NET_BROADCAST",
                                                          "CAP_NET_ADMIN",
                                                          "CAP_NET_RAW",
                                                          "CAP_IPC_LOCK",
                                                          "CAP_IPC_OWNER",
                                                          "CAP_SYS_MODULE",
                                                          "CAP_SYS_RAWIO",
                                                          "CAP_SYS_CHROOT",
                                                          "CAP_SYS_PTRACE",
                                                          "CAP_SYS_PACCT",
                                                          "CAP_SYS_ADMIN",
                                                          "CAP_SYS_BOOT",
                                                          "CAP_SYS_NICE",
                                                          "CAP_SYS_RESOURCE",
                                                          "CAP_SYS_TIME",
                                                          "CAP_SYS_TTY_CONFIG",
                                                          "CAP_MKNOD",
                                                          "CAP_LEASE",
                                                          "CAP_AUDIT_WRITE",
                                                          "CAP_AUDIT_CONTROL",
                                                          "CAP_SETFCAP",
                                                          "CAP_MAC_OVERRIDE",
                                                          "CAP_MAC_ADMIN",
                                                          "CAP_SYSLOG",
                                                          "CAP_WAKE_ALARM",
                                                          "CAP_BLOCK_SUSPEND",
                                                          "CAP_AUDIT_READ",
                                                          "CAP_PERFMON",
                                                          "CAP_BPF",
                                                          "CAP_CHECKPOINT_RESTORE"};

std::string trimmed(const std::string& text) {
  const std::size_t first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return {};
  return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

}  // namespace

int capabilityNumber(const std::string& name) {
  for (std::size_t i = 0; i < kCapabilityNames.size(); ++i) {
    if (name == kCapabilityNames[i]) return static_cast<int>(i);
  }
  return -1;
}

Result<ServiceConfinement> unitConfinement(const std::string& path) {
  std::ifstream file(path);
  if (!file) return Error::posix(ENOENT, "unit " + path);
  ServiceConfinement confinement;
  // Until a CapabilityBoundingSet= line, the bounding set is whole.
  for (int number = 0; number < static_cast<int>(kCapabilityNames.size()); ++number) {
    confinement.capabilities.push_back(number);
  }
  bool boundingSetSeen = false;
  bool noNewPrivileges = false;
  std::string section;
  std::string line;
  while (std::getline(file, line)) {
    line = trimmed(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') continue;
    if (line[0] == '[') {
      section = line;
      continue;
    }
    const std::size_t equals = line.find('=');
    if (section != "[Service]" || equals == std::string::npos) continue;
    const std::string key = trimmed(line.substr(0, equals));
    std::string value = trimmed(line.substr(equals + 1));
    if (key == "CapabilityBoundingSet") {
      if (!boundingSetSeen || value.empty()) confinement.capabilities.clear();
      boundingSetSeen = true;
      const bool inverted = !value.empty() && value[0] == '~';
      if (inverted) {
        value.erase(0, 1);
        confinement.capabilities.clear();
        for (int number = 0; number < static_cast<int>(kCapabilityNames.size()); ++number) {
          confinement.capabilities.push_back(number);
        }
      }
      std::istringstream names(value);
      std::string name;
      while (names >> name) {
        const int number = capabilityNumber(name);
        if (number < 0) return Error::posix(EINVAL, "unknown capability " + name);
        auto& kept = confinement.capabilities;
        if (inverted) {
          kept.erase(std::remove(kept.begin(), kept.end(), number), kept.end());
        } else if (std::find(kept.begin(), kept.end(), number) == kept.end()) {
          kept.push_back(number);
        }
      }
    } else if (key == "ProtectSystem") {
      confinement.readOnlyTree = value == "strict";
    } else if (key == "ReadWritePaths") {
      std::istringstream paths(value);
      std::string writable;
      while (paths >> writable) confinement.writablePaths.push_back(writable);
    } else if (key == "PrivateNetwork") {
      confinement.privateNetwork = value == "yes" || value == "true" || value == "1";
    } else if (key == "NoNewPrivileges") {
      noNewPrivileges = value == "yes" || value == "true" || value == "1";
    }
  }
  if (!noNewPrivileges) return Error::posix(EINVAL, "the unit does not set NoNewPrivileges=yes");
  return confinement;
}

namespace {

// The value of a "Name:\tvalue" line of /proc/<pid>/status.
std::string statusField(pid_t pid, const std::string& name) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(name + ":", 0) == 0) return trimmed(line.substr(name.size() + 1));
  }
  return {};
}

}  // namespace

std::uint64_t boundingSetOf(pid_t pid) {
  const std::string text = statusField(pid, "CapBnd");
  return text.empty() ? ~std::uint64_t{0} : std::stoull(text, nullptr, 16);
}

std::uint64_t boundingSetMask(const ServiceConfinement& confinement) {
  std::uint64_t mask = 0;
  for (int number : confinement.capabilities) mask |= std::uint64_t{1} << number;
  return mask;
}

bool noNewPrivilegesOf(pid_t pid) { return statusField(pid, "NoNewPrivs") == "1"; }

bool sharesNetworkWith(pid_t first, pid_t second) {
  struct stat a {};
  struct stat b {};
  return ::stat(("/proc/" + std::to_string(first) + "/ns/net").c_str(), &a) == 0 &&
         ::stat(("/proc/" + std::to_string(second) + "/ns/net").c_str(), &b) == 0 &&
         a.st_ino == b.st_ino && a.st_dev == b.st_dev;
}

bool mountReadOnlyFor(pid_t pid, const std::string& mountPoint) {
  // Fields: id, parent id, major:minor, root, mount point, mount options, ...
  std::ifstream mounts("/proc/" + std::to_string(pid) + "/mountinfo");
  std::string line;
  bool readOnly = false;
  while (std::getline(mounts, line)) {
    std::istringstream fields(line);
    std::string id, parent, device, root, point, options;
    if (!(fields >> id >> parent >> device >> root >> point >> options) || point != mountPoint) {
      continue;
    }
    readOnly = ("," + options + ",").find(",ro,") != std::string::npos;
  }
  return readOnly;
}

}  // namespace krv::test
