// A payload chunk built in place: the message head is written last, into the room before the
// elements, so that the data block ends up contiguous.

#include "executor/PayloadChunk.h"

#include <cstring>
#include <limits>

#include "foundation/CborFormat.h"
#include "foundation/DataBlock.h"
#include "foundation/UserInformationKeys.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

PayloadChunk::PayloadChunk(std::string_view key) : m_key(key) {
  CborWriter counter;
  writeHead(counter, 0.0, std::numeric_limits<std::size_t>::max());
  m_room = kDataBlockHeaderSize + counter.size();
  clear();
}

void PayloadChunk::clear() {
  // The old writer settles the buffer's size as it goes; the new one appends behind the room.
  m_writer.reset();
  m_bytes.resize(m_room);
  m_writer.emplace(m_bytes);
  m_count = 0;
}

// The error object {domain, code 1, {CurrentProgress, key: [...]}} up to the array's head, as
// Error::encode and the dictionary writer put it. As in a dictionary, a key equal to
// CurrentProgress replaces the progress.
void PayloadChunk::writeHead(CborWriter& writer, double progress, std::size_t count) const {
  writer.writeTag(cbor::kObjectTag);
  writer.writeArrayHeader(4);
  writer.writeText(Error::kClassName);
  writer.writeText(kTransportErrorDomain);
  writer.writeNumber(Number::integer(kTransportIntermediateReport));
  const bool replacesProgress = m_key == key::kCurrentProgress;
  writer.writeMapHeader(replacesProgress ? 1 : 2);
  if (!replacesProgress) {
    writer.writeText(key::kCurrentProgress);
    writer.writeDouble(progress);
  }
  writer.writeText(m_key);
  writer.writeArrayHeader(count);
}

Result<std::span<const std::uint8_t>> PayloadChunk::seal(double progress) {
  const std::size_t elements = m_writer->size();
  m_head.clear();
  {
    CborWriter writer(m_head);
    writeHead(writer, progress, m_count);
  }
  const std::size_t start = m_room - m_head.size() - kDataBlockHeaderSize;
  std::memcpy(m_bytes.data() + start + kDataBlockHeaderSize, m_head.data(), m_head.size());
  const std::span<std::uint8_t> block(m_bytes.data() + start, m_room - start + elements);
  KRV_TRY_VOID(sealDataBlock(block));
  return std::span<const std::uint8_t>(block);
}

}  // namespace krv
