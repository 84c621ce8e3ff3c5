#pragma once
// The trees the whole-system benchmarks walk, built once under /var/tmp and kept between runs
// (building a million objects takes longer than measuring them), and the running and timing of the
// programs they are measured against.
//
// A tree is built under "<base>.building" and renamed into place only when complete, so an
// interrupted build is never taken for a tree.

#include <fcntl.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

extern char** environ;

namespace krv::bench {

// The searched tree: folders of 98 files, 100 such folders per group folder, `objects` objects
// below the base in all. File n is named file-<k>.dat, is (n * 7919) % 65536 bytes long without
// using blocks, and every third file is dated 400 days back (the rest keep the time of the build).
inline bool makeSearchTree(const std::string& base, long objects) {
  constexpr int kFilesPerFolder = 98;
  constexpr int kFoldersPerGroup = 100;
  constexpr time_t kOldAge = 400 * 86400;
  const std::string building = base + ".building";
  std::system(("rm -rf '" + building + "'").c_str());
  if (::mkdir(building.c_str(), 0755) != 0) return false;
  int top = ::open(building.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (top < 0) return false;
  const time_t old = ::time(nullptr) - kOldAge;
  const struct timespec oldTimes[2] = {{old, 0}, {old, 0}};
  long made = 0;
  long fileNumber = 0;
  bool complete = true;
  for (int group = 0; complete && made < objects; ++group) {
    std::string groupName = "g" + std::to_string(group);
    if (::mkdirat(top, groupName.c_str(), 0755) != 0) return false;
    ++made;
    int groupFd = ::openat(top, groupName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (int folder = 0; complete && folder < kFoldersPerGroup && made < objects; ++folder) {
      std::string folderName = "folder-" + std::to_string(folder);
      if (::mkdirat(groupFd, folderName.c_str(), 0755) != 0) return false;
      ++made;
      int folderFd = ::openat(groupFd, folderName.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
      for (int file = 0; file < kFilesPerFolder && made < objects; ++file, ++fileNumber) {
        std::string fileName = "file-" + std::to_string(file) + ".dat";
        int fd = ::openat(folderFd, fileName.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
        complete = fd >= 0 && ::ftruncate(fd, (fileNumber * 7919) % 65536) == 0 &&
                   (fileNumber % 3 != 0 || ::futimens(fd, oldTimes) == 0);
        if (fd >= 0) ::close(fd);
        if (!complete) break;
        ++made;
      }
      ::close(folderFd);
    }
    ::close(groupFd);
  }
  ::close(top);
  return complete && ::rename(building.c_str(), base.c_str()) == 0;
}

// One folder holding `entries` empty files named entry-<n>.dat.
inline bool makeFlatFolder(const std::string& base, long entries) {
  const std::string building = base + ".building";
  std::system(("rm -rf '" + building + "'").c_str());
  if (::mkdir(building.c_str(), 0755) != 0) return false;
  int folder = ::open(building.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (folder < 0) return false;
  bool complete = true;
  for (long n = 0; complete && n < entries; ++n) {
    const std::string name = "entry-" + std::to_string(n) + ".dat";
    int fd = ::openat(folder, name.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    complete = fd >= 0;
    if (fd >= 0) ::close(fd);
  }
  ::close(folder);
  return complete && ::rename(building.c_str(), base.c_str()) == 0;
}

// Builds the tree at `base` with `make` unless it is there already; false when it cannot.
template <class Make>
bool ensureTree(const std::string& base, Make make) {
  struct stat existing {};
  if (::stat(base.c_str(), &existing) == 0) return true;
  std::printf("building %s ...\n", base.c_str());
  std::fflush(stdout);
  return make(base);
}

// The wall time of a program's run and the processor time it used (user and system, all its
// threads), in seconds; seconds is negative when it could not be started or did not exit 0.
struct ProgramTime {
  double seconds = -1;
  double processorSeconds = 0;
};

// Runs a program with its standard output on `outputFd` and its standard error on /dev/null.
inline ProgramTime runProgram(const std::vector<std::string>& words, int outputFd) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
  const auto start = std::chrono::steady_clock::now();
  pid_t pid = 0;
  const int spawned = ::posix_spawnp(&pid, argv[0], &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (spawned != 0) return {};
  int status = 0;
  struct rusage usage {};
  ::wait4(pid, &status, 0, &usage);
  ProgramTime time;
  time.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  time.processorSeconds =
      static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
      static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) time.seconds = -1;
  return time;
}

// The wall time alone.
inline double timeProgram(const std::vector<std::string>& words, int outputFd) {
  return runProgram(words, outputFd).seconds;
}

}  // namespace krv::bench
