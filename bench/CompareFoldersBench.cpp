// The whole-system benchmark of the folder comparison: command 52 through the real daemon and the
// client library, on a tree and its `cp -a` copy (the backup case), against the tools users time
// it against, in one run, as ratios of wall times (medians of alternating rounds, warm cache):
//
//   mode 2 (status change times ignored)  against  rsync -an --delete SRC/ DST/
//   mode 3 (bytes compared too)           against  diff -rq SRC DST
//
// with the daemon's peak resident memory for each tree size. All four must find no difference.
// The processor time each used (all its threads or processes) is shown too: the wall-time ratios
// depend on whether the machine's other cores are free, the processor-time ratios do not.
//
//   CompareFoldersBench [--million] [ROUNDS [BINARY_DIR]]   (defaults: 5 rounds, the build dir)
//
// The tree has 100,000 objects (with --million a second one of 1,000,000 follows): group folders
// of 100 folders of 98 entries - files of 0 to 4 KiB of random bytes, every 50th with a user
// extended attribute, and one symbolic link per folder. It is built once, with its copy, at
// /var/tmp/krv-bench-compare-OBJECTS/{source,copy}. The peak memory is measured per size (the
// kernel's peak is reset in between).
//
// Runs as root: it enters a private sandbox (fresh /run and /tmp) and starts the authorization
// service and the daemon by socket activation. rsync must be installed.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "bench/BenchServices.h"
#include "filesystem/KRVFileSystemObjectDescription.h"
#include "protocol/KRVSecurityAgent.h"

extern char** environ;

namespace {

using namespace krv;
using Clock = std::chrono::steady_clock;

constexpr int kEntriesPerFolder = 98;
constexpr int kFoldersPerGroup = 100;
constexpr std::size_t kLargestFile = 4096;

bool writeFile(int folderFd, const std::string& name, const char* bytes, std::size_t size) {
  const int fd = ::openat(folderFd, name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
  if (fd < 0) return false;
  const bool written = ::write(fd, bytes, size) == static_cast<ssize_t>(size);
  ::close(fd);
  return written;
}

bool makeTree(const std::string& base, long objects) {
  std::mt19937_64 random(objects);
  std::vector<char> noise(1 << 20);
  for (char& byte : noise) byte = static_cast<char>(random());
  if (::mkdir(base.c_str(), 0755) != 0) return false;
  const int top = ::open(base.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (top < 0) return false;
  long made = 0;
  for (int group = 0; made < objects; ++group) {
    const std::string groupName = "g" + std::to_string(group);
    if (::mkdirat(top, groupName.c_str(), 0755) != 0) return false;
    ++made;
    const int groupFd = ::openat(top, groupName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int folder = 0; folder < kFoldersPerGroup && made < objects; ++folder) {
      const std::string folderName = "folder-" + std::to_string(folder);
      if (::mkdirat(groupFd, folderName.c_str(), 0755) != 0) return false;
      ++made;
      const int folderFd =
          ::openat(groupFd, folderName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      for (int entry = 0; entry < kEntriesPerFolder && made < objects; ++entry, ++made) {
        const std::string name = "file-" + std::to_string(entry) + ".dat";
        if (entry == kEntriesPerFolder - 1) {
          if (::symlinkat("file-0.dat", folderFd, "link") != 0) return false;
          continue;
        }
        const std::size_t size = random() % (kLargestFile + 1);
        const std::size_t offset = random() % (noise.size() - size);
        if (!writeFile(folderFd, name, noise.data() + offset, size)) return false;
        if (entry % 50 == 1) {
          const std::string path = base + "/" + groupName + "/" + folderName + "/" + name;
          if (::setxattr(path.c_str(), "user.origin", "bench", 5, 0) != 0) return false;
        }
      }
      ::close(folderFd);
    }
    ::close(groupFd);
  }
  ::close(top);
  return true;
}

// Runs a command line; answers its wall time, its exit status and the number of lines it wrote.
struct ToolRun {
  double seconds = -1;
  double processorSeconds = 0;
  int status = -1;
  long lines = 0;
};

ToolRun runTool(const std::string& commandLine) {
  const std::string output = "/tmp/krv-bench-output";
  const std::string command = commandLine + " > " + output;
  const char* argv[] = {"/bin/sh", "-c", command.c_str(), nullptr};
  ToolRun run;
  const auto start = Clock::now();
  pid_t pid = 0;
  if (::posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0) {
    return run;
  }
  int status = 0;
  struct rusage usage {};
  ::wait4(pid, &status, 0, &usage);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  run.processorSeconds = static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
                         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  std::ifstream in(output);
  for (std::string line; std::getline(in, line);) ++run.lines;
  return run;
}

struct DaemonRun {
  double seconds = -1;
  double processorSeconds = 0;
  Error result{"", -1};
  std::size_t records = 0;
};

// The processor time a process has used so far, all its threads together.
DaemonRun compareWithDaemon(const std::string& source, const std::string& copy, long objects,
                            std::uint64_t mode, pid_t daemon) {
  std::optional<KRVSecurityAgent> agent =
      KRVSecurityAgent::init("/run/com.tavorin.system.securityagent3.socket");
  DaemonRun run;
  if (!agent) return run;
  agent->setResponseClasses(&KRVFileSystemObjectDescription::comparisonClasses());
  agent->setReportHandler([&run](const Error& report) {
    if (const Value* records = report.userInfo().find("MismatchList")) {
      run.records += records->asArray()->size();
    }
  });
  auto command = KRVPrivilegedCommand::privilegedCommandWithCode(
      52, {Value(source), Value(copy), Value("/tmp/krv-bench-no-marker"), Value::integer(objects),
           Value::integer(static_cast<std::int64_t>(mode))});
  const double processorBefore = bench::processorSecondsOf(daemon);
  const auto start = Clock::now();
  run.result = agent->executeAtomicPrivilegedCommand(*command, false);
  run.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  run.processorSeconds = bench::processorSecondsOf(daemon) - processorBefore;
  return run;
}

// Keeps both services from ending themselves while the tools run for minutes on the large tree:
// a small authorized request every 20 seconds (the authorization service ends when idle for a
// minute, the daemon after two).
class KeepAlive {
 public:
  KeepAlive()
      : m_thread([this] {
          std::unique_lock<std::mutex> lock(m_mutex);
          while (!m_stopping) {
            if (m_wake.wait_for(lock, std::chrono::seconds(20), [this] { return m_stopping; })) {
              break;
            }
            lock.unlock();
            if (std::optional<KRVSecurityAgent> agent =
                    KRVSecurityAgent::init("/run/com.tavorin.system.securityagent3.socket")) {
              auto inspect = KRVPrivilegedCommand::privilegedCommandWithCode(15, {Value("/")});
              (void)agent->executeAtomicPrivilegedCommand(*inspect, false);
            }
            lock.lock();
          }
        }) {}
  ~KeepAlive() {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_stopping = true;
    }
    m_wake.notify_one();
    m_thread.join();
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_wake;
  bool m_stopping = false;
  std::thread m_thread;
};

double median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values.empty() ? 0 : values[values.size() / 2];
}

std::string treeBase(long objects) {
  return "/var/tmp/krv-bench-compare-" + std::to_string(objects);
}

// Builds the tree and its copy unless they are there.
bool prepare(long objects) {
  const std::string base = treeBase(objects);
  const std::string source = base + "/source";
  const std::string copy = base + "/copy";
  struct stat existing {};
  if (::stat(copy.c_str(), &existing) != 0) {
    std::printf("building %ld objects and their copy at %s ...\n", objects, base.c_str());
    std::fflush(stdout);
    std::system(("rm -rf '" + base + "'").c_str());
    if (::mkdir(base.c_str(), 0755) != 0 || !makeTree(source, objects) ||
        std::system(("cp -a '" + source + "' '" + copy + ".building' && mv '" + copy +
                     ".building' '" + copy + "'")
                        .c_str()) != 0) {
      std::fprintf(stderr, "cannot build the trees\n");
      return false;
    }
  }
  return true;
}

// Measures one tree size; false when a result is not "no difference".
bool measure(long objects, int rounds, pid_t daemon) {
  const std::string source = treeBase(objects) + "/source";
  const std::string copy = treeBase(objects) + "/copy";
  const std::string rsync = "rsync -an --delete '" + source + "/' '" + copy + "/'";
  const std::string diff = "diff -rq '" + source + "' '" + copy + "'";

  // Warm the cache, and check once what rsync would change (the timed form prints nothing).
  const ToolRun itemized = runTool("rsync -ani --delete '" + source + "/' '" + copy + "/'");
  runTool(diff);
  compareWithDaemon(source, copy, objects, 3, daemon);
  // The peak from here on is this size's.
  std::ofstream(("/proc/" + std::to_string(daemon) + "/clear_refs").c_str()) << "5";

  std::vector<double> rsyncTimes, statusTimes, diffTimes, bytesTimes;
  std::vector<double> rsyncCpu, statusCpu, diffCpu, bytesCpu;
  ToolRun rsyncRun, diffRun;
  DaemonRun statusRun, bytesRun;
  for (int round = 0; round < rounds; ++round) {
    rsyncRun = runTool(rsync);
    rsyncTimes.push_back(rsyncRun.seconds);
    rsyncCpu.push_back(rsyncRun.processorSeconds);
    statusRun = compareWithDaemon(source, copy, objects, 2, daemon);
    statusTimes.push_back(statusRun.seconds);
    statusCpu.push_back(statusRun.processorSeconds);
    diffRun = runTool(diff);
    diffTimes.push_back(diffRun.seconds);
    diffCpu.push_back(diffRun.processorSeconds);
    bytesRun = compareWithDaemon(source, copy, objects, 3, daemon);
    bytesTimes.push_back(bytesRun.seconds);
    bytesCpu.push_back(bytesRun.processorSeconds);
  }
  const long peak = bench::statusKiB(daemon, "VmHWM:");

  std::printf("%ld objects, %d rounds, medians\n", objects, rounds);
  std::printf(
      "  mode 2 (52) %8.1f ms  rsync -an --delete %8.1f ms  ratio %.2f (goal <= 0.8)"
      "  [%zu records, rsync -ani: %ld lines]\n",
      median(statusTimes) * 1e3, median(rsyncTimes) * 1e3, median(statusTimes) / median(rsyncTimes),
      statusRun.records, itemized.lines);
  std::printf(
      "  mode 3 (52) %8.1f ms  diff -rq           %8.1f ms  ratio %.2f (goal <= 0.8)"
      "  [%zu records, diff: %ld lines, status %d]\n",
      median(bytesTimes) * 1e3, median(diffTimes) * 1e3, median(bytesTimes) / median(diffTimes),
      bytesRun.records, diffRun.lines, diffRun.status);
  std::printf(
      "  processor time: mode 2 %.0f ms, rsync %.0f ms (%.2f); mode 3 %.0f ms, diff %.0f ms"
      " (%.2f)\n",
      median(statusCpu) * 1e3, median(rsyncCpu) * 1e3, median(statusCpu) / median(rsyncCpu),
      median(bytesCpu) * 1e3, median(diffCpu) * 1e3, median(bytesCpu) / median(diffCpu));
  std::printf("  daemon peak resident memory %ld KiB (goal: under 16384 KiB, flat)\n", peak);

  const bool same = statusRun.result.code() == 0 && bytesRun.result.code() == 0 &&
                    statusRun.records == 0 && bytesRun.records == 0 && itemized.status == 0 &&
                    itemized.lines == 0 && diffRun.status == 0 && diffRun.lines == 0;
  if (!same) {
    std::printf("  DIFFERENCES FOUND: results %s / %s\n", statusRun.result.description().c_str(),
                bytesRun.result.description().c_str());
  }
  return same;
}

}  // namespace

int main(int argc, char** argv) {
  int next = 1;
  const bool million = argc > 1 && std::strcmp(argv[1], "--million") == 0;
  if (million) ++next;
  const int rounds = argc > next ? std::atoi(argv[next]) : 5;
  const std::string binaries = argc > next + 1 ? argv[next + 1] : KRV_BINARY_DIR;

  // Before the services start: the daemon ends itself when idle for two minutes.
  if (!prepare(100000) || (million && !prepare(1000000))) return 1;
  std::optional<bench::Services> services = bench::startServices(binaries);
  if (!services) return 1;
  for (int attempt = 0; attempt < 100; ++attempt) {
    std::optional<KRVSecurityAgent> agent =
        KRVSecurityAgent::init("/run/com.tavorin.system.securityagent3.socket");
    auto version = KRVPrivilegedCommand::privilegedCommandWithCode(1, {});
    if (agent && agent->executeAtomicPrivilegedCommand(*version, false).code() == 0) break;
    ::usleep(50000);
  }

  KeepAlive keepAlive;
  bool same = measure(100000, rounds, services->daemon.pid());
  if (million) same = measure(1000000, rounds, services->daemon.pid()) && same;
  return same ? 0 : 1;
}
