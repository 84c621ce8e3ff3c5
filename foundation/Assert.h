#pragma once
// Fatal assertions for programming errors (never for client errors): they print the source unit,
// the function and the failed condition to standard error and abort the process. They stay active
// in every build type, since a root daemon must not continue in a state it was never meant to be
// in.

#include <cstdio>
#include <cstdlib>

#define KRV_ASSERT(condition, unit)                                                            \
  do {                                                                                         \
    if (!(condition)) ::krv::assertionFailure(unit, __func__, #condition, __FILE__, __LINE__); \
  } while (false)

namespace krv {

[[noreturn]] void assertionFailure(const char* unit, const char* function, const char* condition,
                                   const char* file, int line);

}  // namespace krv
