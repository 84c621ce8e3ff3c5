#pragma once
// Unsigned integers stored in bytes in a fixed byte order, whatever the host's: the data blocks'
// header is little-endian; CBOR, binary property lists, the digests' words and the access control
// lists' byte form are big-endian.
//
//   const std::uint32_t length = loadLittleEndian<std::uint32_t>(header + kDataBlockLengthOffset);
//   storeBigEndian<std::uint64_t>(out, bits);
//
// T is one of the fixed-width unsigned types; `bytes` needs no alignment and must hold sizeof(T)
// bytes (the caller checks the bounds). The append forms grow a byte vector and need no such
// check. Pure (append aside), constexpr and thread-safe.

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace krv {

template <class T>
constexpr T loadLittleEndian(const std::uint8_t* bytes) {
  static_assert(std::is_unsigned_v<T>);
  T value = 0;
  for (std::size_t i = sizeof(T); i-- > 0;) value = static_cast<T>((value << 8) | bytes[i]);
  return value;
}

template <class T>
constexpr T loadBigEndian(const std::uint8_t* bytes) {
  static_assert(std::is_unsigned_v<T>);
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) value = static_cast<T>((value << 8) | bytes[i]);
  return value;
}

template <class T>
constexpr void storeLittleEndian(std::uint8_t* bytes, T value) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = 0; i < sizeof(T); ++i)
    bytes[i] = static_cast<std::uint8_t>(value >> (8 * i));
}

template <class T>
constexpr void storeBigEndian(std::uint8_t* bytes, T value) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    bytes[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(T) - 1 - i)));
  }
}

template <class T>
void appendBigEndian(std::vector<std::uint8_t>& out, T value) {
  const std::size_t at = out.size();
  out.resize(at + sizeof(T));
  storeBigEndian(out.data() + at, value);
}

template <class T>
void appendLittleEndian(std::vector<std::uint8_t>& out, T value) {
  const std::size_t at = out.size();
  out.resize(at + sizeof(T));
  storeLittleEndian(out.data() + at, value);
}

}  // namespace krv
