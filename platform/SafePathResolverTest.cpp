#include "platform/SafePathResolver.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <variant>

#include "platform/TestFileTree.h"

namespace krv {
namespace {

constexpr uid_t kUser = 1000;
constexpr uid_t kOtherUser = 1001;

// A datagram socket standing in for /dev/log: the resolver's refusals arrive here.
class LogSink {
 public:
  explicit LogSink(const std::string& folder) : m_path(folder + "/log") {
    m_socket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  const std::string& path() const { return m_path; }
  // The next line logged, "" when there is none.
  std::string next() {
    char buffer[4096];
    ssize_t count = ::recv(m_socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return count < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(count));
  }

 private:
  std::string m_path;
  UniqueFd m_socket;
};

class SafePathResolverTest : public testing::Test {
 protected:
  SafePathResolverTest()
      : m_sink(m_tree.root()),
        m_log("resolver-test", "Daemon", 0, m_sink.path()),
        m_resolver(&m_log) {
    m_tree.make({"file", "root-dir/", "root-dir/file", "deep/", "deep/inner/", "deep/beside",
                 "mine/", "mine/file", "dangling-root -> nowhere", "loop-a -> loop-b",
                 "loop-b -> loop-a", "system -> root-dir", "jump -> deep/inner"});
    own("mine", kUser);
    own("mine/file", kUser);
    link("mine/to-own", "file", kUser);
    link("mine/to-chain", "to-own", kUser);
    link("mine/to-root", "../root-dir", kUser);
    link("mine/to-system", "../system", kUser);
    link("mine/dangling", "nowhere", kUser);
    link("theirs", "mine", kOtherUser);
  }

  void own(const std::string& relative, uid_t owner) {
    ASSERT_EQ(::fchownat(AT_FDCWD, path(relative).c_str(), owner, owner, AT_SYMLINK_NOFOLLOW), 0);
  }
  void link(const std::string& relative, const std::string& destination, uid_t owner) {
    m_tree.makeLink(relative, destination);
    own(relative, owner);
  }
  std::string path(const std::string& relative) const { return m_tree.path(relative); }
  ino_t inodeOf(const std::string& relative) const {
    struct stat status {};
    EXPECT_EQ(::lstat(path(relative).c_str(), &status), 0) << relative;
    return status.st_ino;
  }

  // The object reached (the inode of the tree path given) or the errno, for a table.
  using Outcome = std::variant<std::string, int>;
  void expectOutcome(const Result<PathHandle>& result, const Outcome& expected,
                     const std::string& label) {
    if (const int* code = std::get_if<int>(&expected)) {
      ASSERT_FALSE(result) << label;
      EXPECT_EQ(result.error().code(), *code) << label;
      EXPECT_EQ(SafePathResolver::isRefusal(result.error()), *code == EACCES) << label;
    } else {
      ASSERT_TRUE(result) << label << ": " << result.error().code();
      EXPECT_EQ(result->status().stx_ino, inodeOf(std::get<std::string>(expected))) << label;
    }
  }

  test::TestFileTree m_tree;
  LogSink m_sink;
  SystemLog m_log;
  SafePathResolver m_resolver;
};

TEST_F(SafePathResolverTest, FollowsRootsLinksAndUsersLinksToTheirOwnObjectsOnly) {
  struct Case {
    const char* path;
    LinkHandling finalLink;
    Outcome expected;
  };
  const Case cases[] = {
      // Root's links lead anywhere, in the middle and last.
      {"system/file", LinkHandling::NoFollow, "root-dir/file"},
      {"system", LinkHandling::Follow, "root-dir"},
      // A user's links lead to her own objects, also through another of her links.
      {"mine/to-own", LinkHandling::Follow, "mine/file"},
      {"mine/to-chain", LinkHandling::Follow, "mine/file"},
      // ... and never to anyone else's, wherever they stand in the path.
      {"mine/to-root/file", LinkHandling::NoFollow, EACCES},
      {"mine/to-root", LinkHandling::Follow, EACCES},
      {"mine/to-root/..", LinkHandling::NoFollow, EACCES},
      {"theirs/file", LinkHandling::NoFollow, EACCES},
      // What a link leads to is its destination resolved completely: root's link on the way does
      // not launder the user's.
      {"mine/to-system/file", LinkHandling::NoFollow, EACCES},
      // Not followed, a link is the object itself, whoever owns it.
      {"mine/to-root", LinkHandling::NoFollow, "mine/to-root"},
      {"loop-a", LinkHandling::NoFollow, "loop-a"},
      // Dangling links, a loop of links, a path through a file.
      {"dangling-root", LinkHandling::Follow, ENOENT},
      {"mine/dangling", LinkHandling::Follow, ENOENT},
      {"loop-a", LinkHandling::Follow, ELOOP},
      {"loop-a/x", LinkHandling::NoFollow, ELOOP},
      {"file/x", LinkHandling::NoFollow, ENOTDIR},
      {"missing/x", LinkHandling::NoFollow, ENOENT},
      // ".." goes to the parent of where a link led, not back along the path's text.
      {"jump/../beside", LinkHandling::NoFollow, "deep/beside"},
      {"deep/./inner/../beside/", LinkHandling::NoFollow, "deep/beside"},
  };
  for (const Case& c : cases) {
    expectOutcome(m_resolver.object(path(c.path), c.finalLink), c.expected, c.path);
  }
  struct stat top {};
  ASSERT_EQ(::stat("/", &top), 0);
  for (const char* atTheTop : {"/..", "/../..", "/."}) {
    Result<PathHandle> reached = m_resolver.object(atTheTop, LinkHandling::NoFollow);
    ASSERT_TRUE(reached) << atTheTop;
    EXPECT_EQ(reached->status().stx_ino, top.st_ino) << atTheTop;
  }
}

TEST_F(SafePathResolverTest, EntriesNameTheLastComponentInThePinnedFolder) {
  Result<PinnedEntry> made = m_resolver.entry(path("mine/new"), LinkHandling::NoFollow);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->folder.status().stx_ino, inodeOf("mine"));
  EXPECT_EQ(made->name, "new");
  EXPECT_FALSE(made->object);
  EXPECT_EQ(made->path, path("mine/new"));

  // A last link stays a name unless it is to be followed, and then only by the rule.
  Result<PinnedEntry> link = m_resolver.entry(path("mine/to-root"), LinkHandling::NoFollow);
  ASSERT_TRUE(link && link->object);
  EXPECT_TRUE(link->object->isSymbolicLink());
  expectOutcome(m_resolver.follow(*link, path("mine/to-root")), EACCES, "follow to-root");
  EXPECT_EQ(m_resolver.entry(path("mine/to-root"), LinkHandling::Follow).error().code(), EACCES);
  Result<PinnedEntry> own = m_resolver.entry(path("mine/to-own"), LinkHandling::NoFollow);
  ASSERT_TRUE(own);
  expectOutcome(m_resolver.follow(*own, path("mine/to-own")), "mine/file", "follow to-own");

  // Followed, the entry is where the link leads: the folder and name of its destination.
  Result<PinnedEntry> followed = m_resolver.entry(path("mine/to-chain"), LinkHandling::Follow);
  ASSERT_TRUE(followed && followed->object);
  EXPECT_EQ(followed->name, "file");
  EXPECT_EQ(followed->path, path("mine/file"));
  EXPECT_EQ(followed->object->status().stx_ino, inodeOf("mine/file"));
  // Root's dangling link leads to an empty entry; a user's leads nowhere at all.
  Result<PinnedEntry> nowhere = m_resolver.entry(path("dangling-root"), LinkHandling::Follow);
  ASSERT_TRUE(nowhere);
  EXPECT_EQ(nowhere->path, path("nowhere"));
  EXPECT_FALSE(nowhere->object);
  EXPECT_EQ(m_resolver.entry(path("mine/dangling"), LinkHandling::Follow).error().code(), ENOENT);

  // "." and ".." at the end stay names of the folder reached; "/" is its own entry ".".
  for (const char* special : {".", ".."}) {
    Result<PinnedEntry> entry =
        m_resolver.entry(path(std::string("mine/") + special), LinkHandling::NoFollow);
    ASSERT_TRUE(entry && entry->object) << special;
    EXPECT_EQ(entry->name, special);
    EXPECT_EQ(entry->folder.status().stx_ino, inodeOf("mine"));
  }
  Result<PinnedEntry> top = m_resolver.entry("/", LinkHandling::NoFollow);
  ASSERT_TRUE(top && top->object);
  EXPECT_EQ(top->name, ".");
  EXPECT_EQ(m_resolver.entry(path("file/x"), LinkHandling::NoFollow).error().code(), ENOTDIR);
}

TEST_F(SafePathResolverTest, RelativePathsStartAtTheWorkingFolder) {
  UniqueFd saved(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::chdir(path("deep").c_str()), 0);
  Result<PathHandle> beside = m_resolver.object("inner/../beside", LinkHandling::NoFollow);
  Result<PathHandle> above = m_resolver.object("../mine/to-root/file", LinkHandling::NoFollow);
  Result<PinnedEntry> entry = m_resolver.entry("../mine/to-own", LinkHandling::Follow);
  ASSERT_EQ(::fchdir(saved.get()), 0);
  expectOutcome(beside, "deep/beside", "relative");
  expectOutcome(above, EACCES, "relative through a user's link");
  ASSERT_TRUE(entry);
  EXPECT_EQ(entry->path, "../mine/file");
}

TEST_F(SafePathResolverTest, BoundsLinksAndPathLength) {
  // c0 -> c1 -> ... -> c40 -> file: forty links are followed, one more is a loop.
  for (int i = 0; i <= SafePathResolver::kMaximumLinks; ++i) {
    m_tree.makeLink("c" + std::to_string(i),
                    i == SafePathResolver::kMaximumLinks ? "file" : "c" + std::to_string(i + 1));
  }
  expectOutcome(m_resolver.object(path("c1"), LinkHandling::Follow), "file", "forty links");
  expectOutcome(m_resolver.object(path("c0"), LinkHandling::Follow), ELOOP, "forty-one links");

  std::string longPath = m_tree.root();
  while (longPath.size() < PATH_MAX) longPath += "/.";
  expectOutcome(m_resolver.object(longPath.substr(0, PATH_MAX - 1), LinkHandling::NoFollow), ".",
                "just short enough");
  expectOutcome(m_resolver.object(longPath.substr(0, PATH_MAX), LinkHandling::NoFollow),
                ENAMETOOLONG, "too long");
  expectOutcome(m_resolver.object(path(std::string(NAME_MAX + 1, 'n')), LinkHandling::NoFollow),
                ENAMETOOLONG, "long name");
  expectOutcome(m_resolver.object(std::string("/tmp\0/etc", 9), LinkHandling::NoFollow), EINVAL,
                "NUL byte");
  expectOutcome(m_resolver.object("", LinkHandling::NoFollow), ENOENT, "empty");
}

TEST_F(SafePathResolverTest, LogsEachRefusalWithTheLinkAndBothOwners) {
  link("mine/bad\n%m", "../root-dir", kUser);
  ASSERT_EQ(m_sink.next(), "");
  expectOutcome(m_resolver.object(path("mine/bad\n%m/file"), LinkHandling::NoFollow), EACCES,
                "refused");
  const std::string line = m_sink.next();
  // Notice level of the daemon facility; the names as bytes that cannot forge a line.
  EXPECT_EQ(line.rfind("<29>", 0), 0u) << line;
  EXPECT_NE(line.find("Refused to follow the symbolic link \"" + path("mine/bad\\x0a\\x25m") +
                      "\" of user 1000 to \"" + path("root-dir") + "\" of user 0 (path \"" +
                      path("mine/bad\\x0a\\x25m/file") + "\")"),
            std::string::npos)
      << line;

  // Only refusals are logged.
  expectOutcome(m_resolver.object(path("mine/to-own"), LinkHandling::Follow), "mine/file", "own");
  expectOutcome(m_resolver.object(path("mine/dangling"), LinkHandling::Follow), ENOENT, "dangling");
  EXPECT_EQ(m_sink.next(), "");
}

}  // namespace
}  // namespace krv
