#include "foundation/DataBlock.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "foundation/Assert.h"
#include "foundation/Crc16.h"

namespace krv {

namespace {

constexpr const char* kUnit = "KRVSecurityAgent";
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

int writeToPipe(int fd, const std::uint8_t* bytes, std::size_t length, BlockSink sink) {
  if (fd < 0 || bytes == nullptr || length > kMaximumTransfer) {
    errno = EINVAL;
    return EINVAL;
  }
  std::size_t done = 0;
  while (done < length) {
    ssize_t currentBytes = sink == BlockSink::Socket
                               ? ::send(fd, bytes + done, length - done, MSG_NOSIGNAL)
                               : ::write(fd, bytes + done, length - done);
    if (currentBytes > 0) {
      done += static_cast<std::size_t>(currentBytes);
    } else if (currentBytes == 0) {
      return EPIPE;
    } else {
      KRV_ASSERT(currentBytes == -1, kUnit);
      int errorCode = errno;
      if (errorCode == EINTR) continue;
      KRV_ASSERT(errorCode != 0, kUnit);
      return errorCode;
    }
  }
  return 0;
}

int readFromPipe(int fd, std::uint8_t* buffer, std::size_t length, std::size_t* count) {
  std::size_t done = 0;
  if (count != nullptr) *count = 0;
  if (fd < 0 || buffer == nullptr || length > kMaximumTransfer) {
    errno = EINVAL;
    return EINVAL;
  }
  int result = 0;
  while (done < length) {
    ssize_t currentBytes = ::read(fd, buffer + done, length - done);
    if (currentBytes > 0) {
      done += static_cast<std::size_t>(currentBytes);
    } else if (currentBytes == 0) {
      result = EPIPE;
      break;
    } else {
      KRV_ASSERT(currentBytes == -1, kUnit);
      int errorCode = errno;
      if (errorCode == EINTR) continue;
      KRV_ASSERT(errorCode != 0, kUnit);
      result = errorCode;
      break;
    }
  }
  if (count != nullptr) *count = done;
  return result;
}

int writeDataBlock(int fd, std::span<const std::uint8_t> payload, BlockSink sink) {
  if (fd < 0 || payload.size() + kDataBlockHeaderSize > kDataBlockMaximumSize) return EINVAL;
  if (payload.empty()) return 0;
  Data block(kDataBlockHeaderSize + payload.size());
  std::memcpy(block.data(), kDataBlockMarker.data(), kDataBlockMarker.size());
  storeLittleEndian32(block.data() + 28, static_cast<std::uint32_t>(payload.size()));
  storeLittleEndian32(block.data() + 32, crc16(payload));
  std::memcpy(block.data() + kDataBlockHeaderSize, payload.data(), payload.size());
  return writeToPipe(fd, block.data(), block.size(), sink);
}

Result<Data> readDataBlock(int fd) {
  if (fd < 0) return blockFault(EINVAL, "read data block");
  std::uint8_t header[kDataBlockHeaderSize];
  std::size_t count = 0;
  if (int error = readFromPipe(fd, header, sizeof header, &count); error != 0) {
    return Error::posix(error, "read data block header");
  }
  if (count != sizeof header ||
      std::memcmp(header, kDataBlockMarker.data(), kDataBlockMarker.size()) != 0) {
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
    if (int error = readFromPipe(fd, payload.data() + received, step, &count); error != 0) {
      return Error::posix(error, "read data block payload");
    }
    if (count != step) return blockFault(EIO, "data block payload");
  }
  if (crc16(payload) != loadLittleEndian32(header + 32)) {
    return blockFault(EIO, "data block checksum");
  }
  return payload;
}

}  // namespace krv
