#pragma once
// What the whole-system benchmarks share: a private sandbox with the authorization service and
// the daemon started by socket activation, as the service manager would start them.

#include <sys/types.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>

#include "tests/support/Sandbox.h"
#include "tests/support/ServiceProcess.h"

namespace krv::bench {

// A memory figure of a process in KiB from /proc/<pid>/status ("VmRSS:", "VmHWM:"); -1 if none.
inline long statusKiB(pid_t pid, const char* field) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::stol(line.substr(std::string(field).size()));
  }
  return -1;
}

// The processor time a process has used so far (user and system, all its threads), in seconds.
inline double processorSecondsOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), std::istreambuf_iterator<char>());
  // The fields after the command name (which may hold spaces) start after its ")".
  const std::size_t end = text.rfind(')');
  if (end == std::string::npos) return 0;
  std::istringstream fields(text.substr(end + 1));
  std::string field;
  double ticks = 0;
  for (int index = 3; fields >> field && index <= 15; ++index) {
    if (index >= 14) ticks += std::atof(field.c_str());  // utime, stime
  }
  return ticks / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

struct Services {
  test::ServiceProcess authority;
  test::ServiceProcess daemon;
};

// Enters the sandbox and starts both services from the build folder `binaries`. Needs root;
// reports why on standard error when it fails.
inline std::optional<Services> startServices(const std::string& binaries) {
  if (Status sandbox = test::enterPrivateSandbox(); !sandbox) {
    std::fprintf(stderr, "needs root: %s\n", sandbox.error().description().c_str());
    return std::nullopt;
  }
  Result<test::ServiceProcess> authority =
      test::ServiceProcess::start({"/run/com.tavorin.system.authority.socket",
                                   binaries + "/authorization/service/com.tavorin.system.authority",
                                   {},
                                   {},
                                   0666});
  Result<test::ServiceProcess> daemon =
      test::ServiceProcess::start({"/run/com.tavorin.system.securityagent3.socket",
                                   binaries + "/daemon/com.tavorin.system.securityagent3",
                                   {},
                                   {},
                                   0666});
  if (!authority || !daemon) {
    std::fprintf(stderr, "cannot start the services\n");
    return std::nullopt;
  }
  return Services{std::move(*authority), std::move(*daemon)};
}

}  // namespace krv::bench
