// The whole-system benchmark of the walks: the daemon's object count (51), storage size (17) and
// age search (14) against the system's own tools on the same tree, in one run, each as a ratio of
// wall times (medians of several rounds), plus the daemon's peak resident memory.
//
//   SearchCommandsBench [OBJECTS [ROUNDS [BINARY_DIR]]]     (defaults: 100000, 5, the build dir)
//
// The tree (OBJECTS objects below its base: folders of 98 files, 100 such folders per group
// folder; every third file dated 400 days back, file lengths spread up to 64 KiB without using
// blocks) is built once and kept at /var/tmp/krv-bench-tree-OBJECTS-aged. The cache is warmed
// before the rounds. Requests go through the client library, so the daemon's times include the
// transfer of the results to this process.
//
// Runs as root: it enters a private sandbox (fresh /run and /tmp), starts the authorization
// service and the daemon by socket activation, and drives them like DaemonRoundTripBench.

#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench/BenchServices.h"
#include "bench/BenchTrees.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/support/ServiceProcess.h"

extern char** environ;

namespace {

using namespace krv;
using Clock = std::chrono::steady_clock;

constexpr int kAgeDays = 365;  // find's +365: older than 366 days; the daemon's: at least 365

// Runs a shell pipeline, its output going to `output`; answers the wall time in seconds.
double timeShell(const std::string& pipeline, std::string* output = nullptr) {
  const std::string file = "/tmp/krv-bench-output";
  std::string command = pipeline + " > " + file;
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  auto start = Clock::now();
  pid_t pid = 0;
  if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return -1;
  }
  int status = 0;
  ::waitpid(pid, &status, 0);
  double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (output != nullptr) {
    std::ifstream in(file);
    std::getline(in, *output);
  }
  return seconds;
}

struct DaemonRun {
  double seconds = -1;
  Error result{"", -1};
  std::size_t records = 0;
};

DaemonRun timeDaemon(std::uint32_t code, Array arguments) {
  std::optional<KRVSecurityAgent> agent =
      KRVSecurityAgent::init("/run/com.tavorin.system.securityagent3.socket");
  DaemonRun run;
  if (!agent) return run;
  agent->setReportHandler([&run](const Error& report) {
    if (const Value* records = report.userInfo().find("FileSystemObjects")) {
      run.records += records->asArray()->size();
    }
  });
  auto command = KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
  auto start = Clock::now();
  run.result = agent->executeAtomicPrivilegedCommand(*command, false);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  return run;
}

std::uint64_t sizeOf(const Error& result) {
  const Value* size = result.userInfo().find("Size");
  return size != nullptr && size->asNumber() != nullptr ? size->asNumber()->unsignedIntegerValue()
                                                        : 0;
}

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

}  // namespace

int main(int argc, char** argv) {
  const long objects = argc > 1 ? std::atol(argv[1]) : 100000;
  const int rounds = argc > 2 ? std::atoi(argv[2]) : 5;
  const std::string binaries = argc > 3 ? argv[3] : KRV_BINARY_DIR;
  const std::string tree = "/var/tmp/krv-bench-tree-" + std::to_string(objects) + "-aged";

  if (!bench::ensureTree(tree, [objects](const std::string& base) {
        return bench::makeSearchTree(base, objects);
      })) {
    std::fprintf(stderr, "cannot build the tree\n");
    return 1;
  }

  std::optional<bench::Services> services = bench::startServices(binaries);
  if (!services) return 1;
  test::ServiceProcess* daemon = &services->daemon;
  // The first request waits for the daemon's start-up.
  for (int attempt = 0; attempt < 100 && timeDaemon(1, {}).result.code() != 0; ++attempt) {
    ::usleep(50000);
  }

  const Array countArguments = {Value(tree), Value("/tmp/krv-bench-no-marker")};
  const Array sizeArguments = {Value(tree)};
  const Array ageArguments = {Value(tree), Value::integer(kAgeDays), Value::integer(0)};
  const std::string findCount = "find '" + tree + "' -xdev | wc -l";
  const std::string duSize = "du -sb --apparent-size '" + tree + "'";
  const std::string findAge =
      "find '" + tree + "' -mtime +" + std::to_string(kAgeDays) + " | wc -l";

  // Warm the cache (and the daemon) once.
  timeShell(findCount);
  timeDaemon(51, countArguments);

  // The fixed cost of a request (connection, authorization, thread, pipe): the size of nothing.
  ::mkdir("/tmp/krv-bench-empty", 0755);
  std::vector<double> emptyTimes;
  for (int round = 0; round < 20; ++round) {
    emptyTimes.push_back(timeDaemon(17, {Value("/tmp/krv-bench-empty")}).seconds);
  }

  std::vector<double> findCountTimes, countTimes, duTimes, sizeTimes, findAgeTimes, ageTimes;
  std::string findCountText, duText, findAgeText;
  DaemonRun count, size, age;
  for (int round = 0; round < rounds; ++round) {
    findCountTimes.push_back(timeShell(findCount, &findCountText));
    count = timeDaemon(51, countArguments);
    countTimes.push_back(count.seconds);
    duTimes.push_back(timeShell(duSize, &duText));
    size = timeDaemon(17, sizeArguments);
    sizeTimes.push_back(size.seconds);
    findAgeTimes.push_back(timeShell(findAge, &findAgeText));
    age = timeDaemon(14, ageArguments);
    ageTimes.push_back(age.seconds);
  }
  const long peak = bench::statusKiB(daemon->pid(), "VmHWM:");
  const long resident = bench::statusKiB(daemon->pid(), "VmRSS:");

  struct stat base {};
  ::stat(tree.c_str(), &base);
  const std::uint64_t duBytes = std::strtoull(duText.c_str(), nullptr, 10);
  std::printf("tree: %s, %d rounds, medians\n", tree.c_str(), rounds);
  std::printf(
      "count (51)        %8.1f ms  find -xdev | wc -l    %8.1f ms  ratio %.2f (goal <= 1.2)"
      "  [%llu vs %s]\n",
      median(countTimes) * 1e3, median(findCountTimes) * 1e3,
      median(countTimes) / median(findCountTimes),
      static_cast<unsigned long long>(sizeOf(count.result)), findCountText.c_str());
  std::printf(
      "storage size (17) %8.1f ms  du -sb --apparent-size %7.1f ms  ratio %.2f (goal <= 1.0)"
      "  [%llu + base %lld vs %llu]\n",
      median(sizeTimes) * 1e3, median(duTimes) * 1e3, median(sizeTimes) / median(duTimes),
      static_cast<unsigned long long>(sizeOf(size.result)), static_cast<long long>(base.st_size),
      static_cast<unsigned long long>(duBytes));
  std::printf(
      "age search (14)   %8.1f ms  find -mtime +%d | wc -l %6.1f ms  ratio %.2f (goal <= 1.2)"
      "  [%zu records vs %s]\n",
      median(ageTimes) * 1e3, kAgeDays, median(findAgeTimes) * 1e3,
      median(ageTimes) / median(findAgeTimes), age.records, findAgeText.c_str());
  std::printf("request floor (17 on an empty folder) %.2f ms\n", median(emptyTimes) * 1e3);
  std::printf("daemon memory: peak %ld KiB, now %ld KiB (goal: peak under 16384 KiB)\n", peak,
              resident);

  bool consistent = sizeOf(count.result) == std::strtoull(findCountText.c_str(), nullptr, 10) &&
                    sizeOf(size.result) + static_cast<std::uint64_t>(base.st_size) == duBytes &&
                    age.records == std::strtoull(findAgeText.c_str(), nullptr, 10);
  if (!consistent) std::printf("RESULTS DIFFER from the tools' results\n");
  return consistent ? 0 : 1;
}
