// The old-style (OpenStep) text property-list reader.
//
//   { key = value; "quoted key" = ( item, <0fbd 7700>, "text\n" ); }
//
// Every scalar is a string: the format has no numbers, booleans or dates. Strings are quoted
// ("..." or '...', with C-style escapes, \ooo octal for U+0001 to U+00FF and \Uxxxx for UTF-16
// units, surrogate pairs combined) or unquoted runs of [A-Za-z0-9_$+/:.-]. Data is hexadecimal
// between < and >, white space allowed between digits. Arrays take an optional trailing comma;
// every dictionary entry ends with ';'. Comments are // to the end of the line and /* ... */.
// A top level of key = value; pairs without braces (the strings-file form) reads as a dictionary.

#include <string>
#include <vector>

#include "foundation/Format.h"
#include "foundation/PropertyList.h"
#include "foundation/PropertyListSupport.h"
#include "foundation/Utf8.h"

namespace krv::plist {

namespace {

using detail::parseError;

bool isUnquotedChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
         c == '$' || c == '+' || c == '/' || c == ':' || c == '.' || c == '-';
}

bool isSpace(char c) {
  return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

int hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return -1;
}

std::string describeChar(char c) {
  const auto byte = static_cast<unsigned char>(c);
  if (byte > 0x20 && byte < 0x7F) return format("'%c'", c);
  return format("byte 0x%02x", byte);
}

class OpenStepReader final : public detail::TextReader {
 public:
  explicit OpenStepReader(std::span<const std::uint8_t> bytes) : TextReader(bytes) {}

 private:
  char peek() const { return m_text[m_pos]; }

  bool skipSpaceAndComments() {
    for (;;) {
      while (!atEnd() && isSpace(peek())) ++m_pos;
      if (lookingAt("//")) {
        const std::size_t end = m_text.find('\n', m_pos);
        m_pos = end == std::string_view::npos ? m_text.size() : end + 1;
      } else if (lookingAt("/*")) {
        const std::size_t end = m_text.find("*/", m_pos + 2);
        if (end == std::string_view::npos) return fail(m_pos, "unterminated comment");
        m_pos = end + 2;
      } else {
        return true;
      }
    }
  }

  bool parseDocument(Value& root) override {
    const std::size_t invalid = findInvalidUtf8(m_text);
    if (invalid != std::string_view::npos) return fail(invalid, "invalid UTF-8");
    // Strings never hold U+0000, and it has no business anywhere else.
    const std::size_t nul = m_text.find('\0');
    if (nul != std::string_view::npos) return fail(nul, "NUL byte");
    if (lookingAt("\xEF\xBB\xBF")) m_pos += 3;
    if (!skipSpaceAndComments()) return false;
    if (atEnd()) return fail(m_pos, "no value");
    const std::size_t start = m_pos;
    if (!parseValue(1, root)) return false;
    if (!skipSpaceAndComments()) return false;
    if (!atEnd() && peek() == '=' && root.asString() != nullptr) {
      // The strings-file form: read the whole text again as the body of a dictionary.
      m_pos = start;
      return parseDictionaryBody(start, 1, /*braced=*/false, root);
    }
    if (!atEnd()) return fail(m_pos, "unexpected " + describeChar(peek()) + " after the value");
    return true;
  }

  bool parseValue(int depth, Value& out) {
    if (atEnd()) return fail(m_pos, "unexpected end of input");
    const char c = peek();
    if (c == '{' || c == '(') {
      if (depth > kMaximumPropertyListDepth) {
        return fail(m_pos, format("nesting deeper than %d levels", kMaximumPropertyListDepth));
      }
      const std::size_t start = m_pos++;
      return c == '{' ? parseDictionaryBody(start, depth, /*braced=*/true, out)
                      : parseArray(start, depth, out);
    }
    if (c == '<') return parseData(out);
    std::string text;
    if (!parseString(text)) return false;
    out = Value(std::move(text));
    return true;
  }

  bool parseString(std::string& out) {
    if (atEnd()) return fail(m_pos, "unexpected end of input");
    const char c = peek();
    if (c == '"' || c == '\'') return parseQuoted(out);
    if (!isUnquotedChar(c) || lookingAt("//") || lookingAt("/*")) {
      return fail(m_pos, "unexpected " + describeChar(c));
    }
    const std::size_t start = m_pos;
    // A comment start ends an unquoted string.
    while (!atEnd() && isUnquotedChar(peek()) && !lookingAt("//") && !lookingAt("/*")) ++m_pos;
    out.assign(m_text.substr(start, m_pos - start));
    return true;
  }

  bool parseQuoted(std::string& out) {
    const std::size_t start = m_pos;
    const char quote = m_text[m_pos++];
    for (;;) {
      const std::size_t special = m_text.find_first_of(quote == '"' ? "\"\\" : "'\\", m_pos);
      if (special == std::string_view::npos) return fail(start, "unterminated string");
      out.append(m_text.substr(m_pos, special - m_pos));
      m_pos = special + 1;
      if (m_text[special] == quote) return true;
      if (!parseEscape(out)) return false;
    }
  }

  // After a backslash.
  bool parseEscape(std::string& out) {
    const std::size_t start = m_pos - 1;
    if (atEnd()) return fail(start, "unterminated string");
    const char c = m_text[m_pos++];
    // Letter and replacement, pairwise; the letters sit at even positions only.
    constexpr std::string_view kEscapes = "a\ab\bf\fn\nr\rt\tv\v";
    const std::size_t letter = kEscapes.find(c);
    if (letter != std::string_view::npos && letter % 2 == 0) {
      out += kEscapes[letter + 1];
      return true;
    }
    if (c == 'U') return parseUnicodeEscape(start, out);
    if (c >= '0' && c <= '7') {
      unsigned value = static_cast<unsigned>(c - '0');
      for (int i = 0; i < 2 && !atEnd() && peek() >= '0' && peek() <= '7'; ++i) {
        value = value * 8 + static_cast<unsigned>(m_text[m_pos++] - '0');
      }
      if (value == 0 || value > 0xFF) return fail(start, "invalid octal escape");
      appendUtf8(out, value);
      return true;
    }
    // Any other character stands for itself (\" \' \\ and the rest); the bytes of a multi-byte
    // character that follow are copied by the caller.
    out += c;
    return true;
  }

  // Up to four hexadecimal digits after \U.
  bool readUtf16Unit(std::size_t start, char32_t& unit) {
    unit = 0;
    int digits = 0;
    while (digits < 4 && !atEnd() && hexDigit(peek()) >= 0) {
      unit = unit * 16 + static_cast<char32_t>(hexDigit(m_text[m_pos++]));
      ++digits;
    }
    if (digits == 0) return fail(start, "\\U without hexadecimal digits");
    return true;
  }

  bool parseUnicodeEscape(std::size_t start, std::string& out) {
    char32_t unit = 0;
    if (!readUtf16Unit(start, unit)) return false;
    if (unit == 0) return fail(start, "\\U0000 is not allowed");
    if (unit >= 0xDC00 && unit <= 0xDFFF) return fail(start, "unpaired UTF-16 surrogate");
    if (unit >= 0xD800 && unit <= 0xDBFF) {
      if (!lookingAt("\\U")) return fail(start, "unpaired UTF-16 surrogate");
      m_pos += 2;
      char32_t low = 0;
      if (!readUtf16Unit(start, low)) return false;
      if (low < 0xDC00 || low > 0xDFFF) return fail(start, "unpaired UTF-16 surrogate");
      unit = 0x10000 + ((unit - 0xD800) << 10) + (low - 0xDC00);
    }
    appendUtf8(out, unit);
    return true;
  }

  bool parseData(Value& out) {
    const std::size_t start = m_pos++;
    Data data;
    int high = -1;
    for (;;) {
      if (atEnd()) return fail(start, "unterminated data");
      const char c = m_text[m_pos++];
      if (c == '>') break;
      if (isSpace(c)) continue;
      const int digit = hexDigit(c);
      if (digit < 0) return fail(m_pos - 1, "unexpected " + describeChar(c) + " in data");
      if (high < 0) {
        high = digit;
      } else {
        data.push_back(static_cast<std::uint8_t>(high * 16 + digit));
        high = -1;
      }
    }
    if (high >= 0) return fail(start, "odd number of hexadecimal digits in data");
    out = Value(std::move(data));
    return true;
  }

  bool parseArray(std::size_t start, int depth, Value& out) {
    Array array;
    for (;;) {
      if (!skipSpaceAndComments()) return false;
      if (atEnd()) return fail(start, "unterminated array");
      if (peek() == ')') break;
      Value element("");
      if (!parseValue(depth + 1, element)) return false;
      array.push_back(std::move(element));
      if (!skipSpaceAndComments()) return false;
      if (atEnd()) return fail(start, "unterminated array");
      if (peek() == ',') {
        ++m_pos;
      } else if (peek() != ')') {
        return fail(m_pos, "expected ',' or ')' in array, found " + describeChar(peek()));
      }
    }
    ++m_pos;
    out = Value(std::move(array));
    return true;
  }

  // The entries of a dictionary: after its '{' up to its '}', or to the end of the text.
  bool parseDictionaryBody(std::size_t start, int depth, bool braced, Value& out) {
    Dictionary dictionary;
    std::vector<std::size_t> keyOffsets;
    for (;;) {
      if (!skipSpaceAndComments()) return false;
      if (atEnd()) {
        if (braced) return fail(start, "unterminated dictionary");
        break;
      }
      if (braced && peek() == '}') {
        ++m_pos;
        break;
      }
      const std::size_t keyOffset = m_pos;
      if (peek() == '{' || peek() == '(' || peek() == '<') {
        return fail(m_pos, "dictionary key is not a string");
      }
      std::string key;
      if (!parseString(key)) return false;
      if (!skipSpaceAndComments()) return false;
      if (atEnd() || peek() != '=') {
        return fail(m_pos, "expected '=' after key " + detail::quoteForMessage(key));
      }
      ++m_pos;
      if (!skipSpaceAndComments()) return false;
      Value value("");
      if (!parseValue(depth + 1, value)) return false;
      if (!skipSpaceAndComments()) return false;
      if (atEnd() || peek() != ';') {
        return fail(m_pos, "expected ';' after the value of key " + detail::quoteForMessage(key));
      }
      ++m_pos;
      keyOffsets.push_back(keyOffset);
      dictionary.append(std::move(key), std::move(value));
    }
    return finishDictionary(std::move(dictionary), keyOffsets, out);
  }
};

}  // namespace

Result<Value> readOpenStep(std::span<const std::uint8_t> bytes) {
  return OpenStepReader(bytes).run();
}

}  // namespace krv::plist
