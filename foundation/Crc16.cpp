#include "foundation/Crc16.h"

#include <array>

namespace krv {

namespace {

// Remainders of the polynomial for every byte, most significant bit first.
constexpr std::array<std::uint16_t, 256> makeRemainderTable() {
  std::array<std::uint16_t, 256> table{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    unsigned remainder = byte << 8;
    for (int bit = 0; bit < 8; ++bit) {
      remainder = (remainder & 0x8000u) ? ((remainder << 1) ^ 0x1021u) : (remainder << 1);
    }
    table[byte] = static_cast<std::uint16_t>(remainder & 0xFFFFu);
  }
  return table;
}

// Bit reversal of every byte, built from the reversal of its two nibbles.
constexpr std::array<std::uint8_t, 256> makeReversalTable() {
  constexpr std::uint8_t kNibbleReversal[16] = {0, 8, 4, 12, 2, 10, 6, 14,
                                                1, 9, 5, 13, 3, 11, 7, 15};
  std::array<std::uint8_t, 256> table{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    table[byte] =
        static_cast<std::uint8_t>((kNibbleReversal[byte & 0x0F] << 4) | kNibbleReversal[byte >> 4]);
  }
  return table;
}

constexpr std::array<std::uint16_t, 256> kRemainders = makeRemainderTable();
constexpr std::array<std::uint8_t, 256> kReversed = makeReversalTable();

}  // namespace

std::uint16_t crc16(std::span<const std::uint8_t> bytes) {
  unsigned crc = 0;
  for (std::uint8_t byte : bytes) {
    crc = ((crc << 8) & 0xFFFFu) ^ kRemainders[((crc >> 8) ^ kReversed[byte]) & 0xFFu];
  }
  return static_cast<std::uint16_t>((kReversed[crc & 0xFFu] << 8) | kReversed[(crc >> 8) & 0xFFu]);
}

}  // namespace krv
