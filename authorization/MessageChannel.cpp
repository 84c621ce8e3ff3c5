#include "authorization/MessageChannel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "authorization/Secret.h"
#include "foundation/Crc16.h"
#include "foundation/DataBlock.h"
#include "foundation/System.h"

namespace krv::auth {

namespace {

int millisecondsUntil(Deadline deadline) {
  // Rounded up: poll() must not return before the deadline.
  auto remaining =
      std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
  if (remaining.count() <= 0) return 0;
  return static_cast<int>(std::min<std::chrono::milliseconds::rep>(remaining.count(), 1 << 30));
}

// Waits for the socket to become ready for `events`; ETIMEDOUT at the deadline.
Status waitFor(int socket, short events, Deadline deadline) {
  for (;;) {
    pollfd entry{socket, events, 0};
    Result<std::size_t> ready = sys::poll({&entry, 1}, millisecondsUntil(deadline));
    if (ready && *ready > 0) return {};
    if (ready) return Error::posix(ETIMEDOUT, "poll");
    if (ready.error().code() != EINTR) return std::move(ready).error();
  }
}

bool wouldBlock(const Error& error) {
  return error.code() == EAGAIN || error.code() == EWOULDBLOCK;
}

Status receiveExactly(int socket, std::span<std::uint8_t> buffer, Deadline deadline) {
  while (!buffer.empty()) {
    Result<std::size_t> count = sys::receive(socket, buffer, MSG_DONTWAIT);
    if (count && *count == 0) return Error::posix(EPIPE, "recv");
    if (count) {
      buffer = buffer.subspan(*count);
    } else if (wouldBlock(count.error())) {
      KRV_TRY_VOID(waitFor(socket, POLLIN, deadline));
    } else {
      return std::move(count).error();
    }
  }
  return {};
}

Status sendExactly(int socket, std::span<const std::uint8_t> bytes, Deadline deadline) {
  while (!bytes.empty()) {
    Result<std::size_t> count = sys::send(socket, bytes, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count) {
      bytes = bytes.subspan(*count);
    } else if (wouldBlock(count.error())) {
      KRV_TRY_VOID(waitFor(socket, POLLOUT, deadline));
    } else {
      return std::move(count).error();
    }
  }
  return {};
}

std::uint32_t loadLittleEndian32(const std::uint8_t* in) {
  return static_cast<std::uint32_t>(in[0]) | (static_cast<std::uint32_t>(in[1]) << 8) |
         (static_cast<std::uint32_t>(in[2]) << 16) | (static_cast<std::uint32_t>(in[3]) << 24);
}

void storeLittleEndian32(std::uint8_t* out, std::uint32_t value) {
  for (int i = 0; i < 4; ++i) out[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

}  // namespace

Status sendMessage(int socket, std::span<const std::uint8_t> payload, Deadline deadline) {
  if (payload.empty() || payload.size() > kDataBlockMaximumPayload) {
    return Error::posix(EINVAL, "send message");
  }
  Data frame(kDataBlockHeaderSize + payload.size());
  std::memcpy(frame.data(), kDataBlockMarker.data(), kDataBlockMarker.size());
  storeLittleEndian32(frame.data() + 28, static_cast<std::uint32_t>(payload.size()));
  storeLittleEndian32(frame.data() + 32, crc16(payload));
  std::memcpy(frame.data() + kDataBlockHeaderSize, payload.data(), payload.size());

  Status status = sendExactly(socket, frame, deadline);
  wipe(std::span<std::uint8_t>(frame));
  return status;
}

Result<Data> receiveMessage(int socket, std::size_t maximumPayload, Deadline deadline) {
  std::uint8_t header[kDataBlockHeaderSize];
  KRV_TRY_VOID(receiveExactly(socket, header, deadline));
  if (std::memcmp(header, kDataBlockMarker.data(), kDataBlockMarker.size()) != 0) {
    return Error::posix(EIO, "message marker");
  }
  const std::uint32_t length = loadLittleEndian32(header + 28);
  if (length > maximumPayload || length > kDataBlockMaximumSize) {
    return Error::posix(EMSGSIZE, "message length");
  }
  Data payload(length);
  if (Status received = receiveExactly(socket, payload, deadline); !received) {
    wipe(std::span<std::uint8_t>(payload));
    return std::move(received).error();
  }
  if (crc16(payload) != loadLittleEndian32(header + 32)) {
    wipe(std::span<std::uint8_t>(payload));
    return Error::posix(EIO, "message checksum");
  }
  return payload;
}

bool waitQuietly(int socket, Deadline deadline) {
  for (;;) {
    pollfd entry{socket, POLLIN, 0};
    Result<std::size_t> ready = sys::poll({&entry, 1}, millisecondsUntil(deadline));
    if (ready) return *ready == 0;
    if (ready.error().code() != EINTR) return false;
  }
}

}  // namespace krv::auth
