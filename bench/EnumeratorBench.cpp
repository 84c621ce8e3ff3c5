// Walk speed of KRVDirectoryEnumerator against `find DIR -xdev | wc -l` on the same tree.
//
// The tree is built once and kept under /var/tmp/krv-bench-tree-N (N objects, 100,000 unless
// KRV_BENCH_OBJECTS says otherwise): folders of 10 to 50 empty files and 3 to 6 subfolders, filled
// breadth first with a fixed seed, at most 8 levels deep. Caches cannot be dropped here, so every
// contender is warmed once before it is measured; times are wall-clock times, and since the host
// may be shared, each benchmark is repeated and the ratios use the medians. find's own CPU time
// is shown as child_cpu_ms. Last, the peak memory a walk adds to a fresh process is printed.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <map>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/KRVDirectoryEnumerator.h"

namespace {

std::size_t objectCount() {
  const char* text = std::getenv("KRV_BENCH_OBJECTS");
  std::size_t count = text != nullptr ? std::strtoull(text, nullptr, 10) : 0;
  return count != 0 ? count : 100000;
}

const std::string& treeRoot() {
  static const std::string root = "/var/tmp/krv-bench-tree-" + std::to_string(objectCount());
  return root;
}

void buildTree(const std::string& root, std::size_t objects) {
  std::string marker = root + ".complete";
  if (::access(marker.c_str(), F_OK) == 0) return;
  std::filesystem::remove_all(root);
  std::filesystem::create_directories(root);
  std::printf("building %zu objects under %s ...\n", objects, root.c_str());
  std::mt19937 random(20240611);
  std::deque<std::pair<std::string, int>> folders{{root, 1}};
  std::size_t created = 0;
  while (created < objects && !folders.empty()) {
    auto [folder, depth] = folders.front();
    folders.pop_front();
    std::size_t files = 10 + random() % 41;
    for (std::size_t i = 0; i < files && created < objects; ++i, ++created) {
      std::string name = folder + "/file-" + std::to_string(i) + ".dat";
      int fd = ::open(name.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
      if (fd >= 0) ::close(fd);
    }
    std::size_t subfolders = depth < 8 ? 3 + random() % 4 : 0;
    for (std::size_t i = 0; i < subfolders && created < objects; ++i, ++created) {
      std::string name = folder + "/folder-" + std::to_string(i);
      ::mkdir(name.c_str(), 0755);
      folders.emplace_back(name, depth + 1);
    }
  }
  if (created < objects) std::printf("the tree holds only %zu objects\n", created);
  std::ofstream(marker) << created << "\n";
}

std::size_t walk(bool stay) {
  auto enumerator = krv::KRVDirectoryEnumerator::enumeratorAtPath(treeRoot(), stay);
  std::size_t count = 0;
  while (enumerator->nextObject()) ++count;
  return count;
}

std::size_t runFind() {
  std::string command = "find '" + treeRoot() + "' -xdev | wc -l";
  FILE* pipe = ::popen(command.c_str(), "r");
  unsigned long long lines = 0;
  if (pipe == nullptr || std::fscanf(pipe, "%llu", &lines) != 1) lines = 0;
  if (pipe != nullptr) ::pclose(pipe);
  return lines;
}

double childrenCpuSeconds() {
  rusage usage{};
  ::getrusage(RUSAGE_CHILDREN, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

void EnumeratorWalk(benchmark::State& state) {
  bool stay = state.range(0) != 0;
  std::size_t count = 0;
  for (auto _ : state) benchmark::DoNotOptimize(count = walk(stay));
  state.counters["objects"] = static_cast<double>(count);
}
BENCHMARK(EnumeratorWalk)
    ->ArgName("stay")
    ->Arg(0)
    ->Arg(1)
    ->UseRealTime()
    ->Repetitions(5)
    ->Unit(benchmark::kMillisecond);

void FindXdevWc(benchmark::State& state) {
  std::size_t count = 0;
  double cpuBefore = childrenCpuSeconds();
  for (auto _ : state) benchmark::DoNotOptimize(count = runFind());
  // find also prints the base folder itself.
  state.counters["objects"] = static_cast<double>(count) - 1;
  state.counters["child_cpu_ms"] =
      (childrenCpuSeconds() - cpuBefore) * 1000 / static_cast<double>(state.iterations());
}
BENCHMARK(FindXdevWc)->UseRealTime()->Repetitions(5)->Unit(benchmark::kMillisecond);

// Keeps the median wall time of each benchmark (or its first run) for the ratios.
class RecordingReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const Run& run : runs) {
      bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
      if (median || (run.run_type == Run::RT_Iteration && times.count(run.run_name.str()) == 0)) {
        times[run.run_name.str()] = run.GetAdjustedRealTime();
      }
    }
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> times;
};

// The peak resident memory of a fresh process that walks the tree (stay "0" or "1") or only
// starts ("none"), so that nothing of this process counts.
long peakResidentKiB(const char* mode) {
  char self[4096];
  ssize_t length = ::readlink("/proc/self/exe", self, sizeof self - 1);
  if (length <= 0) return -1;
  std::string command = "'" + std::string(self, length) + "' --walk-only=" + mode;
  FILE* pipe = ::popen(command.c_str(), "r");
  long kib = -1;
  if (pipe == nullptr || std::fscanf(pipe, "%ld", &kib) != 1) kib = -1;
  if (pipe != nullptr) ::pclose(pipe);
  return kib;
}

int walkOnly(std::string_view mode) {
  if (mode != "none") walk(mode == "1");
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  std::printf("%ld\n", usage.ru_maxrss);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && std::string_view(argv[1]).starts_with("--walk-only=")) {
    return walkOnly(std::string_view(argv[1]).substr(12));
  }
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  buildTree(treeRoot(), objectCount());
  std::printf("warm-up: enumerator %zu, enumerator staying %zu, find %zu objects\n", walk(false),
              walk(true), runFind() - 1);

  RecordingReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  double find = 0;
  for (const auto& [name, time] : reporter.times) {
    if (name.starts_with("FindXdevWc")) find = time;
  }
  for (const auto& [name, time] : reporter.times) {
    if (find > 0 && name.starts_with("EnumeratorWalk")) {
      std::printf("%s / find: %.2f\n", name.c_str(), time / find);
    }
  }
  long baseline = peakResidentKiB("none");
  for (const char* stay : {"0", "1"}) {
    std::printf("peak resident memory added by a walk (stay %s): %ld KiB\n", stay,
                peakResidentKiB(stay) - baseline);
  }
  benchmark::Shutdown();
  return 0;
}
