#include "protocol/CommandTable.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "foundation/Format.h"

namespace krv {

namespace {

// clang-format off
constexpr CommandRecord kCommandTable[] = {
    {kCommandNone, "com.tavorin.operation.none", false, false, false, 0, nullptr, nullptr},
    {kCommandGetVersion, "com.tavorin.get.version", false, false, false, 0, nullptr, nullptr},
    {kCommandShutdown, "com.tavorin.shutdown.krv-security-tool", true, false, false, 0, nullptr, "For shutting down the security component of KRV software products."},
    {kCommandWhoAmI, "com.tavorin.whoami.diagnostic", true, true, false, 1, "N", "For performing diagnostic functions with the security component."},
    {kCommandModifyFileContent, "com.tavorin.modify.file-content", true, false, false, 3, "SDN", "For modifying contents of a system-related file."},
    {kCommandCreateFileObject, "com.tavorin.create.file-object", true, false, false, 2, "SS", "For creating a new file system object owned by the system administrator."},
    {kCommandRenameFileObject, "com.tavorin.rename.file-object", true, false, false, 2, "SS", "For renaming a file system object."},
    {kCommandDeleteFileObjects, "com.tavorin.delete.file-objects", true, true, false, kAnyNumberOfArguments, "S", "For deleting one or more file system objects."},
    {kCommandDeleteFileSubtree, "com.tavorin.delete.file-subtree", true, true, false, kAnyNumberOfArguments, "S", "For deleting one or more file system objects recursively."},
    {kCommandDeleteHibernationFile, "com.tavorin.delete.hibernation-file", true, false, false, 1, "S", "For deleting the power management hibernation file."},
    {kCommandModifyProtectAttribute, "com.tavorin.modify.protect-attribute", true, false, false, 4, "SNNN", "For changing the protection attributes of file systems objects."},
    {kCommandRemoveSystemProtection, "com.tavorin.remove.system-protection", true, false, false, 1, "S", "For removing the system protection of file systems objects."},
    {kCommandSetHfsAttributes, "com.tavorin.set.hfs-attributes", true, false, false, 4, "SNNN", "For setting HFS attributes of file system objects."},
    {kCommandCreateLink, "com.tavorin.create.link", true, false, false, 3, "SSN", "For creating a file system link."},
    {kCommandSearchAgedFiles, "com.tavorin.search.aged-files", true, true, false, 3, "SNN", "For searching file system objects of a certain age."},
    {kCommandInspectFileObject, "com.tavorin.inspect.file-object", true, false, false, 1, "S", "For verifying if a file system object exists at a certain location."},
    {kCommandSearchFilenamePattern, "com.tavorin.search.filename-pattern", true, true, false, 4, "SSSN", "For searching file system objects having names of a certain pattern."},
    {kCommandGetStorageSize, "com.tavorin.get.storage-size", true, false, false, 1, "S", "For computing the storage size of a subtree of file system objects."},
    {kCommandModifyPowerManagement, "com.tavorin.modify.power-management", true, false, false, 2, "SN", "For enabling or disabling features of the power management."},
    {kCommandSetDiskSpindown, "com.tavorin.set.disk-spindown", true, false, false, 1, "N", "For setting the system's spindown time for hard drives."},
    {kCommandSetKernelValue, "com.tavorin.set.kernel-value", true, false, false, 2, "SN", "For modifying a live setting of the operating system kernel."},
    {kCommandSetNvram, "com.tavorin.set.nvram", true, false, false, 2, "SS", "For modifying a computer setting stored in non-volatile memory."},
    {kCommandSetNetworkMtu, "com.tavorin.set.network-mtu", true, false, false, 2, "SN", "For modifying the maximum transfer unit of a network interface."},
    {kCommandReserved, "", false, false, false, 0, nullptr, nullptr},  // reserved
    {kCommandSetSystemPreference, "com.tavorin.set.system-preference", true, false, false, 5, "SSSSS", "For changing a system-wide preference setting."},
    {kCommandSetSystemConfig, "com.tavorin.set.system-config", true, false, false, 4, "SSSS", "For changing a system configuration value."},
    {kCommandRefreshAutomounter, "com.tavorin.refresh.automounter", true, false, false, 0, nullptr, "For letting the automounter update the mount configuration."},
    {kCommandRestartNfsServer, "com.tavorin.restart.nfs-server", true, false, false, 0, nullptr, "For restarting the NFS file server."},
    {kCommandStopStartsoundControl, "com.tavorin.stop.startsound-control", true, false, false, 0, nullptr, "For shutting down management software for the startup sound."},
    {kCommandStopProcess, "com.tavorin.stop.process", true, false, false, 1, "N", "For stopping a running process."},
    {kCommandFlushLookupCache, "com.tavorin.flush.lookup-cache", true, false, false, 0, nullptr, "For clearing the cache of Directory Services."},
    {kCommandManageAclSupport, "com.tavorin.manage.acl-support", true, false, false, kAnyNumberOfArguments, "S", "For managing the support of Access Control Lists in file systems."},
    {kCommandModifyPosixPermissions, "com.tavorin.modify.posix-permissions", true, false, false, kAnyNumberOfArguments, "S", "For modifying the POSIX permission settings of a file system object."},
    {kCommandModifyOwnership, "com.tavorin.modify.ownership", true, false, false, kAnyNumberOfArguments, "S", "For modifying the ownership of a file system object."},
    {kCommandModifyAclPermissions, "com.tavorin.modify.acl-permissions", true, false, false, 2, "SD", "For modifying the ACL permission settings of a file system object."},
    {kCommandPropagatePermissions, "com.tavorin.propagate.permissions", true, true, false, 4, "SNNN", "For propagating permission settings of a folder to contained objects."},
    {kCommandUpdateDyldCache, "com.tavorin.update.dyld-cache", true, false, true, kAnyNumberOfArguments, "S", "For updating shared cache information for dynamic linking in programs."},
    {kCommandExecuteDitto, "com.tavorin.execute.ditto", true, false, false, kAnyNumberOfArguments, "S", "For executing the ditto command to copy file system objects."},
    {kCommandMountFileSystem, "com.tavorin.mount.file-system", true, false, false, kAnyNumberOfArguments, "S", "For mounting a file system."},
    {kCommandExecutePeriodic, "com.tavorin.execute.periodic", true, false, false, kAnyNumberOfArguments, "S", "For executing the operating system's periodic jobs."},
    {kCommandExecuteDiskutil, "com.tavorin.execute.diskutil", true, false, true, kAnyNumberOfArguments, "S", "For executing the diskutil command for disk maintenance."},
    {kCommandExecuteMdutil, "com.tavorin.execute.mdutil", true, false, false, kAnyNumberOfArguments, "S", "For executing the mdutil command for Spotlight-related maintenance."},
    {kCommandExecuteLipo, "com.tavorin.execute.lipo", true, false, false, kAnyNumberOfArguments, "S", "For executing the lipo command to modify fat executables."},
    {kCommandExecuteAtsutil, "com.tavorin.execute.atsutil", true, false, false, kAnyNumberOfArguments, "S", "For executing the atsutil command to maintain Apple Type Services."},
    {kCommandExecuteLaunchctl, "com.tavorin.execute.launchctl", true, false, false, kAnyNumberOfArguments, "S", "For executing the launchctl command to interact with the launch service."},
    {kCommandExecuteCupsctl, "com.tavorin.execute.cupsctl", true, false, false, kAnyNumberOfArguments, "S", "For executing the cupsctl command to interact with the printing subsystem."},
    {kCommandSearchNamePatterns, "com.tavorin.search.name-patterns", true, true, false, kAnyNumberOfArguments, "S", "For searching file system objects matching multiple name patterns."},
    {kCommandExecutePackageRepair, "com.tavorin.execute.package_repair", true, false, true, kAnyNumberOfArguments, "S", "For executing the repair command to reset file permissions."},
    {kCommandTouchFileObject, "com.tavorin.touch.file-object", true, false, false, 1, "S", "For updating the modification time of a file system object."},
    {kCommandDeleteFolderContents, "com.tavorin.delete.folder-contents", true, true, false, kAnyNumberOfArguments, "S", "For deleting the contents of one or more folders."},
    {kCommandExecuteUmount, "com.tavorin.execute.umount", true, false, false, kAnyNumberOfArguments, "S", "For executing the unmount command to disconnect file systems."},
    {kCommandCountFileObjects, "com.tavorin.count.file-objects", true, true, false, 2, "SS", "For counting objects of a file system."},
    {kCommandCompareFolders, "com.tavorin.compare.folders", true, true, false, 5, "SSSNN", "For comparing the contents of two folders."},
    {kCommandPrepareUninstallation, "com.tavorin.prepuninst.krv-security-tool", true, false, false, 0, nullptr, "For preparing the removal of the security component of KRV software products."},
    {kCommandExecuteTmutil, "com.tavorin.execute.tmutil", true, false, false, kAnyNumberOfArguments, "S", "For executing the tmutil command to interact with the Time Machine service."},
};
// clang-format on

static_assert(std::size(kCommandTable) == kNumberOfCommandCodes);

constexpr std::string_view kUserInformationKeys[] = {
    key::kCommandImplementationVersion,
    key::kAgentVersionMajor,
    key::kAgentVersionMinor,
    key::kAgentVersionBuild,
    key::kOutputChannel,
    key::kErrorChannel,
    key::kFailingPath,
    key::kUnderlyingErrorCode,
    key::kCurrentProgress,
    key::kFileSystemObjects,
    key::kPath,
    key::kType,
    key::kSize,
    key::kModificationDate,
    key::kPOSIXMode,
    key::kExistenceInfo,
    key::kUnderlyingErrorMessage,
    key::kMismatchList,
};

constexpr const char* kCheckFailed = "security-related consistency check failed:";

}  // namespace

std::optional<std::string> firstInconsistency(std::span<const CommandRecord> table,
                                              std::string_view className) {
  const std::string name(className);
  for (const CommandRecord& record : table) {
    const unsigned code = record.code;
    if (record.sendsProgressReports && record.sendsLiveOutputReports) {
      return format(
          "%s: command code %u defines intermediate reports both for progress and output "
          "purposes!\n",
          name.c_str(), code);
    }
    if (record.numberOfArguments == 0 && record.signature != nullptr) {
      return format("%s: %s argument type specified for command code %u!\n", name.c_str(),
                    kCheckFailed, code);
    }
    if (record.numberOfArguments != 0 && record.signature == nullptr) {
      return format("%s: %s no argument types specified for command code %u!\n", name.c_str(),
                    kCheckFailed, code);
    }
    if (record.signature == nullptr) continue;
    const std::size_t letters = std::strlen(record.signature);
    const bool countMatches = record.numberOfArguments == kAnyNumberOfArguments
                                  ? letters == 1
                                  : static_cast<std::int64_t>(letters) == record.numberOfArguments;
    if (!countMatches) {
      return format("%s: %s command code %u has invalid number of type specifiers!\n", name.c_str(),
                    kCheckFailed, code);
    }
    for (std::size_t index = 0; index < letters; ++index) {
      if (!classForArgumentType(record.signature[index])) {
        return format("%s: %s command code %u uses invalid type specifier '%c' at %u!\n",
                      name.c_str(), kCheckFailed, code, record.signature[index],
                      static_cast<unsigned>(index));
      }
    }
  }
  return std::nullopt;
}

void checkTableOrExit(std::span<const CommandRecord> table, std::string_view className) {
  if (std::optional<std::string> message = firstInconsistency(table, className)) {
    std::fputs(message->c_str(), stderr);
    std::fflush(stderr);
    std::exit(1);
  }
}

std::span<const CommandRecord> commandTable() {
  static std::once_flag checked;
  std::call_once(checked, [] { checkTableOrExit(kCommandTable, "KRVPrivilegedCommand"); });
  return kCommandTable;
}

const CommandRecord* commandRecord(std::uint32_t code) {
  std::span<const CommandRecord> table = commandTable();
  return code < table.size() ? &table[code] : nullptr;
}

std::optional<ValueType> classForArgumentType(char letter) {
  switch (letter) {
    case 'S':
      return ValueType::String;
    case 'N':
      return ValueType::Number;
    case 'D':
      return ValueType::Data;
    default:
      return std::nullopt;
  }
}

std::optional<std::string_view> stringForUserInformationKey(std::size_t index) {
  if (index >= std::size(kUserInformationKeys)) return std::nullopt;
  return kUserInformationKeys[index];
}

}  // namespace krv
