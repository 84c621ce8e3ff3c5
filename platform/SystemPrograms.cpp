#include "platform/SystemPrograms.h"

#include <sys/stat.h>

#include "foundation/System.h"

namespace krv {

namespace {

constexpr ProgramCommand kProgramCommands[] = {
    {3, "/usr/bin/whoami"},
    {26, SystemPrograms::kAutomounter},
    {30, SystemPrograms::kLookupCacheTool},
    {31, "/usr/sbin/fsaclctl"},
    {32, "/bin/chmod"},
    {33, "/usr/sbin/chown"},
    {36, "/usr/bin/update_dyld_shared_cache"},
    {37, "/usr/bin/ditto"},
    {38, "/sbin/mount"},
    {39, "/usr/sbin/periodic"},
    {40, "/usr/sbin/diskutil"},
    {41, "/usr/bin/mdutil"},
    {42, "/usr/bin/lipo"},
    {43, "/usr/bin/atsutil"},
    {44, "/bin/launchctl"},
    {45, "/usr/sbin/cupsctl"},
    {47, "/usr/libexec/repair_packages"},
    {50, "/sbin/umount"},
    {54, "/usr/bin/tmutil"},
};

struct Counterparts {
  std::string_view constantPath;
  const char* programs[2];  // in the order they are tried
};

const Counterparts kCounterparts[] = {
    {"/sbin/mount", {"/usr/bin/mount", "/bin/mount"}},
    {"/sbin/umount", {"/usr/bin/umount", "/bin/umount"}},
    {"/usr/sbin/chown", {"/usr/bin/chown", "/bin/chown"}},
};

}  // namespace

SystemPrograms::SystemPrograms(HostRoot root) : m_root(std::move(root)) {}

std::span<const ProgramCommand> SystemPrograms::programCommands() { return kProgramCommands; }

bool SystemPrograms::exists(const char* path) const {
  Result<struct stat> status = sys::stat(m_root.path(path));
  return status && !S_ISDIR(status->st_mode);
}

bool SystemPrograms::isFolder(const char* path) const {
  Result<struct stat> status = sys::stat(m_root.path(path));
  return status && S_ISDIR(status->st_mode);
}

std::optional<std::string> SystemPrograms::firstExisting(
    std::initializer_list<const char*> paths) const {
  for (const char* path : paths) {
    if (exists(path)) return m_root.path(path);
  }
  return std::nullopt;
}

std::optional<std::string> SystemPrograms::programFor(std::string_view constantPath) const {
  const std::string constant(constantPath);
  if (exists(constant.c_str())) return m_root.path(constant);
  for (const Counterparts& entry : kCounterparts) {
    if (entry.constantPath == constantPath) {
      return firstExisting({entry.programs[0], entry.programs[1]});
    }
  }
  return std::nullopt;
}

std::optional<ProgramInvocation> SystemPrograms::lookupCacheFlush() const {
  if (exists("/usr/bin/resolvectl") && isFolder("/run/systemd/resolve")) {
    return ProgramInvocation{m_root.path("/usr/bin/resolvectl"), {"flush-caches"}};
  }
  if (exists("/usr/sbin/nscd")) {
    return ProgramInvocation{m_root.path("/usr/sbin/nscd"), {"--invalidate", "hosts"}};
  }
  return std::nullopt;
}

std::optional<ProgramInvocation> SystemPrograms::automounterRefresh() const {
  if (!exists("/lib/systemd/system/autofs.service")) return std::nullopt;
  std::optional<std::string> systemctl = firstExisting({"/usr/bin/systemctl", "/bin/systemctl"});
  if (!systemctl) return std::nullopt;
  return ProgramInvocation{*systemctl, {"reload", "autofs"}};
}

std::optional<ProgramInvocation> SystemPrograms::programOfCommand(std::uint32_t code) const {
  for (const ProgramCommand& command : kProgramCommands) {
    if (command.code != code) continue;
    if (command.constantPath == std::string_view(kLookupCacheTool)) return lookupCacheFlush();
    if (command.constantPath == std::string_view(kAutomounter)) return automounterRefresh();
    std::optional<std::string> program = programFor(command.constantPath);
    if (!program) return std::nullopt;
    return ProgramInvocation{*program, {}};
  }
  return std::nullopt;
}

}  // namespace krv
