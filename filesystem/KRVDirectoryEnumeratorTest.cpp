#include "filesystem/KRVDirectoryEnumerator.h"

#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "foundation/System.h"

namespace krv {

class KRVDirectoryEnumeratorTestPeer {
 public:
  static void ignoreEntryTypes(KRVDirectoryEnumerator& enumerator) {
    enumerator.m_ignoresEntryTypes = true;
  }
};

namespace {

const std::string kNesting =
    "KRVDirectoryEnumerator: maximum number of nested directories reached. Skipping...\n";
const std::string kPathLength =
    "KRVDirectoryEnumerator: maximum path length reached. Skipping...\n";

struct Mode {
  bool stay;
  bool ignoreTypes;
};

const Mode kAllModes[] = {{false, false}, {true, false}, {false, true}, {true, true}};

struct WalkOutcome {
  std::vector<std::string> paths;
  std::string messages;
  long count(const std::string& path) const { return std::count(paths.begin(), paths.end(), path); }
  bool has(const std::string& path) const { return count(path) > 0; }
};

std::string readAll(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t count;
  while ((count = ::read(fd, buffer, sizeof buffer)) > 0) text.append(buffer, count);
  return text;
}

// Runs body with standard error going to a memory file and returns what was written there.
std::string captureStandardError(const std::function<void()>& body) {
  std::fflush(stderr);
  int saved = ::dup(STDERR_FILENO);
  int memory = ::memfd_create("stderr", MFD_CLOEXEC);
  ::dup2(memory, STDERR_FILENO);
  body();
  ::dup2(saved, STDERR_FILENO);
  ::close(saved);
  ::lseek(memory, 0, SEEK_SET);
  std::string text = readAll(memory);
  ::close(memory);
  return text;
}

// More entries than any test tree holds: a walk that gets this far is taken not to end.
constexpr std::size_t kEndlessWalk = 100000;

// The whole walk; skipWhen is asked after every entry whether to call skipDescendents() (once).
WalkOutcome walk(const std::string& base, Mode mode,
                 const std::function<bool(const KRVDirectoryEnumerator&)>& skipWhen = {}) {
  WalkOutcome outcome;
  outcome.messages = captureStandardError([&] {
    auto enumerator = KRVDirectoryEnumerator::enumeratorAtPath(base, mode.stay);
    if (!enumerator) return;
    if (mode.ignoreTypes) KRVDirectoryEnumeratorTestPeer::ignoreEntryTypes(*enumerator);
    bool skipped = false;
    while (auto path = enumerator->nextObject()) {
      outcome.paths.emplace_back(*path);
      if (outcome.paths.size() == kEndlessWalk) {
        ADD_FAILURE() << "the walk does not end";
        break;
      }
      if (!skipped && skipWhen && skipWhen(*enumerator)) {
        enumerator->skipDescendents();
        skipped = true;
      }
    }
  });
  return outcome;
}

// Walks in a child process after `setup`, for namespaces, chroot and credentials that must not
// touch the test process; nothing when setup fails (the host cannot do what the test needs).
std::optional<WalkOutcome> walkInChild(const std::function<bool()>& setup, const std::string& base,
                                       Mode mode) {
  auto ends = sys::pipe();
  if (!ends) return std::nullopt;
  if (::fork() == 0) {
    std::string text;  // empty, or "+", the messages and then each path after a NUL
    if (setup()) {
      WalkOutcome outcome = walk(base, mode);
      text = "+" + outcome.messages;
      for (const std::string& path : outcome.paths) text += '\0' + path;
    }
    (void)sys::writeAll(ends->writeEnd.get(),
                        {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    ::_exit(0);
  }
  ends->writeEnd.reset();
  std::string text = readAll(ends->readEnd.get());
  ::wait(nullptr);
  if (text.empty()) return std::nullopt;
  WalkOutcome outcome;
  std::istringstream stream(text.substr(1));
  std::getline(stream, outcome.messages, '\0');
  for (std::string path; std::getline(stream, path, '\0');) outcome.paths.push_back(path);
  return outcome;
}

class KRVDirectoryEnumeratorTest : public ::testing::TestWithParam<Mode> {
 protected:
  void SetUp() override { makeRoot("/tmp"); }
  void makeRoot(const std::string& parent) {
    std::string pattern = parent + "/krv-enum-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    m_root = pattern;
  }
  // Trees of thousands of objects are built much faster in memory, where the host has a tmpfs.
  void moveRootToMemory() {
    if (::access("/dev/shm", W_OK) != 0) return;
    ::rmdir(m_root.c_str());
    makeRoot("/dev/shm");
  }
  void TearDown() override { EXPECT_EQ(std::system(("rm -rf " + m_root).c_str()), 0); }

  std::string path(const std::string& relative) const { return m_root + "/" + relative; }
  // "name/" makes a folder, "name -> target" a symbolic link, any other entry an empty file.
  void makeTree(std::initializer_list<std::string> entries) {
    for (const std::string& entry : entries) {
      std::size_t arrow = entry.find(" -> ");
      if (arrow != std::string::npos) {
        std::string link = path(entry.substr(0, arrow));
        ASSERT_EQ(::symlink(entry.substr(arrow + 4).c_str(), link.c_str()), 0) << entry;
      } else if (entry.ends_with('/')) {
        ASSERT_EQ(::mkdir(path(entry).c_str(), 0755), 0) << entry;
      } else {
        makeFileAt(AT_FDCWD, path(entry));
      }
    }
  }
  bool makeNode(const std::string& relative, mode_t type) {
    return ::mknod(path(relative).c_str(), type | 0600, type == S_IFBLK ? makedev(7, 0) : 0) == 0;
  }
  static void makeFileAt(int folderFd, const std::string& relative) {
    int fd = ::openat(folderFd, relative.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << relative;
    ::close(fd);
  }
  // Creates the folders `names` nested below `relative` with *at() calls, so the tree may go
  // beyond PATH_MAX; returns the innermost one.
  UniqueFd makeNested(const std::string& relative, const std::vector<std::string>& names) {
    UniqueFd current(::open(path(relative).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    for (const std::string& name : names) {
      EXPECT_EQ(::mkdirat(current.get(), name.c_str(), 0755), 0) << name;
      current = UniqueFd(::openat(current.get(), name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    return current;
  }
  // The plain walk of the standard library: read order, depth first, no links followed, no limits.
  std::vector<std::string> reference() const {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(m_root)) {
      paths.push_back(entry.path().lexically_relative(m_root).string());
    }
    return paths;
  }

  std::string m_root;
};

TEST_P(KRVDirectoryEnumeratorTest, WalksInReadOrderDepthFirstWithoutFollowingLinks) {
  makeTree({"a/", "a/x", "a/b/", "a/b/y", "a/empty/", "many/", "link-to-a -> a", "dangling -> no"});
  for (int i = 0; i < 40; ++i) makeTree({"many/file" + std::to_string(i)});
  ASSERT_EQ(::link(path("a/x").c_str(), path("hard").c_str()), 0);
  ASSERT_TRUE(makeNode("fifo", S_IFIFO));
  ASSERT_TRUE(makeNode("socket", S_IFSOCK));  // passes the folder-bit test, cannot be opened
  makeNode("block", S_IFBLK);                 // the same, where the host lets us make one

  WalkOutcome outcome = walk(m_root, GetParam());
  EXPECT_EQ(outcome.paths, reference());
  EXPECT_EQ(outcome.messages, "");
  EXPECT_TRUE(outcome.has("link-to-a"));
  EXPECT_FALSE(outcome.has("link-to-a/x"));

  // What the walk tells about each entry agrees with lstat.
  auto enumerator = KRVDirectoryEnumerator::enumeratorAtPath(m_root, GetParam().stay);
  ASSERT_TRUE(enumerator);
  if (GetParam().ignoreTypes) KRVDirectoryEnumeratorTestPeer::ignoreEntryTypes(*enumerator);
  while (auto relative = enumerator->nextObject()) {
    SCOPED_TRACE(std::string(*relative));
    struct stat expected {
    }, viaFd{};
    ASSERT_EQ(::lstat(path(std::string(*relative)).c_str(), &expected), 0);
    EXPECT_EQ(enumerator->currentAbsolutePath(), path(std::string(*relative)));
    EXPECT_EQ(enumerator->currentEntryName(), relative->substr(relative->rfind('/') + 1));
    EXPECT_EQ(enumerator->currentEntryFileType(), expected.st_mode & S_IFMT);
    EXPECT_EQ(enumerator->currentEntryWasEntered(), S_ISDIR(expected.st_mode));
    ASSERT_EQ(::fstatat(enumerator->currentEntryDirectoryFd(),
                        enumerator->currentEntryName().data(), &viaFd, AT_SYMLINK_NOFOLLOW),
              0);
    EXPECT_EQ(viaFd.st_ino, expected.st_ino);
  }
  EXPECT_FALSE(enumerator->nextObject());
  EXPECT_FALSE(enumerator->nextObject());
}

TEST_P(KRVDirectoryEnumeratorTest, EntersNoRelativePathLongerThan1024BytesWhateverItsAbsoluteOne) {
  // A base of 3,374 bytes below the root: absolute paths in the walk outgrow PATH_MAX.
  std::string base;
  std::vector<std::string> baseNames(14, std::string(240, 'b'));
  makeNested("", baseNames);
  for (const std::string& name : baseNames) base += "/" + name;
  // 254 + 3 * 255 = 1019 bytes of relative folder path.
  std::vector<std::string> names{std::string(254, 'a'), std::string(254, 'b'),
                                 std::string(254, 'c'), std::string(254, 'e')};
  UniqueFd deep = makeNested(base.substr(1), names);
  for (const char* name : {"dddd", "eeeee"}) {  // 1019 + 1 + 4 = 1024 fits, 1025 does not
    ASSERT_EQ(::mkdirat(deep.get(), name, 0755), 0);
    makeFileAt(deep.get(), std::string(name) + "/inside");
  }
  ASSERT_EQ(::mknodat(deep.get(), "sssss", S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(::mknodat(deep.get(), "fffff", S_IFIFO | 0600, 0), 0);

  WalkOutcome outcome = walk(m_root + base, GetParam());
  std::string prefix = names[0] + "/" + names[1] + "/" + names[2] + "/" + names[3] + "/";
  EXPECT_TRUE(outcome.has(prefix + "dddd/inside"));
  EXPECT_TRUE(outcome.has(prefix + "eeeee"));
  EXPECT_FALSE(outcome.has(prefix + "eeeee/inside"));
  EXPECT_EQ(outcome.paths.size(), 4u + 5u);
  EXPECT_EQ(outcome.messages, kPathLength + kPathLength);  // "eeeee" and the socket
}

TEST_P(KRVDirectoryEnumeratorTest, LongNamesBelowFirstLevelReopenTheirParentWhichIsNotWalkedAgain) {
  const std::string n(255, 'n');
  const std::string m(255, 'm');
  // At the first level a 255-byte name adds 255 and is walked normally; below "a" it adds
  // (255 + 1) mod 256 = 0, so its level would read "a" again, which is already open: the entry is
  // returned and not walked (its own contents are never listed). Two such names once made the walk
  // branch in two at every level down to the nesting limit.
  makeTree({n + "/", n + "/g", "a/", "a/x", "a/" + n + "/", "a/" + n + "/f", "a/" + m + "/",
            "a/sub/", "a/sub/" + n + "/"});

  WalkOutcome outcome = walk(m_root, GetParam());
  std::vector<std::string> expected = reference();
  std::erase_if(expected, [&](const std::string& p) { return p == "a/" + n + "/f"; });
  EXPECT_EQ(outcome.paths, expected);
  EXPECT_EQ(outcome.messages, "");
}

// A folder mounted into its own subtree (same device, same inode as an open level) is returned
// but not walked, with or without the stay flag. One mounted beside itself is no loop: the walk
// has left it when it meets it again, and walks it twice. Below a mount of the folder above the
// base, the base comes again by its own name, without a mount point, and is not walked either.
// The same where a sandbox refuses openat2, which tells mount points apart.
TEST_P(KRVDirectoryEnumeratorTest, FolderMountedIntoItsOwnSubtreeIsWalkedOnce) {
  makeTree({"a/", "a/f", "a/b/", "a/b/c/", "a/b/g", "a/d/", "a/e/", "a/j/"});
  auto bind = [&](const std::string& from, const char* to) {
    return ::mount(from.c_str(), path(to).c_str(), nullptr, MS_BIND, nullptr) == 0;
  };
  auto refuseOpenat2 = [](int error) {
    if (error == 0) return true;
    sock_filter filter[] = {
        {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
        {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, SYS_openat2},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(error)},
        {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
    };
    sock_fprog program{static_cast<unsigned short>(std::size(filter)), filter};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
           ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
  };
  using Paths = std::vector<std::string>;
  const std::pair<std::string, Paths> walks[] = {
      {m_root, {"a", "a/b", "a/b/c", "a/b/g", "a/d", "a/e", "a/e/c", "a/e/g", "a/f", "a/j"}},
      {path("a"), {"b", "b/c", "b/g", "d", "e", "e/c", "e/g", "f", "j", "j/a"}},
  };
  for (int openat2Error : {0, ENOSYS, EPERM}) {
    auto mountLoops = [&] {
      return ::unshare(CLONE_NEWNS) == 0 &&
             ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
             bind(path("a/b"), "a/e") && bind(path("a"), "a/b/c") && bind(path("a"), "a/d") &&
             bind(m_root, "a/j") && refuseOpenat2(openat2Error);
    };
    for (const auto& [base, expected] : walks) {
      std::optional<WalkOutcome> outcome = walkInChild(mountLoops, base, GetParam());
      if (!outcome) GTEST_SKIP() << "cannot bind-mount";
      std::sort(outcome->paths.begin(), outcome->paths.end());
      EXPECT_EQ(outcome->paths, expected) << base << ", openat2 error " << openat2Error;
      EXPECT_EQ(outcome->messages, "");
    }
  }
}

std::string modeName(const ::testing::TestParamInfo<Mode>& mode) {
  return std::string(mode.param.stay ? "Stay" : "Cross") +
         (mode.param.ignoreTypes ? "WithoutEntryTypes" : "");
}

INSTANTIATE_TEST_SUITE_P(Modes, KRVDirectoryEnumeratorTest, ::testing::ValuesIn(kAllModes),
                         modeName);

using KRVDirectoryEnumeratorTreeTest = KRVDirectoryEnumeratorTest;

TEST_F(KRVDirectoryEnumeratorTreeTest, InvalidBaseGivesNoEnumerator) {
  makeTree({"file", "folder/", "folder/inside", "link-to-file -> file", "link-to-folder -> folder",
            "dangling -> nowhere"});
  std::string withNul("with\0nul", 8);
  for (const std::string& base :
       {path("missing"), path("file"), path("link-to-file"), path("dangling"), withNul}) {
    EXPECT_EQ(walk(base, Mode{}).messages,
              "KRVDirectoryEnumerator: attempt to initialize with invalid path '" + base + "'\n");
  }
  std::string silent = captureStandardError(
      [] { EXPECT_EQ(KRVDirectoryEnumerator::enumeratorAtPath(""), nullptr); });
  EXPECT_EQ(silent, "");
  EXPECT_EQ(walk(path("link-to-folder"), Mode{}).paths, std::vector<std::string>{"inside"});
}

TEST_F(KRVDirectoryEnumeratorTreeTest, SkipDescendentsClosesTheInnermostFolder) {
  makeTree({"d/", "d/x0", "d/x1", "d/x2", "d/x3", "d/sub/", "d/sub/y", "d/sub/z", "d/link -> sub",
            "e/", "e/z", "top"});
  std::vector<std::string> all = reference();

  struct Case {
    const char* name;
    std::function<bool(const KRVDirectoryEnumerator&)> when;
  };
  auto entry = [](const KRVDirectoryEnumerator& e) { return std::string(e.currentAbsolutePath()); };
  std::vector<Case> cases{
      {"entered folder", [&](auto& e) { return entry(e) == path("d"); }},
      {"file in folder", [&](auto& e) { return entry(e).starts_with(path("d/x")); }},
      {"file in subfolder", [&](auto& e) { return entry(e).starts_with(path("d/sub/")); }},
      {"file in base", [&](auto& e) { return entry(e) == path("top"); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::string trigger, closed;
    WalkOutcome outcome = walk(m_root, Mode{}, [&](const KRVDirectoryEnumerator& e) {
      if (!c.when(e)) return false;
      trigger = entry(e).substr(m_root.size() + 1);
      std::size_t slash = trigger.rfind('/');
      closed = e.currentEntryWasEntered()   ? trigger
               : slash == std::string::npos ? ""
                                            : trigger.substr(0, slash);
      return true;
    });
    // Everything up to the trigger, then what follows the closed folder's subtree.
    auto at = std::find(all.begin(), all.end(), trigger);
    ASSERT_NE(at, all.end());
    std::vector<std::string> expected(all.begin(), at + 1);
    if (!closed.empty()) {
      expected.insert(
          expected.end(),
          std::find_if(at + 1, all.end(),
                       [&](const std::string& p) { return !p.starts_with(closed + "/"); }),
          all.end());
    }
    EXPECT_EQ(outcome.paths, expected);
  }

  auto enumerator = KRVDirectoryEnumerator::enumeratorAtPath(m_root);
  enumerator->skipDescendents();
  enumerator->skipDescendents();
  EXPECT_FALSE(enumerator->nextObject());
}

TEST_F(KRVDirectoryEnumeratorTreeTest, DeepTreeOfLargeFoldersIsWalkedDownToFiveHundredLevels) {
  // 499 levels with 10 files of 250-byte names hold more directory data than the reader's
  // buffers: deep levels must fall back to small batches without losing entries.
  moveRootToMemory();
  UniqueFd current(::open(m_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < 499; ++level) {
    for (int i = 0; i < 10; ++i)
      makeFileAt(current.get(), std::string(247, 'f') + std::to_string(i));
    ASSERT_EQ(::mkdirat(current.get(), "d", 0755), 0);
    current = UniqueFd(::openat(current.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  // In the 499th folder: the 500th, not entered, and a socket and a FIFO.
  ASSERT_EQ(::mkdirat(current.get(), "d", 0755), 0);
  ASSERT_EQ(::mkdirat(current.get(), "d/below", 0755), 0);
  ASSERT_EQ(::mknodat(current.get(), "socket", S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(::mknodat(current.get(), "fifo", S_IFIFO | 0600, 0), 0);
  std::vector<std::string> expected = reference();
  std::erase_if(expected, [](const std::string& p) { return p.ends_with("/d/below"); });
  ASSERT_EQ(expected.size(), 499u * 11u + 3u);

  for (Mode mode : kAllModes) {
    WalkOutcome outcome = walk(m_root, mode);
    EXPECT_EQ(outcome.paths, expected);
    // Once for the 500th folder and once for the socket, which passes the folder-bit test.
    EXPECT_EQ(outcome.messages, kNesting + kNesting);
  }
}

TEST_F(KRVDirectoryEnumeratorTreeTest, UnreadableFolderIsReturnedButNotWalked) {
  makeTree({"locked/", "locked/inner", "open/", "open/x"});
  ASSERT_EQ(::chmod(path("locked").c_str(), 0), 0);
  ASSERT_EQ(::chmod(m_root.c_str(), 0755), 0);
  // Root opens anything; the walk runs as an ordinary user.
  auto outcome = walkInChild(
      [] {
        return ::geteuid() != 0 ||
               (::setgroups(0, nullptr) == 0 && ::setresgid(65534, 65534, 65534) == 0 &&
                ::setresuid(65534, 65534, 65534) == 0);
      },
      m_root, Mode{});
  if (!outcome) GTEST_SKIP() << "cannot drop privileges";
  EXPECT_TRUE(outcome->has("locked"));
  EXPECT_FALSE(outcome->has("locked/inner"));
  EXPECT_TRUE(outcome->has("open/x"));
  EXPECT_EQ(outcome->messages, "");
}

TEST_F(KRVDirectoryEnumeratorTreeTest, StayOnFileSystemStopsAtAMountPoint) {
  makeTree({"mnt/", "plain/", "plain/f"});
  auto mountTmpfs = [&] {
    return ::unshare(CLONE_NEWNS) == 0 &&
           ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
           ::mount("krv-test", path("mnt").c_str(), "tmpfs", 0, "size=1m") == 0 &&
           ::mkdir(path("mnt/sub").c_str(), 0755) == 0;
  };
  auto staying = walkInChild(mountTmpfs, m_root, Mode{true, false});
  auto crossing = walkInChild(mountTmpfs, m_root, Mode{false, false});
  if (!staying || !crossing) GTEST_SKIP() << "cannot mount";
  EXPECT_EQ(staying->paths, (std::vector<std::string>{"mnt", "plain", "plain/f"}));
  EXPECT_EQ(crossing->paths.size(), 4u);
  EXPECT_TRUE(crossing->has("mnt/sub"));
}

TEST_F(KRVDirectoryEnumeratorTreeTest, WalkOfAnOpenFolderNeverLooksItsPathUpAgain) {
  makeTree({"pinned/", "pinned/a/", "pinned/a/x", "other/", "other/decoy"});
  UniqueFd folder(::open(path("pinned").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  ASSERT_TRUE(folder.valid());
  // Whatever the path names by now, the walk is of the folder that was opened.
  ASSERT_EQ(::rename(path("pinned").c_str(), path("moved").c_str()), 0);
  ASSERT_EQ(::rename(path("other").c_str(), path("pinned").c_str()), 0);
  std::unique_ptr<KRVDirectoryEnumerator> walk =
      KRVDirectoryEnumerator::enumeratorAtFolder(std::move(folder), path("pinned"), true);
  ASSERT_NE(walk, nullptr);
  EXPECT_TRUE(walk->shouldStayOnFileSystem());
  ASSERT_TRUE(walk->nextObject());
  EXPECT_EQ(walk->currentAbsolutePath(), path("pinned/a"));
  EXPECT_EQ(walk->allObjects(), std::vector<std::string>{"a/x"});

  // No folder at all: a walk that yields nothing.
  walk = KRVDirectoryEnumerator::enumeratorAtFolder(UniqueFd(), path("pinned"), true);
  ASSERT_NE(walk, nullptr);
  EXPECT_FALSE(walk->shouldStayOnFileSystem());
  EXPECT_FALSE(walk->nextObject());
}

TEST_F(KRVDirectoryEnumeratorTreeTest, RootBaseGetsNoExtraSeparatorAndVolumePrefixIsNotEntered) {
  makeTree({".vol/", ".vol/inside", ".volumes/", ".volumes/inside", ".vo/", ".vo/inside", "plain/",
            "plain/inside"});
  auto enterRoot = [&] { return ::chroot(m_root.c_str()) == 0 && ::chdir("/") == 0; };
  auto crossing = walkInChild(enterRoot, "/", Mode{false, false});
  auto staying = walkInChild(enterRoot, "/", Mode{true, false});
  if (!crossing || !staying) GTEST_SKIP() << "cannot chroot";
  EXPECT_EQ(crossing->paths.size(), 6u);
  for (const std::string& relative : crossing->paths) EXPECT_NE(relative.front(), '/');
  EXPECT_TRUE(crossing->has(".vol"));
  EXPECT_FALSE(crossing->has(".vol/inside"));
  EXPECT_FALSE(crossing->has(".volumes/inside"));  // a plain prefix test
  EXPECT_TRUE(crossing->has(".vo/inside"));
  EXPECT_TRUE(crossing->has("plain/inside"));
  EXPECT_EQ(staying->paths.size(), 8u);
  EXPECT_TRUE(staying->has(".vol/inside"));
}

}  // namespace
}  // namespace krv
