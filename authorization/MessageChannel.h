#pragma once
// MessageChannel: data blocks on a connected stream socket, with deadlines.
//
// The framing and the block reader are the project's data blocks (foundation/DataBlock.h), whose
// buffer grows only as bytes arrive. Unlike the reads on a descriptor there, the functions here
// never wait past a deadline (a peer that stalls or trickles bytes cannot hold a thread), refuse a
// declared length above the caller's limit before reading the payload, and send with
// MSG_NOSIGNAL (a peer that went away is EPIPE, never a signal). They work on blocking and
// non-blocking sockets alike.
//
// Errors (POSIX): ETIMEDOUT when the deadline passes, EPIPE when the peer closed, EMSGSIZE for a
// declared length above the limit, EIO for a bad marker or checksum, else the errno of the call.
// Frame buffers are wiped after use (payloads may hold a password). Stateless; thread-safe as
// long as one socket is used by one thread at a time.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <span>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv::auth {

using Deadline = std::chrono::steady_clock::time_point;

inline Deadline deadlineAfter(std::chrono::milliseconds duration) {
  return std::chrono::steady_clock::now() + duration;
}

Status sendMessage(int socket, std::span<const std::uint8_t> payload, Deadline deadline);
Result<Data> receiveMessage(int socket, std::size_t maximumPayload, Deadline deadline);

// Waits until the deadline unless the peer closes the connection (or sends anything, which is a
// protocol fault at the points where this is used) first. True when the time passed quietly.
bool waitQuietly(int socket, Deadline deadline);

}  // namespace krv::auth
