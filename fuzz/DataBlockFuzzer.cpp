// Feeds arbitrary bytes to the data block reader and the request decoder, as a hostile client
// would on the request socket: the bytes go through a real pipe, a block is read and its payload
// unarchived with the classes the daemon accepts.
//
// A mutated block rarely keeps a matching checksum, so the bytes are sent twice: as they are, and
// as a block whose length and checksum are right (the input's own header corrected, or a header
// put in front of the input). The second form is what reaches the request decoder.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>

#include "foundation/DataBlock.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"

namespace {

void readFromPeer(std::span<const std::uint8_t> bytes) {
  krv::Result<krv::sys::PipeEnds> pipe = krv::sys::pipe();
  if (!pipe) return;
  // Nobody reads while the bytes are written: they must fit the pipe.
  const int capacity = ::fcntl(pipe->writeEnd.get(), F_SETPIPE_SZ, 1 << 20);
  if (capacity < 0 || bytes.size() > static_cast<std::size_t>(capacity)) return;
  if (!krv::sys::writeAll(pipe->writeEnd.get(), bytes)) return;
  pipe->writeEnd.reset();  // the peer closes after its bytes
  krv::Result<krv::Value> object = krv::KRVSecurityAgent::readObject(pipe->readEnd.get());
  if (object) {
    // Whatever decodes must be a complete, valid object of a known class.
    const krv::ObjectRef* reference = object->asObject();
    if (reference == nullptr) return;
    if (const auto* command = object->objectAs<krv::KRVPrivilegedCommand>()) {
      if (!command->isValid()) std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size > krv::kDataBlockMaximumPayload) return 0;
  const std::span<const std::uint8_t> input(data, size);
  readFromPeer(input);

  const bool hasHeader =
      size >= krv::kDataBlockHeaderSize &&
      std::memcmp(data, krv::kDataBlockMarker.data(), krv::kDataBlockMarker.size()) == 0;
  // The input's own header is replaced by a correct one, or a header is put in front of it.
  const std::span<const std::uint8_t> payload =
      hasHeader ? input.subspan(krv::kDataBlockHeaderSize) : input;
  readFromPeer(krv::encodeDataBlock(payload));
  return 0;
}
