#pragma once
// Test support for the executor tests (header only): an executor whose response pipe is an
// anonymous pipe the test reads back, small readers of the messages it wrote, and the fixture of
// the file command tests (a temporary tree whose protections are lifted at the end). One thread.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "executor/KRVCommandExecutor.h"
#include "foundation/System.h"
#include "platform/FileFlags.h"
#include "protocol/KRVSecurityAgent.h"
#include "tests/support/TestFileTree.h"

namespace krv::test {

class ExecutorWithPipe {
 public:
  ExecutorWithPipe() {
    ::signal(SIGPIPE, SIG_IGN);  // as in the daemon: a gone client is EPIPE, not a signal
    Result<sys::PipeEnds> ends = sys::pipe();
    if (!ends) return;
    m_reader = std::move(ends->readEnd);
    // Large enough that no test needs a concurrent reader.
    ::fcntl(ends->writeEnd.get(), F_SETPIPE_SZ, 1 << 20);
    m_executor.setPipeDescriptor(std::move(ends->writeEnd));
  }

  KRVCommandExecutor& executor() { return m_executor; }
  CommandResult run(std::uint32_t code, Array arguments) {
    auto command = KRVPrivilegedCommand::privilegedCommandWithCode(code, std::move(arguments));
    return m_executor.executeCommand(*command);
  }
  // Every message written since the last call (of the classes given).
  std::vector<Error> messages(
      const ClassRegistry& classes = KRVPrivilegedCommand::transportClasses()) {
    std::vector<Error> result;
    (void)sys::setNonBlocking(m_reader.get(), true);
    for (;;) {
      Result<Value> object = KRVSecurityAgent::readObject(m_reader.get(), classes);
      if (!object || object->objectAs<Error>() == nullptr) break;
      result.push_back(*object->objectAs<Error>());
    }
    return result;
  }
  // Every byte written since the last call, undecoded.
  Data bytes() {
    Data result;
    (void)sys::setNonBlocking(m_reader.get(), true);
    std::uint8_t buffer[65536];
    while (Result<std::size_t> count = sys::read(m_reader.get(), buffer)) {
      if (*count == 0) break;
      result.insert(result.end(), buffer, buffer + *count);
    }
    return result;
  }
  // The client goes away: every later write to the pipe fails.
  void closeReader() { m_reader.reset(); }

 private:
  KRVCommandExecutor m_executor;
  UniqueFd m_reader;
};

inline double progressOf(const Error& message) {
  const Value* progress = message.userInfo().find("CurrentProgress");
  return progress != nullptr && progress->asNumber() != nullptr
             ? progress->asNumber()->doubleValue()
             : -1.0;
}

inline std::string textOf(const Error& message, const char* key) {
  const Value* value = message.userInfo().find(key);
  if (value == nullptr) return "<none>";
  if (const Data* data = value->asData()) return std::string(data->begin(), data->end());
  if (const std::string* text = value->asString()) return *text;
  if (const Number* number = value->asNumber()) return std::to_string(number->integerValue());
  return "<other>";
}

// Expects a result of the domain and code, with FailingPath when one is given.
inline void expectResult(const CommandResult& result, std::string_view domain, std::int64_t code,
                         const std::string& failingPath = {}) {
  ASSERT_TRUE(result.has_value()) << "no result";
  EXPECT_TRUE(result->is(domain, code)) << result->description();
  if (!failingPath.empty()) {
    EXPECT_EQ(textOf(*result, "FailingPath"), failingPath);
  }
}

class FileCommandTest : public testing::Test {
 protected:
  CommandResult run(std::uint32_t code, Array arguments) {
    return m_client.run(code, std::move(arguments));
  }
  void expectSuccess(std::uint32_t code, Array arguments) {
    expectResult(run(code, std::move(arguments)), kCommandErrorDomain, kResultSuccess);
  }
  std::vector<double> progressValues() {
    std::vector<double> values;
    for (const Error& message : m_client.messages()) values.push_back(progressOf(message));
    return values;
  }
  std::string path(const std::string& relative) const { return m_tree.path(relative); }
  void make(const std::vector<std::string>& entries) const { m_tree.make(entries); }
  bool exists(const std::string& relative) const { return m_tree.exists(relative); }
  // The flags word of the object itself; all ones when it cannot be read.
  std::uint32_t flagsOf(const std::string& relative) const {
    return readFileFlags(path(relative), LinkHandling::NoFollow).valueOr(0xFFFFFFFFu);
  }
  void setFlags(const std::string& relative, std::uint32_t flags) const {
    ASSERT_TRUE(writeFileFlags(path(relative), flags)) << relative;
  }

  TestFileTree m_tree;
  ExecutorWithPipe m_client;
};

inline Value text(const std::string& value) { return Value(value); }
inline Value number(std::int64_t value) { return Value::integer(value); }

}  // namespace krv::test
