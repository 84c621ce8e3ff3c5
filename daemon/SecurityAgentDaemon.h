#pragma once
// The daemon process: start-up state, the event loop that accepts one connection at a time under
// a 4-second watchdog, the serving of one request, and the right definitions.
//
// The class is defined in SecurityAgentDaemon.cpp (start-up, event loop), ConnectionHandler.cpp
// (one request) and CheckIn.cpp (the service manager's socket); the right definitions are free
// functions in RightDefinitions.cpp.
//
// Everything here runs on the main thread. Executor threads run beside it and are only counted
// (KRVCommandExecutor::numberOfRunningExecutorThreads). The shutdown flag and the throttle delay
// are written by the main thread only.

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/SystemLog.h"

namespace krv {

inline constexpr const char* kDaemonIdentification = "com.tavorin.system.securityagent3";
inline constexpr const char* kDaemonFacility = "Daemon";

// A response pipe just created: its path and the identity of the FIFO behind it, which the
// command's thread checks when it opens the path (the client owns the pipe and could swap it).
struct ResponsePipe {
  std::string path;
  dev_t device = 0;
  ino_t inode = 0;
};

class SecurityAgentDaemon {
 public:
  // Exit statuses of a daemon run.
  static constexpr int kExitNormal = 0;
  static constexpr int kExitSetupFailure = 13;
  // Seconds without a connection after which the loop returns.
  static constexpr int kIdleTimeoutSeconds = 120;
  // Seconds one request may take before the watchdog ends the process.
  static constexpr unsigned kWatchdogSeconds = 4;

  explicit SecurityAgentDaemon(bool debug);

  // Start-up after the command line: right definitions, signals, check-in, event queue, loop.
  // Returns the exit status.
  int run();

  // Serves one accepted, blocking connection: success when the reply was written, else the POSIX
  // error (EIO for an object that is not a valid command; no reply is written then).
  Status handleConnectionRequest(int socket);
  // Creates the response FIFO for a request (mode 0600, owner uid, group 1) and notes which FIFO
  // it is; nothing on failure (logged).
  std::optional<ResponsePipe> createClientPipeReadableByUID(uid_t uid);

  SystemLog& log() { return m_log; }
  bool isShuttingDown() const { return m_shutdown; }

 private:
  int setupFailure(std::string_view message);
  int setupFailure(LogTemplate message, const Error& error);
  int socketFromLaunchDCheckIn();
  void runUsingQueue(int queue);
  void throttleIfBusy();

  bool m_debug;
  SystemLog m_log;
  bool m_shutdown = false;
  std::uint32_t m_throttleDelay = 0;  // microseconds
  int m_listeningSocket = -1;
};

// Sets or clears O_NONBLOCK, writing the flags only when they differ; EINVAL for a negative
// descriptor.
Status setSocketMode(int fd, bool nonBlocking);

// The right definitions of the command table in the rights store.
bool allRightsDefined();
bool setupRightDefinitions();
bool removeRightDefinitions(SystemLog& log);

}  // namespace krv
