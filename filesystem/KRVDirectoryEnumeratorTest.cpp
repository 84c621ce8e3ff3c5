#include "filesystem/KRVDirectoryEnumerator.h"

#include <dirent.h>
#include <fcntl.h>
#include <grp.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <functional>
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
      if (!skipped && skipWhen && skipWhen(*enumerator)) {
        enumerator->skipDescendents();
        skipped = true;
      }
    }
  });
  return outcome;
}

// The described walk, written the plain way: readdir order, lstat of the absolute path, the folder
// bit alone, no limits.
void referenceWalk(const std::string& absolute, const std::string& relative,
                   std::vector<std::string>& paths) {
  DIR* folder = ::opendir(absolute.c_str());
  if (folder == nullptr) return;
  while (dirent* entry = ::readdir(folder)) {
    std::string name = entry->d_name;
    if (name == "." || name == "..") continue;
    std::string path = relative.empty() ? name : relative + "/" + name;
    paths.push_back(path);
    struct stat status {};
    if (::lstat((absolute + "/" + name).c_str(), &status) == 0 && (status.st_mode & 0x4000) != 0) {
      referenceWalk(absolute + "/" + name, path, paths);
    }
  }
  ::closedir(folder);
}

// Serialises an outcome through a pipe: messages, then the paths, NUL-separated.
std::string encode(const WalkOutcome& outcome) {
  std::string text = outcome.messages;
  for (const std::string& path : outcome.paths) text += '\0' + path;
  return text;
}

WalkOutcome decode(const std::string& text) {
  WalkOutcome outcome;
  std::size_t end = text.find('\0');
  outcome.messages = text.substr(0, end);
  while (end != std::string::npos) {
    std::size_t start = end + 1;
    end = text.find('\0', start);
    outcome.paths.push_back(text.substr(start, end == std::string::npos ? end : end - start));
  }
  return outcome;
}

// Runs body in a child process, for namespaces, chroot and credentials that must not touch the
// test process, and returns the text it produced. A text beginning "skip:" means the host cannot
// do what the test needs.
std::string runInChild(const std::function<std::string()>& body) {
  auto ends = sys::pipe();
  if (!ends) return "skip:pipe";
  pid_t child = ::fork();
  if (child == 0) {
    ends->readEnd.reset();
    std::string text = body();
    (void)sys::writeAll(ends->writeEnd.get(),
                        {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
    ::_exit(0);
  }
  ends->writeEnd.reset();
  std::string text = readAll(ends->readEnd.get());
  int status = 0;
  ::waitpid(child, &status, 0);
  return text;
}

void removeTreeAt(int parentFd, const char* name) {
  int fd = ::openat(parentFd, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd >= 0) {
    DIR* folder = ::fdopendir(fd);
    while (dirent* entry = ::readdir(folder)) {
      std::string child = entry->d_name;
      if (child != "." && child != ".." && ::unlinkat(fd, child.c_str(), 0) != 0) {
        removeTreeAt(fd, child.c_str());
      }
    }
    ::closedir(folder);
  }
  ::unlinkat(parentFd, name, AT_REMOVEDIR);
}

class KRVDirectoryEnumeratorTest : public ::testing::TestWithParam<Mode> {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/krv-enum-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_root = pattern;
  }
  void TearDown() override {
    ::chmod(path("locked").c_str(), 0700);
    removeTreeAt(AT_FDCWD, m_root.c_str());
  }

  std::string path(const std::string& relative) const { return m_root + "/" + relative; }
  void makeFolder(const std::string& relative) {
    ASSERT_EQ(::mkdir(path(relative).c_str(), 0755), 0) << relative;
  }
  void makeFile(const std::string& relative) {
    int fd = ::open(path(relative).c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    ASSERT_GE(fd, 0) << relative;
    ::close(fd);
  }
  void makeLink(const std::string& relative, const std::string& target) {
    ASSERT_EQ(::symlink(target.c_str(), path(relative).c_str()), 0) << relative;
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
  std::vector<std::string> reference() const {
    std::vector<std::string> paths;
    referenceWalk(m_root, "", paths);
    return paths;
  }

  std::string m_root;
};

TEST_P(KRVDirectoryEnumeratorTest, WalksInReadOrderDepthFirstWithoutFollowingLinks) {
  makeFolder("a");
  makeFile("a/x");
  makeFolder("a/b");
  makeFile("a/b/y");
  makeFolder("a/empty");
  makeFolder("many");
  for (int i = 0; i < 40; ++i) makeFile("many/file" + std::to_string(i));
  makeLink("link-to-a", "a");
  makeLink("dangling", "nowhere");
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

TEST_P(KRVDirectoryEnumeratorTest, EntersNoRelativePathLongerThan1024Bytes) {
  // 254 + 3 * 255 = 1019 bytes of relative folder path.
  std::vector<std::string> names{std::string(254, 'a'), std::string(254, 'b'),
                                 std::string(254, 'c'), std::string(254, 'e')};
  UniqueFd deep = makeNested("", names);
  for (const char* name : {"dddd", "eeeee"}) {  // 1019 + 1 + 4 = 1024 fits, 1025 does not
    ASSERT_EQ(::mkdirat(deep.get(), name, 0755), 0);
    makeFileAt(deep.get(), std::string(name) + "/inside");
  }
  ASSERT_EQ(::mknodat(deep.get(), "sssss", S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(::mknodat(deep.get(), "fffff", S_IFIFO | 0600, 0), 0);

  WalkOutcome outcome = walk(m_root, GetParam());
  std::string prefix = names[0] + "/" + names[1] + "/" + names[2] + "/" + names[3] + "/";
  EXPECT_TRUE(outcome.has(prefix + "dddd/inside"));
  EXPECT_TRUE(outcome.has(prefix + "eeeee"));
  EXPECT_FALSE(outcome.has(prefix + "eeeee/inside"));
  EXPECT_EQ(outcome.paths.size(), 4u + 5u);
  EXPECT_EQ(outcome.messages, kPathLength + kPathLength);  // "eeeee" and the socket
}

TEST_P(KRVDirectoryEnumeratorTest, LongNameBelowFirstLevelReopensItsParentUpToTheNestingLimit) {
  std::string longName(255, 'n');
  makeFolder(longName);  // at the first level it adds 255 and is walked normally
  makeFile(longName + "/g");
  makeFolder("a");
  makeFile("a/x");
  makeFolder("a/" + longName);  // adds (255 + 1) mod 256 = 0: its level reads "a" again
  makeFile("a/" + longName + "/f");

  WalkOutcome outcome = walk(m_root, GetParam());
  EXPECT_EQ(outcome.count(longName + "/g"), 1);
  EXPECT_EQ(outcome.count("a"), 1);
  // Levels 1 to 499 all list "a".
  EXPECT_EQ(outcome.count("a/x"), 499);
  EXPECT_EQ(outcome.count("a/" + longName), 499);
  EXPECT_FALSE(outcome.has("a/" + longName + "/f"));
  EXPECT_EQ(outcome.paths.size(), 3u + 2u * 499u);
  EXPECT_EQ(outcome.messages, kNesting);
}

std::string modeName(const ::testing::TestParamInfo<Mode>& mode) {
  return std::string(mode.param.stay ? "Stay" : "Cross") +
         (mode.param.ignoreTypes ? "WithoutEntryTypes" : "");
}

INSTANTIATE_TEST_SUITE_P(Modes, KRVDirectoryEnumeratorTest,
                         ::testing::Values(Mode{false, false}, Mode{true, false}, Mode{false, true},
                                           Mode{true, true}),
                         modeName);

using KRVDirectoryEnumeratorTreeTest = KRVDirectoryEnumeratorTest;

TEST_F(KRVDirectoryEnumeratorTreeTest, InvalidBaseGivesNoEnumerator) {
  makeFile("file");
  makeFolder("folder");
  makeFile("folder/inside");
  makeLink("link-to-file", "file");
  makeLink("link-to-folder", "folder");
  makeLink("dangling", "nowhere");
  for (const char* name : {"missing", "file", "link-to-file", "dangling"}) {
    WalkOutcome outcome = walk(path(name), Mode{});
    EXPECT_EQ(
        outcome.messages,
        "KRVDirectoryEnumerator: attempt to initialize with invalid path '" + path(name) + "'\n");
  }
  std::string withNul("with\0nul", 8);
  EXPECT_EQ(walk(withNul, Mode{}).messages,
            "KRVDirectoryEnumerator: attempt to initialize with invalid path '" + withNul + "'\n");
  std::string silent = captureStandardError(
      [] { EXPECT_EQ(KRVDirectoryEnumerator::enumeratorAtPath(""), nullptr); });
  EXPECT_EQ(silent, "");
  EXPECT_EQ(walk(path("link-to-folder"), Mode{}).paths, std::vector<std::string>{"inside"});
}

TEST_F(KRVDirectoryEnumeratorTreeTest, EntersNoMoreThanFiveHundredLevels) {
  UniqueFd level499 = makeNested("", std::vector<std::string>(499, "d"));
  ASSERT_EQ(::mkdirat(level499.get(), "d", 0755), 0);
  ASSERT_EQ(::mkdirat(level499.get(), "d/below", 0755), 0);
  ASSERT_EQ(::mknodat(level499.get(), "socket", S_IFSOCK | 0600, 0), 0);
  ASSERT_EQ(::mknodat(level499.get(), "fifo", S_IFIFO | 0600, 0), 0);

  std::string folder499 = "d";
  for (int i = 1; i < 499; ++i) folder499 += "/d";
  for (Mode mode : kAllModes) {
    WalkOutcome outcome = walk(m_root, mode);
    EXPECT_EQ(outcome.paths.size(), 499u + 3u);
    EXPECT_TRUE(outcome.has(folder499 + "/d"));
    EXPECT_FALSE(outcome.has(folder499 + "/d/below"));
    // Once for the 500th folder and once for the socket; the FIFO is no candidate.
    EXPECT_EQ(outcome.messages, kNesting + kNesting);
  }
}

TEST_F(KRVDirectoryEnumeratorTreeTest, SkipDescendentsClosesTheInnermostFolder) {
  makeFolder("d");
  for (int i = 0; i < 5; ++i) makeFile("d/x" + std::to_string(i));
  makeFolder("d/sub");
  makeFile("d/sub/y");
  makeFile("d/sub/z");
  makeLink("d/link", "sub");
  makeFolder("e");
  makeFile("e/z");
  makeFile("top");
  std::vector<std::string> all = reference();

  struct Case {
    const char* name;
    std::function<bool(const KRVDirectoryEnumerator&)> when;
  };
  auto entry = [](const KRVDirectoryEnumerator& e) { return std::string(e.currentAbsolutePath()); };
  std::vector<Case> cases{
      {"entered folder", [&](auto& e) { return entry(e) == path("d"); }},
      {"file in folder", [&](auto& e) { return entry(e).starts_with(path("d/x")); }},
      {"link in folder", [&](auto& e) { return entry(e) == path("d/link"); }},
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

TEST_F(KRVDirectoryEnumeratorTreeTest, DeepTreeOfLargeFoldersIsWalkedCompletely) {
  // 499 levels of folders with 16 files of 200-byte names hold more directory data than the
  // reader's buffers; deep levels must fall back to small batches without losing entries.
  std::vector<UniqueFd> levels;
  UniqueFd current(::open(m_root.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  for (int level = 0; level < 499; ++level) {
    for (int i = 0; i < 16; ++i) {
      makeFileAt(current.get(), std::string(197, 'f') + std::to_string(100 + i));
    }
    ASSERT_EQ(::mkdirat(current.get(), "d", 0755), 0);
    current = UniqueFd(::openat(current.get(), "d", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  }
  for (Mode mode : kAllModes) {
    WalkOutcome outcome = walk(m_root, mode);
    EXPECT_EQ(outcome.paths.size(), 499u * 17u);
    EXPECT_EQ(outcome.paths, reference());
  }
}

TEST_F(KRVDirectoryEnumeratorTreeTest, AbsolutePathsBeyondPathMaxAreWalked) {
  std::string base;
  while (m_root.size() + base.size() < 3500) {
    base += "/" + std::string(240, 'b');
    makeFolder(base.substr(1));
  }
  std::vector<std::string> names(4, std::string(200, 'c'));
  UniqueFd deep = makeNested(base.substr(1), names);
  makeFileAt(deep.get(), "leaf");

  auto enumerator = KRVDirectoryEnumerator::enumeratorAtPath(path(base.substr(1)));
  ASSERT_TRUE(enumerator);
  std::vector<std::string> paths;
  std::size_t longest = 0;
  while (auto relative = enumerator->nextObject()) {
    paths.emplace_back(*relative);
    longest = std::max(longest, enumerator->currentAbsolutePath().size());
  }
  ASSERT_EQ(paths.size(), 5u);
  EXPECT_EQ(paths.back(), names[0] + "/" + names[1] + "/" + names[2] + "/" + names[3] + "/leaf");
  EXPECT_GT(longest, static_cast<std::size_t>(PATH_MAX));
}

TEST_F(KRVDirectoryEnumeratorTreeTest, UnreadableFolderIsReturnedButNotWalked) {
  makeFolder("locked");
  makeFile("locked/inner");
  makeFolder("open");
  makeFile("open/x");
  ASSERT_EQ(::chmod(path("locked").c_str(), 0), 0);
  ASSERT_EQ(::chmod(m_root.c_str(), 0755), 0);
  // Root opens anything; the walk runs as an ordinary user.
  std::string text = runInChild([&] {
    if (::geteuid() == 0 &&
        (::setgroups(0, nullptr) != 0 || ::setresgid(65534, 65534, 65534) != 0 ||
         ::setresuid(65534, 65534, 65534) != 0)) {
      return std::string("skip:cannot drop privileges");
    }
    return encode(walk(m_root, Mode{}));
  });
  if (text.starts_with("skip:")) GTEST_SKIP() << text;
  WalkOutcome outcome = decode(text);
  EXPECT_TRUE(outcome.has("locked"));
  EXPECT_FALSE(outcome.has("locked/inner"));
  EXPECT_TRUE(outcome.has("open/x"));
  EXPECT_EQ(outcome.messages, "");
}

TEST_F(KRVDirectoryEnumeratorTreeTest, StayOnFileSystemStopsAtAMountPoint) {
  makeFolder("mnt");
  makeFolder("plain");
  makeFile("plain/f");
  std::string text = runInChild([&] {
    if (::unshare(CLONE_NEWNS) != 0 ||
        ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("krv-test", path("mnt").c_str(), "tmpfs", 0, "size=1m") != 0) {
      return std::string("skip:cannot mount");
    }
    makeFolder("mnt/sub");
    makeFile("mnt/sub/inner");
    return encode(walk(m_root, Mode{true, false})) + '\0' + '\0' +
           encode(walk(m_root, Mode{false, false}));
  });
  if (text.starts_with("skip:")) GTEST_SKIP() << text;
  std::size_t split = text.find(std::string(2, '\0'));
  WalkOutcome staying = decode(text.substr(0, split));
  WalkOutcome crossing = decode(text.substr(split + 2));
  EXPECT_EQ(staying.paths.size(), 3u);
  EXPECT_TRUE(staying.has("mnt"));
  EXPECT_TRUE(staying.has("plain/f"));
  EXPECT_EQ(crossing.paths.size(), 5u);
  EXPECT_TRUE(crossing.has("mnt/sub/inner"));
}

TEST_F(KRVDirectoryEnumeratorTreeTest, RootBaseGetsNoExtraSeparatorAndVolumePrefixIsNotEntered) {
  for (const char* name : {".vol", ".volumes", ".vo", "plain"}) {
    makeFolder(name);
    makeFile(std::string(name) + "/inside");
  }
  std::string text = runInChild([&] {
    if (::chroot(m_root.c_str()) != 0 || ::chdir("/") != 0) return std::string("skip:chroot");
    return encode(walk("/", Mode{false, false})) + '\0' + '\0' +
           encode(walk("/", Mode{true, false}));
  });
  if (text.starts_with("skip:")) GTEST_SKIP() << text;
  std::size_t split = text.find(std::string(2, '\0'));
  WalkOutcome crossing = decode(text.substr(0, split));
  WalkOutcome staying = decode(text.substr(split + 2));
  EXPECT_EQ(crossing.paths.size(), 6u);
  for (const std::string& relative : crossing.paths) EXPECT_NE(relative.front(), '/');
  EXPECT_TRUE(crossing.has(".vol"));
  EXPECT_FALSE(crossing.has(".vol/inside"));
  EXPECT_FALSE(crossing.has(".volumes/inside"));  // a plain prefix test
  EXPECT_TRUE(crossing.has(".vo/inside"));
  EXPECT_TRUE(crossing.has("plain/inside"));
  EXPECT_EQ(staying.paths.size(), 8u);
  EXPECT_TRUE(staying.has(".vol/inside"));
}

}  // namespace
}  // namespace krv
