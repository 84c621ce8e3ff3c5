#pragma once
// SHA-256 message digest (FIPS 180-4), incremental, and a comparison of byte strings whose running
// time does not depend on where they differ.
//
// The authorization service keeps only the SHA-256 of each token it mints; a token presented later
// is hashed and compared with digestsEqual(). One Sha256 object computes one digest and is not
// synchronised; the free functions are stateless and thread-safe. Nothing here fails.

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "foundation/BlockBuffer.h"

namespace krv {

class Sha256 {
 public:
  using Digest = std::array<std::uint8_t, 32>;

  Sha256();
  void update(std::span<const std::uint8_t> bytes);
  // Finishes the digest; the object must not be updated afterwards.
  Digest finish();

  static Digest digest(std::span<const std::uint8_t> bytes);
  static std::string hex(const Digest& digest);

 private:
  void transform(const std::uint8_t* block);

  std::array<std::uint32_t, 8> m_state;
  BlockBuffer m_blocks;
};

// True when both spans hold the same bytes. For spans of equal length the time taken depends only
// on the length; spans of different lengths are unequal at once (lengths are not secret here).
bool digestsEqual(std::span<const std::uint8_t> first, std::span<const std::uint8_t> second);

}  // namespace krv
