#pragma once
// printf-style formatting into a std::string (checked by the compiler). Thread-safe.

#include <cstdarg>
#include <string>

namespace krv {

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string formatList(const char* pattern, va_list arguments)
    __attribute__((format(printf, 1, 0)));

}  // namespace krv
