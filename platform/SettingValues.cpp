#include "platform/SettingValues.h"

#include <limits>

#include "foundation/NameValue.h"

namespace krv {

namespace {

bool isWhiteSpace(char32_t c) {
  return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
         (c >= 0x2000 && c <= 0x200A) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
         c == 0x3000;
}

// The text's length in the units its characters count in: UTF-16 units when it is UTF-8, bytes
// otherwise.
std::size_t characterLength(std::string_view text) {
  if (!isValidUtf8(text)) return text.size();
  std::size_t length = 0;
  for (std::size_t offset = 0; offset < text.size();) {
    Utf8Character character = utf8CharacterAt(text, offset);
    length += character.codePoint >= 0x10000 ? 2 : 1;
    offset += character.length;
  }
  return length;
}

int hexDigitValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

// A scanner over the text that skips white space before each item, as the value conversions read.
class TextScanner {
 public:
  explicit TextScanner(std::string_view text) : m_text(text) {}

  bool isAtEnd() {
    skipWhiteSpace();
    return m_offset >= m_text.size();
  }
  bool scanCharacter(char expected) {
    skipWhiteSpace();
    if (m_offset >= m_text.size() || m_text[m_offset] != expected) return false;
    ++m_offset;
    return true;
  }
  // A hexadecimal number with an optional "0x"; saturates (every digit is still consumed).
  std::optional<std::uint32_t> scanHexNumber() {
    skipWhiteSpace();
    if (m_offset + 2 < m_text.size() && m_text[m_offset] == '0' &&
        (m_text[m_offset + 1] == 'x' || m_text[m_offset + 1] == 'X') &&
        hexDigitValue(m_text[m_offset + 2]) >= 0) {
      m_offset += 2;
    }
    std::uint64_t value = 0;
    std::size_t digits = 0;
    while (m_offset < m_text.size() && hexDigitValue(m_text[m_offset]) >= 0) {
      value = value * 16 + static_cast<std::uint64_t>(hexDigitValue(m_text[m_offset]));
      if (value > std::numeric_limits<std::uint32_t>::max()) {
        value = std::numeric_limits<std::uint32_t>::max() + std::uint64_t{1};
      }
      ++m_offset;
      ++digits;
    }
    if (digits == 0) return std::nullopt;
    return value > std::numeric_limits<std::uint32_t>::max()
               ? std::numeric_limits<std::uint32_t>::max()
               : static_cast<std::uint32_t>(value);
  }

 private:
  void skipWhiteSpace() {
    while (m_offset < m_text.size()) {
      Utf8Character character = utf8CharacterAt(m_text, m_offset);
      if (!character.valid || !isWhiteSpace(character.codePoint)) return;
      m_offset += character.length;
    }
  }

  std::string_view m_text;
  std::size_t m_offset = 0;
};

}  // namespace

std::string_view settingValueTypeName(SettingValueType type) {
  switch (type) {
    case SettingValueType::Boolean:
      return "Boolean";
    case SettingValueType::Number:
      return "Number";
    case SettingValueType::String:
      return "String";
    case SettingValueType::Data:
      return "Data";
  }
  return "Data";
}

std::optional<SettingValueType> settingValueTypeNamed(std::string_view name) {
  for (SettingValueType type : {SettingValueType::Boolean, SettingValueType::Number,
                                SettingValueType::String, SettingValueType::Data}) {
    if (settingValueTypeName(type) == name) return type;
  }
  return std::nullopt;
}

std::int64_t integerValueOfText(std::string_view text) {
  std::size_t offset = 0;
  while (offset < text.size()) {
    Utf8Character character = utf8CharacterAt(text, offset);
    if (!character.valid || !isWhiteSpace(character.codePoint)) break;
    offset += character.length;
  }
  bool negative = false;
  if (offset < text.size() && (text[offset] == '+' || text[offset] == '-')) {
    negative = text[offset++] == '-';
  }
  // Accumulated as a negative number, which reaches the lowest value without overflowing.
  constexpr std::int64_t kLowest = std::numeric_limits<std::int64_t>::min();
  std::int64_t value = 0;
  bool saturated = false;
  for (; offset < text.size() && text[offset] >= '0' && text[offset] <= '9'; ++offset) {
    const int digit = text[offset] - '0';
    if (saturated) continue;
    if (value < (kLowest + digit) / 10) {
      saturated = true;
      continue;
    }
    value = value * 10 - digit;
  }
  if (saturated) return negative ? kLowest : std::numeric_limits<std::int64_t>::max();
  if (negative) return value;
  return value == kLowest ? std::numeric_limits<std::int64_t>::max() : -value;
}

std::optional<Data> percentHexBytes(std::string_view text) {
  const std::size_t length = characterLength(text);
  if (length < 3) return std::nullopt;
  const std::size_t room = length / 3;
  Data bytes;
  bytes.reserve(room);
  TextScanner scanner(text);
  while (!scanner.isAtEnd() && bytes.size() < room) {
    if (!scanner.scanCharacter('%')) return std::nullopt;
    std::optional<std::uint32_t> number = scanner.scanHexNumber();
    if (!number || *number >= 256) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(*number));
  }
  return bytes;
}

std::optional<Value> convertSettingValue(SettingValueType type,
                                         const std::optional<std::string>& text) {
  if (!text) return std::nullopt;
  switch (type) {
    case SettingValueType::Boolean:
      if (*text == "true") return Value::boolean(true);
      if (*text == "false") return Value::boolean(false);
      return std::nullopt;
    case SettingValueType::Number:
      return Value::integer(integerValueOfText(*text));
    case SettingValueType::String:
      return Value(*text);
    case SettingValueType::Data: {
      std::optional<Data> bytes = percentHexBytes(*text);
      if (!bytes) return std::nullopt;
      return Value(std::move(*bytes));
    }
  }
  return std::nullopt;
}

}  // namespace krv
