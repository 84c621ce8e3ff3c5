// krv-socket-activate: starts a socket-activated service where no service manager does (a
// container, CI, a demonstration machine).
//
//   krv-socket-activate [--mode OCTAL] [--setenv NAME=VALUE]... [--once] SOCKET PROGRAM [ARG]...
//
// Binds a Unix stream socket at SOCKET (mode 0666 unless --mode says otherwise) and listens. Each
// time a connection arrives while PROGRAM is not running, PROGRAM is started with the socket as
// descriptor 3 and LISTEN_PID, LISTEN_FDS=1 and LISTEN_FDNAMES=MasterSocket set, plus the --setenv
// variables, as the service manager would; a service that exits when idle is thus started again
// on the next connection. With --once the launcher ends with the first run of PROGRAM and returns
// its exit status. SIGINT and SIGTERM are passed on to a running PROGRAM and end the launcher.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/ServiceProcess.h"

namespace {

volatile sig_atomic_t g_stopSignal = 0;

extern "C" void noteStop(int signal) { g_stopSignal = signal; }

int usage() {
  std::fprintf(stderr,
               "usage: krv-socket-activate [--mode OCTAL] [--setenv NAME=VALUE]... [--once] "
               "SOCKET PROGRAM [ARG]...\n");
  return 2;
}

pid_t startProgram(int socket, const std::vector<char*>& argv,
                   const std::vector<std::string>& extraEnvironment) {
  pid_t pid = ::fork();
  if (pid != 0) return pid;
  // The launcher is single-threaded: the child may use the ordinary calls until exec.
  struct sigaction defaults {};
  defaults.sa_handler = SIG_DFL;
  ::sigaction(SIGINT, &defaults, nullptr);
  ::sigaction(SIGTERM, &defaults, nullptr);
  if (socket == 3) {
    // dup2 onto itself would keep close-on-exec set.
    if (::fcntl(3, F_SETFD, 0) != 0) ::_exit(127);
  } else if (::dup2(socket, 3) < 0) {
    ::_exit(127);
  }
  for (const std::string& entry : extraEnvironment) {
    std::size_t equals = entry.find('=');
    ::setenv(entry.substr(0, equals).c_str(), entry.substr(equals + 1).c_str(), 1);
  }
  ::setenv("LISTEN_PID", std::to_string(::getpid()).c_str(), 1);
  ::setenv("LISTEN_FDS", "1", 1);
  ::setenv("LISTEN_FDNAMES", "MasterSocket", 1);
  ::execv(argv[0], argv.data());
  std::fprintf(stderr, "krv-socket-activate: cannot run %s: %s\n", argv[0], std::strerror(errno));
  ::_exit(127);
}

}  // namespace

int main(int argc, char** argv) {
  mode_t mode = 0666;
  bool once = false;
  std::vector<std::string> environment;
  int index = 1;
  for (; index < argc && argv[index][0] == '-'; ++index) {
    std::string option = argv[index];
    if (option == "--once") {
      once = true;
    } else if (option == "--mode" && index + 1 < argc) {
      char* end = nullptr;
      unsigned long value = std::strtoul(argv[++index], &end, 8);
      if (*end != '\0' || value > 07777) return usage();
      mode = static_cast<mode_t>(value);
    } else if (option == "--setenv" && index + 1 < argc) {
      std::string entry = argv[++index];
      if (entry.find('=') == std::string::npos || entry.front() == '=') return usage();
      environment.push_back(entry);
    } else {
      return usage();
    }
  }
  if (argc - index < 2) return usage();
  const std::string socketPath = argv[index];
  std::vector<char*> programArguments(argv + index + 1, argv + argc);
  programArguments.push_back(nullptr);

  krv::Result<krv::UniqueFd> socket = krv::test::listenOnUnixSocket(socketPath, mode);
  if (!socket) {
    std::fprintf(stderr, "krv-socket-activate: %s: %s\n", socketPath.c_str(),
                 socket.error().description().c_str());
    return 1;
  }
  struct sigaction stop {};
  stop.sa_handler = noteStop;
  ::sigaction(SIGINT, &stop, nullptr);
  ::sigaction(SIGTERM, &stop, nullptr);

  int exitStatus = 0;
  while (g_stopSignal == 0) {
    pollfd entry{socket->get(), POLLIN, 0};
    if (::poll(&entry, 1, -1) < 0) {
      if (errno == EINTR) continue;
      std::perror("krv-socket-activate: poll");
      exitStatus = 1;
      break;
    }
    const auto started = std::chrono::steady_clock::now();
    pid_t child = startProgram(socket->get(), programArguments, environment);
    if (child < 0) {
      std::perror("krv-socket-activate: fork");
      exitStatus = 1;
      break;
    }
    int status = 0;
    bool forwarded = false;
    while (::waitpid(child, &status, 0) < 0) {
      if (errno != EINTR) break;
      if (g_stopSignal != 0 && !forwarded) {
        ::kill(child, g_stopSignal);
        forwarded = true;
      }
    }
    exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    if (once) break;
    // A program that fails at once is not restarted in a tight loop.
    if (exitStatus != 0 && std::chrono::steady_clock::now() - started < std::chrono::seconds(1)) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
  }
  ::unlink(socketPath.c_str());
  return exitStatus;
}
