#include "foundation/Crc16.h"

#include <array>
#include <bit>
#include <cstring>

#include "foundation/ByteOrder.h"

namespace krv {

namespace {

// The reflected form of the polynomial 0x1021: with input and result reflected, the register
// shifts towards its low end and the bytes enter at the low end too.
constexpr unsigned kReflectedPolynomial = 0x8408;
// Bytes taken per step over long spans ("slicing by eight").
constexpr std::size_t kSlice = 8;

using Table = std::array<std::uint16_t, 256>;

// kTables[0][b]: the register after the byte b entered an empty register. kTables[k][b]: the same
// followed by k zero bytes, so that the eight bytes of a word can be looked up independently and
// combined with exclusive or.
constexpr std::array<Table, kSlice> makeTables() {
  std::array<Table, kSlice> tables{};
  for (unsigned byte = 0; byte < 256; ++byte) {
    unsigned crc = byte;
    for (int bit = 0; bit < 8; ++bit)
      crc = (crc & 1u) ? (crc >> 1) ^ kReflectedPolynomial : crc >> 1;
    tables[0][byte] = static_cast<std::uint16_t>(crc);
  }
  for (std::size_t k = 1; k < kSlice; ++k) {
    for (unsigned byte = 0; byte < 256; ++byte) {
      const unsigned previous = tables[k - 1][byte];
      tables[k][byte] = static_cast<std::uint16_t>((previous >> 8) ^ tables[0][previous & 0xFFu]);
    }
  }
  return tables;
}

constexpr std::array<Table, kSlice> kTables = makeTables();

// Eight bytes as a little-endian number: one load where the host is little-endian (the byte loop
// of loadLittleEndian is not always recognised as one).
std::uint64_t littleEndianWord(const std::uint8_t* bytes) {
  if constexpr (std::endian::native == std::endian::little) {
    std::uint64_t word;
    std::memcpy(&word, bytes, sizeof word);
    return word;
  } else {
    return loadLittleEndian<std::uint64_t>(bytes);
  }
}

}  // namespace

std::uint16_t crc16(std::span<const std::uint8_t> bytes) {
  unsigned crc = 0;
  const std::uint8_t* at = bytes.data();
  std::size_t left = bytes.size();
  for (; left >= kSlice; left -= kSlice, at += kSlice) {
    // The register overlaps the word's first two bytes; the first byte has the most bytes still
    // to pass through, hence the highest table.
    const std::uint64_t word = littleEndianWord(at) ^ crc;
    crc = kTables[7][word & 0xFF] ^ kTables[6][(word >> 8) & 0xFF] ^
          kTables[5][(word >> 16) & 0xFF] ^ kTables[4][(word >> 24) & 0xFF] ^
          kTables[3][(word >> 32) & 0xFF] ^ kTables[2][(word >> 40) & 0xFF] ^
          kTables[1][(word >> 48) & 0xFF] ^ kTables[0][word >> 56];
  }
  for (; left > 0; --left, ++at) crc = (crc >> 8) ^ kTables[0][(crc ^ *at) & 0xFFu];
  return static_cast<std::uint16_t>(crc);
}

}  // namespace krv
