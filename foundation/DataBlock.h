#pragma once
// Data blocks: the framing of every message on a socket or pipe, the one framer of the system
// (daemon, client library and the authorization service's channel all use it).
//
//   offset 0   28 bytes  marker "***KRVSecurityAgentDataBlock" (no terminator)
//   offset 28   4 bytes  payload length, unsigned, little-endian
//   offset 32   4 bytes  CRC-16/KERMIT of the payload in the low half, upper half zero
//   offset 36            payload
//
// The writer refuses a block larger than 1048576 bytes in all (payload at most 1048540); the reader
// accepts a declared payload length of up to 1048576 (intended slack on the reading side). The
// declared length is only a claim until the bytes arrive: the reader's buffer grows with what was
// read, so a header alone never makes it set aside a mebibyte. A buffer the reader outgrows or
// gives up is wiped (foundation/Wipe.h): payloads may hold a password.
//
// The functions on a descriptor block (a writer on a non-blocking one waits a bounded time for
// room, see writeToPipe); their callers bound them (the daemon's watchdog, the
// client's own patience). The authorization service's channel reads through its own function,
// which waits with a deadline.
//
// Errors (POSIX): EINVAL for bad arguments and oversized data, EIO for any framing or checksum
// fault, EPIPE when the peer closes early, otherwise the errno of the failing read or write.
// Stateless and thread-safe.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

inline constexpr std::string_view kDataBlockMarker = "***KRVSecurityAgentDataBlock";
inline constexpr std::size_t kDataBlockLengthOffset = 28;
inline constexpr std::size_t kDataBlockChecksumOffset = 32;
inline constexpr std::size_t kDataBlockHeaderSize = 36;
inline constexpr std::size_t kDataBlockMaximumSize = 1048576;
inline constexpr std::size_t kDataBlockMaximumPayload =
    kDataBlockMaximumSize - kDataBlockHeaderSize;
// The largest single transfer the low-level loops accept.
inline constexpr std::size_t kMaximumTransfer = 1048576;

// How bytes are written: write(2) on pipes and the daemon's sockets; send(2) with MSG_NOSIGNAL on
// a client's socket, so that a peer that closes early yields EPIPE instead of a signal.
enum class BlockSink { Pipe, Socket };

// How long a write on a non-blocking descriptor waits for its reader to make room.
inline constexpr std::chrono::milliseconds kStalledReaderTimeout{60000};

// Writes all of `bytes` (at most kMaximumTransfer), retrying on EINTR; a write of 0 bytes is EPIPE.
// On a non-blocking descriptor a full buffer is waited for, up to kStalledReaderTimeout at a time
// in which the reader takes nothing: then ETIMEDOUT.
Status writeToPipe(int fd, std::span<const std::uint8_t> bytes, BlockSink sink = BlockSink::Pipe);
// Fills all of `buffer` (at most kMaximumTransfer), retrying on EINTR; end of file is EPIPE.
Status readFromPipe(int fd, std::span<std::uint8_t> buffer);

// The block holding `payload`, header and payload in one buffer; the payload must not be larger
// than kDataBlockMaximumPayload.
Data encodeDataBlock(std::span<const std::uint8_t> payload);
// A block built in place: `block` starts with kDataBlockHeaderSize bytes of room, the payload
// follows; this fills in the header (marker, length, checksum). EINVAL when the span is shorter
// than a header or the payload is larger than kDataBlockMaximumPayload. Writers that encode
// straight into such a buffer send each message with one write and no copy of its payload.
Status sealDataBlock(std::span<std::uint8_t> block);
// Writes one block holding the payload. An empty payload writes nothing and succeeds.
Status writeDataBlock(int fd, std::span<const std::uint8_t> payload,
                      BlockSink sink = BlockSink::Pipe);

// How a block reader takes its bytes: exactly `buffer.size()` of them, or the failure (EPIPE when
// the stream ends first).
using ExactRead = std::function<Status(std::span<std::uint8_t> buffer)>;
// Reads one block and returns its payload. A read's failure is passed on as it is; a wrong marker
// or checksum is EIO; a declared length above `maximumPayload` (itself at most
// kDataBlockMaximumSize) is the error `oversized`, before any payload byte is read.
Result<Data> readDataBlock(const ExactRead& readExactly, std::size_t maximumPayload, int oversized);
// One block from a descriptor, up to kDataBlockMaximumSize; an oversized one is EIO. The error is
// also left in errno for EINVAL and EIO.
Result<Data> readDataBlock(int fd);

}  // namespace krv
