// Commands carried out by running one fixed system program with the client's arguments.

#include <cerrno>
#include <cstdlib>
#include <mutex>

#include "executor/KRVCommandExecutor.h"
#include "foundation/NameValue.h"
#include "platform/SystemPrograms.h"
#include "protocol/CommandCodes.h"

namespace krv {

namespace {

// The arguments' bytes, whether they came as text or as bytes; nothing when one holds a NUL byte
// (it would reach the program cut short) or is no string at all (requests were validated, so only
// a caller inside the daemon could pass one).
std::optional<std::vector<std::string>> programArguments(const Array& arguments) {
  std::vector<std::string> strings;
  strings.reserve(arguments.size());
  for (const Value& argument : arguments) {
    std::optional<std::string> bytes = nameBytes(argument);
    if (!bytes || bytes->find('\0') != std::string::npos) return std::nullopt;
    strings.push_back(std::move(*bytes));
  }
  return strings;
}

}  // namespace

Error KRVCommandExecutor::executeSystemProgramAtPath(const std::string& path,
                                                     const Array& arguments,
                                                     bool keepingPathEnvironment) {
  if (path.empty()) return commandError(kResultBadArgument);
  // An argument is passed exactly as the client sent it or not at all.
  std::optional<std::vector<std::string>> programArgumentBytes = programArguments(arguments);
  if (!programArgumentBytes) return commandError(kResultBadArgument);
  if (!KRVTaskExecutor::hasExecutableSafePermissionsAtPath(path)) {
    return commandErrorWithFailingPath(kResultUnsafeProgram, path);
  }
  if (!keepingPathEnvironment) {
    // For good and for the whole process: later programs run without PATH too, also those whose
    // command asked to keep it.
    std::lock_guard<std::mutex> lock(KRVTaskExecutor::environmentLock());
    ::unsetenv("PATH");
  }
  clearSubCommandOutput();
  Result<int> status = [&] {
    KRVHighLoadTaskExecutor task;
    task.setDelegate(this);
    return task.executeProgramAtPath(path, *programArgumentBytes);
  }();
  if (!status) {
    // The program passed the safety rule but could not be started (not executable, not a
    // program, ...): the launch's errno, with the program's path.
    Dictionary userInfo;
    userInfo.set(key::kFailingPath, nameValue(path));
    clearSubCommandOutput();
    return Error(std::string(kPosixErrorDomain), status.error().code(), std::move(userInfo));
  }
  Dictionary userInfo;
  userInfo.set(key::kOutputChannel, Value(std::move(m_incomingStdOutData)));
  userInfo.set(key::kErrorChannel, Value(std::move(m_incomingStdErrData)));
  userInfo.set(key::kUnderlyingErrorCode, Value::integer(*status));
  clearSubCommandOutput();
  return commandError(*status == 0 ? kResultSuccess : kResultProgramFailed, std::move(userInfo));
}

Error KRVCommandExecutor::executeSystemProgramOrCounterpart(const char* constantPath,
                                                            const Array& arguments) {
  std::optional<std::string> program = SystemPrograms(m_settingsHost.root).programFor(constantPath);
  if (!program) return commandErrorWithFailingPath(kResultUnsafeProgram, constantPath);
  return executeSystemProgramAtPath(*program, arguments);
}

Error KRVCommandExecutor::updateDyLdCacheWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/bin/update_dyld_shared_cache", arguments);
}
Error KRVCommandExecutor::executeDittoWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/bin/ditto", arguments);
}
Error KRVCommandExecutor::executeMountWithArguments(const Array& arguments) {
  return executeSystemProgramOrCounterpart("/sbin/mount", arguments);
}
Error KRVCommandExecutor::executePeriodicWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/sbin/periodic", arguments, true);
}
Error KRVCommandExecutor::executeDiskUtilityWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/sbin/diskutil", arguments);
}
Error KRVCommandExecutor::executeMDUtilityWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/bin/mdutil", arguments);
}
Error KRVCommandExecutor::executeLipoWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/bin/lipo", arguments);
}
Error KRVCommandExecutor::executeATSUtilityWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/bin/atsutil", arguments);
}
Error KRVCommandExecutor::executeLaunchControlWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/bin/launchctl", arguments);
}
Error KRVCommandExecutor::executeCUPSControlWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/sbin/cupsctl", arguments);
}
Error KRVCommandExecutor::executeRepairPackagePermissionsWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/libexec/repair_packages", arguments);
}
Error KRVCommandExecutor::executeUnmountCommandWithArguments(const Array& arguments) {
  return executeSystemProgramOrCounterpart("/sbin/umount", arguments);
}
Error KRVCommandExecutor::executeTMUtilityWithCommands(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/bin/tmutil", arguments);
}
Error KRVCommandExecutor::manageACLSupportWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/usr/sbin/fsaclctl", arguments);
}
Error KRVCommandExecutor::changePOSIXPermissionsWithArguments(const Array& arguments) {
  return executeSystemProgramAtPath("/bin/chmod", arguments);
}
Error KRVCommandExecutor::changeOwnerWithArguments(const Array& arguments) {
  return executeSystemProgramOrCounterpart("/usr/sbin/chown", arguments);
}

}  // namespace krv
