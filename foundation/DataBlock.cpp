#include "foundation/DataBlock.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/Crc16.h"
#include "foundation/System.h"

namespace krv {

namespace {

// The payload buffer a block reader sets aside before any payload byte has arrived.
constexpr std::size_t kFirstPayloadChunk = 64 * 1024;

void storeLittleEndian32(std::uint8_t* out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

std::uint32_t loadLittleEndian32(const std::uint8_t* in) {
  return static_cast<std::uint32_t>(in[0]) | (static_cast<std::uint32_t>(in[1]) << 8) |
         (static_cast<std::uint32_t>(in[2]) << 16) | (static_cast<std::uint32_t>(in[3]) << 24);
}

Error blockFault(int errorNumber, const char* operation) {
  errno = errorNumber;
  return Error::posix(errorNumber, operation);
}

}  // namespace

Status writeToPipe(int fd, std::span<const std::uint8_t> bytes, BlockSink sink) {
  if (fd < 0 || bytes.size() > kMaximumTransfer) return blockFault(EINVAL, "write");
  while (!bytes.empty()) {
    KRV_TRY(std::size_t count,
            sink == BlockSink::Socket ? sys::send(fd, bytes, MSG_NOSIGNAL) : sys::write(fd, bytes));
    if (count == 0) return Error::posix(EPIPE, "write");
    bytes = bytes.subspan(count);
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

Status writeDataBlock(int fd, std::span<const std::uint8_t> payload, BlockSink sink) {
  if (fd < 0 || payload.size() > kDataBlockMaximumPayload) return Error::posix(EINVAL, "write");
  if (payload.empty()) return {};
  Data block(kDataBlockHeaderSize + payload.size());
  std::memcpy(block.data(), kDataBlockMarker.data(), kDataBlockMarker.size());
  storeLittleEndian32(block.data() + 28, static_cast<std::uint32_t>(payload.size()));
  storeLittleEndian32(block.data() + 32, crc16(payload));
  std::memcpy(block.data() + kDataBlockHeaderSize, payload.data(), payload.size());
  return writeToPipe(fd, block, sink);
}

Result<Data> readDataBlock(int fd) {
  if (fd < 0) return blockFault(EINVAL, "read data block");
  std::uint8_t header[kDataBlockHeaderSize];
  KRV_TRY_VOID(readFromPipe(fd, header));
  if (std::memcmp(header, kDataBlockMarker.data(), kDataBlockMarker.size()) != 0) {
    return blockFault(EIO, "data block marker");
  }
  std::uint32_t length = loadLittleEndian32(header + 28);
  if (length > kDataBlockMaximumSize) return blockFault(EIO, "data block length");
  // The length is only a claim until the bytes arrive: the buffer grows with what was read (at
  // most doubling it), so a header alone cannot make the reader set aside a whole mebibyte.
  Data payload;
  while (payload.size() < length) {
    const std::size_t received = payload.size();
    const std::size_t step =
        std::min<std::size_t>(length - received, std::max(kFirstPayloadChunk, received));
    payload.resize(received + step);
    KRV_TRY_VOID(readFromPipe(fd, std::span<std::uint8_t>(payload).subspan(received)));
  }
  if (crc16(payload) != loadLittleEndian32(header + 32)) {
    return blockFault(EIO, "data block checksum");
  }
  return payload;
}

}  // namespace krv
