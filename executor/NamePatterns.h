#pragma once
// The name patterns of the multi-pattern search (code 46): the request's strings after the start
// folder and the stay flag are (kind, pattern) pairs, kind "0" a name equal to the pattern, "1" a
// name beginning with it, "2" a name whose extension (the text after its last ".") is the
// pattern. Kinds and patterns are read as bytes like every string argument, so a pattern that is
// not UTF-8 matches names that are not either. Plain values and pure functions; any thread.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Value.h"

namespace krv {

// The text after the last "." of a name; nothing when the name has no ".".
std::optional<std::string_view> nameExtension(std::string_view name);

// One (kind, pattern) pair.
struct NamePattern {
  enum class Kind : std::uint8_t { Equals, BeginsWith, Extension };
  Kind kind;
  std::string text;

  bool matches(std::string_view name) const;
};

// The pairs of the request: a non-zero even number of strings, each kind one of "0", "1", "2",
// each pattern non-empty. Nothing when the list breaks a rule.
std::optional<std::vector<NamePattern>> namePatterns(const Array& strings);

bool matchesAny(const std::vector<NamePattern>& patterns, std::string_view name);

}  // namespace krv
