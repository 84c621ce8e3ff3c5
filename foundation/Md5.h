#pragma once
// MD5 message digest (RFC 1321), incremental. One object per digest; not synchronised.

#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "foundation/BlockBuffer.h"

namespace krv {

class Md5 {
 public:
  using Digest = std::array<std::uint8_t, 16>;

  Md5();
  void update(std::span<const std::uint8_t> bytes);
  // Finishes the digest; the object must not be updated afterwards.
  Digest finish();

  static Digest digest(std::span<const std::uint8_t> bytes);
  static std::string hex(const Digest& digest);

 private:
  void transform(const std::uint8_t* block);

  std::array<std::uint32_t, 4> m_state;
  BlockBuffer m_blocks;
};

}  // namespace krv
