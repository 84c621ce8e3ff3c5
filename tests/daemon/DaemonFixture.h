#pragma once
// The end-to-end fixture of the daemon: each test process enters a private sandbox (fresh /run and
// /tmp, overlays over /etc and /var/lib), starts the real authorization service and the real
// daemon binary behind listening sockets handed over as the service manager does, and talks to
// them through the real client library or the real command-line client. Like the service
// manager's socket units, the fixture keeps both listening sockets: a service that ended (its idle
// end, a shutdown, the watchdog, a crash) is started again by the next connection.
//
// The daemon runs with the "d" argument, so its log lines arrive on its standard error, which the
// fixture collects (daemonLog()). At the end of a test the fixture fails the test when either
// service's standard error shows a sanitizer report.

#include <gtest/gtest.h>
#include <sys/types.h>

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Error.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "tests/support/ServiceProcess.h"

namespace krv::test {

inline constexpr const char* kDaemonSocketPath = "/run/com.tavorin.system.securityagent3.socket";
inline constexpr const char* kAuthoritySocketPath = "/run/com.tavorin.system.authority.socket";

struct ProgramRun {
  int exitCode = -1;  // 128 + signal when a signal ended it; -1 when it timed out
  std::string standardOutput;
  std::string standardError;
};

// Runs a program with arguments as the given user (root by default), collecting its output.
ProgramRun runProgram(const std::string& path, const std::vector<std::string>& arguments,
                      uid_t uid = 0, gid_t gid = 0,
                      std::chrono::seconds timeout = std::chrono::seconds(60));

class DaemonTest : public testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // Starts the daemon and waits until it serves. With ThreadCreation::Refused the kernel refuses
  // the daemon every new thread, so no command can run; the start does not wait then.
  enum class ThreadCreation : std::uint8_t { Allowed, Refused };
  void startDaemon(ThreadCreation threads = ThreadCreation::Allowed);
  // The daemon's launch as startDaemon() makes it, for a test to adjust and start with the next.
  static ServiceLaunch daemonLaunch();
  void startDaemon(const ServiceLaunch& launch);
  ServiceProcess& daemon() { return *m_daemon; }
  ServiceProcess& authority() { return *m_authority; }
  std::string daemonLog() const { return m_daemon ? m_daemon->standardError() : std::string(); }
  // Waits until the daemon's log contains `text` (at least `times` times).
  bool waitForLog(const std::string& text, std::chrono::milliseconds timeout,
                  std::size_t times = 1);

  // The command-line client.
  ProgramRun runClient(const std::vector<std::string>& arguments, uid_t uid = 0, gid_t gid = 0);
  // One command through the client library of this (root) process; the intermediate reports go
  // to *reports when given.
  Error runCommand(std::uint32_t code, Array arguments, std::vector<Error>* reports = nullptr);

  // A raw exchange on the request socket: writes the payload in one data block and returns the
  // reply object, or the error of reading it (EPIPE when the daemon closed the connection).
  static Result<Value> exchange(const Data& payload);
  static Result<Value> exchange(const KRVPrivilegedCommand& command);

  static std::string binary(const char* name);

  // The confinement the daemon is started under, when a test mirrors its unit's.
  std::optional<ServiceConfinement> m_daemonConfinement;

 private:
  std::optional<ServiceProcess> m_authority;
  std::optional<ServiceProcess> m_daemon;
};

}  // namespace krv::test
