#include "foundation/Base64.h"

namespace krv {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int digitOf(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string encodeBase64(std::span<const std::uint8_t> bytes) {
  std::string out;
  out.reserve((bytes.size() + 2) / 3 * 4);
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    const std::size_t left = bytes.size() - i;
    std::uint32_t group = std::uint32_t{bytes[i]} << 16;
    if (left > 1) group |= std::uint32_t{bytes[i + 1]} << 8;
    if (left > 2) group |= bytes[i + 2];
    out += kAlphabet[(group >> 18) & 0x3F];
    out += kAlphabet[(group >> 12) & 0x3F];
    out += left > 1 ? kAlphabet[(group >> 6) & 0x3F] : '=';
    out += left > 2 ? kAlphabet[group & 0x3F] : '=';
  }
  return out;
}

std::optional<Data> decodeBase64(std::string_view text) {
  Data out;
  out.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t accumulator = 0;
  std::size_t digits = 0;   // significant characters so far
  std::size_t padding = 0;  // '=' seen
  for (char c : text) {
    if (isSpace(c)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int digit = digitOf(c);
    if (digit < 0 || padding != 0) return std::nullopt;
    accumulator = (accumulator << 6) | static_cast<std::uint32_t>(digit);
    if (++digits % 4 == 0) {
      out.push_back(static_cast<std::uint8_t>(accumulator >> 16));
      out.push_back(static_cast<std::uint8_t>(accumulator >> 8));
      out.push_back(static_cast<std::uint8_t>(accumulator));
      accumulator = 0;
    }
  }
  const std::size_t tail = digits % 4;
  if (tail == 1) return std::nullopt;
  if (padding != 0 && (padding > 2 || (digits + padding) % 4 != 0)) return std::nullopt;
  if (tail == 2) {
    out.push_back(static_cast<std::uint8_t>(accumulator >> 4));
  } else if (tail == 3) {
    out.push_back(static_cast<std::uint8_t>(accumulator >> 10));
    out.push_back(static_cast<std::uint8_t>(accumulator >> 2));
  }
  return out;
}

}  // namespace krv
