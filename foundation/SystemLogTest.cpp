#include "foundation/SystemLog.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <regex>

#include "foundation/Error.h"
#include "foundation/Format.h"

namespace krv {
namespace {

// A datagram socket standing in for /dev/log.
class LogSink {
 public:
  LogSink() {
    char pattern[] = "/tmp/krv-log-XXXXXX";
    m_directory = ::mkdtemp(pattern);
    m_path = m_directory + "/log";
    m_socket.reset(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(m_socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  }
  ~LogSink() {
    ::unlink(m_path.c_str());
    ::rmdir(m_directory.c_str());
  }
  const std::string& path() const { return m_path; }
  std::string next() {
    char buffer[2048];
    ssize_t count = ::recv(m_socket.get(), buffer, sizeof buffer, MSG_DONTWAIT);
    return count < 0 ? std::string() : std::string(buffer, static_cast<std::size_t>(count));
  }

 private:
  std::string m_directory;
  std::string m_path;
  UniqueFd m_socket;
};

TEST(SystemLogTest, WritesSyslogDatagramsWithLevelFacilityAndTheErrorsText) {
  LogSink sink;
  SystemLog log("com.tavorin.test", "Daemon", 0, sink.path());
  errno = EPIPE;
  log.log(SystemLog::Level::Error, "Could not open (%m)", Error::posix(ENOENT, "open"));
  std::string line = sink.next();
  std::regex expected(R"(<27>[A-Z][a-z]{2} [ 0-9]\d \d\d:\d\d:\d\d com\.tavorin\.test\[\d+\]: )"
                      R"(Could not open \(No such file or directory\))");
  EXPECT_TRUE(std::regex_match(line, expected)) << line;
  EXPECT_EQ(errno, EPIPE);  // logging leaves errno alone

  log.log(SystemLog::Level::Debug, "100% done");
  EXPECT_NE(sink.next().find("<31>"), std::string::npos);
}

// Text from outside (a client's path) once changed a line by holding "%m".
TEST(SystemLogTest, NeverExpandsTextInsertedIntoAMessage) {
  LogSink sink;
  SystemLog log("ident", "Daemon", 0, sink.path());
  errno = ENOENT;
  log.log(SystemLog::Level::Notice, format("Refused '%s'", "/tmp/a%m%sb"));
  EXPECT_TRUE(
      sink.next().ends_with("ident[" + std::to_string(::getpid()) + "]: Refused '/tmp/a%m%sb'"));
  log.log(SystemLog::Level::Error, "Failed (%m, %m)", Error("com.tavorin.test", 7));
  EXPECT_TRUE(
      sink.next().ends_with("]: Failed (Error Domain=com.tavorin.test Code=7, "
                            "Error Domain=com.tavorin.test Code=7)"));
}

TEST(SystemLogTest, CopiesToStandardErrorAndSurvivesAMissingLogSocket) {
  SystemLog log("ident", "Auth", SystemLog::kCopyToStandardError, "/nonexistent/log");
  testing::internal::CaptureStderr();
  log.log(SystemLog::Level::Info, "hello");
  log.log(SystemLog::Level::Info, "gone (%m)", Error::posix(EPIPE));
  std::string copied = testing::internal::GetCapturedStderr();
  const std::string prefix = "ident[" + std::to_string(::getpid()) + "]: ";
  EXPECT_EQ(copied, prefix + "hello\n" + prefix + "gone (Broken pipe)\n");
}

}  // namespace
}  // namespace krv
