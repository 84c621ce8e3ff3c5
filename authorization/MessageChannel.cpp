#include "authorization/MessageChannel.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>

#include "foundation/DataBlock.h"
#include "foundation/System.h"
#include "foundation/Wipe.h"

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

}  // namespace

Status sendMessage(int socket, std::span<const std::uint8_t> payload, Deadline deadline) {
  if (payload.empty() || payload.size() > kDataBlockMaximumPayload) {
    return Error::posix(EINVAL, "send message");
  }
  Data frame = encodeDataBlock(payload);
  Status status = sendExactly(socket, frame, deadline);
  wipe(std::span<std::uint8_t>(frame));
  return status;
}

Result<Data> receiveMessage(int socket, std::size_t maximumPayload, Deadline deadline) {
  return readDataBlock(
      [socket, deadline](std::span<std::uint8_t> buffer) {
        return receiveExactly(socket, buffer, deadline);
      },
      maximumPayload, EMSGSIZE);
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
