#pragma once
// Paths and names as bytes: how they travel and how they are shown to people.
//
// On Linux a file name is any sequence of bytes without "/" and NUL, and any local user can make
// one that is not UTF-8. Inside the system a path or name is a std::string holding exactly its
// bytes, never assumed to be text. This is the one place where such bytes become a value that
// crosses the process boundary, and where a received value becomes bytes again:
//
// - nameValue(): a text string when the bytes are valid UTF-8, otherwise a byte string holding
//   exactly those bytes. Every name thus has exactly one encoding on the wire.
// - nameBytes(): the bytes of a received name from either form, unchanged.
// - isNameValue(): whether a value is a name in its one encoding. A request's string argument must
//   be one (bytes that are valid UTF-8 must come as text).
//
// Every path or name that travels goes through these: the "Path" of object records,
// "FailingPath", the string arguments of requests. Nothing is replaced, escaped or dropped.
//
// escapedName() is for output meant for people (the command-line client's text): a visible,
// lossless form of any bytes in which no name can start a line or reach a terminal as a control
// sequence.
//
// All functions are pure and thread-safe.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Utf8.h"
#include "foundation/Value.h"

namespace krv {

// The wire value of a path or name (see above).
Value nameValue(std::string bytes);
// The bytes of a text string or a byte string; nothing for a value of any other kind.
std::optional<std::string> nameBytes(const Value& value);
// A text string, or a byte string whose bytes are not valid UTF-8.
bool isNameValue(const Value& value);

// The text form for people. Every character stands for itself except these, which are written
// with a backslash: a backslash as "\\", tab, line feed and carriage return as "\t", "\n", "\r",
// and as "\xHH" for each of their bytes: the other control characters (U+0000-U+001F, U+007F,
// U+0080-U+009F), the invisible characters that change the direction or break the line of the
// text around them (U+061C, U+200E, U+200F, U+2028-U+202E, U+2066-U+2069), and every byte that
// is not part of well-formed UTF-8. The original bytes follow from the form without ambiguity.
std::string escapedName(std::string_view bytes);

// Whether a code point is one of the controls or invisible characters escapedName writes as bytes
// (tab, line feed and carriage return included).
bool isHiddenCharacter(char32_t codePoint);

}  // namespace krv
