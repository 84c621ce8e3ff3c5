// Dispatch by command code, driven by one table: each code's record points at the function that
// picks its arguments out of the request, converts them to the types the command's method takes
// and calls it; the method's result is returned unchanged. The table adds only the argument rules
// of the commands with a variable argument list (codes 7, 8, 46, 49) to the checks the request
// passed before it was accepted.

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <iterator>
#include <string>
#include <thread>

#include "executor/KRVCommandExecutor.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"

namespace krv {

namespace {

using Executor = KRVCommandExecutor&;
using Arguments = const Array&;

// What runs one command: unpacks its arguments and calls the executor's method for it. The last
// parameter is the user the request names, for the commands that act on a user's own files.
using CommandRunner = CommandResult (*)(Executor, Arguments, uid_t);

struct DispatchRecord {
  CommandCode code;
  CommandRunner run;
};

// The request passed validation, so argument kinds are known; these read them. A string argument
// is a path or a name that came as text or as bytes; either way it is read as its bytes.
std::string stringAt(Arguments arguments, std::size_t index) {
  return nameBytes(arguments[index]).value_or(std::string());
}
const Data& dataAt(Arguments arguments, std::size_t index) { return *arguments[index].asData(); }
const Number& numberAt(Arguments arguments, std::size_t index) {
  return *arguments[index].asNumber();
}
bool boolAt(Arguments arguments, std::size_t index) {
  return numberAt(arguments, index).boolValue();
}
std::uint64_t uintAt(Arguments arguments, std::size_t index) {
  return numberAt(arguments, index).unsignedIntegerValue();
}
std::uint64_t ulongAt(Arguments arguments, std::size_t index) {
  return numberAt(arguments, index).unsignedLongValue();
}

// Runners of the commonest shapes: the whole argument list, one string, two strings.
template <auto method>
CommandResult withArgumentList(Executor executor, Arguments a, uid_t) {
  return (executor.*method)(a);
}
template <auto method>
CommandResult withString(Executor executor, Arguments a, uid_t) {
  return (executor.*method)(stringAt(a, 0));
}
template <auto method>
CommandResult withTwoStrings(Executor executor, Arguments a, uid_t) {
  return (executor.*method)(stringAt(a, 0), stringAt(a, 1));
}

CommandResult succeed(Executor, Arguments, uid_t) { return commandSuccess(); }
CommandResult refuseUnknown(Executor, Arguments, uid_t) {
  return commandError(kResultUnknownCommand);
}

CommandResult getVersion(Executor executor, Arguments, uid_t) {
  return executor.getVersionInformation();
}
CommandResult whoAmI(Executor executor, Arguments a, uid_t) {
  return executor.performWhoAmIDiagnostic(uintAt(a, 0));
}
CommandResult overwriteFile(Executor executor, Arguments a, uid_t) {
  return executor.overwriteSystemFileAtPath(stringAt(a, 0), dataAt(a, 1), boolAt(a, 2));
}
CommandResult changeProtection(Executor executor, Arguments a, uid_t) {
  return executor.changeProtectionAttributeAtPath(stringAt(a, 0), boolAt(a, 1), boolAt(a, 2),
                                                  boolAt(a, 3));
}
CommandResult setHfsAttributes(Executor executor, Arguments a, uid_t) {
  return executor.setAtPath(stringAt(a, 0), ulongAt(a, 1), ulongAt(a, 2), boolAt(a, 3));
}
CommandResult createLink(Executor executor, Arguments a, uid_t) {
  return executor.createLinkAtPath(stringAt(a, 0), stringAt(a, 1), boolAt(a, 2));
}
CommandResult searchAgedFiles(Executor executor, Arguments a, uid_t) {
  return executor.searchForFileSystemObjectsOlderThanDays(stringAt(a, 0), uintAt(a, 1),
                                                          boolAt(a, 2));
}
CommandResult searchFilenamePattern(Executor executor, Arguments a, uid_t) {
  return executor.searchForFileSystemObjectsWithPrefix(stringAt(a, 0), stringAt(a, 1),
                                                       stringAt(a, 2), boolAt(a, 3));
}

// Code 7: a mode string, exactly "0" or "1" (stop on the first error), then the paths.
CommandResult deleteObjects(Executor executor, Arguments a, uid_t) {
  if (a.size() < 2) return commandError(kResultMalformedArguments);
  const std::string mode = stringAt(a, 0);
  if (mode != "0" && mode != "1") return commandError(kResultBadArgument);
  return executor.deleteFileSystemObjectsAtPaths(Array(a.begin() + 1, a.end()), mode == "1");
}

// Codes 8 and 49 take at least one path.
CommandResult deleteSubtrees(Executor executor, Arguments a, uid_t) {
  if (a.empty()) return commandError(kResultMalformedArguments);
  return executor.deleteFileSystemObjectsRecursivelyAtPaths(a);
}
CommandResult deleteFolderContents(Executor executor, Arguments a, uid_t) {
  if (a.empty()) return commandError(kResultMalformedArguments);
  return executor.deleteFileSystemFolderContentsAtPaths(a);
}

// Code 46: the start path, the stay flag, then (kind, pattern) pairs: at least four strings, an
// even number of them. Only "0" turns staying on the start volume off (the opposite default of
// code 7's mode).
CommandResult searchNamePatterns(Executor executor, Arguments a, uid_t) {
  if (a.size() < 4 || a.size() % 2 != 0) return commandError(kResultMalformedArguments);
  return executor.searchForFileSystemObjectsWithNamePatterns(stringAt(a, 0), stringAt(a, 1) != "0",
                                                             Array(a.begin() + 2, a.end()));
}

// Code 52: the two folders, the abort marker, the expected count and the compare mode.
CommandResult compareFolders(Executor executor, Arguments a, uid_t) {
  return executor.compareFoldersAtPath(stringAt(a, 0), stringAt(a, 1), stringAt(a, 2), uintAt(a, 3),
                                       uintAt(a, 4));
}

// System settings.
CommandResult setPowerManagementOption(Executor executor, Arguments a, uid_t) {
  return executor.setPowerManagementOptionNamed(stringAt(a, 0), numberAt(a, 1).integerValue());
}
CommandResult setDiskSpindown(Executor executor, Arguments a, uid_t) {
  return executor.setDiskSpindownTime(uintAt(a, 0));
}
CommandResult setKernelValue(Executor executor, Arguments a, uid_t) {
  return executor.setKernelSettingNamed(stringAt(a, 0), numberAt(a, 1).integerValue());
}
CommandResult setNetworkMtu(Executor executor, Arguments a, uid_t) {
  return executor.setNetworkInterface(stringAt(a, 0), numberAt(a, 1).intValue());
}
// A user's own preferences ("current user") are those of the user the request names.
CommandResult setSystemPreference(Executor executor, Arguments a, uid_t user) {
  return executor.setPreferenceWithKey(stringAt(a, 0), stringAt(a, 1), stringAt(a, 2),
                                       stringAt(a, 3), stringAt(a, 4), user);
}
CommandResult setSystemConfig(Executor executor, Arguments a, uid_t) {
  return executor.setSystemConfigurationForApplicationID(stringAt(a, 0), stringAt(a, 1),
                                                         stringAt(a, 2), stringAt(a, 3));
}
CommandResult stopProcess(Executor executor, Arguments a, uid_t) {
  return executor.terminateProcessWithID(numberAt(a, 0).intValue());
}

// Permissions. The settings mask is 32 bits wide: a larger number keeps its low 32 bits.
CommandResult setAccessControlList(Executor executor, Arguments a, uid_t) {
  return executor.setAccessControlListAtPath(stringAt(a, 0), dataAt(a, 1));
}
CommandResult propagatePermissions(Executor executor, Arguments a, uid_t) {
  return executor.propagatePermissionsAtPath(stringAt(a, 0), uintAt(a, 1), boolAt(a, 2),
                                             static_cast<std::uint32_t>(uintAt(a, 3)));
}
template <Error (KRVCommandExecutor::*method)()>
CommandResult withoutArguments(Executor executor, Arguments, uid_t) {
  return (executor.*method)();
}

// The class of the methods the records name, short enough for a record to fit a line.
using E = KRVCommandExecutor;

// One record per code, in code order. Adding a command family means pointing its records at
// functions that unpack the arguments and call the family's methods.
constexpr DispatchRecord kDispatchTable[] = {
    {kCommandNone, succeed},
    {kCommandGetVersion, getVersion},
    // The daemon answers a shutdown itself; an executor only ever sees it from a test.
    {kCommandShutdown, succeed},
    {kCommandWhoAmI, whoAmI},
    // File objects.
    {kCommandModifyFileContent, overwriteFile},
    {kCommandCreateFileObject, withTwoStrings<&E::createFileSystemObjectAtPath>},
    {kCommandRenameFileObject, withTwoStrings<&E::renameFileSystemObjectAtPath>},
    {kCommandDeleteFileObjects, deleteObjects},
    {kCommandDeleteFileSubtree, deleteSubtrees},
    {kCommandDeleteHibernationFile, withString<&E::deleteHibernationFileAtPath>},
    {kCommandModifyProtectAttribute, changeProtection},
    {kCommandRemoveSystemProtection,
     withString<&E::removeSystemProtectionForFileSystemObjectAtPath>},
    {kCommandSetHfsAttributes, setHfsAttributes},
    {kCommandCreateLink, createLink},
    // Searches and measurements.
    {kCommandSearchAgedFiles, searchAgedFiles},
    {kCommandInspectFileObject, withString<&E::inspectFileSystemObjectAtPath>},
    {kCommandSearchFilenamePattern, searchFilenamePattern},
    {kCommandGetStorageSize, withString<&E::getStorageSizeOfSubtreeAtPath>},
    // System settings.
    {kCommandModifyPowerManagement, setPowerManagementOption},
    {kCommandSetDiskSpindown, setDiskSpindown},
    {kCommandSetKernelValue, setKernelValue},
    {kCommandSetNvram, withTwoStrings<&E::setNVRAMVariableNamed>},
    {kCommandSetNetworkMtu, setNetworkMtu},
    {kCommandReserved, refuseUnknown},
    {kCommandSetSystemPreference, setSystemPreference},
    {kCommandSetSystemConfig, setSystemConfig},
    {kCommandRefreshAutomounter, withoutArguments<&E::refreshAutomounts>},
    {kCommandRestartNfsServer, withoutArguments<&E::restartNFSFileServer>},
    {kCommandStopStartsoundControl, withoutArguments<&E::shutdownKWSAudioControlTool>},
    {kCommandStopProcess, stopProcess},
    {kCommandFlushLookupCache, withoutArguments<&E::flushLookupCache>},
    // Permissions: the tools run as programs; lists and propagation are the daemon's own.
    {kCommandManageAclSupport, withArgumentList<&E::manageACLSupportWithArguments>},
    {kCommandModifyPosixPermissions, withArgumentList<&E::changePOSIXPermissionsWithArguments>},
    {kCommandModifyOwnership, withArgumentList<&E::changeOwnerWithArguments>},
    {kCommandModifyAclPermissions, setAccessControlList},
    {kCommandPropagatePermissions, propagatePermissions},
    // System programs.
    {kCommandUpdateDyldCache, withArgumentList<&E::updateDyLdCacheWithArguments>},
    {kCommandExecuteDitto, withArgumentList<&E::executeDittoWithArguments>},
    {kCommandMountFileSystem, withArgumentList<&E::executeMountWithArguments>},
    {kCommandExecutePeriodic, withArgumentList<&E::executePeriodicWithArguments>},
    {kCommandExecuteDiskutil, withArgumentList<&E::executeDiskUtilityWithArguments>},
    {kCommandExecuteMdutil, withArgumentList<&E::executeMDUtilityWithArguments>},
    {kCommandExecuteLipo, withArgumentList<&E::executeLipoWithArguments>},
    {kCommandExecuteAtsutil, withArgumentList<&E::executeATSUtilityWithArguments>},
    {kCommandExecuteLaunchctl, withArgumentList<&E::executeLaunchControlWithArguments>},
    {kCommandExecuteCupsctl, withArgumentList<&E::executeCUPSControlWithArguments>},
    {kCommandSearchNamePatterns, searchNamePatterns},
    {kCommandExecutePackageRepair,
     withArgumentList<&E::executeRepairPackagePermissionsWithArguments>},
    {kCommandTouchFileObject, withString<&E::touchFileSystemObjectAtPath>},
    {kCommandDeleteFolderContents, deleteFolderContents},
    {kCommandExecuteUmount, withArgumentList<&E::executeUnmountCommandWithArguments>},
    {kCommandCountFileObjects, withTwoStrings<&E::countFileSystemObjectsAtPath>},
    // Folder comparison.
    {kCommandCompareFolders, compareFolders},
    // The daemon prepares the uninstallation itself; an executor only ever sees it from a test.
    {kCommandPrepareUninstallation, succeed},
    {kCommandExecuteTmutil, withArgumentList<&E::executeTMUtilityWithCommands>},
};

constexpr bool isInCodeOrder() {
  for (std::uint32_t code = 0; code < std::size(kDispatchTable); ++code) {
    if (kDispatchTable[code].code != code || kDispatchTable[code].run == nullptr) return false;
  }
  return true;
}
static_assert(std::size(kDispatchTable) == kNumberOfCommandCodes, "one record per command code");
static_assert(isInCodeOrder(), "the record of each code sits at its index and names a runner");

// Restores the file-creation mask and the live-output flag however the command ends.
class CommandScope {
 public:
  CommandScope(bool& liveFlag, bool live)
      : m_liveFlag(liveFlag), m_savedMask(sys::setFileCreationMask(0)) {
    m_liveFlag = live;
  }
  ~CommandScope() {
    sys::setFileCreationMask(m_savedMask);
    m_liveFlag = false;
  }
  CommandScope(const CommandScope&) = delete;
  CommandScope& operator=(const CommandScope&) = delete;

 private:
  bool& m_liveFlag;
  mode_t m_savedMask;
};

}  // namespace

CommandResult KRVCommandExecutor::executeCommand(const KRVPrivilegedCommand& command) {
  // The mask is process-wide: it is 0 for every thread while any command runs, and the last
  // command to finish restores the mask that was current when it started.
  CommandScope scope(m_isSendingLiveData, command.isSendingLiveOutputReports());
  const std::uint32_t code = command.commandCode();
  if (code > kHighestCommandCode) return commandError(kResultUnknownCommand);
  return kDispatchTable[code].run(*this, command.arguments(), command.userIdentification());
}

Error KRVCommandExecutor::getVersionInformation() {
  Dictionary userInfo;
  userInfo.set(key::kCommandImplementationVersion, Value::integer(KRVPrivilegedCommand::version()));
  userInfo.set(key::kAgentVersionMajor, Value::unsignedInteger(kVersionMajor));
  userInfo.set(key::kAgentVersionMinor, Value::unsignedInteger(kVersionMinor));
  userInfo.set(key::kAgentVersionBuild, Value(kVersionBuild));
  return commandError(kResultSuccess, std::move(userInfo));
}

CommandResult KRVCommandExecutor::performWhoAmIDiagnostic(std::uint64_t steps) {
  for (std::uint64_t step = 0; step < steps; ++step) {
    if (!sendProgressMessageToClient(static_cast<double>(step) / static_cast<double>(steps))) {
      return std::nullopt;  // the client is gone: no final message
    }
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  return executeSystemProgramAtPath("/usr/bin/whoami", Array());
}

}  // namespace krv
