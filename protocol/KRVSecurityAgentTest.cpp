#include "protocol/KRVSecurityAgent.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "foundation/Archiver.h"
#include "foundation/ByteOrder.h"
#include "foundation/DataBlock.h"
#include "foundation/System.h"

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

// A block whose header announces `length` bytes, followed by `payload`.
Data block(const Data& payload, std::uint32_t length) {
  Data bytes = encodeDataBlock(payload);
  storeLittleEndian(bytes.data() + kDataBlockLengthOffset, length);
  return bytes;
}

TEST(DataBlockTest, FramesAPayloadByteForByte) {
  const Data payload = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  Data expected(kDataBlockMarker.begin(), kDataBlockMarker.end());
  const Data header = {9, 0, 0, 0, 0x89, 0x21, 0, 0};  // length 9; CRC-16/KERMIT 0x2189
  expected.insert(expected.end(), header.begin(), header.end());
  expected.insert(expected.end(), payload.begin(), payload.end());
  EXPECT_EQ(encodeDataBlock(payload), expected);
}

TEST(DataBlockTest, EnforcesTheWriterLimitAndSendsNothingForEmptyData) {
  SocketPair pair;
  Data largest(1048540, 0xAB);
  EXPECT_TRUE(KRVSecurityAgent::writeData(&largest, pair.writer.get()).ok());
  Result<Data> read = KRVSecurityAgent::readData(pair.reader.get());
  ASSERT_TRUE(read);
  EXPECT_EQ(*read, largest);

  Data tooLarge(1048541, 0xAB);
  Status refused = KRVSecurityAgent::writeData(&tooLarge, pair.writer.get());
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code(), EINVAL);
  Data empty;
  EXPECT_TRUE(KRVSecurityAgent::writeData(&empty, pair.writer.get()).ok());
  std::uint8_t byte;
  EXPECT_EQ(::recv(pair.reader.get(), &byte, 1, MSG_DONTWAIT | MSG_PEEK), -1);  // nothing sent
}

TEST(DataBlockTest, ReaderTakesUpToOneMebibyteAndRejectsDamagedOrShortBlocks) {
  const Data largest(1048576, 0x11);
  const Data good = block({1, 2, 3, 4}, 4);
  Data flipped = good;
  flipped.back() ^= 0x01;
  Data badMarker = good;
  badMarker[3] = 'x';
  Data upperChecksum = good;
  upperChecksum[kDataBlockChecksumOffset + 2] = 1;
  const struct {
    const char* name;
    Data bytes;
    int expected;  // 0: read
  } cases[] = {
      {"1048576 bytes", block(largest, 1048576), 0},
      {"1048577 bytes announced", block(largest, 1048577), EIO},
      {"payload byte flipped", flipped, EIO},
      {"marker differs", badMarker, EIO},
      {"checksum's upper half set", upperChecksum, EIO},
      {"closed after 20 header bytes", Data(good.begin(), good.begin() + 20), EPIPE},
      {"closed inside the payload", Data(good.begin(), good.end() - 2), EPIPE},
      {"closed after 4 of 1048576 announced bytes", block({1, 2, 3, 4}, 1048576), EPIPE},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SocketPair pair;
    std::thread writer([&pair, &c] {
      (void)::send(pair.writer.get(), c.bytes.data(), c.bytes.size(), MSG_NOSIGNAL);
      pair.writer.reset();
    });
    Result<Data> read = readDataBlock(pair.reader.get());
    pair.reader.reset();  // frees a writer whose rest the reader did not take
    writer.join();
    if (c.expected == 0) {
      EXPECT_TRUE(read) << read.error().description();
    } else {
      ASSERT_FALSE(read);
      EXPECT_EQ(read.error().code(), c.expected);
    }
  }
}

TEST(DataBlockTest, ANonBlockingWriterWaitsForItsReaderToMakeRoom) {
  // A block four times the pipe's buffer through a non-blocking write end: the writer waits for
  // room each time the buffer is full instead of failing with EAGAIN.
  Result<sys::PipeEnds> pipe = sys::pipe();
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(sys::setNonBlocking(pipe->writeEnd.get(), true));
  const Data payload(256 * 1024, 0x5C);
  std::thread writer([&] {
    Status written = writeDataBlock(pipe->writeEnd.get(), payload);
    EXPECT_TRUE(written) << written.error().description();
    pipe->writeEnd.reset();
  });
  Result<Data> read = readDataBlock(pipe->readEnd.get());
  writer.join();
  ASSERT_TRUE(read) << read.error().description();
  EXPECT_EQ(*read, payload);
}

TEST(ObjectTransferTest, TransfersAnErrorObjectAndRefusesBrokenOnes) {
  SocketPair pair;
  Dictionary info;
  info.set("ClientSocket", Value("/tmp/x.pipe"));
  Error acknowledgement = KRVSecurityAgent::transportError(kTransportAccepted, info);
  ASSERT_TRUE(KRVSecurityAgent::writeObject(&acknowledgement, pair.writer.get()).ok());
  Result<Value> read = KRVSecurityAgent::readObject(pair.reader.get());
  ASSERT_TRUE(read);
  ASSERT_NE(read->objectAs<Error>(), nullptr);
  EXPECT_EQ(*read->objectAs<Error>(), acknowledgement);
  EXPECT_EQ(KRVSecurityAgent::pathForResponsePipeFromExecutionAcknowledgeError(acknowledgement),
            "/tmp/x.pipe");

  // Whatever the archiver refuses is an input/output error to the reader.
  const Data payloads[] = {
      {0xD8, 0x1B},                              // truncated
      {0xD8, 0x1B, 0x81, 0x63, 'F', 'o', 'o'},   // a class the daemon does not know
      {0xA2, 0x61, 'a', 0x01, 0x61, 'a', 0x02},  // duplicate key
  };
  for (const Data& payload : payloads) {
    ASSERT_TRUE(writeDataBlock(pair.writer.get(), payload).ok());
    Result<Value> object = KRVSecurityAgent::readObject(pair.reader.get());
    ASSERT_FALSE(object);
    EXPECT_EQ(object.error().code(), EIO);
  }

  Dictionary big;
  big.set("OutputChannel", Value(Data(1048540, 0)));
  Error oversized = KRVSecurityAgent::transportError(0, big);
  EXPECT_FALSE(KRVSecurityAgent::isObjectAcceptableForResponse(&oversized));
  EXPECT_TRUE(KRVSecurityAgent::isObjectAcceptableForResponse(&acknowledgement));
}

TEST(EndpointTest, ClientAndDaemonMeetAtTheSamePlaces) {
  EXPECT_EQ(KRVSecurityAgent::pathForCommunicationSocket(),
            "/var/run/com.tavorin.system.securityagent3.socket");
  const std::string pipe = KRVSecurityAgent::pathForResponsePipe();
  EXPECT_EQ(pipe.rfind("/tmp/com.tavorin.system.securityagent3-", 0), 0u);
  EXPECT_EQ(pipe.substr(pipe.size() - 5), ".pipe");
}

}  // namespace
}  // namespace krv
