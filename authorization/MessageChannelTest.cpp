#include "authorization/MessageChannel.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include "foundation/ByteOrder.h"
#include "foundation/DataBlock.h"
#include "foundation/System.h"

namespace krv::auth {
namespace {

using namespace std::chrono_literals;

struct Connection {
  Connection() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    client.reset(ends[0]);
    service.reset(ends[1]);
  }
  UniqueFd client;
  UniqueFd service;
};

// The reader's buffer grows as the bytes come: a message far beyond its first step still arrives
// whole when the peer sends it in small pieces.
TEST(MessageChannelTest, ReceivesALargeMessageThatTricklesIn) {
  Connection connection;
  Data payload(200 * 1024);
  for (std::size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<std::uint8_t>(i * 7);
  std::thread peer([&connection, &payload] {
    const Data block = encodeDataBlock(payload);
    for (std::size_t at = 0; at < block.size(); at += 4093) {
      const std::size_t piece = std::min<std::size_t>(4093, block.size() - at);
      ASSERT_TRUE(sys::writeAll(connection.client.get(), {block.data() + at, piece}));
    }
  });
  Result<Data> received = receiveMessage(connection.service.get(), 256 * 1024, deadlineAfter(10s));
  peer.join();
  ASSERT_TRUE(received) << received.error().description();
  EXPECT_EQ(*received, payload);
}

TEST(MessageChannelTest, RefusesOversizedDamagedCutAndStalledMessages) {
  Data oversized = encodeDataBlock(Data(16, 1));
  storeLittleEndian<std::uint32_t>(oversized.data() + kDataBlockLengthOffset, 4097);
  Data damaged = encodeDataBlock(Data(16, 1));
  damaged.back() ^= 0x40;
  const Data whole = encodeDataBlock(Data(16, 1));
  const struct {
    const char* scenario;
    Data bytes;
    bool closes;
    int error;
  } cases[] = {
      {"length above the limit", oversized, false, EMSGSIZE},
      {"payload damaged", damaged, false, EIO},
      {"closed inside the payload", Data(whole.begin(), whole.end() - 4), true, EPIPE},
      {"stalled inside the payload", Data(whole.begin(), whole.end() - 4), false, ETIMEDOUT},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.scenario);
    Connection connection;
    ASSERT_TRUE(sys::writeAll(connection.client.get(), c.bytes));
    if (c.closes) connection.client.reset();
    Result<Data> received = receiveMessage(connection.service.get(), 4096, deadlineAfter(200ms));
    ASSERT_FALSE(received);
    EXPECT_EQ(received.error().code(), c.error);
  }
}

}  // namespace
}  // namespace krv::auth
