#pragma once
// Loading and storing fixed-width unsigned integers in a stated byte order, independent of the
// host's. The one home for byte-order conversions of wire and file formats: every codec that reads
// or writes a multi-byte field in a given order uses these rather than shifting by hand.
//
// The load and store functions work on raw pointers for speed in decoders; the caller guarantees
// that sizeof(T) bytes are readable (load) or writable (store) there - check the bounds first, as
// with any access to a buffer. The append functions grow a byte vector and need no such check.
// T is one of std::uint16_t, std::uint32_t and std::uint64_t (std::uint8_t works trivially).
// Everything is constexpr, allocation-free (except append) and thread-safe.

#include <cstddef>
#include <cstdint>
#include <type_traits>
#include <vector>

namespace krv {

template <class T>
constexpr T loadBigEndian(const std::uint8_t* bytes) {
  static_assert(std::is_unsigned_v<T>);
  T value = 0;
  for (std::size_t i = 0; i < sizeof(T); ++i) value = static_cast<T>((value << 8) | bytes[i]);
  return value;
}

template <class T>
constexpr T loadLittleEndian(const std::uint8_t* bytes) {
  static_assert(std::is_unsigned_v<T>);
  T value = 0;
  for (std::size_t i = sizeof(T); i > 0; --i) value = static_cast<T>((value << 8) | bytes[i - 1]);
  return value;
}

template <class T>
constexpr void storeBigEndian(std::uint8_t* out, T value) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = sizeof(T); i > 0; --i) {
    out[i - 1] = static_cast<std::uint8_t>(value);
    value = static_cast<T>(value >> 8);
  }
}

template <class T>
constexpr void storeLittleEndian(std::uint8_t* out, T value) {
  static_assert(std::is_unsigned_v<T>);
  for (std::size_t i = 0; i < sizeof(T); ++i) {
    out[i] = static_cast<std::uint8_t>(value);
    value = static_cast<T>(value >> 8);
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
