// The whole-system benchmark of large result lists: searches that send every object of a tree,
// end to end through the real daemon and securityagentctl (its text output going to /dev/null),
// against the system's tools printing the same facts, in one run:
//
//   age search (14), days 0          find DIR -xdev -printf '%p\t%y\t%s\t%T@\t%m\n'
//   multi-pattern search (46), *.dat find DIR -xdev -name '*.dat' -printf (same fields)
//   prefix search (16), one folder   ls -f FOLDER
//
// each as a ratio of wall times (medians of rounds in which the contenders alternate) with the
// processor time each side used (the daemon's share of a run and the client's, the tool's), plus
// the age search with --json (for information) and the daemon's peak resident memory (VmHWM) at
// the end. Before the rounds every pair is run once into a pipe and its lines counted, so that a
// ratio is never reported for results that differ.
//
//   StreamingSearchBench [OBJECTS [ROUNDS [BINARY_DIR]]]   (defaults: 100000, 7, the build dir)
//   StreamingSearchBench --million [ROUNDS [BINARY_DIR]]   (OBJECTS 1,000,000)
//
// The searched tree is SearchCommandsBench's (/var/tmp/krv-bench-tree-OBJECTS-aged); the folder
// of the prefix search holds OBJECTS empty files (/var/tmp/krv-bench-flat-OBJECTS). Both are built
// once and kept. KRV_BENCH_ONLY=TEXT runs only the searches whose name contains TEXT (with ROUNDS
// 0 and a BINARY_DIR of wrappers that run the programs under a profiler, one profile each). Runs as
// root: it enters a private sandbox (fresh /run and /tmp) and starts the authorization service and
// the daemon by socket activation.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "bench/BenchServices.h"
#include "bench/BenchTrees.h"
#include "foundation/UniqueFd.h"
#include "protocol/KRVSecurityAgent.h"

namespace {

using namespace krv;

constexpr const char* kPrintedFields = "%p\\t%y\\t%s\\t%T@\\t%m\\n";

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

// Runs the program with its output into a pipe and answers the number of lines it printed; -1
// when it failed.
long countLines(const std::vector<std::string>& words) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
  UniqueFd readEnd(ends[0]);
  long lines = 0;
  bool failed = false;
  std::thread reader([&] {
    char buffer[65536];
    for (;;) {
      ssize_t count = ::read(readEnd.get(), buffer, sizeof buffer);
      if (count <= 0) return;
      lines += std::count(buffer, buffer + count, '\n');
    }
  });
  failed = bench::timeProgram(words, ends[1]) < 0;
  ::close(ends[1]);
  reader.join();
  return failed ? -1 : lines;
}

struct Pair {
  const char* name;
  std::vector<std::string> daemon;  // the client's command line
  const char* toolName;
  std::vector<std::string> tool;
  long extraToolLines;  // lines the tool prints that are not records
  const char* goal;
};

}  // namespace

int main(int argc, char** argv) {
  int next = 1;
  long objects = 100000;
  if (argc > next && std::strcmp(argv[next], "--million") == 0) {
    objects = 1000000;
    ++next;
  } else if (argc > next) {
    objects = std::atol(argv[next++]);
  }
  const int rounds = argc > next ? std::atoi(argv[next++]) : 7;
  const std::string binaries = argc > next ? argv[next] : KRV_BINARY_DIR;
  const std::string tree = "/var/tmp/krv-bench-tree-" + std::to_string(objects) + "-aged";
  const std::string flat = "/var/tmp/krv-bench-flat-" + std::to_string(objects);
  const std::string client = binaries + "/tools/securityagentctl/securityagentctl";

  if (!bench::ensureTree(
          tree,
          [objects](const std::string& base) { return bench::makeSearchTree(base, objects); }) ||
      !bench::ensureTree(flat, [objects](const std::string& base) {
        return bench::makeFlatFolder(base, objects);
      })) {
    std::fprintf(stderr, "cannot build the trees\n");
    return 1;
  }

  std::optional<bench::Services> services = bench::startServices(binaries);
  if (!services) return 1;
  const std::vector<std::string> version = {client, "--quiet", "version"};
  UniqueFd devNull(::open("/dev/null", O_WRONLY | O_CLOEXEC));
  // The first request waits for the daemon's start-up.
  for (int attempt = 0; attempt < 100 && bench::timeProgram(version, devNull.get()) < 0;
       ++attempt) {
    ::usleep(50000);
  }

  std::vector<Pair> pairs = {
      {"age search (14), days 0",
       {client, "search-aged-files", tree, "0", "1"},
       "find -printf",
       {"find", tree, "-xdev", "-printf", kPrintedFields},
       1,  // the base itself
       "goal <= 0.8"},
      {"multi-pattern search (46)",
       {client, "search-name-patterns", tree, "1", "2", "dat"},
       "find -name -printf",
       {"find", tree, "-xdev", "-name", "*.dat", "-printf", kPrintedFields},
       0,
       "goal <= 0.8"},
      {"prefix search (16)",
       {client, "search-filename-pattern", flat, "entry-", "", "0"},
       "ls -f",
       {"ls", "-f", flat},
       2,  // "." and ".."
       "no goal"},
      {"age search (14) --json",
       {client, "--json", "search-aged-files", tree, "0", "1"},
       "find -printf",
       {"find", tree, "-xdev", "-printf", kPrintedFields},
       1,
       "for information"},
  };

  if (const char* only = std::getenv("KRV_BENCH_ONLY")) {
    std::erase_if(pairs, [only](const Pair& pair) {
      return std::string_view(pair.name).find(only) == std::string_view::npos;
    });
  }

  // Once into a pipe: the results must agree (this also warms the cache and the daemon).
  bool consistent = true;
  for (const Pair& pair : pairs) {
    const long records = countLines(pair.daemon);
    const long printed = countLines(pair.tool);
    // The text output ends with "OK"; the JSON output prints one line per chunk and the result.
    const bool json = pair.daemon[1] == "--json";
    if (records < 0 || printed < 0 || (!json && records - 1 != printed - pair.extraToolLines)) {
      std::printf("RESULTS DIFFER: %s printed %ld lines, %s %ld\n", pair.name, records,
                  pair.toolName, printed);
      consistent = false;
    }
  }
  if (!consistent) return 1;

  // Wall times, and the processor time of each side: the client with the daemon's share of the
  // run, the tool alone. On a busy machine the wall times depend on what else runs; the processor
  // times do not.
  const pid_t daemonPid = services->daemon.pid();
  std::vector<std::vector<double>> daemonTimes(pairs.size()), toolTimes(pairs.size());
  std::vector<std::vector<double>> clientCpu(pairs.size()), daemonCpu(pairs.size()),
      toolCpu(pairs.size());
  const auto runTool = [&](std::size_t i) {
    const bench::ProgramTime time = bench::runProgram(pairs[i].tool, devNull.get());
    toolTimes[i].push_back(time.seconds);
    toolCpu[i].push_back(time.processorSeconds);
  };
  for (int round = 0; round < rounds; ++round) {
    for (std::size_t i = 0; i < pairs.size(); ++i) {
      // Which contender goes first alternates, so that neither always meets the warmer cache.
      if (round % 2 == 0) runTool(i);
      const double daemonBefore = bench::processorSecondsOf(daemonPid);
      const bench::ProgramTime clientRun = bench::runProgram(pairs[i].daemon, devNull.get());
      daemonCpu[i].push_back(bench::processorSecondsOf(daemonPid) - daemonBefore);
      daemonTimes[i].push_back(clientRun.seconds);
      clientCpu[i].push_back(clientRun.processorSeconds);
      if (round % 2 != 0) runTool(i);
    }
  }
  const long peak = bench::statusKiB(daemonPid, "VmHWM:");

  std::printf("tree: %s and %s, %d rounds, medians, output to /dev/null\n", tree.c_str(),
              flat.c_str(), rounds);
  for (std::size_t i = 0; i < pairs.size(); ++i) {
    const double daemon = median(daemonTimes[i]);
    const double tool = median(toolTimes[i]);
    std::printf("%-27s %8.1f ms  %-18s %8.1f ms  ratio %.2f (%s)\n", pairs[i].name, daemon * 1e3,
                pairs[i].toolName, tool * 1e3, daemon / tool, pairs[i].goal);
    std::printf("  processor time: daemon %.0f ms + client %.0f ms, %s %.0f ms\n",
                median(daemonCpu[i]) * 1e3, median(clientCpu[i]) * 1e3, pairs[i].toolName,
                median(toolCpu[i]) * 1e3);
  }
  std::printf("daemon memory: peak %ld KiB (goal: under 16384 KiB)\n", peak);
  return 0;
}
