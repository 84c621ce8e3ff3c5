#pragma once
// Test support (header only, used by the platform, filesystem and executor tests): a temporary
// folder tree under /tmp with a small vocabulary to fill it, whose teardown first lifts every
// immutable and append-only flag so that the tree can always be deleted; and inPrivateMount, which
// runs a piece of test code in a forked child that has a private mount namespace with a fresh file
// system and reports what it found as named facts.

#include <fcntl.h>
#include <linux/fs.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

namespace krv::test {

// The kernel's inode flags of a regular file or folder (-1 when they cannot be read).
inline int kernelFlags(const std::string& path) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return -1;
  int flags = 0;
  int result = ::ioctl(fd, FS_IOC_GETFLAGS, &flags);
  ::close(fd);
  return result == 0 ? flags : -1;
}

// What `chattr` does: sets the kernel flags of a regular file or folder directly.
inline bool setKernelFlags(const std::string& path, int flags) {
  int fd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return false;
  int result = ::ioctl(fd, FS_IOC_SETFLAGS, &flags);
  ::close(fd);
  return result == 0;
}

class TestFileTree {
 public:
  TestFileTree() {
    char pattern[] = "/tmp/krv-fm-XXXXXX";
    if (::mkdtemp(pattern) == nullptr) throw std::runtime_error("mkdtemp");
    m_root = pattern;
  }
  ~TestFileTree() { removeAll(m_root); }
  TestFileTree(const TestFileTree&) = delete;
  TestFileTree& operator=(const TestFileTree&) = delete;

  const std::string& root() const { return m_root; }
  std::string path(const std::string& relative) const { return m_root + "/" + relative; }

  std::string makeFile(const std::string& relative, const std::string& contents = "",
                       mode_t mode = 0644) const {
    std::string full = path(relative);
    int fd = ::open(full.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) throw std::runtime_error("open " + full);
    bool written =
        ::write(fd, contents.data(), contents.size()) == static_cast<ssize_t>(contents.size());
    ::fchmod(fd, mode);
    ::close(fd);
    if (!written) throw std::runtime_error("write " + full);
    return full;
  }
  std::string makeFolder(const std::string& relative, mode_t mode = 0755) const {
    std::string full = path(relative);
    if (::mkdir(full.c_str(), mode) != 0) throw std::runtime_error("mkdir " + full);
    return full;
  }
  std::string makeLink(const std::string& relative, const std::string& destination) const {
    std::string full = path(relative);
    if (::symlink(destination.c_str(), full.c_str()) != 0) {
      throw std::runtime_error("symlink " + full);
    }
    return full;
  }
  std::string makeFifo(const std::string& relative) const {
    std::string full = path(relative);
    if (::mkfifo(full.c_str(), 0644) != 0) throw std::runtime_error("mkfifo " + full);
    return full;
  }
  // Makes the entries in order: "name/" a folder, "name -> destination" a symbolic link, "name|" a
  // FIFO, any other name an empty file.
  void make(const std::vector<std::string>& entries) const {
    for (const std::string& entry : entries) {
      const std::size_t arrow = entry.find(" -> ");
      const std::string name = entry.substr(0, entry.size() - 1);
      if (arrow != std::string::npos) {
        makeLink(entry.substr(0, arrow), entry.substr(arrow + 4));
      } else if (entry.ends_with('/')) {
        makeFolder(name);
      } else if (entry.ends_with('|')) {
        makeFifo(name);
      } else {
        makeFile(entry);
      }
    }
  }
  bool exists(const std::string& relative) const {
    struct stat status {};
    return ::lstat(path(relative).c_str(), &status) == 0;
  }

  // Lifts immutable and append-only flags everywhere below `top`, then deletes it.
  static void removeAll(const std::string& top) {
    std::error_code error;
    // A link is only unlinked: what it names is not the test's to unprotect.
    if (std::filesystem::is_symlink(top, error)) {
      std::filesystem::remove(top, error);
      return;
    }
    auto unprotect = [](const std::string& path) {
      int flags = kernelFlags(path);
      if (flags > 0 && (flags & (FS_IMMUTABLE_FL | FS_APPEND_FL)) != 0) {
        setKernelFlags(path, flags & ~(FS_IMMUTABLE_FL | FS_APPEND_FL));
      }
    };
    unprotect(top);
    for (auto it = std::filesystem::recursive_directory_iterator(
             top, std::filesystem::directory_options::skip_permission_denied, error);
         !error && it != std::filesystem::recursive_directory_iterator(); it.increment(error)) {
      if (!it->is_symlink(error)) unprotect(it->path());
    }
    std::filesystem::remove_all(top, error);
  }

 private:
  std::string m_root;
};

// What a child reports to its test: named facts, each of which the test compares on its own.
using Facts = std::map<std::string, std::string>;

// Runs `body` in a forked child with a private mount namespace in which a new file system of
// `type` ("tmpfs", "ramfs") is mounted on `mountPoint`; answers the facts body recorded. When the
// child could not run body, the one fact "child" says why (unshare, private, mount, or crashed).
// The mount ends with the child.
inline Facts inPrivateMount(const std::string& mountPoint, const char* type,
                            const std::function<void(Facts&)>& body) {
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return {{"child", "pipe"}};
  pid_t child = ::fork();
  if (child < 0) return {{"child", "fork"}};
  if (child == 0) {
    ::close(ends[0]);
    Facts facts;
    if (::unshare(CLONE_NEWNS) != 0) {
      facts["child"] = "unshare";
    } else if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
      facts["child"] = "private";
    } else if (::mount(type, mountPoint.c_str(), type, 0, nullptr) != 0) {
      facts["child"] = "mount";
    } else {
      body(facts);
    }
    // Each name and value followed by a NUL.
    std::string answer;
    for (const auto& [name, value] : facts) answer += name + '\0' + value + '\0';
    (void)!::write(ends[1], answer.data(), answer.size());
    ::_exit(0);
  }
  ::close(ends[1]);
  std::string answer;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(ends[0], buffer, sizeof buffer)) > 0) {
    answer.append(buffer, static_cast<std::size_t>(count));
  }
  ::close(ends[0]);
  int status = 0;
  ::waitpid(child, &status, 0);
  if (!WIFEXITED(status)) return {{"child", "crashed"}};
  Facts facts;
  for (std::size_t at = 0; at < answer.size();) {
    const std::size_t nameEnd = answer.find('\0', at);
    const std::size_t valueEnd = answer.find('\0', nameEnd + 1);
    if (nameEnd == std::string::npos || valueEnd == std::string::npos) break;
    facts[answer.substr(at, nameEnd - at)] = answer.substr(nameEnd + 1, valueEnd - nameEnd - 1);
    at = valueEnd + 1;
  }
  return facts;
}

}  // namespace krv::test
