#include "foundation/Uuid.h"

namespace krv {
namespace {

int hexDigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return -1;
}

// Whether a hyphen belongs after byte `index` (0-based) in the grouped form.
bool hyphenFollows(std::size_t index) {
  return index == 3 || index == 5 || index == 7 || index == 9;
}

}  // namespace

std::string uuidString(const Uuid& uuid) {
  static constexpr char kDigits[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(kUuidStringLength);
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    text += kDigits[uuid[i] >> 4];
    text += kDigits[uuid[i] & 0xF];
    if (hyphenFollows(i)) text += '-';
  }
  return text;
}

std::optional<Uuid> parseUuid(std::string_view text) {
  if (text.size() >= 2 && text.front() == '{' && text.back() == '}') {
    text = text.substr(1, text.size() - 2);
  }
  const bool grouped = text.size() == kUuidStringLength;
  if (!grouped && text.size() != 2 * sizeof(Uuid)) return std::nullopt;
  Uuid uuid{};
  std::size_t at = 0;
  for (std::size_t i = 0; i < uuid.size(); ++i) {
    const int high = hexDigitValue(text[at]);
    const int low = hexDigitValue(text[at + 1]);
    if (high < 0 || low < 0) return std::nullopt;
    uuid[i] = static_cast<std::uint8_t>(high << 4 | low);
    at += 2;
    if (grouped && hyphenFollows(i)) {
      if (text[at] != '-') return std::nullopt;
      ++at;
    }
  }
  return uuid;
}

}  // namespace krv
