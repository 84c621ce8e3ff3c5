#include "protocol/KRVSecurityAgent.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

#include "foundation/Archiver.h"
#include "foundation/Crc16.h"
#include "foundation/DataBlock.h"

namespace krv {
namespace {

// A connected pair standing for a client connection; large buffers so writes up to 1 MiB do not
// need a concurrent reader.
struct SocketPair {
  SocketPair() {
    int ends[2];
    EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    writer.reset(ends[0]);
    reader.reset(ends[1]);
    int size = 4 << 20;
    ::setsockopt(writer.get(), SOL_SOCKET, SO_SNDBUF, &size, sizeof size);
    ::setsockopt(reader.get(), SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
  }
  UniqueFd writer;
  UniqueFd reader;
};

Data header(std::uint32_t length, std::uint16_t checksum) {
  Data block(kDataBlockMarker.begin(), kDataBlockMarker.end());
  for (int i = 0; i < 4; ++i) block.push_back(static_cast<std::uint8_t>(length >> (8 * i)));
  for (int i = 0; i < 4; ++i) block.push_back(static_cast<std::uint8_t>(checksum >> (8 * i)));
  return block;
}

void send(int fd, const Data& bytes) {
  std::thread([fd, bytes] { (void)::write(fd, bytes.data(), bytes.size()); }).join();
}

std::size_t pending(int fd) {
  std::uint8_t buffer[64];
  ssize_t count = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT | MSG_PEEK);
  return count < 0 ? 0 : static_cast<std::size_t>(count);
}

TEST(DataBlockTest, EnforcesTheWriterLimitAndSendsNothingForEmptyData) {
  SocketPair pair;
  Data largest(kDataBlockMaximumPayload, 0xAB);
  EXPECT_EQ(KRVSecurityAgent::writeData(&largest, pair.writer.get()), 0);
  Result<Data> read = KRVSecurityAgent::readDataFromPipe(pair.reader.get());
  ASSERT_TRUE(read);
  EXPECT_EQ(read->size(), 1048540u);

  Data tooLarge(kDataBlockMaximumPayload + 1, 0xAB);
  EXPECT_EQ(KRVSecurityAgent::writeData(&tooLarge, pair.writer.get()), EINVAL);
  Data empty;
  EXPECT_EQ(KRVSecurityAgent::writeData(&empty, pair.writer.get()), 0);
  EXPECT_EQ(KRVSecurityAgent::writeData(nullptr, pair.writer.get()), EINVAL);
  EXPECT_EQ(pending(pair.reader.get()), 0u);
}

TEST(DataBlockTest, ReaderAcceptsUpToOneMebibyteOfPayload) {
  for (std::uint32_t length : {1048576u, 1048577u}) {
    SocketPair pair;
    Data payload(std::min<std::uint32_t>(length, 1048576u), 0x11);
    Data block = header(length, crc16(payload));
    block.insert(block.end(), payload.begin(), payload.end());
    std::thread writer([&] { (void)::write(pair.writer.get(), block.data(), block.size()); });
    Result<Data> read = readDataBlock(pair.reader.get());
    pair.writer.reset();
    writer.join();
    if (length == 1048576u) {
      EXPECT_TRUE(read) << read.error().description();
    } else {
      ASSERT_FALSE(read);
      EXPECT_EQ(read.error().code(), EIO);
    }
  }
}

TEST(DataBlockTest, RejectsDamagedAndShortBlocks) {
  Data payload = {1, 2, 3, 4};
  Data good = header(4, crc16(payload));
  good.insert(good.end(), payload.begin(), payload.end());

  struct Case {
    const char* name;
    Data bytes;
    int expected;
  };
  Data flipped = good;
  flipped.back() ^= 0x01;
  Data badMarker = good;
  badMarker[3] = 'x';
  Data upperChecksum = good;
  upperChecksum[34] = 1;
  const Case cases[] = {
      {"payload byte flipped", flipped, EIO},
      {"marker differs", badMarker, EIO},
      {"checksum's upper half set", upperChecksum, EIO},
      {"closed after 20 header bytes", Data(good.begin(), good.begin() + 20), EPIPE},
      {"closed inside the payload", Data(good.begin(), good.end() - 2), EPIPE},
  };
  for (const Case& c : cases) {
    SocketPair pair;
    send(pair.writer.get(), c.bytes);
    pair.writer.reset();
    Result<Data> read = readDataBlock(pair.reader.get());
    ASSERT_FALSE(read) << c.name;
    EXPECT_EQ(read.error().code(), c.expected) << c.name;
  }
}

TEST(ObjectTransferTest, HostilePayloadsAreArchiveFaults) {
  const Data payloads[] = {
      {0xD8, 0x1B},                                            // truncated
      {0x9B, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},  // array of 2^64-1 elements
      {0xD8, 0x1C, 0x80},                                      // tag 28
      {0xA2, 0x61, 'a', 0x01, 0x61, 'a', 0x02},                // duplicate key
      {0x62, 0xC3, 0x28},                                      // invalid UTF-8
      {0x01, 0x01},                                            // trailing bytes
      {0xD8, 0x1B, 0x82, 0x67, 'N', 'S', 'E', 'r', 'r', 'o', 'r', 0x01},  // wrong arity
      {0xD8, 0x1B, 0x81, 0x63, 'F', 'o', 'o'},                            // unknown class
  };
  for (const Data& payload : payloads) {
    SocketPair pair;
    ASSERT_EQ(writeDataBlock(pair.writer.get(), payload), 0);
    Result<Value> object = KRVSecurityAgent::readObjectFromPipe(pair.reader.get());
    ASSERT_FALSE(object);
    EXPECT_EQ(object.error().code(), EIO);
  }
  Data deep(70, 0x81);
  deep.push_back(0x01);
  SocketPair pair;
  ASSERT_EQ(writeDataBlock(pair.writer.get(), deep), 0);
  EXPECT_FALSE(KRVSecurityAgent::readObjectFromPipe(pair.reader.get()));
}

TEST(ObjectTransferTest, TransfersAnErrorObjectAndJudgesItsSize) {
  SocketPair pair;
  Dictionary info;
  info.set("ClientSocket", Value("/tmp/x.pipe"));
  Error acknowledgement = KRVSecurityAgent::transportError(kTransportAccepted, info);
  ASSERT_EQ(KRVSecurityAgent::writeObject(&acknowledgement, pair.writer.get()), 0);
  Result<Value> read = KRVSecurityAgent::readObjectFromPipe(pair.reader.get());
  ASSERT_TRUE(read);
  ASSERT_NE(read->objectAs<Error>(), nullptr);
  EXPECT_EQ(*read->objectAs<Error>(), acknowledgement);
  EXPECT_EQ(KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(acknowledgement),
            "/tmp/x.pipe");
  EXPECT_EQ(KRVSecurityAgent::writeObject(nullptr, pair.writer.get()), EINVAL);

  EXPECT_TRUE(KRVSecurityAgent::isObjectAcceptableForResponse(nullptr));
  Dictionary big;
  big.set("OutputChannel", Value(Data(kDataBlockMaximumPayload, 0)));
  Error oversized = KRVSecurityAgent::transportError(0, big);
  EXPECT_FALSE(KRVSecurityAgent::isObjectAcceptableForResponse(&oversized));
}

TEST(EndpointTest, NamesThePlacesWhereClientAndDaemonMeet) {
  EXPECT_EQ(KRVSecurityAgent::pathForCommunicationSocket(),
            "/var/run/com.tavorin.system.securityagent3.socket");
  std::string pipe = KRVSecurityAgent::pathForResponsePipe();
  EXPECT_EQ(pipe.rfind("/tmp/com.tavorin.system.securityagent3-", 0), 0u);
  EXPECT_EQ(pipe.substr(pipe.size() - 5), ".pipe");
  EXPECT_EQ(KRVSecurityAgent::pathOfBundledExecutable("/opt/app"),
            "/opt/app/libexec/com.tavorin.system.securityagent3");
  if (KRVSecurityAgent::pathOfComputerLibrary()) {
    EXPECT_EQ(KRVSecurityAgent::pathForDaemonDescription(),
              "/etc/systemd/system/com.tavorin.system.securityagent3.service");
  } else {
    EXPECT_EQ(KRVSecurityAgent::pathForDaemonDescription(), "");
  }
}

}  // namespace
}  // namespace krv
