#pragma once
// UTF-8: the one validator, the reading of one character and the writing of one code point.
//
// Well-formed UTF-8 here is RFC 3629's: no overlong forms, no surrogates (U+D800-U+DFFF), nothing
// past U+10FFFF, no sequence cut short. Everything that decides whether bytes are text uses these:
// the archive reader (text strings), the property-list readers and writer, the wire rule for
// names that are not UTF-8 (foundation/NameValue.h), the command-line client's JSON and the
// authorization service's prompts. Runs of ASCII are checked eight bytes at a time.
//
// All functions are pure and thread-safe; none allocates except appendUtf8.

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

namespace krv {

namespace detail {
// findInvalidUtf8 from `offset` on, where a byte that is not ASCII stands.
std::size_t findInvalidUtf8From(std::string_view bytes, std::size_t offset);
}  // namespace detail

// The offset of the first byte that does not belong to a well-formed sequence, or npos. (ASCII,
// most of the text there is, is checked here without a call.)
inline std::size_t findInvalidUtf8(std::string_view bytes) {
  std::size_t i = 0;
  for (; bytes.size() - i >= 8; i += 8) {
    std::uint64_t chunk;
    std::memcpy(&chunk, bytes.data() + i, sizeof chunk);
    if ((chunk & 0x8080808080808080ull) != 0) break;
  }
  for (; i < bytes.size(); ++i) {
    if ((static_cast<unsigned char>(bytes[i]) & 0x80) != 0) {
      return detail::findInvalidUtf8From(bytes, i);
    }
  }
  return std::string_view::npos;
}
inline bool isValidUtf8(std::string_view bytes) {
  return findInvalidUtf8(bytes) == std::string_view::npos;
}

// One character of a byte sequence read as UTF-8: a well-formed sequence of `length` bytes with
// its code point, or (valid false, length 1) a byte that starts no well-formed sequence.
struct Utf8Character {
  std::size_t length = 1;
  char32_t codePoint = 0;
  bool valid = false;
};
// The character starting at `offset`; an offset at or past the end reads as an invalid byte.
Utf8Character utf8CharacterAt(std::string_view bytes, std::size_t offset);

inline bool isSurrogate(char32_t codePoint) { return codePoint >= 0xD800 && codePoint <= 0xDFFF; }
// Appends the UTF-8 form of a Unicode scalar value (the caller has checked that it is one).
void appendUtf8(std::string& out, char32_t codePoint);

}  // namespace krv
