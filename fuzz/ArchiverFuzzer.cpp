// Feeds arbitrary payloads to both unarchivers with the error object registered. Whatever decodes
// must archive again into bytes that decode to the same value: the archive of the second decode
// has to be identical to the first (comparing archives rather than values keeps NaN dates, which
// equal nothing, from looking like a mismatch).

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <span>

#include "foundation/Archiver.h"
#include "foundation/Error.h"

namespace {

using krv::ClassRegistry;
using krv::Data;
using krv::Result;
using krv::Value;

[[noreturn]] void mismatch(const char* what) {
  std::fprintf(stderr, "archiver round trip failed: %s\n", what);
  std::abort();
}

void roundTrip(std::span<const std::uint8_t> payload, bool keyed) {
  const ClassRegistry& classes = ClassRegistry::errorObjects();
  Result<Value> decoded =
      keyed ? krv::unarchiveKeyed(payload, classes) : krv::unarchiveSequential(payload, classes);
  if (!decoded) return;

  const Data first = keyed ? krv::archiveKeyed(*decoded) : krv::archiveSequential(*decoded);
  Result<Value> again =
      keyed ? krv::unarchiveKeyed(first, classes) : krv::unarchiveSequential(first, classes);
  if (!again) mismatch("the archive of a decoded value does not decode");
  const Data second = keyed ? krv::archiveKeyed(*again) : krv::archiveSequential(*again);
  if (second != first) mismatch("the value changed on its way through the archive");

  if (const krv::ObjectRef* object = decoded->asObject()) {
    if (krv::sequentialArchiveSize(**object) != krv::archiveSequential(**object).size()) {
      mismatch("sequentialArchiveSize differs from the archive");
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::span<const std::uint8_t> payload(data, size);
  roundTrip(payload, false);
  roundTrip(payload, true);
  return 0;
}
