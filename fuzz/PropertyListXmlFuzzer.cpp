// Feeds arbitrary bytes to readXml; whatever it accepts must survive an XML round trip.

#include <cstddef>
#include <cstdint>
#include <span>

#include "foundation/PropertyList.h"
#include "fuzz/PropertyListRoundTrip.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  krv::Result<krv::Value> value = krv::plist::readXml(std::span<const std::uint8_t>(data, size));
  if (value) krv::fuzz::checkXmlRoundTrip(*value);
  return 0;
}
