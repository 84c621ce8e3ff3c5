#include "foundation/Format.h"

#include <cstdio>

#include "foundation/Assert.h"

namespace krv {

std::string format(const char* pattern, ...) {
  va_list arguments;
  va_start(arguments, pattern);
  std::string text = formatList(pattern, arguments);
  va_end(arguments);
  return text;
}

std::string formatList(const char* pattern, va_list arguments) {
  char buffer[512];
  va_list copy;
  va_copy(copy, arguments);
  int length = std::vsnprintf(buffer, sizeof buffer, pattern, copy);
  va_end(copy);
  if (length < 0) return std::string();
  if (static_cast<std::size_t>(length) < sizeof buffer) {
    return std::string(buffer, static_cast<std::size_t>(length));
  }
  std::string text(static_cast<std::size_t>(length) + 1, '\0');
  std::vsnprintf(text.data(), text.size(), pattern, arguments);
  text.resize(static_cast<std::size_t>(length));
  return text;
}

void assertionFailure(const char* unit, const char* function, const char* condition,
                      const char* file, int line) {
  std::fprintf(stderr, "*** Assertion failure in %s, %s (%s:%d): %s\n", function, unit, file, line,
               condition);
  std::fflush(stderr);
  std::abort();
}

}  // namespace krv
