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

#include "bench/BenchServices.h"
#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/support/ServiceProcess.h"

namespace {

using namespace krv;
using Clock = std::chrono::steady_clock;

constexpr const char* kFloorSocket = "/run/krv-floor.socket";

bool versionRoundTrip(KRVSecurityAgent& agent) {
  auto command = KRVPrivilegedCommand::privilegedCommandWithCode(kCommandGetVersion, {});
  return agent.executeAtomicPrivilegedCommand(*command, false).code() == 0;
}

// The floor: a server thread answering each connection's block with one block.
class FloorServer {
 public:
  FloorServer(std::size_t replySize) {
    Result<UniqueFd> listening = test::listenOnUnixSocket(kFloorSocket, 0666);
    if (!listening) return;
    m_listening = std::move(*listening);
    m_thread = std::thread([this, replySize] {
      Data reply(replySize, 0x42);
      for (;;) {
        UniqueFd connection(::accept4(m_listening.get(), nullptr, nullptr, SOCK_CLOEXEC));
        if (!connection || m_stop) return;
        if (!readDataBlock(connection.get())) continue;
        (void)writeDataBlock(connection.get(), reply);
      }
    });
  }
  ~FloorServer() {
    m_stop = true;
    (void)KRVSecurityAgent::openRequestSocketAtPath(kFloorSocket);  // wakes the accept
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  UniqueFd m_listening;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

bool floorRoundTrip(const Data& request) {
  Result<UniqueFd> socket = KRVSecurityAgent::openRequestSocketAtPath(kFloorSocket);
  if (!socket) return false;
  if (!writeDataBlock(socket->get(), request, BlockSink::Socket)) return false;
  return readDataBlock(socket->get()).ok();
}

// The best rate of several rounds: the machine's other work only ever makes a round slower.
template <class RoundTrip>
double bestRate(int rounds, int perRound, RoundTrip roundTrip) {
  double best = 0;
  for (int round = 0; round < rounds; ++round) {
    auto start = Clock::now();
    for (int i = 0; i < perRound; ++i) {
      if (!roundTrip()) return 0;
    }
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    best = std::max(best, perRound / seconds);
  }
  return best;
}

}  // namespace

int main(int argc, char** argv) {
  int requests = argc > 1 ? std::atoi(argv[1]) : 10000;
  std::string binaries = argc > 2 ? argv[2] : KRV_BINARY_DIR;
  std::optional<bench::Services> services = bench::startServices(binaries);
  if (!services) return 1;
  test::ServiceProcess* daemon = &services->daemon;
  std::optional<KRVSecurityAgent> agent =
      KRVSecurityAgent::init("/run/com.tavorin.system.securityagent3.socket");

  for (int i = 0; i < 100; ++i) versionRoundTrip(*agent);
  long after100 = bench::statusKiB(daemon->pid(), "VmRSS:");

  auto probe = KRVPrivilegedCommand::privilegedCommandWithCode(kCommandGetVersion, {});
  Data request = archiveSequential(*probe);
  FloorServer floor(160);
  // Alternate rounds of both, so that both see the same machine.
  constexpr int kRounds = 10;
  const int perRound = std::max(1, requests / kRounds);
  double daemonRate = 0;
  double floorRate = 0;
  for (int round = 0; round < kRounds; ++round) {
    daemonRate =
        std::max(daemonRate, bestRate(1, perRound, [&] { return versionRoundTrip(*agent); }));
    floorRate = std::max(floorRate, bestRate(1, perRound, [&] { return floorRoundTrip(request); }));
  }
  long afterAll = bench::statusKiB(daemon->pid(), "VmRSS:");

  std::printf("version round trips:      %.0f per second (best of %d rounds of %d)\n", daemonRate,
              kRounds, perRound);
  std::printf("bare socket floor:        %.0f round trips per second\n", floorRate);
  std::printf("ratio (floor / daemon):   %.2f  (goal: at most 5)\n", floorRate / daemonRate);
  std::printf(
      "daemon resident memory:   %ld KiB after 100 requests, %ld KiB after %d more "
      "(%+ld KiB; goal: within 1024)\n",
      after100, afterAll, perRound * kRounds, afterAll - after100);
  return daemonRate > 0 && floorRate > 0 ? 0 : 1;
}
