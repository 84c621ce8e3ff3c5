// Round trips of the version command through the real daemon, against the floor of this machine:
// a bare Unix-socket request/reply (connect, send, receive, close) measured in the same run. Also
// the daemon's resident memory after 100 and after 10,000 requests.
//
// Runs as root: it enters a private sandbox (fresh /run and /tmp), starts the authorization
// service and the daemon by socket activation, and drives them through the client library.

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/support/Sandbox.h"
#include "tests/support/ServiceProcess.h"

namespace {

using namespace krv;
using Clock = std::chrono::steady_clock;

constexpr const char* kFloorSocket = "/run/krv-floor.socket";

long residentKiB(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stol(line.substr(6));
  }
  return -1;
}

bool versionRoundTrip(KRVSecurityAgent& agent) {
  auto command = KRVPrivilegedCommand::privilegedCommandWithCode(1, {});
  return agent.executeAtomicPrivilegedCommand(*command, false).code() == 0;
}

// The floor: a server thread answering each connection's block with one block.
double floorRoundTripsPerSecond(int count, std::size_t requestSize, std::size_t replySize) {
  Result<UniqueFd> listening = test::listenOnUnixSocket(kFloorSocket, 0666);
  if (!listening) return 0;
  std::thread server([&] {
    Data reply(replySize, 0x42);
    for (int i = 0; i < count; ++i) {
      UniqueFd connection(::accept4(listening->get(), nullptr, nullptr, SOCK_CLOEXEC));
      if (!connection) return;
      if (!readDataBlock(connection.get())) return;
      writeDataBlock(connection.get(), reply);
    }
  });
  Data request(requestSize, 0x17);
  auto start = Clock::now();
  for (int i = 0; i < count; ++i) {
    Result<UniqueFd> socket = KRVSecurityAgent::openRequestSocketAtPath(kFloorSocket);
    if (!socket) break;
    writeDataBlock(socket->get(), request, BlockSink::Socket);
    if (!readDataBlock(socket->get())) break;
  }
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  server.join();
  return count / seconds;
}

}  // namespace

int main(int argc, char** argv) {
  int requests = argc > 1 ? std::atoi(argv[1]) : 10000;
  if (Status sandbox = test::enterPrivateSandbox(); !sandbox) {
    std::fprintf(stderr, "needs root: %s\n", sandbox.error().description().c_str());
    return 1;
  }
  std::string binaries = argc > 2 ? argv[2] : KRV_BINARY_DIR;
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
    return 1;
  }
  std::optional<KRVSecurityAgent> agent =
      KRVSecurityAgent::init("/run/com.tavorin.system.securityagent3.socket");

  for (int i = 0; i < 100; ++i) versionRoundTrip(*agent);
  long after100 = residentKiB(daemon->pid());

  auto start = Clock::now();
  int done = 0;
  for (; done < requests; ++done) {
    if (!versionRoundTrip(*agent)) break;
  }
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  long afterAll = residentKiB(daemon->pid());
  double daemonRate = done / seconds;

  auto probe = KRVPrivilegedCommand::privilegedCommandWithCode(1, {});
  std::size_t requestSize = archiveSequential(*probe).size();
  double floorRate = floorRoundTripsPerSecond(requests, requestSize, 160);

  std::printf("version round trips:      %d in %.2f s = %.0f per second\n", done, seconds,
              daemonRate);
  std::printf("bare socket floor:        %.0f round trips per second\n", floorRate);
  std::printf("ratio (floor / daemon):   %.2f  (goal: at most 5)\n", floorRate / daemonRate);
  std::printf(
      "daemon resident memory:   %ld KiB after 100, %ld KiB after %d more (%+ld KiB; goal: "
      "within 1024)\n",
      after100, afterAll, done, afterAll - after100);
  return done == requests ? 0 : 1;
}
