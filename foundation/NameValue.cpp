#include "foundation/NameValue.h"

#include "foundation/Format.h"

namespace krv {

Value nameValue(std::string bytes) {
  if (isValidUtf8(bytes)) return Value(std::move(bytes));
  return Value(Data(bytes.begin(), bytes.end()));
}

std::optional<std::string> nameBytes(const Value& value) {
  if (const std::string* text = value.asString()) return *text;
  if (const Data* data = value.asData()) return std::string(data->begin(), data->end());
  return std::nullopt;
}

bool isNameValue(const Value& value) {
  if (const std::string* text = value.asString()) return isValidUtf8(*text);
  if (const Data* data = value.asData()) {
    return !isValidUtf8({reinterpret_cast<const char*>(data->data()), data->size()});
  }
  return false;
}

bool isHiddenCharacter(char32_t codePoint) {
  return codePoint < 0x20 || (codePoint >= 0x7F && codePoint <= 0x9F) || codePoint == 0x061C ||
         codePoint == 0x200E || codePoint == 0x200F ||
         (codePoint >= 0x2028 && codePoint <= 0x202E) ||
         (codePoint >= 0x2066 && codePoint <= 0x2069);
}

std::string escapedName(std::string_view bytes) {
  std::string out;
  out.reserve(bytes.size());
  for (std::size_t offset = 0; offset < bytes.size();) {
    const Utf8Character character = utf8CharacterAt(bytes, offset);
    const std::string_view sequence = bytes.substr(offset, character.length);
    offset += character.length;
    if (character.valid && !isHiddenCharacter(character.codePoint)) {
      if (character.codePoint == '\\') {
        out += "\\\\";
      } else {
        out += sequence;
      }
      continue;
    }
    if (character.valid && character.codePoint == '\t') {
      out += "\\t";
    } else if (character.valid && character.codePoint == '\n') {
      out += "\\n";
    } else if (character.valid && character.codePoint == '\r') {
      out += "\\r";
    } else {
      for (unsigned char byte : sequence) out += format("\\x%02x", byte);
    }
  }
  return out;
}

}  // namespace krv
