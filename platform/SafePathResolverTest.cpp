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
#include <optional>
#include <string>
#include <tuple>
#include <variant>

#include "tests/support/TestFileTree.h"

namespace krv {
namespace {

constexpr uid_t kUser = 1000;

class SafePathResolverTest : public testing::Test {
 protected:
  SafePathResolverTest() {
    // A datagram socket in the tree stands in for /dev/log.
    const std::string logPath = m_tree.path("log");
    m_logSocket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, logPath.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(m_logSocket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    m_log.emplace("resolver-test", "Daemon", 0, logPath);
    m_resolver = SafePathResolver(&*m_log);

    m_tree.make({"file", "root-dir/", "root-dir/file", "deep/", "deep/inner/", "deep/beside",
                 "mine/", "mine/file", "dangling-root -> nowhere", "loop-a -> loop-b",
                 "loop-b -> loop-a", "system -> root-dir", "jump -> deep/inner"});
    for (const auto& [name, destination, owner] : {std::tuple{"mine/to-own", "file", kUser},
                                                   {"mine/to-chain", "to-own", kUser},
                                                   {"mine/to-root", "../root-dir", kUser},
                                                   {"mine/to-system", "../system", kUser},
                                                   {"mine/dangling", "nowhere", kUser},
                                                   {"theirs", "mine", kUser + 1}}) {
      m_tree.makeLink(name, destination);
      own(name, owner);
    }
    own("mine", kUser);
    own("mine/file", kUser);
  }

  void own(const std::string& relative, uid_t owner) {
    ASSERT_EQ(::fchownat(AT_FDCWD, path(relative).c_str(), owner, owner, AT_SYMLINK_NOFOLLOW), 0);
  }
  std::string path(const std::string& relative) const { return m_tree.path(relative); }
  ino_t inodeOf(const std::string& relative) const {
    struct stat status {};
    EXPECT_EQ(::lstat(path(relative).c_str(), &status), 0) << relative;
    return status.st_ino;
  }
  std::string nextLogLine() {
    char buffer[4096];
    ssize_t count = ::recv(m_logSocket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return count < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(count));
  }

  // The object reached (named by its path in the tree) or the errno.
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
  UniqueFd m_logSocket;
  std::optional<SystemLog> m_log;
  SafePathResolver m_resolver;
};

TEST_F(SafePathResolverTest, FollowsRootsLinksAndUsersLinksToTheirOwnObjectsOnly) {
  constexpr LinkHandling kFollow = LinkHandling::Follow;
  constexpr LinkHandling kNoFollow = LinkHandling::NoFollow;
  const struct {
    const char* path;
    LinkHandling finalLink;
    Outcome expected;
  } cases[] = {
      // Root's links lead anywhere; a user's lead to her own objects, also through her links...
      {"system/file", kNoFollow, "root-dir/file"},
      {"mine/to-chain", kFollow, "mine/file"},
      // ... and never to anyone else's, in the middle or last, nor through root's links.
      {"mine/to-root/file", kNoFollow, EACCES},
      {"mine/to-root", kFollow, EACCES},
      {"mine/to-root/..", kNoFollow, EACCES},
      {"theirs/file", kNoFollow, EACCES},
      {"mine/to-system/file", kNoFollow, EACCES},
      // Not followed, a link is the object itself, whoever owns it.
      {"mine/to-root", kNoFollow, "mine/to-root"},
      {"dangling-root", kFollow, ENOENT},
      {"mine/dangling", kFollow, ENOENT},
      {"loop-a/x", kNoFollow, ELOOP},
      {"file/x", kNoFollow, ENOTDIR},
      // ".." goes to the parent of where a link led, not back along the path's text.
      {"jump/../beside", kNoFollow, "deep/beside"},
      {"deep/./inner/../beside", kNoFollow, "deep/beside"},
      // A trailing slash names a folder: a final link is followed, by the rule.
      {"system/", kNoFollow, "root-dir"},
      {"mine/to-root/", kNoFollow, EACCES},
      {"mine/to-own/", kNoFollow, ENOTDIR},
  };
  for (const auto& c : cases) {
    expectOutcome(m_resolver.object(path(c.path), c.finalLink), c.expected, c.path);
  }
  struct stat root {};
  ASSERT_EQ(::stat("/", &root), 0);
  Result<PathHandle> top = m_resolver.object("/../..", kNoFollow);
  ASSERT_TRUE(top);
  EXPECT_EQ(top->status().stx_ino, root.st_ino) << "\"..\" stays at the top";

  // A relative path starts at the working folder.
  UniqueFd saved(::open(".", O_PATH | O_DIRECTORY | O_CLOEXEC));
  ASSERT_EQ(::chdir(path("deep").c_str()), 0);
  Result<PathHandle> beside = m_resolver.object("inner/../beside", kNoFollow);
  Result<PathHandle> refused = m_resolver.object("../mine/to-root/file", kNoFollow);
  ASSERT_EQ(::fchdir(saved.get()), 0);
  expectOutcome(beside, "deep/beside", "relative");
  expectOutcome(refused, EACCES, "relative through a user's link");
}

TEST_F(SafePathResolverTest, EntriesNameTheLastComponentInThePinnedFolder) {
  Result<PinnedEntry> made = m_resolver.entry(path("mine/new"), LinkHandling::NoFollow);
  ASSERT_TRUE(made);
  EXPECT_EQ(made->folder.status().stx_ino, inodeOf("mine"));
  EXPECT_EQ(made->name, "new");
  EXPECT_FALSE(made->object);

  // A last link stays a name unless it is followed, and then only by the rule.
  Result<PinnedEntry> link = m_resolver.entry(path("mine/to-root"), LinkHandling::NoFollow);
  ASSERT_TRUE(link && link->object && link->object->isSymbolicLink());
  expectOutcome(m_resolver.follow(*link, link->path), EACCES, "follow to-root");
  EXPECT_EQ(m_resolver.entry(path("mine/to-root"), LinkHandling::Follow).error().code(), EACCES);

  // Followed, the entry is where the link leads: the folder and name of its destination.
  Result<PinnedEntry> followed = m_resolver.entry(path("mine/to-chain"), LinkHandling::Follow);
  ASSERT_TRUE(followed && followed->object);
  EXPECT_EQ(followed->path, path("mine/file"));
  EXPECT_EQ(followed->object->status().stx_ino, inodeOf("mine/file"));
  // Root's dangling link leads to an empty entry; a user's leads nowhere at all.
  Result<PinnedEntry> nowhere = m_resolver.entry(path("dangling-root"), LinkHandling::Follow);
  ASSERT_TRUE(nowhere);
  EXPECT_EQ(nowhere->path, path("nowhere"));
  EXPECT_FALSE(nowhere->object);
  EXPECT_EQ(m_resolver.entry(path("mine/dangling"), LinkHandling::Follow).error().code(), ENOENT);

  // ".." at the end stays a name in the folder reached: removing "a/.." never removes "a".
  Result<PinnedEntry> parent = m_resolver.entry(path("mine/.."), LinkHandling::NoFollow);
  ASSERT_TRUE(parent && parent->object);
  EXPECT_EQ(parent->name, "..");
  EXPECT_EQ(parent->folder.status().stx_ino, inodeOf("mine"));
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
  expectOutcome(m_resolver.object(std::string("/tmp\0/etc", 9), LinkHandling::NoFollow), EINVAL,
                "NUL byte");
}

TEST_F(SafePathResolverTest, LogsEachRefusalWithTheLinkAndBothOwners) {
  m_tree.makeLink("mine/bad\n%m", "../root-dir");
  own("mine/bad\n%m", kUser);
  expectOutcome(m_resolver.object(path("mine/bad\n%m/file"), LinkHandling::NoFollow), EACCES,
                "refused");
  const std::string line = nextLogLine();
  // Notice level of the daemon facility; names as bytes that cannot forge a line or a "%m".
  EXPECT_EQ(line.rfind("<29>", 0), 0u) << line;
  EXPECT_NE(line.find("Refused to follow the symbolic link \"" + path("mine/bad\\x0a\\x25m") +
                      "\" of user 1000 to \"" + path("root-dir") + "\" of user 0 (path \"" +
                      path("mine/bad\\x0a\\x25m/file") + "\")"),
            std::string::npos)
      << line;
  // Only refusals are logged.
  expectOutcome(m_resolver.object(path("mine/dangling"), LinkHandling::Follow), ENOENT, "dangling");
  EXPECT_EQ(nextLogLine(), "");
}

}  // namespace
}  // namespace krv
