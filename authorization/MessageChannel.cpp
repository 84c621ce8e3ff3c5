#include "authorization/MessageChannel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "authorization/Secret.h"
#include "foundation/Crc16.h"
#include "foundation/DataBlock.h"

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
    int ready = ::poll(&entry, 1, millisecondsUntil(deadline));
    if (ready > 0) return {};
    if (ready == 0) return Error::posix(ETIMEDOUT, "poll");
    if (errno != EINTR) return Error::fromErrno("poll");
  }
}

Status receiveExactly(int socket, std::uint8_t* buffer, std::size_t length, Deadline deadline) {
  std::size_t done = 0;
  while (done < length) {
    ssize_t count = ::recv(socket, buffer + done, length - done, MSG_DONTWAIT);
    if (count > 0) {
      done += static_cast<std::size_t>(count);
    } else if (count == 0) {
      return Error::posix(EPIPE, "recv");
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      KRV_TRY_VOID(waitFor(socket, POLLIN, deadline));
    } else if (errno != EINTR) {
      return Error::fromErrno("recv");
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

  Status status;
  std::size_t done = 0;
  while (done < frame.size()) {
    ssize_t count =
        ::send(socket, frame.data() + done, frame.size() - done, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (count >= 0) {
      done += static_cast<std::size_t>(count);
    } else if (errno == EAGAIN || errno == EWOULDBLOCK) {
      status = waitFor(socket, POLLOUT, deadline);
      if (!status) break;
    } else if (errno != EINTR) {
      status = Error::fromErrno("send");
      break;
    }
  }
  wipe(std::span<std::uint8_t>(frame));
  return status;
}

Result<Data> receiveMessage(int socket, std::size_t maximumPayload, Deadline deadline) {
  std::uint8_t header[kDataBlockHeaderSize];
  KRV_TRY_VOID(receiveExactly(socket, header, sizeof header, deadline));
  if (std::memcmp(header, kDataBlockMarker.data(), kDataBlockMarker.size()) != 0) {
    return Error::posix(EIO, "message marker");
  }
  const std::uint32_t length = loadLittleEndian32(header + 28);
  if (length > maximumPayload || length > kDataBlockMaximumSize) {
    return Error::posix(EMSGSIZE, "message length");
  }
  Data payload(length);
  if (Status received = receiveExactly(socket, payload.data(), length, deadline); !received) {
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
    int ready = ::poll(&entry, 1, millisecondsUntil(deadline));
    if (ready == 0) return true;
    if (ready > 0) return false;
    if (errno != EINTR) return false;
  }
}

}  // namespace krv::auth
