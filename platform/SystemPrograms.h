#pragma once
// SystemPrograms: which program runs on this machine for each command that runs one.
//
// The commands name the system's programs by constant paths. Where a constant path does not exist
// on Linux but a Linux program does the same job with the same kind of arguments, that program
// runs instead, from this fixed table:
//
//   /sbin/mount        /usr/bin/mount, else /bin/mount
//   /sbin/umount       /usr/bin/umount, else /bin/umount
//   /usr/sbin/chown    /usr/bin/chown, else /bin/chown
//
// The two commands with fixed arguments always run their Linux counterparts with their own
// arguments (the constant programs of the same names on Linux, where they exist, mean something
// else):
//
//   lookup-cache flush   /usr/bin/resolvectl flush-caches, when /run/systemd/resolve is a folder
//                        (the resolver service runs); else /usr/sbin/nscd --invalidate hosts
//   automounter refresh  /usr/bin/systemctl reload autofs, when the automounter's unit
//                        /lib/systemd/system/autofs.service is installed
//
// A program "exists" when its path (links followed) names something other than a folder. What is
// chosen still has to pass the program runner's safety rule before it runs. The choice is made
// anew for every command, so installing a program takes effect at once. Stateless; thread-safe.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "platform/HostRoot.h"

namespace krv {

struct ProgramInvocation {
  std::string path;
  std::vector<std::string> arguments;  // the fixed arguments; empty for a tool command
};

// A command that runs a program: its code and the constant path it names.
struct ProgramCommand {
  std::uint32_t code;
  const char* constantPath;
};

class SystemPrograms {
 public:
  static constexpr const char* kLookupCacheTool = "/usr/bin/dscacheutil";
  static constexpr const char* kAutomounter = "/usr/sbin/automount";

  explicit SystemPrograms(HostRoot root = HostRoot());

  // The program that runs for a constant path taking the client's arguments: the path itself when
  // it exists, else its counterpart that exists; nothing when none does.
  std::optional<std::string> programFor(std::string_view constantPath) const;
  std::optional<ProgramInvocation> lookupCacheFlush() const;
  std::optional<ProgramInvocation> automounterRefresh() const;
  // What the command of `code` runs here (fixed arguments included); nothing when nothing can.
  std::optional<ProgramInvocation> programOfCommand(std::uint32_t code) const;

  // Every command that runs a program, by code.
  static std::span<const ProgramCommand> programCommands();

 private:
  bool exists(const char* path) const;
  bool isFolder(const char* path) const;
  std::optional<std::string> firstExisting(std::initializer_list<const char*> paths) const;

  HostRoot m_root;
};

}  // namespace krv
