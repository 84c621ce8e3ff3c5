// The XML property-list reader: a small, non-validating XML parser that knows only what property
// lists use. The DOCTYPE is skipped and never fetched; a DOCTYPE with an internal subset is
// refused, so there are no entity definitions and no entity expansion beyond the five predefined
// entities and character references. The output is at most a small multiple of the input.

#include <charconv>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "foundation/Base64.h"
#include "foundation/Format.h"
#include "foundation/IsoDate.h"
#include "foundation/PropertyList.h"
#include "foundation/PropertyListSupport.h"
#include "foundation/Utf8.h"

namespace krv::plist {

namespace {

using detail::parseError;

bool isXmlSpace(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

bool isNameChar(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte >= 0x80 || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         (c >= '0' && c <= '9') || c == '_' || c == ':' || c == '.' || c == '-';
}

std::string_view trimXmlSpace(std::string_view text) {
  while (!text.empty() && isXmlSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isXmlSpace(text.back())) text.remove_suffix(1);
  return text;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    const auto lower = [](char c) {
      return (c >= 'A' && c <= 'Z') ? static_cast<char>(c + 32) : c;
    };
    if (lower(a[i]) != lower(b[i])) return false;
  }
  return true;
}

// Decimal or 0x-hexadecimal with an optional sign, in the range -2^63 ... 2^64-1.
std::optional<Number> parseInteger(std::string_view text) {
  bool negative = false;
  if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
    negative = text.front() == '-';
    text.remove_prefix(1);
  }
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t magnitude = 0;
  for (char c : text) {
    int digit = -1;
    if (c >= '0' && c <= '9') {
      digit = c - '0';
    } else if (base == 16 && c >= 'a' && c <= 'f') {
      digit = c - 'a' + 10;
    } else if (base == 16 && c >= 'A' && c <= 'F') {
      digit = c - 'A' + 10;
    }
    if (digit < 0) return std::nullopt;
    const auto limit = std::numeric_limits<std::uint64_t>::max();
    if (magnitude >
        (limit - static_cast<std::uint64_t>(digit)) / static_cast<std::uint64_t>(base)) {
      return std::nullopt;
    }
    magnitude = magnitude * static_cast<std::uint64_t>(base) + static_cast<std::uint64_t>(digit);
  }
  if (!negative) return Number::unsignedInteger(magnitude);
  constexpr std::uint64_t kMinimumMagnitude = std::uint64_t{1} << 63;
  if (magnitude > kMinimumMagnitude) return std::nullopt;
  if (magnitude == kMinimumMagnitude)
    return Number::integer(std::numeric_limits<std::int64_t>::min());
  return Number::integer(-static_cast<std::int64_t>(magnitude));
}

std::optional<double> parseReal(std::string_view text) {
  bool negative = false;
  std::string_view body = text;
  if (!body.empty() && (body.front() == '+' || body.front() == '-')) {
    negative = body.front() == '-';
    body.remove_prefix(1);
  }
  if (equalsIgnoringCase(body, "nan")) return std::numeric_limits<double>::quiet_NaN();
  if (equalsIgnoringCase(body, "inf") || equalsIgnoringCase(body, "infinity")) {
    return negative ? -std::numeric_limits<double>::infinity()
                    : std::numeric_limits<double>::infinity();
  }
  // Only the plain decimal forms: from_chars would also take "nan(...)" and the like.
  const auto isDigit = [&body](std::size_t at) {
    return at < body.size() && body[at] >= '0' && body[at] <= '9';
  };
  std::size_t i = 0;
  while (isDigit(i)) ++i;
  std::size_t mantissaDigits = i;
  if (i < body.size() && body[i] == '.') {
    const std::size_t fraction = ++i;
    while (isDigit(i)) ++i;
    mantissaDigits += i - fraction;
  }
  if (mantissaDigits == 0) return std::nullopt;
  if (i < body.size() && (body[i] == 'e' || body[i] == 'E')) {
    ++i;
    if (i < body.size() && (body[i] == '+' || body[i] == '-')) ++i;
    const std::size_t exponentStart = i;
    while (isDigit(i)) ++i;
    if (i == exponentStart) return std::nullopt;
  }
  if (i != body.size()) return std::nullopt;
  double value = 0;
  const auto [end, error] = std::from_chars(body.data(), body.data() + body.size(), value);
  if (error != std::errc() || end != body.data() + body.size()) return std::nullopt;
  return negative ? -value : value;
}

// An element name as error messages show it: the input is hostile, so long or odd names are cut.
std::string shown(std::string_view name) { return detail::printableForMessage(name); }

struct Tag {
  std::string_view name;
  std::size_t offset = 0;  // of the '<'
  bool empty = false;      // <name/>
};

class XmlReader final : public detail::TextReader {
 public:
  explicit XmlReader(std::span<const std::uint8_t> bytes) : TextReader(bytes) {}

 private:
  void skipSpace() {
    while (!atEnd() && isXmlSpace(m_text[m_pos])) ++m_pos;
  }

  bool checkCharacters() {
    const std::size_t invalid = findInvalidUtf8(m_text);
    if (invalid != std::string_view::npos) return fail(invalid, "invalid UTF-8");
    for (std::size_t i = 0; i < m_text.size(); ++i) {
      const auto byte = static_cast<unsigned char>(m_text[i]);
      if (byte < 0x20 && byte != '\t' && byte != '\n' && byte != '\r') {
        return fail(i, format("control character 0x%02x", byte));
      }
    }
    return true;
  }

  bool parseDocument(Value& root) override {
    if (!checkCharacters()) return false;
    if (lookingAt("\xEF\xBB\xBF")) m_pos += 3;
    if (lookingAt("<?xml") && m_pos + 5 < m_text.size() &&
        (isXmlSpace(m_text[m_pos + 5]) || m_text[m_pos + 5] == '?')) {
      if (!parseDeclaration()) return false;
    }
    bool sawDoctype = false;
    for (;;) {
      if (!skipMisc()) return false;
      if (!lookingAt("<!DOCTYPE")) break;
      if (sawDoctype) return fail(m_pos, "more than one DOCTYPE");
      sawDoctype = true;
      if (!skipDoctype()) return false;
    }
    if (atEnd()) return fail(m_pos, "no root element");
    Tag tag;
    if (!parseStartTag(tag)) return false;
    if (tag.name == "plist") {
      if (tag.empty) return fail(tag.offset, "empty <plist>");
      if (!skipMisc()) return false;
      if (lookingAt("</")) return fail(m_pos, "empty <plist>");
      Tag inner;
      if (!parseStartTag(inner) || !parseElement(inner, 1, root)) return false;
      if (!skipMisc()) return false;
      if (!lookingAt("</")) return fail(m_pos, "more than one value inside <plist>");
      if (!parseEndTag("plist")) return false;
    } else if (!parseElement(tag, 1, root)) {
      return false;
    }
    if (!skipMisc()) return false;
    if (!atEnd()) return fail(m_pos, "content after the root element");
    return true;
  }

  // <?xml version="1.0" encoding="UTF-8"?>: only UTF-8 (and its ASCII subset) is read.
  bool parseDeclaration() {
    const std::size_t start = m_pos;
    const std::size_t end = m_text.find("?>", m_pos);
    if (end == std::string_view::npos) return fail(start, "unterminated XML declaration");
    const std::string_view body = m_text.substr(m_pos + 5, end - m_pos - 5);
    m_pos = end + 2;
    const std::size_t key = body.find("encoding");
    if (key == std::string_view::npos) return true;
    std::string_view rest = trimXmlSpace(body.substr(key + 8));
    if (rest.empty() || rest.front() != '=') return fail(start, "malformed XML declaration");
    rest = trimXmlSpace(rest.substr(1));
    if (rest.empty() || (rest.front() != '"' && rest.front() != '\'')) {
      return fail(start, "malformed XML declaration");
    }
    const std::size_t close = rest.find(rest.front(), 1);
    if (close == std::string_view::npos) return fail(start, "malformed XML declaration");
    const std::string_view encoding = rest.substr(1, close - 1);
    if (!equalsIgnoringCase(encoding, "UTF-8") && !equalsIgnoringCase(encoding, "US-ASCII") &&
        !equalsIgnoringCase(encoding, "ASCII")) {
      return fail(start, "unsupported encoding " + detail::quoteForMessage(encoding));
    }
    return true;
  }

  // The DOCTYPE only names the document type; its identifiers are never resolved.
  bool skipDoctype() {
    const std::size_t start = m_pos;
    m_pos += 9;
    while (!atEnd()) {
      const char c = m_text[m_pos];
      if (c == '"' || c == '\'') {
        const std::size_t close = m_text.find(c, m_pos + 1);
        if (close == std::string_view::npos) break;
        m_pos = close + 1;
      } else if (c == '[') {
        return fail(m_pos, "a DOCTYPE with an internal subset is not supported");
      } else if (c == '>') {
        ++m_pos;
        return true;
      } else {
        ++m_pos;
      }
    }
    return fail(start, "unterminated DOCTYPE");
  }

  bool skipComment() {
    const std::size_t end = m_text.find("-->", m_pos + 4);
    if (end == std::string_view::npos) return fail(m_pos, "unterminated comment");
    m_pos = end + 3;
    return true;
  }

  bool skipProcessingInstruction() {
    const std::size_t end = m_text.find("?>", m_pos + 2);
    if (end == std::string_view::npos) return fail(m_pos, "unterminated processing instruction");
    m_pos = end + 2;
    return true;
  }

  // White space, comments and processing instructions; stops at anything else.
  bool skipMisc() {
    for (;;) {
      skipSpace();
      if (lookingAt("<!--")) {
        if (!skipComment()) return false;
      } else if (lookingAt("<?")) {
        if (!skipProcessingInstruction()) return false;
      } else {
        return true;
      }
    }
  }

  std::string_view readName() {
    const std::size_t start = m_pos;
    while (!atEnd() && isNameChar(m_text[m_pos])) ++m_pos;
    return m_text.substr(start, m_pos - start);
  }

  bool parseStartTag(Tag& tag) {
    tag.offset = m_pos;
    if (atEnd()) return fail(m_pos, "unexpected end of input");
    if (m_text[m_pos] != '<') return fail(m_pos, "unexpected text");
    ++m_pos;
    tag.name = readName();
    if (tag.name.empty()) return fail(tag.offset, "malformed tag");
    for (;;) {
      skipSpace();
      if (atEnd()) return fail(tag.offset, "unterminated tag <" + shown(tag.name) + ">");
      if (lookingAt("/>")) {
        m_pos += 2;
        tag.empty = true;
        return true;
      }
      if (m_text[m_pos] == '>') {
        ++m_pos;
        return true;
      }
      // Attributes are read for well-formedness and otherwise ignored.
      if (readName().empty()) return fail(m_pos, "malformed attribute");
      skipSpace();
      if (atEnd() || m_text[m_pos] != '=') return fail(m_pos, "malformed attribute");
      ++m_pos;
      skipSpace();
      if (atEnd() || (m_text[m_pos] != '"' && m_text[m_pos] != '\'')) {
        return fail(m_pos, "malformed attribute");
      }
      const char quote = m_text[m_pos++];
      std::string ignored;
      while (!atEnd() && m_text[m_pos] != quote) {
        if (m_text[m_pos] == '<') return fail(m_pos, "'<' in an attribute value");
        if (m_text[m_pos] == '&') {
          if (!parseReference(ignored)) return false;
        } else {
          ++m_pos;
        }
      }
      if (atEnd()) return fail(tag.offset, "unterminated attribute value");
      ++m_pos;
    }
  }

  bool parseEndTag(std::string_view expected) {
    const std::size_t start = m_pos;
    m_pos += 2;
    const std::string_view name = readName();
    skipSpace();
    if (atEnd() || m_text[m_pos] != '>') return fail(start, "malformed end tag");
    ++m_pos;
    if (name != expected) {
      return fail(start, "unexpected </" + shown(name) + "> inside <" + shown(expected) + ">");
    }
    return true;
  }

  // &name; or &#N; or &#xH; at m_pos, appended as UTF-8.
  bool parseReference(std::string& out) {
    const std::size_t start = m_pos;
    const std::size_t semicolon = m_text.find(';', m_pos);
    constexpr std::size_t kLongestReference = 12;  // "&#x0010FFFF;" with some leading zeros
    if (semicolon == std::string_view::npos || semicolon - m_pos > kLongestReference) {
      return fail(start, "malformed entity reference");
    }
    const std::string_view name = m_text.substr(m_pos + 1, semicolon - m_pos - 1);
    m_pos = semicolon + 1;
    if (name == "lt") {
      out += '<';
    } else if (name == "gt") {
      out += '>';
    } else if (name == "amp") {
      out += '&';
    } else if (name == "quot") {
      out += '"';
    } else if (name == "apos") {
      out += '\'';
    } else if (name.size() > 1 && name[0] == '#') {
      const bool hex = name[1] == 'x';
      const std::string_view digits = name.substr(hex ? 2 : 1);
      std::uint32_t codePoint = 0;
      const auto [end, error] =
          std::from_chars(digits.data(), digits.data() + digits.size(), codePoint, hex ? 16 : 10);
      // U+0000 cannot appear in a document; the other C0 controls are accepted as references.
      if (digits.empty() || error != std::errc() || end != digits.data() + digits.size() ||
          codePoint == 0 || codePoint > 0x10FFFF || isSurrogate(codePoint)) {
        return fail(start, "invalid character reference");
      }
      appendUtf8(out, codePoint);
    } else {
      return fail(start, "unknown entity " + detail::quoteForMessage(name));
    }
    return true;
  }

  // The character data of an element up to its end tag; comments and processing instructions
  // are skipped, CDATA sections taken as they are, child elements refused. Line ends are
  // normalised to LF as XML requires.
  bool readText(const Tag& tag, std::string& out) {
    if (tag.empty) return true;
    for (;;) {
      const std::size_t special = m_text.find_first_of("<&\r", m_pos);
      if (special == std::string_view::npos) {
        return fail(tag.offset, "unterminated <" + shown(tag.name) + ">");
      }
      out.append(m_text.substr(m_pos, special - m_pos));
      m_pos = special;
      if (m_text[m_pos] == '\r') {
        appendCarriageReturn(out);
      } else if (m_text[m_pos] == '&') {
        if (!parseReference(out)) return false;
      } else if (lookingAt("</")) {
        return parseEndTag(tag.name);
      } else if (lookingAt("<!--")) {
        if (!skipComment()) return false;
      } else if (lookingAt("<?")) {
        if (!skipProcessingInstruction()) return false;
      } else if (lookingAt("<![CDATA[")) {
        const std::size_t end = m_text.find("]]>", m_pos + 9);
        if (end == std::string_view::npos) return fail(m_pos, "unterminated CDATA section");
        for (std::size_t i = m_pos + 9; i < end; ++i) {
          if (m_text[i] != '\r') {
            out += m_text[i];
          } else if (i + 1 == end || m_text[i + 1] != '\n') {
            out += '\n';
          }
        }
        m_pos = end + 3;
      } else {
        Tag child;
        if (!parseStartTag(child)) return false;
        return fail(child.offset,
                    "unexpected <" + shown(child.name) + "> inside <" + shown(tag.name) + ">");
      }
    }
  }

  void appendCarriageReturn(std::string& out) {
    out += '\n';
    ++m_pos;
    if (!atEnd() && m_text[m_pos] == '\n') ++m_pos;
  }

  // Skips white space, comments and processing instructions between the children of a
  // container; true when the container's end tag follows.
  bool atContainerEnd(const Tag& container, bool& end) {
    if (!skipMisc()) return false;
    if (atEnd()) return fail(container.offset, "unterminated <" + shown(container.name) + ">");
    if (m_text[m_pos] != '<') {
      return fail(m_pos, "unexpected text inside <" + shown(container.name) + ">");
    }
    end = lookingAt("</");
    if (lookingAt("<![CDATA[") || lookingAt("<!")) {
      return fail(m_pos, "unexpected markup inside <" + shown(container.name) + ">");
    }
    return true;
  }

  bool parseElement(const Tag& tag, int depth, Value& out) {
    const std::string_view name = tag.name;
    if (name == "array" || name == "dict") {
      if (depth > kMaximumPropertyListDepth) {
        return fail(tag.offset, format("nesting deeper than %d levels", kMaximumPropertyListDepth));
      }
      return name == "array" ? parseArray(tag, depth, out) : parseDictionary(tag, depth, out);
    }
    if (name == "true" || name == "false") {
      std::string text;
      if (!readText(tag, text)) return false;
      if (!trimXmlSpace(text).empty()) {
        return fail(tag.offset, "<" + shown(name) + "> must be empty");
      }
      out = Value::boolean(name == "true");
      return true;
    }
    std::string text;
    if (name == "string") {
      if (!readText(tag, text)) return false;
      out = Value(std::move(text));
      return true;
    }
    if (name != "integer" && name != "real" && name != "date" && name != "data") {
      if (name == "key") return fail(tag.offset, "<key> outside <dict>");
      return fail(tag.offset, "unknown element <" + shown(name) + ">");
    }
    if (!readText(tag, text)) return false;
    const std::string_view content = trimXmlSpace(text);
    if (name == "integer") {
      const std::optional<Number> number = parseInteger(content);
      if (!number) return fail(tag.offset, "invalid <integer> " + detail::quoteForMessage(content));
      out = Value(*number);
    } else if (name == "real") {
      const std::optional<double> real = parseReal(content);
      if (!real) return fail(tag.offset, "invalid <real> " + detail::quoteForMessage(content));
      out = Value::real(*real);
    } else if (name == "date") {
      const std::optional<double> seconds = parseIsoDate(content);
      if (!seconds) return fail(tag.offset, "invalid <date> " + detail::quoteForMessage(content));
      out = Value(Date{*seconds});
    } else {
      std::optional<Data> data = decodeBase64(content);
      if (!data) return fail(tag.offset, "invalid base64 in <data>");
      out = Value(std::move(*data));
    }
    return true;
  }

  bool parseArray(const Tag& tag, int depth, Value& out) {
    Array array;
    if (!tag.empty) {
      for (;;) {
        bool end = false;
        if (!atContainerEnd(tag, end)) return false;
        if (end) break;
        Tag child;
        Value element("");
        if (!parseStartTag(child) || !parseElement(child, depth + 1, element)) return false;
        array.push_back(std::move(element));
      }
      if (!parseEndTag("array")) return false;
    }
    out = Value(std::move(array));
    return true;
  }

  bool parseDictionary(const Tag& tag, int depth, Value& out) {
    Dictionary dictionary;
    std::vector<std::size_t> keyOffsets;
    if (!tag.empty) {
      for (;;) {
        bool end = false;
        if (!atContainerEnd(tag, end)) return false;
        if (end) break;
        Tag keyTag;
        if (!parseStartTag(keyTag)) return false;
        if (keyTag.name != "key") {
          return fail(keyTag.offset,
                      "expected <key> inside <dict>, found <" + shown(keyTag.name) + ">");
        }
        std::string key;
        if (!readText(keyTag, key)) return false;
        if (!atContainerEnd(tag, end)) return false;
        if (end) return fail(m_pos, "missing value for key " + detail::quoteForMessage(key));
        Tag valueTag;
        Value value("");
        if (!parseStartTag(valueTag) || !parseElement(valueTag, depth + 1, value)) return false;
        keyOffsets.push_back(keyTag.offset);
        dictionary.append(std::move(key), std::move(value));
      }
      if (!parseEndTag("dict")) return false;
    }
    return finishDictionary(std::move(dictionary), keyOffsets, out);
  }
};

}  // namespace

Result<Value> readXml(std::span<const std::uint8_t> bytes) { return XmlReader(bytes).run(); }

}  // namespace krv::plist
