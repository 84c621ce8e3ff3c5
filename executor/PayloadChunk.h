#pragma once
// PayloadChunk: one payload message of a list that a command sends in chunks, built in place.
//
// A chunk is the intermediate report {CurrentProgress: progress, <key>: [elements...]} of the
// transport domain, as KRVCommandExecutor::sendPayloadArray sends it. Here its elements are written
// as CBOR items straight into the buffer that becomes the data block, behind room for the block's
// header and the message's own items, which are filled in when the chunk is sent (their length
// depends only on the key and the element count). So a list of any length is sent with no value
// per element, no archive of its own and no copy: one buffer and one write per chunk. The bytes are
// exactly those of the generic encoder (foundation/Archiver.h) for the same message.
//
// Usage: add() each element, then KRVCommandExecutor::sendPayloadChunk(), which empties the chunk
// for the next one. Memory: the elements of one chunk; the caller bounds how many it adds.
// Not synchronised: one chunk, one thread. The key is borrowed and must outlive the chunk.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

#include "foundation/CborWriter.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

class PayloadChunk {
 public:
  explicit PayloadChunk(std::string_view key);
  PayloadChunk(const PayloadChunk&) = delete;
  PayloadChunk& operator=(const PayloadChunk&) = delete;

  // Appends one element: `write` writes exactly one complete CBOR item with the writer it is given
  // (a value in the sequential form, or an item written field by field).
  template <class Write>
  void add(Write&& write) {
    write(*m_writer);
    ++m_count;
  }
  std::size_t count() const { return m_count; }
  // Forgets the elements.
  void clear();

  // The whole message as a data block for `progress`, valid until the next add() or clear();
  // EINVAL when it is larger than a data block may be.
  Result<std::span<const std::uint8_t>> seal(double progress);

 private:
  // Writes the message's items before the elements (domain, code, progress, key, array head).
  void writeHead(CborWriter& writer, double progress, std::size_t count) const;

  std::string_view m_key;
  std::size_t m_room = 0;  // bytes before the elements: the largest header and head
  Data m_bytes;
  Data m_head;
  std::optional<CborWriter> m_writer;  // appends the elements behind the room
  std::size_t m_count = 0;
};

}  // namespace krv
