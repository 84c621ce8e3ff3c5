#include "tools/securityagentctl/ResultPrinter.h"

#include <unistd.h>

#include <cmath>
#include <cstring>
#include <ctime>

#include "foundation/Format.h"
#include "foundation/System.h"
#include "protocol/CommandTable.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv::ctl {

namespace {

void appendJsonString(std::string& out, std::string_view text) {
  out += '"';
  for (unsigned char c : text) {
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
        if (c < 0x20) {
          out += format("\\u%04x", c);
        } else {
          out += static_cast<char>(c);
        }
    }
  }
  out += '"';
}

std::string base64(const Data& data) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string text;
  for (std::size_t i = 0; i < data.size(); i += 3) {
    unsigned chunk = static_cast<unsigned>(data[i]) << 16;
    if (i + 1 < data.size()) chunk |= static_cast<unsigned>(data[i + 1]) << 8;
    if (i + 2 < data.size()) chunk |= data[i + 2];
    text += kAlphabet[(chunk >> 18) & 63];
    text += kAlphabet[(chunk >> 12) & 63];
    text += i + 1 < data.size() ? kAlphabet[(chunk >> 6) & 63] : '=';
    text += i + 2 < data.size() ? kAlphabet[chunk & 63] : '=';
  }
  return text;
}

std::string isoDate(const Date& date) {
  std::time_t seconds = static_cast<std::time_t>(std::floor(date.secondsSince1970));
  std::tm utc{};
  ::gmtime_r(&seconds, &utc);
  char buffer[32];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
  return buffer;
}

void appendJson(std::string& out, const Value& value);

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
      appendJsonString(out, *value.asString());
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
      appendJsonString(out, base64(*value.asData()));
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
      }
      out += '}';
      break;
    }
  }
}

void writeOut(int fd, std::string_view text) {
  (void)sys::writeAll(fd, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

std::string readableValue(const Value& value) {
  if (const std::string* text = value.asString()) return *text;
  if (const Data* data = value.asData()) {
    std::string text(data->begin(), data->end());
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
  }
  if (const Date* date = value.asDate()) return isoDate(*date);
  return toJson(value);
}

std::string describeRecord(const Dictionary& record) {
  std::string line;
  for (const auto& [key, value] : record) {
    if (!line.empty()) line += '\t';
    if (key == key::kPOSIXMode && value.asNumber() != nullptr) {
      line += format("%04llo",
                     static_cast<unsigned long long>(value.asNumber()->unsignedIntegerValue()));
    } else {
      line += readableValue(value);
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

std::string explainResult(const Error& result) {
  const std::int64_t code = result.code();
  if (result.domain() == kPosixErrorDomain) {
    if (const Value* message = result.userInfo().find(key::kUnderlyingErrorMessage)) {
      if (message->asString()) return *message->asString();
    }
    return sys::errorText(static_cast<int>(code));
  }
  if (result.domain() == kTransportErrorDomain) {
    switch (code) {
      case kTransportPipeNotCreated:
        return "the daemon could not create the response pipe";
      case kTransportRightRemovalFailed:
        return "removing the right definitions failed";
      case kTransportReplyNotAnError:
        return "the daemon's reply was not a result";
      case kTransportPipeMessageInvalid:
        return "the daemon ended the command without a result";
      case kTransportCommandInvalid:
        return "the command is not valid for its code";
      case kTransportResultNotTransferable:
        return "the result was too large to be transferred";
      default:
        return "";
    }
  }
  if (result.domain() == kCommandErrorDomain) {
    switch (code) {
      case 0:
        return "";
      case 1:
        return "unknown command code";
      case 2: {
        const Value* status = result.userInfo().find(key::kUnderlyingErrorCode);
        std::int64_t value = status && status->asNumber() ? status->asNumber()->integerValue() : 0;
        switch (value) {
          case -60005:
            return "authorization denied";
          case -60006:
            return "authorization canceled";
          case -60007:
            return "authorization needs an administrator's password, and none could be asked";
          default:
            return format("authorization failed (%lld)", static_cast<long long>(value));
        }
      }
      case 3:
        return "an argument is invalid";
      case 4:
        return "the argument list is malformed";
      case 5:
        return "the program is not safe to run";
      case 6:
        return "the program failed";
      default:
        return "";
    }
  }
  return "";
}

ResultPrinter::ResultPrinter(bool json, bool quiet)
    : m_json(json), m_showProgress(!quiet && !json && ::isatty(STDERR_FILENO)) {}

void ResultPrinter::drawProgress(double progress) {
  if (!m_showProgress) return;
  if (!(progress >= 0.0)) progress = 0.0;
  if (progress > 1.0) progress = 1.0;
  constexpr int kWidth = 40;
  int filled = static_cast<int>(progress * kWidth);
  std::string bar = "\r[" + std::string(static_cast<std::size_t>(filled), '#') +
                    std::string(static_cast<std::size_t>(kWidth - filled), ' ') +
                    format("] %3d%%", static_cast<int>(progress * 100.0));
  writeOut(STDERR_FILENO, bar);
  m_progressShown = true;
}

void ResultPrinter::endProgress() {
  if (!m_progressShown) return;
  writeOut(STDERR_FILENO, "\n");
  m_progressShown = false;
}

void ResultPrinter::report(const Error& report) {
  const Dictionary& info = report.userInfo();
  if (const Value* output = info.find(key::kOutputChannel); output && output->asData()) {
    writeOut(STDOUT_FILENO, std::string(output->asData()->begin(), output->asData()->end()));
    return;
  }
  if (const Value* output = info.find(key::kErrorChannel); output && output->asData()) {
    writeOut(STDERR_FILENO, std::string(output->asData()->begin(), output->asData()->end()));
    return;
  }
  const Value* progress = info.find(key::kCurrentProgress);
  double fraction = progress && progress->asNumber() ? progress->asNumber()->doubleValue() : 0.0;
  bool hasPayload = false;
  for (const auto& [key, value] : info) {
    if (key == key::kCurrentProgress || value.asArray() == nullptr) continue;
    hasPayload = true;
    if (m_json) {
      Dictionary chunk;
      chunk.set(key, value);
      writeOut(STDOUT_FILENO, toJson(Value(std::move(chunk))) + "\n");
      continue;
    }
    endProgress();
    for (const Value& element : *value.asArray()) {
      std::string line =
          element.asDictionary() ? describeRecord(*element.asDictionary()) : readableValue(element);
      writeOut(STDOUT_FILENO, line + "\n");
    }
  }
  if (!hasPayload || m_showProgress) drawProgress(fraction);
}

void ResultPrinter::finish(const Error& result) {
  if (m_progressShown) {
    if (result.code() == 0) drawProgress(1.0);
    endProgress();
  }
  if (m_json) {
    writeOut(STDOUT_FILENO, resultToJson(result) + "\n");
    return;
  }
  std::string text;
  if (result.code() == 0 && result.domain() != kPosixErrorDomain) {
    text = "OK\n";
  } else {
    text = format("Failed: %s code %lld", result.domain().c_str(),
                  static_cast<long long>(result.code()));
    std::string explanation = explainResult(result);
    if (!explanation.empty()) text += " (" + explanation + ")";
    text += "\n";
  }
  for (const auto& [key, value] : result.userInfo()) {
    if (key == key::kFileSystemObjects && value.asArray()) {
      for (const Value& element : *value.asArray()) {
        if (element.asDictionary()) text += describeRecord(*element.asDictionary()) + "\n";
      }
      continue;
    }
    std::string rendered = readableValue(value);
    if (rendered.find('\n') != std::string::npos) {
      text += "  " + key + ":\n" + rendered + "\n";
    } else {
      text += "  " + key + ": " + rendered + "\n";
    }
  }
  writeOut(result.code() == 0 ? STDOUT_FILENO : STDERR_FILENO, text);
}

}  // namespace krv::ctl
