#pragma once
// MD5 message digest (RFC 1321), incremental: update() with the bytes in any pieces, then
// finish(); or digest() at once. One object per digest; not synchronised.

#include <array>
#include <cstdint>

#include "foundation/BlockDigest.h"

namespace krv {

class Md5 final : public BlockDigest<Md5, 4, DigestByteOrder::LittleEndian> {
 public:
  Md5();

 private:
  friend BlockDigest;
  void transform(const std::uint8_t* block);
};

}  // namespace krv
