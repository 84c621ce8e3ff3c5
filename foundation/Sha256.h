#pragma once
// SHA-256 message digest (FIPS 180-4), incremental (see BlockDigest), and a comparison of byte
// strings whose running time does not depend on where they differ.
//
// The authorization service keeps only the SHA-256 of each token it mints; a token presented later
// is hashed and compared with digestsEqual(). One Sha256 object computes one digest and is not
// synchronised; the free functions are stateless and thread-safe. Nothing here fails.

#include <cstddef>
#include <cstdint>
#include <span>

#include "foundation/BlockDigest.h"

namespace krv {

class Sha256 final : public BlockDigest<Sha256, 8, DigestByteOrder::BigEndian> {
 public:
  Sha256();

 private:
  friend BlockDigest;
  void transform(const std::uint8_t* block);
};

// True when both spans hold the same bytes. For spans of equal length the time taken depends only
// on the length; spans of different lengths are unequal at once (lengths are not secret here).
bool digestsEqual(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second);

}  // namespace krv
