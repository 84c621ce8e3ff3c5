#pragma once
// Uuid: the 16 bytes of a universally unique identifier, and its text forms. A plain value type;
// the functions are pure and thread-safe.
//
// The canonical text is 36 characters: the bytes in order as upper-case hexadecimal digits in
// groups of 8-4-4-4-12, separated by "-" ("FFFFEEEE-DDDD-CCCC-BBBB-AAAA00001092").
//
// Parsing accepts what a person types or copies from another tool: the grouped form with digits of
// either case, the 32 digits without hyphens, and either of those inside one pair of braces
// ("{...}"). Everything else is refused: blanks anywhere, hyphens elsewhere or only some of them,
// prefixes such as "urn:uuid:", and any other length. No version or variant bits are checked:
// identity UUIDs need not be random ones.

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace krv {

using Uuid = std::array<std::uint8_t, 16>;

inline constexpr std::size_t kUuidStringLength = 36;

std::string uuidString(const Uuid& uuid);
std::optional<Uuid> parseUuid(std::string_view text);

}  // namespace krv
