// The XML property-list writer. The output is what readXml reads back to an equal value, except
// that dates lose their fractions of a second and every NaN reads back as the same quiet NaN.

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <string>

#include "foundation/Base64.h"
#include "foundation/IsoDate.h"
#include "foundation/PropertyList.h"
#include "foundation/PropertyListSupport.h"
#include "foundation/Utf8.h"

namespace krv::plist {

namespace {

constexpr std::string_view kHeader =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
    "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
    "<plist version=\"1.0\">\n";
constexpr std::string_view kFooter = "</plist>\n";
// Base64 characters per line of a <data> element.
constexpr std::size_t kBase64LineLength = 68;

class XmlWriter {
 public:
  Result<Data> run(const Value& root) {
    m_out.append(kHeader);
    if (!writeValue(root, 0)) return Error::posix(EINVAL, "writeXml");
    m_out.append(kFooter);
    return Data(m_out.begin(), m_out.end());
  }

 private:
  void indent(int depth) { m_out.append(static_cast<std::size_t>(depth), '\t'); }

  // Character data: markup characters as entities; CR and the other control characters as
  // character references, since a reader would turn a literal CR into LF and XML allows no other
  // C0 control literally. U+0000 and ill-formed UTF-8 cannot be written at all.
  bool writeText(std::string_view text) {
    if (findInvalidUtf8(text) != std::string_view::npos) return false;
    for (char c : text) {
      switch (c) {
        case '&':
          m_out += "&amp;";
          break;
        case '<':
          m_out += "&lt;";
          break;
        case '>':
          m_out += "&gt;";
          break;
        case '\t':
        case '\n':
          m_out += c;
          break;
        default:
          if (c == '\0') return false;
          if (static_cast<unsigned char>(c) < 0x20) {
            m_out += "&#" + std::to_string(static_cast<int>(c)) + ";";
          } else {
            m_out += c;
          }
          break;
      }
    }
    return true;
  }

  bool writeElement(std::string_view name, std::string_view text, int depth) {
    indent(depth);
    m_out += '<';
    m_out += name;
    m_out += '>';
    if (!writeText(text)) return false;
    m_out += "</";
    m_out += name;
    m_out += ">\n";
    return true;
  }

  void writeNumber(const Number& number, int depth) {
    char buffer[64];
    switch (number.kind()) {
      case Number::Kind::Boolean:
        indent(depth);
        m_out += number.boolValue() ? "<true/>\n" : "<false/>\n";
        return;
      case Number::Kind::Integer:
        std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(number.integerValue()));
        writeElement("integer", buffer, depth);
        return;
      case Number::Kind::LargeUnsigned:
        std::snprintf(buffer, sizeof buffer, "%llu",
                      static_cast<unsigned long long>(number.unsignedIntegerValue()));
        writeElement("integer", buffer, depth);
        return;
      case Number::Kind::Real: {
        const double value = number.doubleValue();
        if (std::isnan(value)) {
          writeElement("real", "nan", depth);
        } else if (std::isinf(value)) {
          writeElement("real", value > 0 ? "inf" : "-inf", depth);
        } else {
          // The shortest text that reads back as the same double, independent of the locale.
          const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
          writeElement("real",
                       std::string_view(buffer, static_cast<std::size_t>(result.ptr - buffer)),
                       depth);
        }
        return;
      }
    }
  }

  void writeData(const Data& data, int depth) {
    indent(depth);
    if (data.empty()) {
      m_out += "<data></data>\n";
      return;
    }
    m_out += "<data>\n";
    const std::string encoded = encodeBase64(data);
    for (std::size_t at = 0; at < encoded.size(); at += kBase64LineLength) {
      indent(depth);
      m_out.append(encoded, at, kBase64LineLength);
      m_out += '\n';
    }
    indent(depth);
    m_out += "</data>\n";
  }

  bool writeValue(const Value& value, int depth) {
    switch (value.type()) {
      case ValueType::String:
        return writeElement("string", *value.asString(), depth);
      case ValueType::Number:
        writeNumber(*value.asNumber(), depth);
        return true;
      case ValueType::Data:
        writeData(*value.asData(), depth);
        return true;
      case ValueType::Date: {
        const std::optional<std::string> text = formatIsoDate(value.asDate()->secondsSince1970);
        return text && writeElement("date", *text, depth);
      }
      case ValueType::Array:
        return writeArray(*value.asArray(), depth);
      case ValueType::Dictionary:
        return writeDictionary(*value.asDictionary(), depth);
      case ValueType::Set:
      case ValueType::Object:
        return false;
    }
    return false;
  }

  bool writeArray(const Array& array, int depth) {
    if (depth >= kMaximumPropertyListDepth) return false;
    indent(depth);
    if (array.empty()) {
      m_out += "<array/>\n";
      return true;
    }
    m_out += "<array>\n";
    for (const Value& element : array) {
      if (!writeValue(element, depth + 1)) return false;
    }
    indent(depth);
    m_out += "</array>\n";
    return true;
  }

  bool writeDictionary(const Dictionary& dictionary, int depth) {
    if (depth >= kMaximumPropertyListDepth) return false;
    indent(depth);
    if (dictionary.empty()) {
      m_out += "<dict/>\n";
      return true;
    }
    m_out += "<dict>\n";
    for (const auto& [key, element] : dictionary) {
      if (!writeElement("key", key, depth + 1) || !writeValue(element, depth + 1)) return false;
    }
    indent(depth);
    m_out += "</dict>\n";
    return true;
  }

  std::string m_out;
};

}  // namespace

Result<Data> writeXml(const Value& root) { return XmlWriter().run(root); }

}  // namespace krv::plist
