#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <vector>

#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

class ReportingTest : public testing::Test {
 protected:
  test::ExecutorWithPipe m_client;
  KRVCommandExecutor& m_executor = m_client.executor();
};

Array numbers(std::size_t count) {
  Array array;
  for (std::size_t i = 0; i < count; ++i) array.push_back(Value::integer(static_cast<int>(i)));
  return array;
}

TEST_F(ReportingTest, ChunksCarryTheirExactProgressValues) {
  struct Case {
    std::size_t count, granularity;
    double offset;
    std::vector<std::pair<std::size_t, double>> chunks;  // elements, progress
  };
  const Case cases[] = {
      {25, 10, 0.0, {{10, 0.0}, {10, 1.0 / 3.0}, {5, 0.0}}},
      {10, 10, 0.05, {{10, 0.05}}},
      {11, 10, 0.05, {{10, 0.05}, {1, 0.05}}},
      {20, 10, 0.5, {{10, 0.5}, {10, (1.0 / 3.0) * 0.5 + 0.5}}},
      {0, 10, 0.0, {{0, 0.0}}},
  };
  for (const Case& c : cases) {
    ASSERT_TRUE(m_executor.sendPayloadArray(numbers(c.count), "FileSystemObjects", c.granularity,
                                            c.offset));
    std::vector<Error> sent = m_client.messages();
    ASSERT_EQ(sent.size(), c.chunks.size()) << c.count;
    std::size_t next = 0;
    for (std::size_t i = 0; i < sent.size(); ++i) {
      EXPECT_TRUE(sent[i].is("com.tavorin.securityagent", 1));
      EXPECT_EQ(test::progressOf(sent[i]), c.chunks[i].second) << c.count << " chunk " << i;
      const Array& elements = *sent[i].userInfo().find("FileSystemObjects")->asArray();
      ASSERT_EQ(elements.size(), c.chunks[i].first);
      for (const Value& element : elements) {
        EXPECT_EQ(element.asNumber()->integerValue(), static_cast<std::int64_t>(next++));
      }
    }
  }
}

TEST_F(ReportingTest, AnUntransferableSuccessArrivesAsCodeSeven) {
  Dictionary huge;
  huge.set("OutputChannel", Value(Data(1048576, 'x')));
  m_executor.sendFinalMessageToClientPipeAndClose(commandError(0, huge));
  std::vector<Error> sent = m_client.messages();
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_TRUE(sent[0].is("com.tavorin.securityagent", 7));
  EXPECT_TRUE(sent[0].userInfo().empty());
  // The pipe is closed after the final message.
  EXPECT_FALSE(m_executor.sendProgressMessageToClient(0.1));
}

TEST_F(ReportingTest, FailedResultsAreSentUncheckedAndOutputIsCollectedWithoutRelay) {
  m_executor.receiveTaskOutput(Data{'a'}, false);
  m_executor.receiveTaskOutput(Data{'b'}, true);
  EXPECT_EQ(m_executor.incomingStdOutData(), Data{'a'});
  EXPECT_EQ(m_executor.incomingStdErrData(), Data{'b'});
  m_executor.sendFinalMessageToClientPipeAndClose(commandError(6));
  std::vector<Error> sent = m_client.messages();
  ASSERT_EQ(sent.size(), 1u);  // no live output message: the relay was off
  EXPECT_TRUE(sent[0].is(kCommandErrorDomain, kResultProgramFailed));
}

// The command thread writes only into the FIFO the daemon created (the client owns the path and
// may put another FIFO there), and a thread counts as running from before startThread returns.
TEST(CommandThreadTest, WritesOnlyIntoTheDaemonsFifoAndCountsItselfFromTheStart) {
  ::signal(SIGPIPE, SIG_IGN);
  char folder[] = "/tmp/krv-command-thread-XXXXXX";
  ASSERT_NE(::mkdtemp(folder), nullptr);
  const std::string path = std::string(folder) + "/pipe";
  const std::string moved = std::string(folder) + "/moved";
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Result<struct stat> created = sys::lstat(path);
  ASSERT_TRUE(created);
  auto executorFor = [&](const std::string& pipePath) {
    auto executor = std::make_unique<KRVCommandExecutor>();
    executor->useAppleSystemLoggingWithIdentification("krv-test", "Daemon", 0);
    executor->setPathOfClientCommunicationPipe(pipePath);
    executor->setExpectedPipeIdentity(created->st_dev, created->st_ino);
    return executor;
  };
  auto version = [] {
    return std::shared_ptr<const KRVPrivilegedCommand>(
        KRVPrivilegedCommand::privilegedCommandWithCode(kCommandGetVersion, {}));
  };

  ASSERT_EQ(::rename(path.c_str(), moved.c_str()), 0);
  ASSERT_EQ(::mkfifo(path.c_str(), 0600), 0);
  Result<UniqueFd> swapped = sys::open(path, O_RDONLY | O_NONBLOCK);
  ASSERT_TRUE(swapped);
  executorFor(path)->executeCommandOnCallingThread(version());
  char byte = 0;
  EXPECT_EQ(::read(swapped->get(), &byte, 1), 0);  // nothing written, no writer left
  EXPECT_TRUE(sys::lstat(path));                   // and what is not the daemon's stays

  const std::int64_t before = KRVCommandExecutor::numberOfRunningExecutorThreads();
  ASSERT_TRUE(KRVCommandExecutor::startThread(executorFor(moved), version()));
  EXPECT_EQ(KRVCommandExecutor::numberOfRunningExecutorThreads(), before + 1);
  Result<UniqueFd> reader = sys::open(moved, O_RDONLY);
  ASSERT_TRUE(reader);
  Result<Value> final = KRVSecurityAgent::readObject(reader->get());
  ASSERT_TRUE(final);
  EXPECT_TRUE(final->objectAs<Error>()->is(kCommandErrorDomain, kResultSuccess));
  EXPECT_TRUE(KRVCommandExecutor::waitForRunningExecutorThreads(before, std::chrono::seconds(5)));
  ::unlink(path.c_str());
  ::unlink(moved.c_str());
  ::rmdir(folder);
}

}  // namespace
}  // namespace krv
