#include "foundation/PropertyList.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <vector>

#include "foundation/PropertyListSupport.h"

namespace krv::plist {

namespace {

constexpr std::string_view kDebugDescriptionKey = "NSDebugDescription";

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

// "<" and a name with a letter that is no hexadecimal digit: an element such as <plist> or
// <dict>, never the start of old-style data (<0fbd 77>). "<?" and "<!" cannot begin an old-style
// list either.
bool startsWithXmlTag(std::string_view text) {
  if (text.empty() || text.front() != '<') return false;
  for (std::size_t i = 1; i < text.size(); ++i) {
    const char c = text[i];
    const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    if (!letter) return false;
    if (!((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return true;
  }
  return false;
}

}  // namespace

Result<Value> read(std::span<const std::uint8_t> bytes) {
  std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
  // Any "bplist" header goes to the binary reader, which names the unsupported versions.
  if (startsWith(text, "bplist")) return readBinary(bytes);
  if (startsWith(text, "\xEF\xBB\xBF")) text.remove_prefix(3);
  const std::size_t start = text.find_first_not_of(" \t\r\n");
  if (start != std::string_view::npos) {
    text.remove_prefix(start);
    if (startsWith(text, "<?") || startsWith(text, "<!") || startsWithXmlTag(text)) {
      return readXml(bytes);
    }
  }
  return readOpenStep(bytes);
}

std::string describeParseError(const Error& error) {
  if (!error.is(kPropertyListErrorDomain, kPropertyListReadCorruptError)) return {};
  const Value* description = error.userInfo().find(kDebugDescriptionKey);
  if (description == nullptr || description->asString() == nullptr) return {};
  return *description->asString();
}

namespace detail {

Error parseError(std::string description) {
  Dictionary userInfo;
  userInfo.append(std::string(kDebugDescriptionKey), Value(std::move(description)));
  return Error(std::string(kPropertyListErrorDomain), kPropertyListReadCorruptError,
               std::move(userInfo));
}

std::size_t lineAt(std::string_view text, std::size_t offset) {
  const std::size_t end = std::min(offset, text.size());
  return 1 + static_cast<std::size_t>(std::count(text.begin(), text.begin() + end, '\n'));
}

std::size_t findInvalidUtf8(std::string_view text) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
  const std::size_t size = text.size();
  std::size_t i = 0;
  while (i < size) {
    const unsigned char lead = bytes[i];
    if (lead < 0x80) {
      ++i;
      continue;
    }
    std::size_t length = 0;
    // The bounds of the second byte exclude overlong forms, surrogates and values past U+10FFFF.
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;
      if (lead == 0xED) high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;
      if (lead == 0xF4) high = 0x8F;
    } else {
      return i;
    }
    if (size - i < length) return i;
    if (bytes[i + 1] < low || bytes[i + 1] > high) return i;
    for (std::size_t k = 2; k < length; ++k) {
      if (bytes[i + k] < 0x80 || bytes[i + k] > 0xBF) return i;
    }
    i += length;
  }
  return std::string_view::npos;
}

bool isSurrogate(char32_t codePoint) { return codePoint >= 0xD800 && codePoint <= 0xDFFF; }

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

std::string printableForMessage(std::string_view text) {
  constexpr std::size_t kLimit = 40;
  std::string out;
  for (std::size_t i = 0; i < text.size() && i < kLimit; ++i) {
    const char c = text[i];
    out += (c >= 0x20 && c < 0x7F && c != '"') ? c : '?';
  }
  if (text.size() > kLimit) out += "...";
  return out;
}

std::string quoteForMessage(std::string_view text) { return '"' + printableForMessage(text) + '"'; }

namespace {

constexpr char kBase64Alphabet[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int base64Digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool isBase64Space(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::optional<Data> decodeBase64(std::string_view text) {
  Data out;
  out.reserve(text.size() / 4 * 3 + 3);
  std::uint32_t accumulator = 0;
  std::size_t digits = 0;   // significant characters so far
  std::size_t padding = 0;  // '=' seen
  for (char c : text) {
    if (isBase64Space(c)) continue;
    if (c == '=') {
      ++padding;
      continue;
    }
    const int digit = base64Digit(c);
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

std::string encodeBase64(const std::uint8_t* bytes, std::size_t length) {
  std::string out;
  out.reserve((length + 2) / 3 * 4);
  std::size_t i = 0;
  for (; i + 3 <= length; i += 3) {
    const std::uint32_t group = (std::uint32_t{bytes[i]} << 16) |
                                (std::uint32_t{bytes[i + 1]} << 8) | std::uint32_t{bytes[i + 2]};
    out += kBase64Alphabet[(group >> 18) & 0x3F];
    out += kBase64Alphabet[(group >> 12) & 0x3F];
    out += kBase64Alphabet[(group >> 6) & 0x3F];
    out += kBase64Alphabet[group & 0x3F];
  }
  if (length - i == 1) {
    const std::uint32_t group = std::uint32_t{bytes[i]} << 16;
    out += kBase64Alphabet[(group >> 18) & 0x3F];
    out += kBase64Alphabet[(group >> 12) & 0x3F];
    out += "==";
  } else if (length - i == 2) {
    const std::uint32_t group =
        (std::uint32_t{bytes[i]} << 16) | (std::uint32_t{bytes[i + 1]} << 8);
    out += kBase64Alphabet[(group >> 18) & 0x3F];
    out += kBase64Alphabet[(group >> 12) & 0x3F];
    out += kBase64Alphabet[(group >> 6) & 0x3F];
    out += '=';
  }
  return out;
}

namespace {

constexpr std::int64_t kSecondsPerDay = 86400;
constexpr int kLastYear = 9999;

bool isLeapYear(std::int64_t year) { return year % 4 == 0 && (year % 100 != 0 || year % 400 == 0); }

// Days from 0000-01-01 to the first of January of `year` (0 <= year <= 10000). Year 0 is a leap
// year in the proleptic Gregorian calendar, hence the rounding up.
std::int64_t daysBeforeYear(std::int64_t year) {
  const std::int64_t leapYears = (year + 3) / 4 - (year + 99) / 100 + (year + 399) / 400;
  return year * 365 + leapYears;
}

// Days before the first of `month` (1-12) within a year.
std::int64_t daysBeforeMonth(std::int64_t year, int month) {
  static constexpr std::array<int, 12> kCumulative = {0,   31,  59,  90,  120, 151,
                                                      181, 212, 243, 273, 304, 334};
  return kCumulative[static_cast<std::size_t>(month - 1)] + (month > 2 && isLeapYear(year) ? 1 : 0);
}

int daysInMonth(std::int64_t year, int month) {
  static constexpr std::array<int, 12> kLengths = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return kLengths[static_cast<std::size_t>(month - 1)] + (month == 2 && isLeapYear(year) ? 1 : 0);
}

const std::int64_t kUnixEpochDay = daysBeforeYear(1970);

// The value of `count` decimal digits at text[at...], or -1.
int digitsAt(std::string_view text, std::size_t at, std::size_t count) {
  int value = 0;
  for (std::size_t i = at; i < at + count; ++i) {
    if (text[i] < '0' || text[i] > '9') return -1;
    value = value * 10 + (text[i] - '0');
  }
  return value;
}

}  // namespace

std::optional<double> parseIsoDate(std::string_view text) {
  // 0123456789012345678 9
  // YYYY-MM-DDThh:mm:ssZ
  if (text.size() != 20 || text[4] != '-' || text[7] != '-' || text[10] != 'T' || text[13] != ':' ||
      text[16] != ':' || text[19] != 'Z') {
    return std::nullopt;
  }
  const int year = digitsAt(text, 0, 4);
  const int month = digitsAt(text, 5, 2);
  const int day = digitsAt(text, 8, 2);
  const int hour = digitsAt(text, 11, 2);
  const int minute = digitsAt(text, 14, 2);
  const int second = digitsAt(text, 17, 2);
  if (year < 0 || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) ||
      hour < 0 || hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59) {
    return std::nullopt;
  }
  const std::int64_t days =
      daysBeforeYear(year) + daysBeforeMonth(year, month) + (day - 1) - kUnixEpochDay;
  return static_cast<double>(days * kSecondsPerDay + hour * 3600 + minute * 60 + second);
}

std::optional<std::string> formatIsoDate(double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) return std::nullopt;
  const double whole = std::floor(secondsSince1970);
  const double first = static_cast<double>(-kUnixEpochDay * kSecondsPerDay);
  const double last =
      static_cast<double>((daysBeforeYear(kLastYear + 1) - kUnixEpochDay) * kSecondsPerDay - 1);
  if (whole < first || whole > last) return std::nullopt;
  const auto seconds = static_cast<std::int64_t>(whole);
  // Both operands are non-negative from here on, so / and % need no floor adjustment.
  const std::int64_t sinceYearZero = seconds + kUnixEpochDay * kSecondsPerDay;
  const std::int64_t dayNumber = sinceYearZero / kSecondsPerDay;
  const std::int64_t secondOfDay = sinceYearZero % kSecondsPerDay;
  std::int64_t year = dayNumber * 400 / 146097;  // the mean Gregorian year, an estimate
  while (year > 0 && daysBeforeYear(year) > dayNumber) --year;
  while (year < kLastYear && daysBeforeYear(year + 1) <= dayNumber) ++year;
  const std::int64_t dayOfYear = dayNumber - daysBeforeYear(year);
  int month = 12;
  while (month > 1 && daysBeforeMonth(year, month) > dayOfYear) --month;
  const std::int64_t day = dayOfYear - daysBeforeMonth(year, month) + 1;
  // Every field is small and non-negative here; the buffer fits the widest int nonetheless.
  char buffer[96];
  std::snprintf(buffer, sizeof buffer, "%04d-%02d-%02dT%02d:%02d:%02dZ", static_cast<int>(year),
                month, static_cast<int>(day), static_cast<int>(secondOfDay / 3600),
                static_cast<int>(secondOfDay / 60 % 60), static_cast<int>(secondOfDay % 60));
  return std::string(buffer);
}

std::optional<std::size_t> findDuplicateKey(const Dictionary& dictionary) {
  const auto& entries = dictionary.entries();
  std::vector<std::size_t> order(entries.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::stable_sort(order.begin(), order.end(), [&entries](std::size_t a, std::size_t b) {
    return entries[a].first < entries[b].first;
  });
  std::optional<std::size_t> duplicate;
  for (std::size_t i = 1; i < order.size(); ++i) {
    if (entries[order[i]].first == entries[order[i - 1]].first) {
      if (!duplicate || order[i] < *duplicate) duplicate = order[i];
    }
  }
  return duplicate;
}

}  // namespace detail

}  // namespace krv::plist
