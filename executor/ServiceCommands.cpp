// Commands that poke system services and processes: the automounter refresh and the lookup-cache
// flush run their Linux counterparts (platform/SystemPrograms.h); the NFS server and the
// startup-sound tool are signalled through their run files; any process can be asked to end.

#include <fcntl.h>
#include <signal.h>

#include <cerrno>

#include "executor/KRVCommandExecutor.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "platform/SafePathResolver.h"
#include "platform/SettingValues.h"
#include "platform/SystemPrograms.h"
#include "protocol/CommandCodes.h"

namespace krv {

namespace {

constexpr const char* kNFSServerRunFile = "/var/run/nfsd.pid";
constexpr const char* kStartupSoundMarker = "/tmp/.KnobwerkStartupSound.txt";
constexpr std::size_t kMaximumRunFileSize = 4096;

struct RunFile {
  std::int64_t number = 0;
  uid_t owner = 0;
};

// A run file's number and owner. Run files may lie where users write (/tmp): the path is resolved
// safely, so a user's link leads only to her own objects, and only a regular file is opened (never
// a device or a FIFO that could hold the command up), without blocking and at most 4 KiB of it.
std::optional<RunFile> readRunFile(const std::string& path, SystemLog* log) {
  Result<PathHandle> file = SafePathResolver(log).object(path, LinkHandling::Follow);
  if (!file || !file->isRegularFile()) return std::nullopt;
  Result<UniqueFd> opened = file->reopen(O_RDONLY | O_NONBLOCK | O_NOCTTY);
  if (!opened) return std::nullopt;
  std::string text;
  std::uint8_t buffer[1024];
  for (;;) {
    Result<std::size_t> count = sys::read(opened->get(), buffer);
    if (!count) return std::nullopt;
    if (*count == 0) break;
    if (text.size() + *count > kMaximumRunFileSize) return std::nullopt;
    text.append(reinterpret_cast<const char*>(buffer), *count);
  }
  // The file is read as UTF-8 text; bytes that are not are no text and name no number.
  if (!isValidUtf8(text)) return std::nullopt;
  return RunFile{integerValueOfText(text), static_cast<uid_t>(file->status().stx_uid)};
}

// Signals the process a run file names. A run file that names nothing (or no run file) is code
// 18; a signal that is not sent is 19. A run file that a user owns can only name her own
// processes: anybody can write /tmp, and a user must not make an administrator's command end a
// process that is not hers. The process is pinned by a pidfd before its owner is read, so a
// process id given to another process meanwhile is never signalled.
Error signalProcessOfRunFile(const std::string& path, int signal, SystemLog* log) {
  std::optional<RunFile> runFile = readRunFile(path, log);
  // Only the low 32 bits of the number are a process id.
  const auto processIdentifier =
      static_cast<pid_t>(static_cast<std::uint32_t>(runFile ? runFile->number : 0));
  if (processIdentifier == 0) return commandError(kResultNoProcessInRunFile);
  if (processIdentifier < 1) return commandError(kResultSignalNotSent);
  Result<UniqueFd> process = sys::pidfdOpen(processIdentifier);
  if (!process) return commandError(kResultSignalNotSent);
  if (runFile->owner != 0) {
    Result<struct stat> status = sys::stat("/proc/" + std::to_string(processIdentifier));
    if (!status || status->st_uid != runFile->owner) return commandError(kResultSignalNotSent);
  }
  if (!sys::pidfdSendSignal(process->get(), signal)) return commandError(kResultSignalNotSent);
  return commandSuccess();
}

Array argumentArray(const std::vector<std::string>& arguments) {
  Array array;
  for (const std::string& argument : arguments) array.emplace_back(argument);
  return array;
}

}  // namespace

std::int64_t KRVCommandExecutor::processIdentifierForRunFileAtPath(const std::string& path) {
  std::optional<RunFile> runFile = readRunFile(path, nullptr);
  return runFile ? runFile->number : 0;
}

Error KRVCommandExecutor::refreshAutomounts() {
  std::optional<ProgramInvocation> program =
      SystemPrograms(m_settingsHost.root).automounterRefresh();
  if (!program)
    return commandErrorWithFailingPath(kResultUnsafeProgram, SystemPrograms::kAutomounter);
  return executeSystemProgramAtPath(program->path, argumentArray(program->arguments));
}

Error KRVCommandExecutor::flushLookupCache() {
  std::optional<ProgramInvocation> program = SystemPrograms(m_settingsHost.root).lookupCacheFlush();
  if (!program) {
    return commandErrorWithFailingPath(kResultUnsafeProgram, SystemPrograms::kLookupCacheTool);
  }
  return executeSystemProgramAtPath(program->path, argumentArray(program->arguments));
}

Error KRVCommandExecutor::restartNFSFileServer() {
  return signalProcessOfRunFile(m_settingsHost.root.path(kNFSServerRunFile), SIGHUP, m_log.get());
}

Error KRVCommandExecutor::shutdownKWSAudioControlTool() {
  return signalProcessOfRunFile(m_settingsHost.root.path(kStartupSoundMarker), SIGKILL,
                                m_log.get());
}

Error KRVCommandExecutor::terminateProcessWithID(std::int32_t processIdentifier) {
  if (processIdentifier < 1) return commandError(kResultBadArgument);
  return sendSignal(SIGTERM, processIdentifier) ? commandSuccess()
                                                : commandError(kResultSignalNotSent);
}

}  // namespace krv
