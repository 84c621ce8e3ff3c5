#include "tools/securityagentctl/HelpTable.h"

#include <cctype>

#include "foundation/Format.h"
#include "protocol/CommandTable.h"
#include "tools/securityagentctl/CommandLine.h"

namespace krv::ctl {

namespace {

using K = ArgumentKind;

constexpr const char* kProgramArgument =
    "passed to the program unchanged, in order (the program's own options and operands)";
constexpr const char* kProgramReturns =
    "OK with the program's output (OutputChannel, ErrorChannel) and its exit status "
    "(UnderlyingErrorCode); code 6 when the status is not 0, code 5 when no safe program is "
    "installed";

// One program command: runs `program` with the arguments given.
constexpr CommandHelp programCommand(std::uint32_t code, const char* summary, const char* action,
                                     const char* failure, const char* example) {
  CommandHelp help;
  help.code = code;
  help.summary = summary;
  help.action = action;
  help.failure = failure;
  help.arguments[0] = {"ARGUMENT", K::Program, kProgramArgument};
  help.repeatFrom = 0;
  help.returns = kProgramReturns;
  help.example = example;
  return help;
}

// clang-format off
constexpr CommandHelp kHelp[] = {
    {.code = 0, .summary = "does nothing; checks that the daemon answers",
     .action = "do nothing", .failure = "reach the daemon",
     .returns = "OK", .example = ""},
    {.code = 1, .summary = "shows the version of the daemon",
     .action = "read the version", .failure = "read the version",
     .returns = "OK with CommandImplementationVersion, AgentVersionMajor, AgentVersionMinor and "
                "AgentVersionBuild", .example = ""},
    {.code = 2, .summary = "stops the daemon (the service manager starts it again on demand)",
     .action = "stop the security component", .failure = "stop the daemon",
     .returns = "OK; the daemon ends after answering", .example = ""},
    {.code = 3, .summary = "diagnostic: reports progress, then runs whoami as the daemon",
     .action = "run diagnostics", .failure = "run the diagnostic",
     .arguments = {{{"STEPS", K::Number, "how many progress reports to send, one a second "
                                         "(0: none)"}}},
     .returns = "OK with OutputChannel holding the daemon's user (root)", .example = "3"},
    {.code = 4, .summary = "replaces the contents of a file, keeping a backup beside it",
     .action = "modify the contents of a system file", .failure = "overwrite",
     .arguments = {{{"PATH", K::Path, "the file to overwrite (a final symbolic link is followed)"},
                    {"CONTENT", K::Data, "the new contents: @FILE, hex:DIGITS or the text itself"},
                    {"REMOVE-BACKUP", K::Flag, "1 removes PATH.backup afterwards, 0 keeps it"}}},
     .returns = "OK; the old contents are in PATH.backup unless removed; the owner, group, "
                "permissions and flags stay", .example = "/etc/motd @new-motd 0",
     .refusesForeignLinks = true},
    {.code = 5, .summary = "creates a file or folder owned by root",
     .action = "create a file object owned by the administrator", .failure = "create",
     .arguments = {{{"PATH", K::Path, "where to create it; nothing may be there yet (EEXIST)"},
                    {"TYPE", K::Text, "F a plain file (0644), D a folder (0755), X an executable "
                                      "file (0755)"}}},
     .returns = "OK", .example = "/etc/example.d D", .refusesForeignLinks = true},
    {.code = 6, .summary = "renames or moves a file object, never over an existing one",
     .action = "rename a file object", .failure = "rename",
     .arguments = {{{"FROM", K::Path, "the object to rename"},
                    {"TO", K::Path, "its new path; nothing may be there yet (EEXIST); may be on "
                                    "another file system"}}},
     .returns = "OK", .example = "/etc/old.conf /etc/new.conf", .refusesForeignLinks = true},
    {.code = 7, .summary = "deletes file objects (a folder must be empty)",
     .action = "delete file objects", .failure = "delete",
     .arguments = {{{"MODE", K::Text, "1 stops at the first failure and reports it; 0 goes on "
                                      "and succeeds in the end"},
                    {"PATH", K::Path, "an object to delete; a symbolic link is deleted itself"}}},
     .repeatFrom = 1,
     .returns = "OK; progress before each path", .example = "1 /tmp/old-report /tmp/old-folder",
     .refusesForeignLinks = true},
    {.code = 8, .summary = "deletes file objects with everything inside them",
     .action = "delete file objects recursively", .failure = "delete",
     .arguments = {{{"PATH", K::Path, "an object or tree to delete; stops at the first failure"}}},
     .repeatFrom = 0,
     .returns = "OK; progress before each path; a missing path is skipped",
     .example = "/var/tmp/build", .refusesForeignLinks = true},
    {.code = 9, .summary = "deletes the hibernation file at the path given",
     .action = "delete the hibernation file", .failure = "delete",
     .arguments = {{{"PATH", K::Path, "the hibernation file"}}},
     .returns = "OK", .example = "/var/vm/sleepimage", .refusesForeignLinks = true},
    {.code = 10, .summary = "sets or clears the user immutable flag",
     .action = "change the protection of file objects", .failure = "change the protection of",
     .arguments = {{{"PATH", K::Path, "the object (a final symbolic link is followed)"},
                    {"PROTECT", K::Flag, "1 sets the flag, 0 clears it"},
                    {"RECURSIVE", K::Flag, "1 also every object inside a folder"},
                    {"STAY", K::Flag, "1 leaves file systems mounted inside the folder alone"}}},
     .returns = "OK", .example = "/srv/archive 1 1 1", .refusesForeignLinks = true},
    {.code = 11, .summary = "clears the immutable and append-only flags, user and system",
     .action = "remove the system protection of file objects",
     .failure = "remove the protection of",
     .arguments = {{{"PATH", K::Path, "the object (a final symbolic link is followed)"}}},
     .returns = "OK", .example = "/srv/archive/ledger", .refusesForeignLinks = true},
    {.code = 12, .summary = "sets the type and creator codes and the visibility of an object",
     .action = "set file attributes", .failure = "set the attributes of",
     .arguments = {{{"PATH", K::Path, "the object (a symbolic link is changed itself)"},
                    {"TYPE-CODE", K::Number, "four bytes as an unsigned number, 0x54455854 for "
                                             "'TEXT'; 0 for none"},
                    {"CREATOR-CODE", K::Number, "four bytes as an unsigned number; 0 for none"},
                    {"VISIBLE", K::Flag, "0 sets the hidden flag, 1 clears it"}}},
     .returns = "OK", .example = "/srv/share/readme 0x54455854 0 1",
     .refusesForeignLinks = true},
    {.code = 13, .summary = "creates a symbolic or hard link",
     .action = "create a link", .failure = "create the link",
     .arguments = {{{"LINK", K::Path, "the new link; nothing may be there yet"},
                    {"TARGET", K::Path, "what it points to (stored as given for a symbolic link)"},
                    {"HARD", K::Flag, "1 a hard link, 0 a symbolic link"}}},
     .returns = "OK", .example = "/usr/local/bin/tool /opt/tool/bin/tool 0",
     .refusesForeignLinks = true},
    {.code = 14, .summary = "finds objects not modified for some days",
     .action = "search file objects by age", .failure = "search",
     .arguments = {{{"BASE", K::Path, "the folder to walk (symbolic links inside are not "
                                      "entered)"},
                    {"DAYS", K::Number, "the least age in days; 0 finds everything dated up to "
                                        "now"},
                    {"STAY", K::Flag, "1 stays on the file system of BASE"}}},
     .returns = "one line per object found (path, type, size, date, permissions), then OK",
     .example = "/var/log 30 1"},
    {.code = 15, .summary = "tells whether something exists at a path, and what",
     .action = "inspect a file object", .failure = "inspect",
     .arguments = {{{"PATH", K::Path, "the path to look at (symbolic links followed)"}}},
     .returns = "OK with ExistenceInfo: 0 nothing there, 1 a folder, 2 something else",
     .example = "/etc/hosts"},
    {.code = 16, .summary = "finds the entries of a folder by name prefix and extension",
     .action = "search file objects by name", .failure = "search",
     .arguments = {{{"BASE", K::Path, "the folder whose own entries are looked at (not below)"},
                    {"PREFIX", K::Text, "the beginning of the name (empty matches nothing)"},
                    {"EXTENSION", K::Text, "the text after the name's last '.'; empty: any"},
                    {"FOLDERS", K::Flag, "1 finds only folders, 0 only other objects"}}},
     .returns = "one line per object found, then OK", .example = "/var/log syslog gz 0"},
    {.code = 17, .summary = "adds up the storage size of a tree",
     .action = "compute the storage size of a tree", .failure = "measure",
     .arguments = {{{"BASE", K::Path, "the folder to measure"}}},
     .returns = "OK with Size, the sum in bytes", .example = "/var/cache"},
    {.code = 18, .summary = "changes a power management setting for battery and AC power",
     .action = "change the power management", .failure = "change the power management setting",
     .arguments = {{{"KEY", K::Text, "a setting the power management store already holds, such "
                                     "as \"Wake On LAN\""},
                    {"VALUE", K::Number, "its new value"}}},
     .returns = "OK; code 12 when the setting cannot be made",
     .example = "\"Wake On LAN\" 0"},
    {.code = 19, .summary = "sets the disk sleep timer of the current power source",
     .action = "set the spindown time of hard drives", .failure = "set the disk sleep time",
     .arguments = {{{"MINUTES", K::Number, "minutes of idleness before disks sleep; 0 never"}}},
     .returns = "OK", .example = "20"},
    {.code = 20, .summary = "sets a kernel value below /proc/sys",
     .action = "modify a live setting of the kernel", .failure = "set the kernel value",
     .arguments = {{{"NAME", K::Text, "dotted name, net.ipv4.ip_forward for "
                                      "/proc/sys/net/ipv4/ip_forward"},
                    {"VALUE", K::Number, "the new value, written as decimal text"}}},
     .returns = "OK; the kernel's errno when it refuses", .example = "net.ipv4.ip_forward 1"},
    {.code = 21, .summary = "writes a firmware variable (does nothing without EFI)",
     .action = "modify a firmware setting", .failure = "set the firmware variable",
     .arguments = {{{"NAME", K::Text, "the variable's name"},
                    {"VALUE", K::Text, "true/false, a number, text, or bytes as %01%ff"}}},
     .returns = "OK; code 13 when it cannot be written", .example = "boot-flags %01%ff"},
    {.code = 22, .summary = "sets the maximum transfer unit of a network interface",
     .action = "change the MTU of a network interface", .failure = "set the MTU of",
     .arguments = {{{"INTERFACE", K::Text, "the interface's name, fewer than 16 bytes"},
                    {"MTU", K::Number, "the new MTU in bytes, not 0"}}},
     .returns = "OK; the kernel's errno when it refuses", .example = "eth0 9000"},
    {.code = 23, .summary = "reserved: no command has this code",
     .action = "run a reserved command", .failure = "run the reserved command",
     .returns = "code 1 (unknown command)", .example = ""},
    {.code = 24, .summary = "sets one key of a preference file",
     .action = "change a system-wide preference", .failure = "set the preference",
     .arguments = {{{"KEY", K::Text, "the key"},
                    {"DOMAIN", K::Text, "the preference domain (NSGlobalDomain for the global "
                                        "file)"},
                    {"USER", K::Text, "kCFPreferencesAnyUser, kCFPreferencesCurrentUser or a "
                                      "user name"},
                    {"HOST", K::Text, "kCFPreferencesAnyHost, kCFPreferencesCurrentHost or a "
                                      "host name"},
                    {"VALUE", K::Text, "a property list (XML, binary or old-style); empty "
                                       "removes the key"}}},
     .returns = "OK; code 14 for a value that is not a property list, 16 when not stored",
     .example = "AutoSave com.example.editor alice kCFPreferencesAnyHost '<true/>'"},
    {.code = 25, .summary = "sets one key of a system configuration store",
     .action = "change a system configuration value", .failure = "set the configuration value",
     .arguments = {{{"APPLICATION", K::Text, "the application id (required, names no file)"},
                    {"DOMAIN", K::Text, "the store; empty for preferences.plist"},
                    {"KEY", K::Text, "the key"},
                    {"VALUE", K::Text, "a property list; empty removes the key"}}},
     .returns = "OK; code 14 for a value that is not a property list, 16 when not stored",
     .example = "com.example.admin \"\" ProxyMode '<string>none</string>'"},
    {.code = 26, .summary = "makes the automounter reload its configuration",
     .action = "refresh the automounter", .failure = "refresh the automounter",
     .returns = "OK; code 5 when no automounter is installed", .example = ""},
    {.code = 27, .summary = "sends SIGHUP to the NFS server named in /var/run/nfsd.pid",
     .action = "restart the NFS server", .failure = "restart the NFS server",
     .returns = "OK; code 18 when the run file names no process", .example = ""},
    {.code = 28, .summary = "stops the startup sound control program",
     .action = "stop the startup sound control", .failure = "stop the startup sound control",
     .returns = "OK; code 18 when its run file names no process", .example = ""},
    {.code = 29, .summary = "sends SIGTERM to a process",
     .action = "stop a running process", .failure = "stop the process",
     .arguments = {{{"PID", K::Number, "the process id, 1 or more"}}},
     .returns = "OK; code 19 when the signal cannot be sent", .example = "4711"},
    {.code = 30, .summary = "flushes the name lookup cache",
     .action = "clear the name lookup cache", .failure = "flush the lookup cache",
     .returns = "OK; code 5 when no resolver cache runs", .example = ""},
    programCommand(31, "runs fsaclctl (not on Linux: code 5 unless installed)",
                   "manage access control list support", "run fsaclctl", "-p / -e"),
    programCommand(32, "runs chmod with the arguments given", "modify permissions",
                   "run chmod", "0644 /etc/example.conf"),
    programCommand(33, "runs chown with the arguments given", "modify ownership",
                   "run chown", "root:root /etc/example.conf"),
    {.code = 34, .summary = "sets the access control list of an object from its byte form",
     .action = "modify access control lists", .failure = "set the access control list of",
     .arguments = {{{"PATH", K::Path, "the object (a final symbolic link is followed)"},
                    {"LIST", K::Data, "the list's byte form: @FILE or hex:DIGITS"}}},
     .returns = "OK with FailingPath and UnderlyingErrorCode 0; code 20 with the errno when "
                "not set", .example = "/srv/share @list.bin", .refusesForeignLinks = true},
    {.code = 35, .summary = "copies a folder's owner, group, permissions and list to its contents",
     .action = "propagate the permissions of a folder", .failure = "propagate the permissions of",
     .arguments = {{{"FOLDER", K::Path, "the folder whose settings are copied (it is not changed)"},
                    {"EXPECTED", K::Number, "how many objects you expect inside (for the "
                                            "progress only; 0 reports counts)"},
                    {"STAY", K::Flag, "1 stays on the folder's file system"},
                    {"MASK", K::Number, "which settings to copy, bits below"}}},
     .returns = "OK; progress as it walks; code 22 or 24 with the object that failed",
     .example = "/srv/share 12000 1 0x3f",
     .notes = "MASK bits: 0x01 access control list, 0x02 others' access, 0x04 group access,\n"
              "0x08 owner access, 0x10 group owner, 0x20 owner; other bits are ignored.\n"
              "0x3f copies everything.",
     .refusesForeignLinks = true},
    programCommand(36, "runs update_dyld_shared_cache, showing its output as it comes",
                   "update the shared library cache", "run update_dyld_shared_cache", "-force"),
    programCommand(37, "runs ditto to copy file objects", "copy file objects with ditto",
                   "run ditto", "/src /dst"),
    programCommand(38, "runs mount with the arguments given", "mount a file system",
                   "mount", "/dev/sdb1 /mnt"),
    programCommand(39, "runs the periodic jobs program", "run the periodic jobs",
                   "run the periodic jobs", "daily"),
    programCommand(40, "runs diskutil, showing its output as it comes", "maintain disks",
                   "run diskutil", "list"),
    programCommand(41, "runs mdutil for search index maintenance", "maintain the search index",
                   "run mdutil", "-s /"),
    programCommand(42, "runs lipo to change fat executables", "modify fat executables",
                   "run lipo", "-info /usr/local/bin/tool"),
    programCommand(43, "runs atsutil for font service maintenance", "maintain the font service",
                   "run atsutil", "databases -remove"),
    programCommand(44, "runs launchctl to talk to the launch service",
                   "interact with the launch service", "run launchctl", "list"),
    programCommand(45, "runs cupsctl to configure printing", "configure printing",
                   "run cupsctl", "--no-share-printers"),
    {.code = 46, .summary = "finds objects whose names match any of several patterns",
     .action = "search file objects by name patterns", .failure = "search",
     .arguments = {{{"BASE", K::Path, "the folder to walk (symbolic links inside are not "
                                      "entered)"},
                    {"STAY", K::Text, "0 crosses into other file systems, any other text stays"},
                    {"KIND", K::Text, "0 the whole name, 1 its beginning, 2 its extension"},
                    {"PATTERN", K::Text, "the text to compare, exactly and case-sensitively"}}},
     .repeatFrom = 2, .repeatAtLeastOnce = true,
     .returns = "one line per object found (the first matching pair decides), then OK",
     .example = "/home 1 2 tmp 1 core"},
    programCommand(47, "runs the package permission repair, showing its output as it comes",
                   "reset file permissions", "run the permission repair", "--verify"),
    {.code = 48, .summary = "sets the access and modification times of an object to now",
     .action = "touch a file object", .failure = "touch",
     .arguments = {{{"PATH", K::Path, "the object (symbolic links followed)"}}},
     .returns = "OK", .example = "/etc/example.conf", .refusesForeignLinks = true},
    {.code = 49, .summary = "deletes everything inside folders, keeping the folders",
     .action = "delete the contents of folders", .failure = "empty",
     .arguments = {{{"FOLDER", K::Path, "a folder to empty; a missing one is skipped"}}},
     .repeatFrom = 0,
     .returns = "OK; progress before each folder", .example = "/var/tmp/cache",
     .refusesForeignLinks = true},
    programCommand(50, "runs umount with the arguments given", "unmount a file system",
                   "unmount", "/mnt"),
    {.code = 51, .summary = "counts the objects of a tree",
     .action = "count file objects", .failure = "count the objects of",
     .arguments = {{{"BASE", K::Path, "the folder to count"},
                    {"MARKER", K::Path, "a path that, once it exists, stops the count"}}},
     .returns = "OK with Size, the number of objects; progress as it counts",
     .example = "/home /tmp/stop-count"},
    {.code = 52, .summary = "compares two folder trees and lists their differences",
     .action = "compare folders", .failure = "compare",
     .arguments = {{{"FIRST", K::Path, "the first folder"},
                    {"SECOND", K::Path, "the second folder"},
                    {"MARKER", K::Path, "a path that, once it exists, stops the comparison"},
                    {"EXPECTED", K::Number, "how many objects you expect in one tree (for the "
                                            "progress; not 0)"},
                    {"MODE", K::Number, "what to compare, bits below; 2 for a backup, 3 with "
                                        "the bytes"}}},
     .returns = "one line per difference (a change string and the path), a summary, then OK",
     .example = "/home /backup/home /tmp/stop 250000 3",
     .notes = "MODE bits: 0x01 compare file bytes and link destinations, 0x02 ignore status\n"
              "change times, 0x04 ignore the compressed flag, 0x08 ignore access control\n"
              "lists, 0x10 leave out the backup tool's extended attributes, 0x20 and 0x40\n"
              "leave out files named ._* found only in the first, the second tree.\n"
              "--save FILE keeps the comparison; --show FILE shows it again."},
    {.code = 53, .summary = "removes the daemon's right definitions before uninstalling",
     .action = "prepare the removal of the security component",
     .failure = "prepare the uninstallation",
     .returns = "OK", .example = ""},
    programCommand(54, "runs tmutil for backup maintenance", "manage backups", "run tmutil",
                   "listbackups"),
};
// clang-format on

static_assert(std::size(kHelp) == kNumberOfCommandCodes);

constexpr bool codesMatchIndexes() {
  for (std::size_t index = 0; index < std::size(kHelp); ++index) {
    if (kHelp[index].code != index) return false;
  }
  return true;
}
static_assert(codesMatchIndexes(), "one help record per code, in code order");

// Wraps text at 78 columns, each line indented by `indent`.
std::string wrapped(std::string_view text, std::size_t indent) {
  constexpr std::size_t kWidth = 78;
  std::string out;
  std::string line(indent, ' ');
  std::size_t offset = 0;
  while (offset < text.size()) {
    const std::size_t space = text.find(' ', offset);
    const std::size_t end = space == std::string_view::npos ? text.size() : space;
    const std::string_view word = text.substr(offset, end - offset);
    if (line.size() > indent && line.size() + 1 + word.size() > kWidth) {
      out += line + "\n";
      line.assign(indent, ' ');
    }
    if (line.size() > indent) line += ' ';
    line += word;
    offset = end + 1;
  }
  return out + line + "\n";
}

const char* kindName(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::Path:
      return "path";
    case ArgumentKind::Text:
      return "text";
    case ArgumentKind::Number:
      return "number";
    case ArgumentKind::Flag:
      return "0 or 1";
    case ArgumentKind::Data:
      return "data";
    case ArgumentKind::Program:
      return "text";
  }
  return "";
}

}  // namespace

const CommandHelp* commandHelp(std::uint32_t code) {
  return code < std::size(kHelp) ? &kHelp[code] : nullptr;
}

std::size_t argumentCount(const CommandHelp& help) {
  std::size_t count = 0;
  while (count < help.arguments.size() && help.arguments[count].name != nullptr) ++count;
  return count;
}

char letterOfKind(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::Number:
    case ArgumentKind::Flag:
      return 'N';
    case ArgumentKind::Data:
      return 'D';
    case ArgumentKind::Path:
    case ArgumentKind::Text:
    case ArgumentKind::Program:
      break;
  }
  return 'S';
}

std::string usageLine(std::uint32_t code) {
  const CommandHelp* help = commandHelp(code);
  if (help == nullptr) return "";
  std::string line = readableName(code);
  if (line.empty()) line = std::to_string(code);
  const std::size_t count = argumentCount(*help);
  const std::size_t repeatFrom =
      help->repeatFrom == kNoRepetition ? count : static_cast<std::size_t>(help->repeatFrom);
  for (std::size_t index = 0; index < repeatFrom; ++index) {
    line += std::string(" ") + help->arguments[index].name;
  }
  if (repeatFrom < count) {
    std::string group;
    for (std::size_t index = repeatFrom; index < count; ++index) {
      group += std::string(index == repeatFrom ? "" : " ") + help->arguments[index].name;
    }
    line += help->repeatAtLeastOnce ? " " + group + " [" + group + " ...]" : " [" + group + " ...]";
  }
  return line;
}

std::string helpOverview() {
  std::string text =
      "usage: securityagentctl [OPTIONS] COMMAND [ARGUMENT ...]\n"
      "       securityagentctl help COMMAND   (arguments, values, right and an example)\n\n"
      "Commands (a name or its code):\n";
  for (std::uint32_t code = 0; code < kNumberOfCommandCodes; ++code) {
    const std::string name = readableName(code);
    if (name.empty()) continue;
    text += format("%2u  %-28s %s\n", code, name.c_str(), kHelp[code].summary);
  }
  text +=
      "\nOptions: --json (one JSON document a line), --quiet (no progress bar),\n"
      "--progress (progress lines also into a file or pipe), --deauthorize (forget the\n"
      "authorization afterwards), --socket PATH, --list (the command table with argument\n"
      "letters), --save FILE and --show FILE (comparisons).\n";
  return text;
}

std::string helpForCommand(std::uint32_t code) {
  const CommandHelp* help = commandHelp(code);
  const CommandRecord* record = commandRecord(code);
  if (help == nullptr || record == nullptr) return "";
  std::string text = "usage: securityagentctl " + usageLine(code) + "\n\n";
  std::string summary = help->summary;
  summary[0] = static_cast<char>(std::toupper(static_cast<unsigned char>(summary[0])));
  text += wrapped(format("%s (code %u).", summary.c_str(), code), 0);
  const std::size_t count = argumentCount(*help);
  if (count > 0) {
    text += "\nArguments:\n";
    for (std::size_t index = 0; index < count; ++index) {
      const ArgumentHelp& argument = help->arguments[index];
      text += format("  %-14s %s\n", argument.name, kindName(argument.kind));
      text += wrapped(argument.meaning, 17);
    }
  }
  if (help->notes != nullptr) text += "\n" + std::string(help->notes) + "\n";
  text += "\nReturns: ";
  text += wrapped(help->returns, 9).substr(9);
  if (record->rightName[0] == '\0') {
    text += "\nNo right guards it: the daemon refuses the code.\n";
  } else if (record->needsAuthorization) {
    text += wrapped(format("\nRight: %s (by default an administrator's password; "
                           "`authorityctl read %s` shows its rule).",
                           record->rightName, record->rightName),
                    0);
  } else {
    text += format("\nRight: %s (anyone may run it).\n", record->rightName);
  }
  if (record->sendsProgressReports) {
    text += "Reports its progress (a bar on a terminal).\n";
  }
  if (record->sendsLiveOutputReports) text += "Shows the program's output as it runs.\n";
  if (help->refusesForeignLinks) {
    text += wrapped(
        "Paths: a symbolic link a user owns is followed only to that user's own objects "
        "(otherwise EACCES).",
        0);
  }
  const std::string example = help->example;
  const std::string name = readableName(code);
  text += "\nExample:\n  securityagentctl " + (name.empty() ? std::to_string(code) : name) +
          (example.empty() ? "" : " " + example) + "\n";
  return text;
}

}  // namespace krv::ctl
