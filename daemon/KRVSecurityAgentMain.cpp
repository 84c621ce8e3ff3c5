// The daemon's entry: the command line, then the daemon's run.
//
//   com.tavorin.system.securityagent3       run as a daemon
//   com.tavorin.system.securityagent3 d     run as a daemon, copying every log line to stderr
//   com.tavorin.system.securityagent3 v     print the version line and exit
// Only the first character of the one argument counts; anything else exits with status 1.

#include <cstdio>

#include "daemon/SecurityAgentDaemon.h"
#include "executor/KRVCommandExecutor.h"

int main(int argc, char** argv) {
  if (argc > 2) return 1;
  bool debug = false;
  if (argc == 2) {
    switch (argv[1][0]) {
      case 'v': {
        unsigned major = 0;
        unsigned minor = 0;
        std::string build;
        krv::KRVCommandExecutor::getVersion(&major, &minor, &build);
        std::printf("%s: version %u.%u (build %s)\n", krv::kDaemonIdentification, major, minor,
                    build.c_str());
        return 0;
      }
      case 'd':
        debug = true;
        break;
      default:
        return 1;
    }
  }
  krv::SecurityAgentDaemon daemon(debug);
  return daemon.run();
}
