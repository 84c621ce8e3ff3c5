#pragma once
// The numbers of the command protocol by name: every command code a client may send (0-54, 23
// reserved) and the result codes of the command error domain. The numbers travel on the wire and
// are fixed; the command table (protocol/CommandTable.h) describes each command, the dispatch
// (executor/CommandDispatch.cpp) runs it, and the client explains the results. Constant data.

#include <cstdint>

namespace krv {

// The command codes, named after their rights ("com.tavorin.create.file-object" is
// kCommandCreateFileObject).
enum CommandCode : std::uint32_t {
  kCommandNone = 0,
  kCommandGetVersion = 1,
  kCommandShutdown = 2,
  kCommandWhoAmI = 3,
  kCommandModifyFileContent = 4,
  kCommandCreateFileObject = 5,
  kCommandRenameFileObject = 6,
  kCommandDeleteFileObjects = 7,
  kCommandDeleteFileSubtree = 8,
  kCommandDeleteHibernationFile = 9,
  kCommandModifyProtectAttribute = 10,
  kCommandRemoveSystemProtection = 11,
  kCommandSetHfsAttributes = 12,
  kCommandCreateLink = 13,
  kCommandSearchAgedFiles = 14,
  kCommandInspectFileObject = 15,
  kCommandSearchFilenamePattern = 16,
  kCommandGetStorageSize = 17,
  kCommandModifyPowerManagement = 18,
  kCommandSetDiskSpindown = 19,
  kCommandSetKernelValue = 20,
  kCommandSetNvram = 21,
  kCommandSetNetworkMtu = 22,
  kCommandReserved = 23,  // no command; answered as an unknown code
  kCommandSetSystemPreference = 24,
  kCommandSetSystemConfig = 25,
  kCommandRefreshAutomounter = 26,
  kCommandRestartNfsServer = 27,
  kCommandStopStartsoundControl = 28,
  kCommandStopProcess = 29,
  kCommandFlushLookupCache = 30,
  kCommandManageAclSupport = 31,
  kCommandModifyPosixPermissions = 32,
  kCommandModifyOwnership = 33,
  kCommandModifyAclPermissions = 34,
  kCommandPropagatePermissions = 35,
  kCommandUpdateDyldCache = 36,
  kCommandExecuteDitto = 37,
  kCommandMountFileSystem = 38,
  kCommandExecutePeriodic = 39,
  kCommandExecuteDiskutil = 40,
  kCommandExecuteMdutil = 41,
  kCommandExecuteLipo = 42,
  kCommandExecuteAtsutil = 43,
  kCommandExecuteLaunchctl = 44,
  kCommandExecuteCupsctl = 45,
  kCommandSearchNamePatterns = 46,
  kCommandExecutePackageRepair = 47,
  kCommandTouchFileObject = 48,
  kCommandDeleteFolderContents = 49,
  kCommandExecuteUmount = 50,
  kCommandCountFileObjects = 51,
  kCommandCompareFolders = 52,
  kCommandPrepareUninstallation = 53,
  kCommandExecuteTmutil = 54,
};

inline constexpr std::uint32_t kNumberOfCommandCodes = 55;
inline constexpr std::uint32_t kHighestCommandCode = kNumberOfCommandCodes - 1;

// Result codes in the command error domain ("com.tavorin.privilegedCommand"). Failures of the
// system itself travel in the POSIX domain with their errno instead.
enum CommandResultCode : std::int64_t {
  kResultSuccess = 0,
  kResultUnknownCommand = 1,           // a code above 54, or the reserved code
  kResultAuthorizationFailed = 2,      // with UnderlyingErrorCode, the authorization status
  kResultBadArgument = 3,              // an argument outside its allowed set (an empty path, ...)
  kResultMalformedArguments = 4,       // a variable argument list too short or of the wrong shape
  kResultUnsafeProgram = 5,            // with FailingPath, the program that fails the safety rule
  kResultProgramFailed = 6,            // the program's exit status was not 0 (with its output)
  kResultBackupIsFolder = 7,           // with FailingPath, the backup of a file to be overwritten
  kResultNotWritten = 8,               // with FailingPath, an object that could not be created
  kResultWhiteout = 9,                 // with FailingPath; Linux has no whiteouts
  kResultFlagsNotChanged = 10,         // with FailingPath
  kResultSystemProtected = 11,         // with FailingPath, an object carrying a system flag
  kResultPowerManagementFailed = 12,   // a power management setting could not be made
  kResultFirmwareVariableFailed = 13,  // a firmware variable could not be written
  kResultNotAPropertyList = 14,        // with UnderlyingErrorMessage, the parser's description
  kResultNotStored = 16,               // preference or system configuration values not stored
  kResultNoProcessInRunFile = 18,      // the run file named no process
  kResultSignalNotSent = 19,           // the signal could not be sent
  // With FailingPath and UnderlyingErrorCode (the errno): an object's access control list could
  // not be set or removed; an object inside a folder whose permissions are propagated could not be
  // read; its owner, group or permission bits could not be changed.
  kResultAclNotSet = 20,
  kResultStatusNotRead = 22,
  kResultPermissionsNotChanged = 24,
};

}  // namespace krv
