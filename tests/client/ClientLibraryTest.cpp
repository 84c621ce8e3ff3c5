// The shared client library's C interface and its C++ wrapper against the real daemon: reports
// reach the right callbacks, arguments that do not fit the command never leave the process, a
// cancellation ends the run at once and leaves no pipe behind, and the abort marker ends a count
// with its result.

#include <dirent.h>
#include <errno.h>
#include <sys/stat.h>

#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include "securityagent.h"
#include "securityagent.hpp"
#include "tests/daemon/DaemonFixture.h"

namespace krv::test {
namespace {

class ClientLibraryTest : public DaemonTest {};

// The response pipes left in /tmp (the sandbox's own).
std::vector<std::string> pipesLeft() {
  std::vector<std::string> names;
  DIR* folder = ::opendir("/tmp");
  if (folder == nullptr) return names;
  while (dirent* entry = ::readdir(folder)) {
    std::string name = entry->d_name;
    if (name.rfind("com.tavorin.system.securityagent3-", 0) == 0) names.push_back(name);
  }
  ::closedir(folder);
  return names;
}

void makeFiles(const std::string& folder, int count) {
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  for (int index = 0; index < count; ++index) {
    std::string path = folder + "/f" + std::to_string(index);
    FILE* file = std::fopen(path.c_str(), "w");
    ASSERT_NE(file, nullptr);
    std::fclose(file);
  }
}

TEST_F(ClientLibraryTest, WrapperDeliversProgressAndResult) {
  securityagent::Client client(kDaemonSocketPath);
  securityagent::Command command(3);  // the diagnostic: progress steps, then a program's output
  command.add(std::int64_t{2});
  std::vector<double> progress;
  std::string output;
  int payloads = 0;
  command.onProgress([&](double fraction) { progress.push_back(fraction); });
  command.onOutput([&](int channel, std::string_view bytes) {
    if (channel == 1) output.append(bytes);
  });
  command.onPayload([&](const securityagent::MessageRef&) { ++payloads; });
  securityagent::Message result = command.run(client);

  EXPECT_TRUE(result.succeeded()) << result.description();
  EXPECT_EQ(result.domain(), SA_COMMAND_DOMAIN);
  EXPECT_EQ(progress, (std::vector<double>{0.0, 0.5}));
  // The diagnostic's program output comes with the final message, not live.
  EXPECT_EQ(output, "");
  EXPECT_EQ(result["OutputChannel"].bytes(), "root\n");
  EXPECT_EQ(result["OutputChannel"].type(), SA_VALUE_DATA);
  EXPECT_EQ(payloads, 0);  // progress only: nothing else to hand over

  // The same command runs again with the token it kept.
  progress.clear();
  securityagent::Message again = command.run(client);
  EXPECT_TRUE(again.succeeded()) << again.description();
  EXPECT_EQ(progress.size(), 2u);
}

TEST_F(ClientLibraryTest, WrapperCallbackExceptionCancelsAndIsRethrown) {
  securityagent::Client client(kDaemonSocketPath);
  securityagent::Command command(3);
  command.add(std::int64_t{30});
  int calls = 0;
  command.onProgress([&](double) {
    ++calls;
    throw std::runtime_error("stop here");
  });
  EXPECT_THROW(command.run(client), std::runtime_error);
  EXPECT_EQ(calls, 1);  // cancelled at once: no second report
  EXPECT_TRUE(pipesLeft().empty());
  EXPECT_THROW(securityagent::Command(99), std::system_error);
}

TEST_F(ClientLibraryTest, RefusesWhatCannotBeSentWithoutTouchingTheSocket) {
  EXPECT_EQ(sa_command_new(55), nullptr);
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(sa_client_new("/run/no-such-socket"), nullptr);
  EXPECT_EQ(errno, ENOENT);

  sa_client* client = sa_client_new(kDaemonSocketPath);
  ASSERT_NE(client, nullptr);
  sa_command* command = sa_command_new(3);
  ASSERT_NE(command, nullptr);
  ASSERT_EQ(sa_command_add_string(command, "3", 1), 0);  // a string where a number belongs
  EXPECT_EQ(sa_command_add_string(command, nullptr, 4), -1);
  sa_message* result = sa_command_run(client, command);
  ASSERT_NE(result, nullptr);
  EXPECT_STREQ(sa_message_domain(result), SA_TRANSPORT_DOMAIN);
  EXPECT_EQ(sa_message_code(result), 6);
  EXPECT_FALSE(sa_message_is_success(result));
  EXPECT_EQ(sa_command_abort(command), -1);  // the diagnostic has no marker
  EXPECT_EQ(errno, EINVAL);
  sa_message_free(result);
  sa_command_free(command);
  sa_client_free(client);
  EXPECT_EQ(daemonLog().find("whoami"), std::string::npos);
}

TEST_F(ClientLibraryTest, CancelEndsTheRunAndRemovesThePipe) {
  sa_client* client = sa_client_new(kDaemonSocketPath);
  sa_command* command = sa_command_new(3);
  ASSERT_NE(command, nullptr);
  ASSERT_EQ(sa_command_add_integer(command, 30), 0);
  int reports = 0;
  struct Context {
    sa_command* command;
    int* reports;
  } context{command, &reports};
  sa_command_set_progress_callback(
      command,
      [](double, void* data) {
        auto* self = static_cast<Context*>(data);
        ++*self->reports;
        sa_command_cancel(self->command);
      },
      &context);
  sa_message* result = sa_command_run(client, command);
  ASSERT_NE(result, nullptr);
  EXPECT_STREQ(sa_message_domain(result), SA_POSIX_DOMAIN);
  EXPECT_EQ(sa_message_code(result), ECANCELED);
  EXPECT_EQ(reports, 1);
  EXPECT_TRUE(pipesLeft().empty());
  sa_message_free(result);

  // A cancellation before the run ends that run at once; the one after runs normally again.
  sa_command_cancel(command);
  result = sa_command_run(client, command);
  ASSERT_NE(result, nullptr);
  EXPECT_EQ(sa_message_code(result), ECANCELED);
  sa_message_free(result);
  sa_command_free(command);

  // The daemon goes on serving.
  sa_command* version = sa_command_new(1);
  result = sa_command_run(client, version);
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(sa_message_is_success(result));
  const sa_value* major = sa_message_lookup(result, "AgentVersionMajor");
  EXPECT_EQ(sa_value_type(major), SA_VALUE_INTEGER);
  // Accessors of another type answer nothing rather than misread.
  size_t length = 99;
  EXPECT_EQ(sa_value_bytes(major, &length), nullptr);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(sa_value_at(major, 0), nullptr);
  EXPECT_EQ(sa_message_value_at(result, 1000), nullptr);
  EXPECT_EQ(sa_value_type(sa_message_lookup(result, "NoSuchKey")), SA_VALUE_NONE);
  sa_message_free(result);
  sa_command_free(version);
  sa_client_free(client);
}

TEST_F(ClientLibraryTest, AbortMarkerEndsTheCountWithItsResult) {
  makeFiles("/tmp/tree", 1200);
  const std::string marker = "/tmp/stop";
  sa_client* client = sa_client_new(kDaemonSocketPath);
  sa_command* command = sa_command_new(51);
  ASSERT_EQ(sa_command_add_string(command, "/tmp/tree", 9), 0);
  ASSERT_EQ(sa_command_add_string(command, marker.data(), marker.size()), 0);

  // A marker placed before the run stays; the count stops at its first look.
  ASSERT_EQ(sa_command_abort(command), 0);
  sa_message* result = sa_command_run(client, command);
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(sa_message_is_success(result));
  EXPECT_EQ(sa_value_unsigned(sa_message_lookup(result, "Size")), 500u);
  sa_message_free(result);
  struct stat status {};
  EXPECT_EQ(::lstat(marker.c_str(), &status), 0);
  ASSERT_EQ(::unlink(marker.c_str()), 0);

  // A marker placed during the run ends it with its count, and is removed afterwards.
  sa_command_set_progress_callback(
      command, [](double, void* data) { (void)sa_command_abort(static_cast<sa_command*>(data)); },
      command);
  result = sa_command_run(client, command);
  ASSERT_NE(result, nullptr);
  EXPECT_TRUE(sa_message_is_success(result));
  std::uint64_t counted = sa_value_unsigned(sa_message_lookup(result, "Size"));
  EXPECT_GE(counted, 1000u);
  EXPECT_LE(counted, 1201u);
  EXPECT_NE(::lstat(marker.c_str(), &status), 0);
  sa_message_free(result);
  sa_command_free(command);
  sa_client_free(client);
}

// An ordinary user is asked for a password through the application's callback: a cancelled
// question ends the run with the service's "cancelled", wrong answers with "denied" after three
// questions, the failures between them shown without an answer buffer.
TEST_F(ClientLibraryTest, PromptCallbackAnswersForTheUser) {
  ProgramRun cancelled =
      runProgram(KRV_PROMPT_CHECK_BINARY, {"cancel", kDaemonSocketPath}, 65534, 65534);
  EXPECT_EQ(cancelled.exitCode, 0) << cancelled.standardError;
  EXPECT_EQ(cancelled.standardOutput,
            "secret=1 shown=0 result com.tavorin.privilegedCommand 2 -60006\n");

  ProgramRun wrong =
      runProgram(KRV_PROMPT_CHECK_BINARY, {"wrong", kDaemonSocketPath}, 65534, 65534);
  EXPECT_EQ(wrong.exitCode, 0) << wrong.standardError;
  EXPECT_EQ(wrong.standardOutput,
            "secret=3 shown=2 result com.tavorin.privilegedCommand 2 -60005\n");
}

}  // namespace
}  // namespace krv::test
