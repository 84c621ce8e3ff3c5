// Feeds arbitrary bytes to the data block reader and the request decoder, as a hostile client
// would on the request socket: the bytes go through a real pipe, a block is read and its payload
// unarchived with the classes the daemon accepts.

#include <fcntl.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "foundation/DataBlock.h"
#include "foundation/System.h"
#include "protocol/KRVSecurityAgent.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  krv::Result<krv::sys::PipeEnds> pipe = krv::sys::pipe();
  if (!pipe) return 0;
  ::fcntl(pipe->writeEnd.get(), F_SETPIPE_SZ, 1 << 20);
  if (size > (1u << 20)) return 0;
  if (!krv::sys::writeAll(pipe->writeEnd.get(), {data, size})) return 0;
  pipe->writeEnd.reset();  // the peer closes after its bytes
  krv::Result<krv::Value> object = krv::KRVSecurityAgent::readObjectFromPipe(pipe->readEnd.get());
  if (object) {
    // Whatever decodes must be a complete, valid object of a known class.
    const krv::ObjectRef* reference = object->asObject();
    if (reference == nullptr) return 0;
    if (const auto* command = object->objectAs<krv::KRVPrivilegedCommand>()) {
      if (!command->isValid()) std::abort();
    }
  }
  return 0;
}
