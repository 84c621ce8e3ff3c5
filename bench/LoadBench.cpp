// The daemon under sustained load: many concurrent commands (tree searches, program runs, who-am-I
// diagnostics with a progress report) for a while, with the version command probed meanwhile.
// Reports the throughput of each kind, the version command's latency under that load (p50, p99,
// max), the throttle's delays as the daemon logged them, and the daemon's memory, descriptors and
// threads before and after.
//
//   LoadBench [--seconds N | --minutes N] [--clients N] [binaries folder]
//
// Default: 60 seconds, 16 clients. Runs as root: it enters a private sandbox (fresh /run and /tmp),
// starts the authorization service and the daemon (which logs to standard error, read here for
// the throttle's lines) by socket activation, and drives them through the client library.

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchServices.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/support/Sandbox.h"
#include "tests/support/ServiceProcess.h"

namespace {

using namespace krv;
using Clock = std::chrono::steady_clock;

constexpr const char* kDaemonSocket = "/run/com.tavorin.system.securityagent3.socket";
constexpr const char* kTree = "/tmp/load";

int countEntries(pid_t pid, const char* folder) {
  std::string path = "/proc/" + std::to_string(pid) + "/" + folder;
  DIR* directory = ::opendir(path.c_str());
  if (directory == nullptr) return -1;
  int count = 0;
  while (const dirent* entry = ::readdir(directory)) count += entry->d_name[0] != '.';
  ::closedir(directory);
  return count;
}

struct Snapshot {
  long rssKiB;
  long hwmKiB;
  int descriptors;
  int threads;
};

Snapshot snapshot(pid_t pid) {
  return {bench::statusKiB(pid, "VmRSS:"), bench::statusKiB(pid, "VmHWM:"), countEntries(pid, "fd"),
          countEntries(pid, "task")};
}

// The search's tree: 20 folders of 100 files.
bool makeTree() {
  if (::mkdir(kTree, 0755) != 0) return false;
  for (int folder = 0; folder < 20; ++folder) {
    std::string path = std::string(kTree) + "/folder" + std::to_string(folder);
    if (::mkdir(path.c_str(), 0755) != 0) return false;
    for (int file = 0; file < 100; ++file) {
      std::ofstream(path + "/file" + std::to_string(file)) << "x";
    }
  }
  return true;
}

struct Kind {
  const char* name;
  std::uint32_t code;
  Array arguments;
};

struct Tally {
  std::atomic<long> succeeded{0};
  std::atomic<long> failed{0};
};

double percentile(std::vector<double>& sorted, double fraction) {
  if (sorted.empty()) return 0.0;
  std::size_t index = static_cast<std::size_t>(fraction * static_cast<double>(sorted.size() - 1));
  return sorted[index];
}

}  // namespace

int main(int argc, char** argv) {
  double seconds = 60;
  int clients = 16;
  std::string binaries = KRV_BINARY_DIR;
  for (int i = 1; i < argc; ++i) {
    std::string argument = argv[i];
    if ((argument == "--seconds" || argument == "--minutes") && i + 1 < argc) {
      seconds = std::atof(argv[++i]) * (argument == "--minutes" ? 60.0 : 1.0);
    } else if (argument == "--clients" && i + 1 < argc) {
      clients = std::max(1, std::atoi(argv[++i]));
    } else {
      binaries = argument;
    }
  }
  if (Status sandbox = test::enterPrivateSandbox(); !sandbox) {
    std::fprintf(stderr, "needs root: %s\n", sandbox.error().description().c_str());
    return 1;
  }
  test::ServiceLaunch authorityLaunch{
      "/run/com.tavorin.system.authority.socket",
      binaries + "/authorization/service/com.tavorin.system.authority",
      {},
      {},
      0666};
  authorityLaunch.restartOnConnection = true;
  test::ServiceLaunch daemonLaunch{
      kDaemonSocket, binaries + "/daemon/com.tavorin.system.securityagent3", {"d"}, {}, 0666};
  daemonLaunch.restartOnConnection = true;
  Result<test::ServiceProcess> authority = test::ServiceProcess::start(authorityLaunch);
  Result<test::ServiceProcess> daemon = test::ServiceProcess::start(daemonLaunch);
  if (!authority || !daemon || !makeTree()) {
    std::fprintf(stderr, "cannot start the services or make the tree\n");
    return 1;
  }

  const std::vector<Kind> kinds = {
      {"tree search (14)",
       kCommandSearchAgedFiles,
       {Value(kTree), Value::integer(0), Value::integer(0)}},
      {"program run (3, 0 steps)", kCommandWhoAmI, {Value::integer(0)}},
      {"who-am-I diagnostic (3, 1 step)", kCommandWhoAmI, {Value::integer(1)}},
  };
  std::vector<Tally> tallies(kinds.size());

  // Warm up, then the figures before.
  {
    std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocket);
    auto version = KRVPrivilegedCommand::privilegedCommandWithCode(kCommandGetVersion, {});
    if (!agent || !agent->executeAtomicPrivilegedCommand(*version, false)
                       .is(kCommandErrorDomain, kResultSuccess)) {
      std::fprintf(stderr, "the daemon does not answer\n");
      return 1;
    }
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const pid_t pid = daemon->pid();
  const Snapshot before = snapshot(pid);

  std::atomic<bool> stop{false};
  std::vector<std::thread> workers;
  for (int i = 0; i < clients; ++i) {
    workers.emplace_back([&, i] {
      std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocket);
      const std::size_t kind = static_cast<std::size_t>(i) % kinds.size();
      while (!stop.load()) {
        auto command = KRVPrivilegedCommand::privilegedCommandWithCode(kinds[kind].code,
                                                                       kinds[kind].arguments);
        Error result = agent->executeAtomicPrivilegedCommand(*command, false);
        (result.is(kCommandErrorDomain, kResultSuccess) ? tallies[kind].succeeded
                                                        : tallies[kind].failed)++;
      }
    });
  }
  // The version probe: one request at a time, 20 per second.
  std::vector<double> latencies;
  long versionFailures = 0;
  std::thread probe([&] {
    std::optional<KRVSecurityAgent> agent = KRVSecurityAgent::init(kDaemonSocket);
    while (!stop.load()) {
      auto version = KRVPrivilegedCommand::privilegedCommandWithCode(kCommandGetVersion, {});
      Clock::time_point started = Clock::now();
      Error result = agent->executeAtomicPrivilegedCommand(*version, false);
      double milliseconds =
          std::chrono::duration<double, std::milli>(Clock::now() - started).count();
      if (result.is(kCommandErrorDomain, kResultSuccess)) {
        latencies.push_back(milliseconds);
      } else {
        ++versionFailures;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
  });
  // The peaks while it runs, once a second.
  Snapshot peak = before;
  const Clock::time_point started = Clock::now();
  const Clock::time_point end =
      started + std::chrono::milliseconds(static_cast<long>(seconds * 1000));
  while (Clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    Snapshot now = snapshot(pid);
    peak.rssKiB = std::max(peak.rssKiB, now.rssKiB);
    peak.descriptors = std::max(peak.descriptors, now.descriptors);
    peak.threads = std::max(peak.threads, now.threads);
  }
  stop = true;
  for (std::thread& worker : workers) worker.join();
  probe.join();
  const double elapsed = std::chrono::duration<double>(Clock::now() - started).count();
  // Let the last commands count themselves out.
  Snapshot after = snapshot(pid);
  for (int i = 0;
       i < 50 && (after.threads > before.threads || after.descriptors > before.descriptors); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    after = snapshot(pid);
  }

  // The throttle's delays from the daemon's log.
  std::map<long, long> delays;
  const std::string log = daemon->standardError();
  const std::string marker = "Throttling is in effect (";
  for (std::size_t at = log.find(marker); at != std::string::npos;
       at = log.find(marker, at + marker.size())) {
    delays[std::atol(log.c_str() + at + marker.size())]++;
  }

  std::printf("load: %d clients for %.1f s against daemon %d (%zu instance(s))\n", clients, elapsed,
              static_cast<int>(pid), daemon->instancesStarted());
  long total = 0;
  for (std::size_t i = 0; i < kinds.size(); ++i) {
    total += tallies[i].succeeded;
    std::printf("  %-34s %7ld done  %5ld failed  %8.1f per second\n", kinds[i].name,
                tallies[i].succeeded.load(), tallies[i].failed.load(),
                static_cast<double>(tallies[i].succeeded) / elapsed);
  }
  std::printf("  %-34s %7ld done                 %8.1f per second\n", "all commands", total,
              static_cast<double>(total) / elapsed);
  std::sort(latencies.begin(), latencies.end());
  std::printf(
      "version command under load: %zu probes, %ld failed; p50 %.2f ms, p99 %.2f ms, max %.2f ms\n",
      latencies.size(), versionFailures, percentile(latencies, 0.50), percentile(latencies, 0.99),
      latencies.empty() ? 0.0 : latencies.back());
  std::printf("throttle delays logged (microseconds x times):");
  if (delays.empty()) std::printf(" none");
  for (const auto& [delay, times] : delays) std::printf(" %ld x %ld", delay, times);
  std::printf("\n");
  std::printf("daemon memory: VmRSS %ld KiB before, %ld KiB peak, %ld KiB after; VmHWM %ld KiB\n",
              before.rssKiB, peak.rssKiB, after.rssKiB, after.hwmKiB);
  std::printf(
      "daemon descriptors: %d before, %d peak, %d after; threads: %d before, %d peak, %d after\n",
      before.descriptors, peak.descriptors, after.descriptors, before.threads, peak.threads,
      after.threads);
  return total > 0 && daemon->instancesStarted() == 1 ? 0 : 1;
}
