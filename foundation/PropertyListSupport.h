#pragma once
// Pieces shared by the property-list readers and the writer: the parse error, UTF-8 checks and
// encoding, base64, ISO 8601 dates and the duplicate-key check. Internal to the foundation
// library; not part of its interface.
//
// Every function is pure and thread-safe. Decoders report failure through std::optional or a
// returned offset, never by throwing.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "foundation/Value.h"

namespace krv::plist::detail {

// The error every reader returns: kPropertyListErrorDomain / kPropertyListReadCorruptError with
// the description under "NSDebugDescription".
Error parseError(std::string description);

// 1 + the number of line feeds before `offset` (offset clamped to the text).
std::size_t lineAt(std::string_view text, std::size_t offset);

// The offset of the first byte that does not belong to a well-formed UTF-8 sequence (overlong
// forms, surrogates and values past U+10FFFF are ill-formed), or npos.
std::size_t findInvalidUtf8(std::string_view text);

bool isSurrogate(char32_t codePoint);
// Appends the UTF-8 form of a Unicode scalar value (the caller has checked it is one).
void appendUtf8(std::string& out, char32_t codePoint);

// A short, printable, ASCII-only rendering of untrusted text for error messages: at most 40
// characters, anything but printable ASCII (and '"') shown as '?'. quoteForMessage adds quotes.
std::string printableForMessage(std::string_view text);
std::string quoteForMessage(std::string_view text);

// Base64 (RFC 4648 alphabet). Decoding skips white space (space, tab, CR, LF); padding is
// optional but, when present, only at the end; a lone trailing character is an error.
std::optional<Data> decodeBase64(std::string_view text);
// The encoding with padding, no line breaks.
std::string encodeBase64(const std::uint8_t* bytes, std::size_t length);

// "YYYY-MM-DDThh:mm:ssZ" (years 0000 to 9999, proleptic Gregorian calendar, UTC) to seconds
// since 1970; nullopt for anything else, including impossible dates and times.
std::optional<double> parseIsoDate(std::string_view text);
// The same form for a time rounded down to the whole second; nullopt when it is not finite or
// falls outside years 0000 to 9999.
std::optional<std::string> formatIsoDate(double secondsSince1970);

// The index of the first entry whose key repeats an earlier one (the lowest such index), or
// nullopt. O(n log n).
std::optional<std::size_t> findDuplicateKey(const Dictionary& dictionary);

}  // namespace krv::plist::detail
