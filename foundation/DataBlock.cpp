#include "foundation/DataBlock.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "foundation/ByteOrder.h"
#include "foundation/Crc16.h"
#include "foundation/System.h"
#include "foundation/Wipe.h"

namespace krv {

namespace {

// The payload buffer a block reader sets aside before any payload byte has arrived.
constexpr std::size_t kFirstPayloadChunk = 64 * 1024;

Error blockFault(int errorNumber, const char* operation) {
  errno = errorNumber;
  return Error::posix(errorNumber, operation);
}

// Grows `buffer` to `size` bytes in a new allocation and wipes the one it leaves.
void growWiping(Data& buffer, std::size_t size) {
  Data larger(size);
  if (!buffer.empty()) std::memcpy(larger.data(), buffer.data(), buffer.size());
  wipe(std::span<std::uint8_t>(buffer));
  buffer.swap(larger);
}

// The header of a block whose payload follows its kDataBlockHeaderSize bytes of room.
void fillHeader(std::span<std::uint8_t> block) {
  const std::span<const std::uint8_t> payload = block.subspan(kDataBlockHeaderSize);
  std::memcpy(block.data(), kDataBlockMarker.data(), kDataBlockMarker.size());
  storeLittleEndian(block.data() + kDataBlockLengthOffset,
                    static_cast<std::uint32_t>(payload.size()));
  storeLittleEndian(block.data() + kDataBlockChecksumOffset, std::uint32_t{crc16(payload)});
}

// Waits until `fd` takes bytes again, at most kStalledReaderTimeout in all. A signal that wakes
// the wait (the daemon's threads receive some) only shortens it to what is left, never ends it.
Status waitForRoom(int fd) {
  using Clock = std::chrono::steady_clock;
  const Clock::time_point deadline = Clock::now() + kStalledReaderTimeout;
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return Error::posix(ETIMEDOUT, "write");
    pollfd peer{fd, POLLOUT, 0};
    Result<std::size_t> ready = sys::poll({&peer, 1}, static_cast<int>(left.count()));
    if (ready && *ready > 0) return {};
    if (!ready && ready.error().code() != EINTR) return std::move(ready).error();
  }
}

}  // namespace

Status writeToPipe(int fd, std::span<const std::uint8_t> bytes, BlockSink sink) {
  if (fd < 0 || bytes.size() > kMaximumTransfer) return blockFault(EINVAL, "write");
  while (!bytes.empty()) {
    Result<std::size_t> count =
        sink == BlockSink::Socket ? sys::send(fd, bytes, MSG_NOSIGNAL) : sys::write(fd, bytes);
    if (!count && (count.error().code() == EAGAIN || count.error().code() == EWOULDBLOCK)) {
      // A non-blocking descriptor whose reader takes nothing: wait for room, but not for ever.
      KRV_TRY_VOID(waitForRoom(fd));
      continue;
    }
    if (!count) return std::move(count).error();
    if (*count == 0) return Error::posix(EPIPE, "write");
    bytes = bytes.subspan(*count);
  }
  return {};
}

Status readFromPipe(int fd, std::span<std::uint8_t> buffer) {
  if (fd < 0 || buffer.size() > kMaximumTransfer) return blockFault(EINVAL, "read");
  while (!buffer.empty()) {
    KRV_TRY(std::size_t count, sys::read(fd, buffer));
    if (count == 0) return Error::posix(EPIPE, "read");
    buffer = buffer.subspan(count);
  }
  return {};
}

Data encodeDataBlock(std::span<const std::uint8_t> payload) {
  Data block(kDataBlockHeaderSize + payload.size());
  if (!payload.empty()) {
    std::memcpy(block.data() + kDataBlockHeaderSize, payload.data(), payload.size());
  }
  fillHeader(block);
  return block;
}

Status sealDataBlock(std::span<std::uint8_t> block) {
  if (block.size() < kDataBlockHeaderSize ||
      block.size() - kDataBlockHeaderSize > kDataBlockMaximumPayload) {
    return Error::posix(EINVAL, "data block");
  }
  fillHeader(block);
  return {};
}

Status writeDataBlock(int fd, std::span<const std::uint8_t> payload, BlockSink sink) {
  if (fd < 0 || payload.size() > kDataBlockMaximumPayload) return Error::posix(EINVAL, "write");
  if (payload.empty()) return {};
  return writeToPipe(fd, encodeDataBlock(payload), sink);
}

Result<Data> readDataBlock(const ExactRead& readExactly, std::size_t maximumPayload,
                           int oversized) {
  std::uint8_t header[kDataBlockHeaderSize];
  KRV_TRY_VOID(readExactly(header));
  if (std::memcmp(header, kDataBlockMarker.data(), kDataBlockMarker.size()) != 0) {
    return Error::posix(EIO, "data block marker");
  }
  const std::uint32_t length = loadLittleEndian<std::uint32_t>(header + kDataBlockLengthOffset);
  if (length > std::min(maximumPayload, kDataBlockMaximumSize)) {
    return Error::posix(oversized, "data block length");
  }
  // Each step at most doubles what has arrived.
  Data payload;
  while (payload.size() < length) {
    const std::size_t received = payload.size();
    const std::size_t step =
        std::min<std::size_t>(length - received, std::max(kFirstPayloadChunk, received));
    growWiping(payload, received + step);
    if (Status status = readExactly(std::span<std::uint8_t>(payload).subspan(received)); !status) {
      wipe(std::span<std::uint8_t>(payload));
      return std::move(status).error();
    }
  }
  if (crc16(payload) != loadLittleEndian<std::uint32_t>(header + kDataBlockChecksumOffset)) {
    wipe(std::span<std::uint8_t>(payload));
    return Error::posix(EIO, "data block checksum");
  }
  return payload;
}

Result<Data> readDataBlock(int fd) {
  if (fd < 0) return blockFault(EINVAL, "read data block");
  Result<Data> payload =
      readDataBlock([fd](std::span<std::uint8_t> buffer) { return readFromPipe(fd, buffer); },
                    kDataBlockMaximumSize, EIO);
  if (!payload && payload.error().code() == EIO) errno = EIO;
  return payload;
}

}  // namespace krv
