#include "foundation/Utf8.h"

#include <cstdint>
#include <cstring>

namespace krv {

namespace {

// The length of the well-formed sequence at bytes[0] (at most `available` bytes long), 0 when
// there is none. The bounds of the second byte exclude overlong forms, surrogates and values past
// U+10FFFF.
std::size_t sequenceLength(const unsigned char* bytes, std::size_t available) {
  const unsigned char lead = bytes[0];
  if (lead < 0x80) return 1;
  std::size_t length = 0;
  unsigned char low = 0x80;
  unsigned char high = 0xBF;
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;   // overlong below U+0800
    if (lead == 0xED) high = 0x9F;  // surrogates
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;   // overlong below U+10000
    if (lead == 0xF4) high = 0x8F;  // past U+10FFFF
  } else {
    return 0;
  }
  if (available < length) return 0;
  if (bytes[1] < low || bytes[1] > high) return 0;
  for (std::size_t k = 2; k < length; ++k) {
    if ((bytes[k] & 0xC0) != 0x80) return 0;
  }
  return length;
}

}  // namespace

std::size_t detail::findInvalidUtf8From(std::string_view text, std::size_t offset) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = offset;
  while (i < size) {
    if (size - i >= 8) {
      std::uint64_t chunk;
      std::memcpy(&chunk, bytes + i, sizeof chunk);
      if ((chunk & 0x8080808080808080ull) == 0) {
        i += 8;
        continue;
      }
    }
    const std::size_t length = sequenceLength(bytes + i, size - i);
    if (length == 0) return i;
    i += length;
  }
  return std::string_view::npos;
}

Utf8Character utf8CharacterAt(std::string_view text, std::size_t offset) {
  if (offset >= text.size()) return {};
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data()) + offset;
  const std::size_t length = sequenceLength(bytes, text.size() - offset);
  if (length == 0) return {};
  static constexpr unsigned char kLeadMask[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
  char32_t codePoint = bytes[0] & kLeadMask[length];
  for (std::size_t i = 1; i < length; ++i) codePoint = (codePoint << 6) | (bytes[i] & 0x3F);
  return {length, codePoint, true};
}

void appendUtf8(std::string& out, char32_t codePoint) {
  const auto byte = [&out](std::uint32_t value) { out += static_cast<char>(value); };
  if (codePoint < 0x80) {
    byte(codePoint);
  } else if (codePoint < 0x800) {
    byte(0xC0 | (codePoint >> 6));
    byte(0x80 | (codePoint & 0x3F));
  } else if (codePoint < 0x10000) {
    byte(0xE0 | (codePoint >> 12));
    byte(0x80 | ((codePoint >> 6) & 0x3F));
    byte(0x80 | (codePoint & 0x3F));
  } else {
    byte(0xF0 | (codePoint >> 18));
    byte(0x80 | ((codePoint >> 12) & 0x3F));
    byte(0x80 | ((codePoint >> 6) & 0x3F));
    byte(0x80 | (codePoint & 0x3F));
  }
}

}  // namespace krv
