#pragma once
// The conversion of a setting's value text into a value of a given type, as the firmware variable
// command takes it (and the rules it shares with the other setting commands).
//
//   Boolean  exactly "true" or "false"; anything else ("TRUE", "1", "yes") gives nothing.
//   Number   the text's integer value: white space skipped, an optional sign, the leading
//            decimal digits (0 when there are none), held at the 64-bit limits on overflow.
//            Never fails.
//   String   the text itself, byte for byte. Never fails.
//   Data     percent-hex bytes ("%01%ff" gives 0x01 0xFF): the text must be at least 3
//            characters long and has room for length / 3 bytes (integer division); while text
//            is left and the room is not full, a "%" and then a hexadecimal number below 256 are
//            read, white space before either skipped, the number optionally written with "0x".
//            Any failure gives nothing; text after a full room is ignored; text that ends
//            before the room is full gives the bytes read so far.
//
// Lengths count characters as clients count a string's (UTF-16 units of valid UTF-8; one per
// byte otherwise); white space is the Unicode white space and line separators. A missing text
// gives nothing for every type. Pure functions, thread-safe, bounded by the text's length.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Value.h"

namespace krv {

// (g++ 12 wrongly reports scoped enumerators as shadowing the aliases of the same name.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
enum class SettingValueType : std::uint8_t { Boolean, Number, String, Data };
#pragma GCC diagnostic pop

// "Boolean", "Number", "String", "Data", and back (nothing for any other name).
std::string_view settingValueTypeName(SettingValueType type);
std::optional<SettingValueType> settingValueTypeNamed(std::string_view name);

// The value of the text for the type, or nothing.
std::optional<Value> convertSettingValue(SettingValueType type,
                                         const std::optional<std::string>& text);

// The two conversions that can be used on their own.
std::int64_t integerValueOfText(std::string_view text);
std::optional<Data> percentHexBytes(std::string_view text);

}  // namespace krv
