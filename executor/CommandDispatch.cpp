// Dispatch by command code: arguments are picked out of the request, converted to the types the
// command's method takes, and the method's result is returned unchanged.

#include <sys/stat.h>

#include <chrono>
#include <string>
#include <thread>

#include "executor/KRVCommandExecutor.h"
#include "foundation/NameValue.h"

namespace krv {

namespace {

constexpr std::uint32_t kHighestCommandCode = 54;

// Shared result codes of the dispatcher.
constexpr std::int64_t kUnknownCommandCode = 1;
constexpr std::int64_t kArgumentOutOfRange = 3;
constexpr std::int64_t kArgumentListMalformed = 4;

// The request passed validation, so argument kinds are known; these read them. A string argument
// is a path or a name that came as text or as bytes; either way it is read as its bytes.
std::string stringAt(const Array& arguments, std::size_t index) {
  return nameBytes(arguments[index]).value_or(std::string());
}
const Data& dataAt(const Array& arguments, std::size_t index) { return *arguments[index].asData(); }
const Number& numberAt(const Array& arguments, std::size_t index) {
  return *arguments[index].asNumber();
}
bool boolAt(const Array& arguments, std::size_t index) {
  return numberAt(arguments, index).boolValue();
}
std::uint64_t uintAt(const Array& arguments, std::size_t index) {
  return numberAt(arguments, index).unsignedIntegerValue();
}

// Restores the file-creation mask and the live-output flag however the command ends.
class CommandScope {
 public:
  CommandScope(bool& liveFlag, bool live) : m_liveFlag(liveFlag), m_savedMask(::umask(0)) {
    m_liveFlag = live;
  }
  ~CommandScope() {
    ::umask(m_savedMask);
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
  const Array& a = command.arguments();
  // The mask is process-wide: it is 0 for every thread while any command runs, and the last
  // command to finish restores the mask that was current when it started.
  CommandScope scope(m_isSendingLiveData, command.isSendingLiveOutputReports());

  const std::uint32_t code = command.commandCode();
  if (code > kHighestCommandCode) return commandError(kUnknownCommandCode);
  switch (code) {
    case 0:
    case 2:
    case 53:
      return commandSuccess();
    case 1:
      return getVersionInformation();
    case 3:
      return performWhoAmIDiagnostic(uintAt(a, 0));
    case 4:
      return overwriteSystemFileAtPath(stringAt(a, 0), dataAt(a, 1), boolAt(a, 2));
    case 5:
      return createFileSystemObjectAtPath(stringAt(a, 0), stringAt(a, 1));
    case 6:
      return renameFileSystemObjectAtPath(stringAt(a, 0), stringAt(a, 1));
    case 7: {
      if (a.size() < 2) return commandError(kArgumentListMalformed);
      const std::string& mode = stringAt(a, 0);
      if (mode != "0" && mode != "1") return commandError(kArgumentOutOfRange);
      return deleteFileSystemObjectsAtPaths(Array(a.begin() + 1, a.end()), mode == "1");
    }
    case 8:
      if (a.empty()) return commandError(kArgumentListMalformed);
      return deleteFileSystemObjectsRecursivelyAtPaths(a);
    case 9:
      return deleteHibernationFileAtPath(stringAt(a, 0));
    case 10:
      return changeProtectionAttributeAtPath(stringAt(a, 0), boolAt(a, 1), boolAt(a, 2),
                                             boolAt(a, 3));
    case 11:
      return removeSystemProtectionForFileSystemObjectAtPath(stringAt(a, 0));
    case 12:
      return setAtPath(stringAt(a, 0), numberAt(a, 1).unsignedLongValue(),
                       numberAt(a, 2).unsignedLongValue(), boolAt(a, 3));
    case 13:
      return createLinkAtPath(stringAt(a, 0), stringAt(a, 1), boolAt(a, 2));
    case 14:
      return searchForFileSystemObjectsOlderThanDays(stringAt(a, 0), uintAt(a, 1), boolAt(a, 2));
    case 15:
      return inspectFileSystemObjectAtPath(stringAt(a, 0));
    case 16:
      return searchForFileSystemObjectsWithPrefix(stringAt(a, 0), stringAt(a, 1), stringAt(a, 2),
                                                  boolAt(a, 3));
    case 17:
      return getStorageSizeOfSubtreeAtPath(stringAt(a, 0));
    case 36:
      return updateDyLdCacheWithArguments(a);
    case 37:
      return executeDittoWithArguments(a);
    case 38:
      return executeMountWithArguments(a);
    case 39:
      return executePeriodicWithArguments(a);
    case 40:
      return executeDiskUtilityWithArguments(a);
    case 41:
      return executeMDUtilityWithArguments(a);
    case 42:
      return executeLipoWithArguments(a);
    case 43:
      return executeATSUtilityWithArguments(a);
    case 44:
      return executeLaunchControlWithArguments(a);
    case 45:
      return executeCUPSControlWithArguments(a);
    case 31:
      return manageACLSupportWithArguments(a);
    case 32:
      return changePOSIXPermissionsWithArguments(a);
    case 33:
      return changeOwnerWithArguments(a);
    case 46: {
      if (a.size() < 4 || a.size() % 2 != 0) return commandError(kArgumentListMalformed);
      // Only "0" turns staying on the start volume off (the opposite default of code 7's mode).
      const bool stay = stringAt(a, 1) != "0";
      return searchForFileSystemObjectsWithNamePatterns(stringAt(a, 0), stay,
                                                        Array(a.begin() + 2, a.end()));
    }
    case 47:
      return executeRepairPackagePermissionsWithArguments(a);
    case 48:
      return touchFileSystemObjectAtPath(stringAt(a, 0));
    case 49:
      if (a.empty()) return commandError(kArgumentListMalformed);
      return deleteFileSystemFolderContentsAtPaths(a);
    case 50:
      return executeUnmountCommandWithArguments(a);
    case 51:
      return countFileSystemObjectsAtPath(stringAt(a, 0), stringAt(a, 1));
    case 52:
      return compareFoldersAtPath(stringAt(a, 0), stringAt(a, 1), stringAt(a, 2), uintAt(a, 3),
                                  uintAt(a, 4));
    case 54:
      return executeTMUtilityWithCommands(a);
    default:
      // System settings and access control lists, and the reserved code.
      if (code == kCommandReserved) return commandError(kUnknownCommandCode);
      return commandNotAvailable();
  }
}

Error KRVCommandExecutor::getVersionInformation() {
  Dictionary userInfo;
  userInfo.set(key::kCommandImplementationVersion, Value::integer(KRVPrivilegedCommand::version()));
  userInfo.set(key::kAgentVersionMajor, Value::unsignedInteger(kVersionMajor));
  userInfo.set(key::kAgentVersionMinor, Value::unsignedInteger(kVersionMinor));
  userInfo.set(key::kAgentVersionBuild, Value(kVersionBuild));
  return commandError(0, std::move(userInfo));
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
