// The client library against a daemon played by the test: each kind of report reaches its own
// callback with its bytes intact, and replies a real daemon never sends (a response pipe that is a
// link, a pipe closed before the final message) end the run with an error and leave nothing
// behind that the library did not make.

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "foundation/System.h"
#include "foundation/UserInformationKeys.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"
#include "securityagent.h"
#include "tests/support/ServiceProcess.h"

namespace krv::test {
namespace {

class FakeDaemonTest : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/krv-client-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    m_folder = pattern;
    Result<UniqueFd> listening = listenOnUnixSocket(socketPath(), 0600);
    ASSERT_TRUE(listening) << listening.error().description();
    m_listening = std::move(*listening);
  }
  void TearDown() override {
    if (m_daemon.joinable()) m_daemon.join();
    (void)std::system(("rm -rf '" + m_folder + "'").c_str());
  }

  std::string socketPath() const { return m_folder + "/daemon.socket"; }
  std::string path(const char* name) const { return m_folder + "/" + name; }

  // Answers one request: the acknowledgement names `pipePath`, then `reports` go down the pipe
  // (which the daemon side opens at `fifoPath`, empty: no pipe is opened).
  void serve(const std::string& pipePath, const std::string& fifoPath, std::vector<Error> reports) {
    m_daemon = std::thread([this, pipePath, fifoPath, reports = std::move(reports)] {
      Result<UniqueFd> connection = sys::accept(m_listening.get());
      if (!connection) return;
      (void)KRVSecurityAgent::readObject(connection->get());
      Dictionary info;
      info.set(KRVSecurityAgent::keyForClientSocket(), Value(pipePath));
      Error acknowledgement = KRVSecurityAgent::transportError(kTransportAccepted, info);
      (void)KRVSecurityAgent::writeObject(&acknowledgement, connection->get());
      connection->reset();
      if (fifoPath.empty()) return;
      Result<UniqueFd> pipe = sys::open(fifoPath, O_WRONLY);
      if (!pipe) return;
      for (const Error& report : reports) (void)KRVSecurityAgent::writeObject(&report, pipe->get());
    });
  }

  std::string m_folder;
  UniqueFd m_listening;
  std::thread m_daemon;
};

Error report(Dictionary info) { return KRVSecurityAgent::transportError(1, std::move(info)); }

struct Seen {
  std::vector<double> progress;
  std::vector<std::pair<int, std::string>> output;
  std::vector<std::string> paths;
};

sa_message* runVersion(const std::string& socketPath, Seen& seen) {
  sa_client* client = sa_client_new(socketPath.c_str());
  sa_command* command = sa_command_new(1);
  sa_command_set_progress_callback(
      command,
      [](double fraction, void* data) { static_cast<Seen*>(data)->progress.push_back(fraction); },
      &seen);
  sa_command_set_output_callback(
      command,
      [](int channel, const void* bytes, size_t length, void* data) {
        static_cast<Seen*>(data)->output.emplace_back(
            channel, std::string(static_cast<const char*>(bytes), length));
      },
      &seen);
  sa_command_set_payload_callback(
      command,
      [](const sa_message* message, void* data) {
        const sa_value* records = sa_message_lookup(message, "FileSystemObjects");
        for (size_t index = 0; index < sa_value_count(records); ++index) {
          size_t length = 0;
          const void* bytes =
              sa_value_bytes(sa_value_lookup(sa_value_at(records, index), "Path"), &length);
          static_cast<Seen*>(data)->paths.emplace_back(static_cast<const char*>(bytes), length);
        }
      },
      &seen);
  sa_message* result = sa_command_run(client, command);
  sa_command_free(command);
  sa_client_free(client);
  return result;
}

TEST_F(FakeDaemonTest, EachKindOfReportReachesItsCallback) {
  const std::string fifo = path("reply.pipe");
  ASSERT_TRUE(sys::mkfifo(fifo, 0600));
  Dictionary progress;
  progress.set(key::kCurrentProgress, Value::real(0.25));
  Dictionary output;
  output.set(key::kOutputChannel, Value(Data{'o', 'u', 't'}));
  output.set(key::kErrorChannel, Value(Data{'e', '\0', 'r'}));
  Dictionary record;
  record.set(key::kPath, Value(Data{'/', 0xff}));  // a name that is not UTF-8
  Dictionary chunk;
  chunk.set(key::kCurrentProgress, Value::real(0.5));
  chunk.set(key::kFileSystemObjects, Value(Array{Value(record)}));
  Dictionary final;
  final.set(key::kSize, Value::unsignedInteger(7));
  serve(fifo, fifo,
        {report(progress), report(output), report(chunk),
         Error(std::string(kCommandErrorDomain), 0, final)});

  Seen seen;
  sa_message* result = runVersion(socketPath(), seen);
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(sa_message_is_success(result));
  EXPECT_EQ(sa_value_unsigned(sa_message_lookup(result, "Size")), 7u);
  sa_message_free(result);
  EXPECT_EQ(seen.progress, (std::vector<double>{0.25, 0.5}));
  ASSERT_EQ(seen.output.size(), 2u);
  EXPECT_EQ(seen.output[0], std::make_pair(1, std::string("out")));
  EXPECT_EQ(seen.output[1], std::make_pair(2, std::string("e\0r", 3)));
  EXPECT_EQ(seen.paths, (std::vector<std::string>{"/\xff"}));
  struct stat status {};
  EXPECT_NE(::lstat(fifo.c_str(), &status), 0);  // the library removed the pipe
}

TEST_F(FakeDaemonTest, RepliesNoDaemonSendsEndTheRunCleanly) {
  // A pipe closed before the final message: transport error 5, the pipe removed.
  const std::string fifo = path("short.pipe");
  ASSERT_TRUE(sys::mkfifo(fifo, 0600));
  Dictionary progress;
  progress.set(key::kCurrentProgress, Value::real(0.1));
  serve(fifo, fifo, {report(progress)});
  Seen seen;
  sa_message* result = runVersion(socketPath(), seen);
  ASSERT_NE(result, nullptr);
  EXPECT_STREQ(sa_message_domain(result), SA_TRANSPORT_DOMAIN);
  EXPECT_EQ(sa_message_code(result), 5);
  sa_message_free(result);
  EXPECT_EQ(seen.progress.size(), 1u);
  struct stat status {};
  EXPECT_NE(::lstat(fifo.c_str(), &status), 0);
  m_daemon.join();

  // A pipe path that is a link (to a file of the user's): not followed, neither removed.
  const std::string target = path("precious");
  const std::string link = path("link.pipe");
  ASSERT_EQ(::close(::open(target.c_str(), O_CREAT | O_WRONLY, 0600)), 0);
  ASSERT_EQ(::symlink(target.c_str(), link.c_str()), 0);
  serve(link, "", {});
  result = runVersion(socketPath(), seen);
  ASSERT_NE(result, nullptr);
  EXPECT_STREQ(sa_message_domain(result), SA_POSIX_DOMAIN);
  EXPECT_EQ(sa_message_code(result), ELOOP);
  sa_message_free(result);
  EXPECT_EQ(::lstat(link.c_str(), &status), 0);
  EXPECT_EQ(::lstat(target.c_str(), &status), 0);
}

}  // namespace
}  // namespace krv::test
