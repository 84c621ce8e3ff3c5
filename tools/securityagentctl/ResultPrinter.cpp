#include "tools/securityagentctl/ResultPrinter.h"

#include <unistd.h>

#include <charconv>
#include <cmath>
#include <cstring>

#include "foundation/Base64.h"
#include "foundation/Format.h"
#include "foundation/IsoDate.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/Utf8.h"
#include "protocol/CommandCodes.h"
#include "protocol/CommandTable.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv::ctl {

namespace {

// A JSON string of pure ASCII: every character outside printable ASCII is written as \uXXXX (a
// surrogate pair above U+FFFF), so no text can reach a terminal that shows the JSON as a control
// sequence. Values from the wire are always valid UTF-8 (the reader refuses others, and text that
// is not goes out as data, see appendJsonData); a byte that is not part of UTF-8 here could only
// come from the client itself and is written as U+FFFD.
void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (std::size_t offset = 0; offset < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, offset);
    offset += character.length;
    const char32_t c = character.valid ? character.codePoint : 0xFFFD;
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      case '\r':
        out += "\\r";
        break;
      default:
        if (c >= 0x20 && c < 0x7F) {
          out += static_cast<char>(c);
        } else if (c < 0x10000) {
          out += format("\\u%04x", static_cast<unsigned>(c));
        } else {
          const char32_t supplementary = c - 0x10000;
          out += format("\\u%04x\\u%04x", static_cast<unsigned>(0xD800 + (supplementary >> 10)),
                        static_cast<unsigned>(0xDC00 + (supplementary & 0x3FF)));
        }
    }
  }
  out += '"';
}

// A date as ISO 8601 text. A file's times can be set to any value: a date outside the years
// 0000 to 9999, which that form cannot show, is written as its seconds since 1970 instead.
std::string isoDate(const Date& date) {
  if (std::optional<std::string> text = formatIsoDate(date.secondsSince1970)) return *text;
  return format("%.17g", date.secondsSince1970);
}

// A byte string of the wire, told apart from text: {"base64": "<the bytes in base64>"}. A name
// that is not UTF-8 (a "Path", a "FailingPath") arrives this way, and so does program output.
void appendJsonData(std::string& out, const Data& data) {
  out += "{\"base64\":";
  appendJsonString(out, encodeBase64(data));
  out += '}';
}

void appendJson(std::string& out, const Value& value);

// The keyed items of an object, each as a member of a JSON object under construction.
class JsonItems final : public Encoder {
 public:
  explicit JsonItems(std::string& out) : m_out(out) {}
  bool isKeyed() const override { return true; }
  void encodeValue(std::string_view key, const Value& value) override {
    member(key);
    appendJson(m_out, value);
  }
  // Names may be any bytes and JSON keys must be text: the entries become an array, each with its
  // name under "Name".
  void encodeNameDictionary(std::string_view key, const Dictionary& value) override {
    member(key);
    m_out += '[';
    bool first = true;
    for (const auto& [name, entry] : value) {
      if (!first) m_out += ',';
      first = false;
      Dictionary named;
      named.append("Name", nameValue(name));
      if (const Dictionary* fields = entry.asDictionary()) {
        for (const auto& [field, item] : *fields) named.append(field, item);
      }
      appendJson(m_out, Value(std::move(named)));
    }
    m_out += ']';
  }

 private:
  void member(std::string_view key);
  std::string& m_out;
};

void appendElements(std::string& out, const std::vector<Value>& elements) {
  out += '[';
  for (std::size_t i = 0; i < elements.size(); ++i) {
    if (i != 0) out += ',';
    appendJson(out, elements[i]);
  }
  out += ']';
}

void appendDictionary(std::string& out, const Dictionary& dictionary) {
  out += '{';
  bool first = true;
  for (const auto& [key, element] : dictionary) {
    if (!first) out += ',';
    first = false;
    appendJsonString(out, key);
    out += ':';
    appendJson(out, element);
  }
  out += '}';
}

void appendJson(std::string& out, const Value& value) {
  switch (value.type()) {
    case ValueType::String:
      if (isValidUtf8(*value.asString())) {
        appendJsonString(out, *value.asString());
      } else {
        const std::string& text = *value.asString();
        appendJsonData(out, Data(text.begin(), text.end()));
      }
      break;
    case ValueType::Number: {
      const Number& number = *value.asNumber();
      if (number.isBoolean()) {
        out += number.boolValue() ? "true" : "false";
      } else if (number.isReal()) {
        double real = number.doubleValue();
        out += std::isfinite(real) ? format("%.17g", real) : std::string("null");
      } else if (number.isNegative()) {
        out += format("%lld", static_cast<long long>(number.integerValue()));
      } else {
        out += format("%llu", static_cast<unsigned long long>(number.unsignedIntegerValue()));
      }
      break;
    }
    case ValueType::Data:
      appendJsonData(out, *value.asData());
      break;
    case ValueType::Date:
      appendJsonString(out, isoDate(*value.asDate()));
      break;
    case ValueType::Array:
      appendElements(out, *value.asArray());
      break;
    case ValueType::Set:
      appendElements(out, value.asSet()->elements);
      break;
    case ValueType::Dictionary:
      appendDictionary(out, *value.asDictionary());
      break;
    case ValueType::Object: {
      const Archivable& object = **value.asObject();
      out += "{\"class\":";
      appendJsonString(out, object.className());
      if (const Error* error = value.objectAs<Error>()) {
        out += ",\"domain\":";
        appendJsonString(out, error->domain());
        out += format(",\"code\":%lld,\"userInfo\":", static_cast<long long>(error->code()));
        appendDictionary(out, error->userInfo());
      } else {
        JsonItems items(out);
        object.encode(items);
      }
      out += '}';
      break;
    }
  }
}

void JsonItems::member(std::string_view key) {
  m_out += ',';
  appendJsonString(m_out, key);
  m_out += ':';
}

void writeOut(int fd, std::string_view text) {
  (void)sys::writeAll(fd, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

bool isProgramOutput(std::string_view key) {
  return key == key::kOutputChannel || key == key::kErrorChannel;
}

// One value for the text output. Strings, names and data are shown escaped (escapedName), so that
// no name can forge a line or a column or reach the terminal; only a program's output is shown as
// the program wrote it, as its live output is.
std::string readableValue(const Value& value, std::string_view key = {}) {
  if (const Data* data = value.asData(); data != nullptr && isProgramOutput(key)) {
    std::string text(data->begin(), data->end());
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }
  if (std::optional<std::string> bytes = nameBytes(value)) return escapedName(*bytes);
  if (const Date* date = value.asDate()) return isoDate(*date);
  return toJson(value);
}

// A name as escapedName writes it, without a copy where that is the name itself: printable ASCII
// other than the backslash stands for itself.
void appendEscapedName(std::string& out, std::string_view bytes) {
  for (const char byte : bytes) {
    if (byte < 0x20 || byte > 0x7E || byte == '\\') {
      out += escapedName(bytes);
      return;
    }
  }
  out += bytes;
}

// The digits of `value` in `base`, at least `width` of them (zeros in front).
void appendUnsigned(std::string& out, std::uint64_t value, int base, std::size_t width) {
  char digits[64];
  const std::to_chars_result end = std::to_chars(digits, digits + sizeof digits, value, base);
  const auto length = static_cast<std::size_t>(end.ptr - digits);
  if (length < width) out.append(width - length, '0');
  out.append(digits, length);
}

// The line describeRecord writes for the record's dictionary.
void appendRecordLine(std::string& out, const ObjectRecordView& record) {
  appendEscapedName(out, record.path);
  out += '\t';
  appendEscapedName(out, record.type);
  out += '\t';
  appendUnsigned(out, record.size, 10, 1);
  out += '\t';
  if (!appendIsoDate(out, record.modificationDate)) out += isoDate(Date{record.modificationDate});
  out += '\t';
  appendUnsigned(out, record.posixMode, 8, 4);  // "%04llo"
}

std::string describeRecord(const Dictionary& record) {
  std::string line;
  for (const auto& [key, value] : record) {
    if (!line.empty()) line += '\t';
    if (key == key::kPOSIXMode && value.asNumber() != nullptr) {
      line += format("%04llo",
                     static_cast<unsigned long long>(value.asNumber()->unsignedIntegerValue()));
    } else {
      line += readableValue(value, key);
    }
  }
  return line;
}

}  // namespace

std::string toJson(const Value& value) {
  std::string out;
  appendJson(out, value);
  return out;
}

std::string resultToJson(const Error& result) {
  std::string out = "{\"domain\":";
  appendJsonString(out, result.domain());
  out += format(",\"code\":%lld,\"userInfo\":", static_cast<long long>(result.code()));
  appendDictionary(out, result.userInfo());
  std::string explanation = explainResult(result);
  if (!explanation.empty()) {
    out += ",\"message\":";
    appendJsonString(out, explanation);
  }
  out += '}';
  return out;
}

ResultPrinter::ResultPrinter(bool json, bool quiet, bool progressLines)
    : m_json(json), m_progress(STDERR_FILENO, ProgressBar::wanted(json, quiet, progressLines)) {}

void ResultPrinter::drawProgress(double progress) { m_progress.draw(progress); }

void ResultPrinter::endProgress() { m_progress.end(); }

void ResultPrinter::showComparison(std::string_view firstFolder, std::string_view secondFolder) {
  m_comparison.emplace(firstFolder, secondFolder);
}

void ResultPrinter::report(const Error& report) {
  const Dictionary& info = report.userInfo();
  for (const std::string_view channel : {key::kOutputChannel, key::kErrorChannel}) {
    const Value* output = info.find(channel);
    if (output == nullptr || output->asData() == nullptr) continue;
    if (m_json) {
      // One JSON document per line, like the chunks, so that the output stays JSON.
      Dictionary chunk;
      chunk.set(channel, *output);
      writeOut(STDOUT_FILENO, toJson(Value(std::move(chunk))) + "\n");
    } else {
      writeOut(channel == key::kOutputChannel ? STDOUT_FILENO : STDERR_FILENO,
               std::string(output->asData()->begin(), output->asData()->end()));
    }
    return;
  }
  const Value* progress = info.find(key::kCurrentProgress);
  double fraction = progress && progress->asNumber() ? progress->asNumber()->doubleValue() : 0.0;
  bool hasPayload = false;
  for (const auto& [key, value] : info) {
    if (key == key::kCurrentProgress || value.asArray() == nullptr) continue;
    // A comparison reports every 100 objects, mostly without records: nothing to show then.
    if (key == key::kMismatchList && value.asArray()->empty()) continue;
    hasPayload = true;
    if (m_json) {
      Dictionary chunk;
      chunk.set(key, value);
      writeOut(STDOUT_FILENO, toJson(Value(std::move(chunk))) + "\n");
      continue;
    }
    endProgress();
    std::string lines;
    for (const Value& element : *value.asArray()) {
      if (key == key::kMismatchList && m_comparison) {
        lines += m_comparison->line(element);
      } else {
        lines += element.asDictionary() ? describeRecord(*element.asDictionary())
                                        : readableValue(element);
      }
      lines += '\n';
    }
    writeOut(STDOUT_FILENO, lines);
  }
  if (!hasPayload || m_progress.enabled()) drawProgress(fraction);
}

void ResultPrinter::reportRecords(double progress, std::span<const ObjectRecordView> records) {
  endProgress();
  m_lines.clear();
  for (const ObjectRecordView& record : records) {
    appendRecordLine(m_lines, record);
    m_lines += '\n';
  }
  writeOut(STDOUT_FILENO, m_lines);
  if (m_progress.enabled()) drawProgress(progress);
}

void ResultPrinter::finish(const Error& result) {
  if (m_progress.shown()) {
    if (result.code() == 0) drawProgress(1.0);
    endProgress();
  }
  if (m_json) {
    writeOut(STDOUT_FILENO, resultToJson(result) + "\n");
    return;
  }
  std::string text;
  if (m_comparison) writeOut(STDOUT_FILENO, m_comparison->summary() + "\n");
  if (result.code() == 0 && result.domain() != kPosixErrorDomain) {
    text = "OK\n";
  } else {
    text = failureHeadline(result);
  }
  for (const auto& [key, value] : result.userInfo()) {
    if (key == key::kFileSystemObjects && value.asArray()) {
      for (const Value& element : *value.asArray()) {
        if (element.asDictionary()) text += describeRecord(*element.asDictionary()) + "\n";
      }
      continue;
    }
    std::string rendered = readableValue(value, key);
    if (rendered.find('\n') != std::string::npos) {
      text += "  " + escapedName(key) + ":\n" + rendered + "\n";
    } else {
      text += "  " + escapedName(key) + ": " + rendered + "\n";
    }
  }
  if (m_commandCode && !(result.code() == 0 && result.domain() != kPosixErrorDomain)) {
    text += format("  Result: %s code %lld\n", escapedName(result.domain()).c_str(),
                   static_cast<long long>(result.code()));
  }
  writeOut(result.code() == 0 ? STDOUT_FILENO : STDERR_FILENO, text);
}

void ResultPrinter::describeFailuresOf(std::uint32_t code, Array arguments) {
  m_commandCode = code;
  m_commandArguments = std::move(arguments);
}

std::string ResultPrinter::failureHeadline(const Error& result) const {
  if (m_commandCode) return describeFailure(*m_commandCode, m_commandArguments, result) + "\n";
  std::string text = format("Failed: %s code %lld", escapedName(result.domain()).c_str(),
                            static_cast<long long>(result.code()));
  std::string explanation = explainResult(result);
  if (!explanation.empty()) text += " (" + escapedName(explanation) + ")";
  return text + "\n";
}

}  // namespace krv::ctl
