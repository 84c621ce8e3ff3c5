#include "tests/daemon/DaemonFixture.h"

#include <fcntl.h>
#include <grp.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <thread>

#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/support/Sandbox.h"

namespace krv::test {

namespace {

bool hasSanitizerReport(const std::string& text) {
  return text.find("AddressSanitizer") != std::string::npos ||
         text.find("LeakSanitizer") != std::string::npos ||
         text.find("runtime error:") != std::string::npos;
}

}  // namespace

std::string DaemonTest::binary(const char* name) {
  if (std::string(name) == "daemon") return KRV_DAEMON_BINARY;
  if (std::string(name) == "authority") return KRV_AUTHORITY_BINARY;
  return KRV_CLIENT_BINARY;
}

void DaemonTest::SetUp() {
  ::signal(SIGPIPE, SIG_IGN);
  if (!inPrivateSandbox()) {
    Status entered = enterPrivateSandbox();
    if (!entered) GTEST_SKIP() << "no private sandbox: " << entered.error().description();
  }
  ServiceLaunch launch{kAuthoritySocketPath, binary("authority"), {}, {}, 0666};
  launch.restartOnConnection = true;
  Result<ServiceProcess> authority = ServiceProcess::start(launch);
  ASSERT_TRUE(authority) << authority.error().description();
  m_authority.emplace(std::move(*authority));
  startDaemon();
}

ServiceLaunch DaemonTest::daemonLaunch() {
  ServiceLaunch launch{kDaemonSocketPath, binary("daemon"), {"d"}, {}, 0666};
  launch.restartOnConnection = true;
  return launch;
}

void DaemonTest::startDaemon(ThreadCreation threads) {
  ServiceLaunch launch = daemonLaunch();
  launch.refuseNewThreads = threads == ThreadCreation::Refused;
  launch.confinement = m_daemonConfinement;
  startDaemon(launch);
}

void DaemonTest::startDaemon(const ServiceLaunch& launch) {
  m_daemon.reset();
  Result<ServiceProcess> daemon = ServiceProcess::start(launch);
  ASSERT_TRUE(daemon) << daemon.error().description();
  m_daemon.emplace(std::move(*daemon));
  if (launch.refuseNewThreads) return;
  // The daemon serves its first request only after its start-up (the right definitions among it).
  Error version = runCommand(kCommandGetVersion, {});
  ASSERT_TRUE(version.is(kCommandErrorDomain, kResultSuccess))
      << version.description() << daemonLog();
}

void DaemonTest::TearDown() {
  if (m_daemon) m_daemon->terminate();
  if (m_authority) m_authority->terminate();
  if (m_daemon) {
    EXPECT_FALSE(hasSanitizerReport(m_daemon->standardError())) << daemonLog();
  }
  if (m_authority) {
    EXPECT_FALSE(hasSanitizerReport(m_authority->standardError())) << m_authority->standardError();
  }
}

bool DaemonTest::waitForLog(const std::string& text, std::chrono::milliseconds timeout,
                            std::size_t times) {
  if (!m_daemon) return false;
  return m_daemon->waitForStandardError(
      [&](const std::string& log) {
        std::size_t found = 0;
        for (std::size_t at = log.find(text); at != std::string::npos && found < times;
             at = log.find(text, at + text.size())) {
          ++found;
        }
        return found >= times;
      },
      timeout);
}

ProgramRun runProgram(const std::string& path, const std::vector<std::string>& arguments, uid_t uid,
                      gid_t gid, std::chrono::seconds timeout) {
  ProgramRun run;
  Result<sys::PipeEnds> output = sys::pipe();
  Result<sys::PipeEnds> errors = sys::pipe();
  if (!output || !errors) return run;
  pid_t pid = ::fork();
  if (pid < 0) return run;
  if (pid == 0) {
    ::dup2(output->writeEnd.get(), STDOUT_FILENO);
    ::dup2(errors->writeEnd.get(), STDERR_FILENO);
    int devnull = ::open("/dev/null", O_RDONLY);
    ::dup2(devnull, STDIN_FILENO);
    ::setsid();  // no controlling terminal: a password can never be asked
    if (uid != 0 && (::setgroups(0, nullptr) != 0 || ::setresgid(gid, gid, gid) != 0 ||
                     ::setresuid(uid, uid, uid) != 0)) {
      ::_exit(126);
    }
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(path.c_str()));
    for (const std::string& argument : arguments)
      argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::execv(path.c_str(), argv.data());
    ::_exit(127);
  }
  output->writeEnd.reset();
  errors->writeEnd.reset();
  auto deadline = std::chrono::steady_clock::now() + timeout;
  pollfd streams[2] = {{output->readEnd.get(), POLLIN, 0}, {errors->readEnd.get(), POLLIN, 0}};
  std::string* sinks[2] = {&run.standardOutput, &run.standardError};
  while (streams[0].fd >= 0 || streams[1].fd >= 0) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    if (::poll(streams, 2, static_cast<int>(left.count())) <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (streams[i].fd < 0 || streams[i].revents == 0) continue;
      char buffer[4096];
      ssize_t count = ::read(streams[i].fd, buffer, sizeof buffer);
      if (count <= 0) {
        streams[i].fd = -1;
      } else {
        sinks[i]->append(buffer, static_cast<std::size_t>(count));
      }
    }
  }
  if (streams[0].fd >= 0 || streams[1].fd >= 0) ::kill(pid, SIGKILL);
  int status = 0;
  ::waitpid(pid, &status, 0);
  if (streams[0].fd >= 0 || streams[1].fd >= 0) return run;
  run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return run;
}

ProgramRun DaemonTest::runClient(const std::vector<std::string>& arguments, uid_t uid, gid_t gid) {
  return runProgram(binary("client"), arguments, uid, gid);
}

Error DaemonTest::runCommand(std::uint32_t code, Array arguments, std::vector<Error>* reports) {
  std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocketPath);
  if (!agent) return Error::posix(ENOENT, "no daemon socket");
  if (reports != nullptr) {
    agent->setReportHandler([reports](const Error& report) { reports->push_back(report); });
  }
  auto command = KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
  return agent->executeAtomicPrivilegedCommand(*command, false);
}

Result<Value> DaemonTest::exchange(const Data& payload) {
  KRV_TRY(UniqueFd socket, KRVSecurityAgent::openRequestSocketAtPath(kDaemonSocketPath));
  KRV_TRY_VOID(writeDataBlock(socket.get(), payload, BlockSink::Socket));
  return KRVSecurityAgent::readObject(socket.get());
}

Result<Value> DaemonTest::exchange(const KRVPrivilegedCommand& command) {
  return exchange(archiveSequential(command));
}

}  // namespace krv::test
