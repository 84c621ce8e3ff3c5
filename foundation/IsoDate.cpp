#include "foundation/IsoDate.h"

#include <array>
#include <cmath>
#include <cstdint>
#include <string>

namespace krv {

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

bool appendIsoDate(std::string& out, double secondsSince1970) {
  if (!std::isfinite(secondsSince1970)) return false;
  const double whole = std::floor(secondsSince1970);
  const double first = static_cast<double>(-kUnixEpochDay * kSecondsPerDay);
  const double last =
      static_cast<double>((daysBeforeYear(kLastYear + 1) - kUnixEpochDay) * kSecondsPerDay - 1);
  if (whole < first || whole > last) return false;
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
  // YYYY-MM-DDThh:mm:ssZ; every field is non-negative and has at most its width of digits.
  char text[20] = {'0', '0', '0', '0', '-', '0', '0', '-', '0', '0',
                   'T', '0', '0', ':', '0', '0', ':', '0', '0', 'Z'};
  const auto put = [&text](std::size_t end, std::int64_t value) {
    for (std::size_t at = end; value > 0; value /= 10)
      text[--at] = static_cast<char>('0' + value % 10);
  };
  put(4, year);
  put(7, month);
  put(10, day);
  put(13, secondOfDay / 3600);
  put(16, secondOfDay / 60 % 60);
  put(19, secondOfDay % 60);
  out.append(text, sizeof text);
  return true;
}

std::optional<std::string> formatIsoDate(double secondsSince1970) {
  std::string text;
  if (!appendIsoDate(text, secondsSince1970)) return std::nullopt;
  return text;
}

}  // namespace krv
