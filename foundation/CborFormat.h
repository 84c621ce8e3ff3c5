#pragma once
// The CBOR encoding (RFC 8949) as the archives use it: the major types of an item's initial byte,
// the additional-information values that say how long its argument is, the simple values, and
// the tags of the wire format (docs/wire-format.md). Shared by the reader and the writer, and by
// the authorization service's hand-written answers.

#include <cstdint>

namespace krv::cbor {

// An item's initial byte is its major type (top three bits) and additional information (low five).
inline constexpr std::uint8_t kMajorUnsigned = 0;
inline constexpr std::uint8_t kMajorNegative = 1;
inline constexpr std::uint8_t kMajorBytes = 2;
inline constexpr std::uint8_t kMajorText = 3;
inline constexpr std::uint8_t kMajorArray = 4;
inline constexpr std::uint8_t kMajorMap = 5;
inline constexpr std::uint8_t kMajorTag = 6;
inline constexpr std::uint8_t kMajorSimple = 7;

// Additional information: below kInfoOneByte the argument itself; otherwise the argument follows in
// 1, 2, 4 or 8 bytes, big-endian (for the simple type: a float of 2, 4 or 8 bytes).
inline constexpr std::uint8_t kInfoOneByte = 24;
inline constexpr std::uint8_t kInfoTwoBytes = 25;
inline constexpr std::uint8_t kInfoFourBytes = 26;
inline constexpr std::uint8_t kInfoEightBytes = 27;
inline constexpr std::uint8_t kInfoIndefinite = 31;
inline constexpr std::uint8_t kInfoFalse = 20;
inline constexpr std::uint8_t kInfoTrue = 21;

// Whole initial bytes.
constexpr std::uint8_t initialByte(std::uint8_t major, std::uint8_t info) {
  return static_cast<std::uint8_t>(major << 5 | info);
}
inline constexpr std::uint8_t kFalse = initialByte(kMajorSimple, kInfoFalse);
inline constexpr std::uint8_t kTrue = initialByte(kMajorSimple, kInfoTrue);
inline constexpr std::uint8_t kFloat64 = initialByte(kMajorSimple, kInfoEightBytes);

// The tags the archives use.
inline constexpr std::uint64_t kDateTag = 1;
inline constexpr std::uint64_t kObjectTag = 27;
inline constexpr std::uint64_t kSetTag = 258;

}  // namespace krv::cbor
