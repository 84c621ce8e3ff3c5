#pragma once
// KRVCommandExecutor: carries out one accepted request on a thread of its own and is, from then
// on, the only party that talks to the client. It opens the request's response pipe, runs the
// command (dispatch by code), streams intermediate reports (progress values, chunks of result
// lists, live output of external programs) and ends with exactly one final message.
//
// Ownership and threads: the connection handler creates the executor on the daemon's main thread,
// gives it its log and its pipe path, and hands it, with the command, to a detached thread
// (startThread). After that only that thread touches the executor. The running-thread counter is
// the one piece of state shared between threads; it is read and written under the executor lock.
//
// The command families live in their own files (one per family); every command method returns
// the command's result, an Error in the command error domain (code 0 is success), or nothing when
// the client went away and no final message must be written.

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "executor/KRVTaskExecutor.h"
#include "executor/PayloadChunk.h"
#include "executor/SystemSettingsHost.h"
#include "foundation/Error.h"
#include "foundation/SystemLog.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"
#include "platform/SafePathResolver.h"
#include "protocol/KRVPrivilegedCommand.h"

namespace krv {

// What a command method returns: a result, or nothing when the client is gone.
using CommandResult = std::optional<Error>;

class KRVCommandExecutor final : public TaskDelegate {
 public:
  static constexpr unsigned kVersionMajor = 3;
  static constexpr unsigned kVersionMinor = 1;
  static constexpr const char* kVersionBuild = "121004";
  // Output kept per stream of an external program; a result larger than one data block could not
  // reach the client anyway.
  static constexpr std::size_t kMaximumCollectedOutput = 1048576 + 1;

  // Stores 3, 1 and "121004" into the targets that are non-null.
  static void getVersion(unsigned* major, unsigned* minor, std::string* build);
  static std::int64_t numberOfRunningExecutorThreads();
  // Waits until at most `count` command threads run (those starting included), without polling;
  // false when more still run at the timeout. Any thread may call it.
  static bool waitForRunningExecutorThreads(std::int64_t count, std::chrono::milliseconds timeout);

  KRVCommandExecutor() = default;
  ~KRVCommandExecutor() override;
  KRVCommandExecutor(const KRVCommandExecutor&) = delete;
  KRVCommandExecutor& operator=(const KRVCommandExecutor&) = delete;

  // Gives the executor its own log connection. Both names must be non-null (a programming error
  // otherwise).
  void useAppleSystemLoggingWithIdentification(const char* identification, const char* facility,
                                               std::uint32_t options);
  // Stores the pipe path (nothing clears it); never closes a descriptor.
  void setPathOfClientCommunicationPipe(std::optional<std::string> path);
  // The FIFO the daemon created at the pipe path. When set, the thread writes only into that very
  // FIFO (not into whatever the client, who owns the path, put there since), and removes it when
  // the client never opened it.
  void setExpectedPipeIdentity(dev_t device, ino_t inode) { m_expectedPipe = {device, inode}; }

  // The body of a command thread, run on the calling thread: counts itself in, opens the pipe,
  // runs the command, gives up the authorization, writes the final message, counts itself out.
  void executeCommandOnCallingThread(std::shared_ptr<const KRVPrivilegedCommand> command);
  // Detaches a thread that runs that same body; the thread owns both objects. The
  // thread is counted as running from before it is created, so that a daemon deciding to exit
  // right after this call never ends a command that has not yet counted itself. When no thread
  // can be created (the process is out of threads or memory) the command never runs: the failure
  // is logged, the authorization is discarded as after a run, the pipe is removed while it is
  // still the FIFO the daemon created, and the POSIX error of the creation is returned, so that
  // the client can be told instead of waiting at a pipe that nobody will write.
  static Status startThread(std::unique_ptr<KRVCommandExecutor> executor,
                            std::shared_ptr<const KRVPrivilegedCommand> command);

  // ---- Client reporting ----
  // The open write end of the response pipe (the thread body opens it from the path; exposed so
  // that reporting works on any descriptor).
  void setPipeDescriptor(UniqueFd pipe) { m_pipe = std::move(pipe); }
  bool sendProgressMessage(const Error& message);
  bool sendProgressMessageToClient(double progress);
  // Sends the array in chunks of `granularity` elements under `key`, with the progress values
  // clients rely on (see ClientReporting.cpp). A zero granularity, an empty key or a negative or
  // NaN offset is a programming error.
  bool sendPayloadArray(const Array& payload, std::string_view key, std::size_t granularity,
                        double progressOffset);
  // Sends one chunk built in place (executor/PayloadChunk.h) with `progress`, and empties it; the
  // same message, and the same handling of a failed send, as a chunk of sendPayloadArray. Lists
  // too long to hold as values (the records of a search) are sent this way.
  bool sendPayloadChunk(PayloadChunk& chunk, double progress);
  void sendFinalMessageToClientPipeAndClose(const CommandResult& message);
  bool isSendingLiveData() const { return m_isSendingLiveData; }
  // True when the client has closed its end of the response pipe (or the pipe is closed), found
  // without writing: long walks that send nothing until their end use it to stop early.
  bool isClientGone() const;

  // ---- External program output (TaskDelegate) ----
  void clearSubCommandOutput();
  void receiveTaskOutput(const Data& data, bool isError) override;
  void taskDidLaunch(KRVTaskExecutor& task) override;
  const Data& incomingStdOutData() const { return m_incomingStdOutData; }
  const Data& incomingStdErrData() const { return m_incomingStdErrData; }

  // ---- Shared helpers of the command families ----
  static bool sendSignal(int signal, pid_t processIdentifier);
  // The number a run file holds, or 0 when it cannot be read. The path is resolved safely (a
  // user's link leads only to her own objects); only a regular file of at most 4 KiB is read.
  static std::int64_t processIdentifierForRunFileAtPath(const std::string& path);
  // The device number of the object itself (links not followed); all ones when lstat fails.
  static std::uint32_t fileSystemIDForPath(const std::string& path);
  SystemLog* log() { return m_log.get(); }
  // The safe resolution of client-named paths for the commands that change something; refusals
  // go to this executor's log.
  SafePathResolver pathResolver() const { return SafePathResolver(m_log.get()); }

  // ---- Dispatch ----
  CommandResult executeCommand(const KRVPrivilegedCommand& command);
  Error getVersionInformation();
  CommandResult performWhoAmIDiagnostic(std::uint64_t steps);

  // ---- External programs (ProgramCommands.cpp) ----
  Error executeSystemProgramAtPath(const std::string& path, const Array& arguments,
                                   bool keepingPathEnvironment = false);
  Error updateDyLdCacheWithArguments(const Array& arguments);
  Error executeDittoWithArguments(const Array& arguments);
  Error executeMountWithArguments(const Array& arguments);
  Error executePeriodicWithArguments(const Array& arguments);
  Error executeDiskUtilityWithArguments(const Array& arguments);
  Error executeMDUtilityWithArguments(const Array& arguments);
  Error executeLipoWithArguments(const Array& arguments);
  Error executeATSUtilityWithArguments(const Array& arguments);
  Error executeLaunchControlWithArguments(const Array& arguments);
  Error executeCUPSControlWithArguments(const Array& arguments);
  Error executeRepairPackagePermissionsWithArguments(const Array& arguments);
  Error executeUnmountCommandWithArguments(const Array& arguments);
  Error executeTMUtilityWithCommands(const Array& arguments);
  Error manageACLSupportWithArguments(const Array& arguments);
  Error changePOSIXPermissionsWithArguments(const Array& arguments);
  Error changeOwnerWithArguments(const Array& arguments);
  // Runs the program of a constant path, or its Linux counterpart (platform/SystemPrograms.h);
  // code 5 with the constant path when neither exists.
  Error executeSystemProgramOrCounterpart(const char* constantPath, const Array& arguments);

  // ---- File objects (FileObjectCommands.cpp) ----
  Error overwriteSystemFileAtPath(const std::string& path, const Data& content, bool removeBackup);
  Error createFileSystemObjectAtPath(const std::string& path, const std::string& typeCode);
  Error renameFileSystemObjectAtPath(const std::string& path, const std::string& newPath);
  CommandResult deleteFileSystemObjectsAtPaths(const Array& paths, bool stopOnFirstError);
  CommandResult deleteFileSystemObjectsRecursivelyAtPaths(const Array& paths);
  CommandResult deleteFileSystemFolderContentsAtPaths(const Array& paths);
  Error deleteHibernationFileAtPath(const std::string& path);
  Error changeProtectionAttributeAtPath(const std::string& path, bool protect, bool recursively,
                                        bool stayOnFileSystem);
  Error removeSystemProtectionForFileSystemObjectAtPath(const std::string& path);
  Error setAtPath(const std::string& path, std::uint64_t typeCode, std::uint64_t creatorCode,
                  bool visibility);
  Error createLinkAtPath(const std::string& path, const std::string& targetPath, bool hard);
  Error touchFileSystemObjectAtPath(const std::string& path);

  // ---- Searches and measurements (SearchCommands.cpp) ----
  CommandResult searchForFileSystemObjectsOlderThanDays(const std::string& path, std::uint64_t days,
                                                        bool stayOnFileSystem);
  Error inspectFileSystemObjectAtPath(const std::string& path);
  CommandResult searchForFileSystemObjectsWithPrefix(const std::string& path,
                                                     const std::string& prefix,
                                                     const std::string& extension,
                                                     bool matchFolders);
  Error getStorageSizeOfSubtreeAtPath(const std::string& path);
  CommandResult searchForFileSystemObjectsWithNamePatterns(const std::string& path,
                                                           bool stayOnFileSystem,
                                                           const Array& patterns);
  Error countFileSystemObjectsAtPath(const std::string& path, const std::string& markerPath);

  // ---- System settings (SystemSettingCommands.cpp, PreferenceCommands.cpp,
  // ServiceCommands.cpp) ----
  // Where they act; the daemon never changes the default (see SystemSettingsHost.h).
  void setSystemSettingsHost(SystemSettingsHost host) { m_settingsHost = std::move(host); }
  Error setPowerManagementOptionNamed(const std::string& key, std::int64_t value);
  Error setDiskSpindownTime(std::uint64_t minutes);
  Error setKernelSettingNamed(const std::string& name, std::int64_t value);
  Error setNVRAMVariableNamed(const std::string& name, const std::string& value);
  Error setNetworkInterface(const std::string& name, std::int32_t mtu);
  // `requestingUser` is the user the request names: the current user of the preferences.
  Error setPreferenceWithKey(const std::string& key, const std::string& applicationDomain,
                             const std::string& userDomain, const std::string& hostDomain,
                             const std::string& value, uid_t requestingUser);
  Error setSystemConfigurationForApplicationID(const std::string& applicationID,
                                               const std::string& domain, const std::string& key,
                                               const std::string& value);
  Error refreshAutomounts();
  Error restartNFSFileServer();
  Error shutdownKWSAudioControlTool();
  Error terminateProcessWithID(std::int32_t processIdentifier);
  Error flushLookupCache();
  // Makes the source's profile custom, activates the profiles and sets the key of the source's
  // preferences, which must already hold it; true when all of that succeeded, or when the machine
  // has no such source. Missing arguments are false.
  bool setPowerManagementValue(const std::optional<Value>& value, const std::string& key,
                               Dictionary* preferences, const std::string& powerSource,
                               Dictionary* profiles);

  // ---- Folder comparison (FolderComparisonCommands.cpp) ----
  CommandResult compareFoldersAtPath(const std::string& firstPath, const std::string& secondPath,
                                     const std::string& abortMarkerPath,
                                     std::uint64_t expectedCount, std::uint64_t compareMode);

  // ---- Access control lists and propagated permissions (PermissionCommands.cpp) ----
  // Sets the list of a byte form on the object (a final link followed by the rule). Code 3 for an
  // empty path, empty data or a malformed form; otherwise FailingPath and UnderlyingErrorCode with
  // code 20 and the errno when the list could not be set, code 0 and 0 when it was.
  Error setAccessControlListAtPath(const std::string& path, const Data& data);
  // Copies the folder's settings the mask names to every object the walk of the folder yields
  // (executor/PermissionPropagation.h), reporting progress every 100 objects; nothing when the
  // final report cannot be delivered.
  CommandResult propagatePermissionsAtPath(const std::string& path,
                                           std::uint64_t expectedObjectCount, bool stayOnFileSystem,
                                           std::uint32_t settingsMask);

 private:
  // The start routine of startThread's threads (the argument is the work handed over); it runs
  // the thread body for a thread that startThread counted in advance.
  static void* runStartedThread(void* argument);
  void runThreadBody(std::shared_ptr<const KRVPrivilegedCommand> command, bool countedByStarter);
  bool finishIntermediateSend(Status sent);

  std::unique_ptr<SystemLog> m_log;
  std::optional<std::string> m_pipePath;
  std::optional<std::pair<dev_t, ino_t>> m_expectedPipe;
  UniqueFd m_pipe;
  Data m_incomingStdOutData;
  Data m_incomingStdErrData;
  std::optional<Data> m_providedStdInData;  // no command sets it; kept for program input
  bool m_isSendingLiveData = false;
  SystemSettingsHost m_settingsHost;
};

// The error of a command result in the command error domain.
Error commandError(std::int64_t code, Dictionary userInfo = {});
// Success (code 0, no user information).
Error commandSuccess();
// A command error with user information {FailingPath: path}.
Error commandErrorWithFailingPath(std::int64_t code, const std::string& path);

}  // namespace krv
