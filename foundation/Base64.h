#pragma once
// Base64 with the RFC 4648 alphabet ("A-Za-z0-9+/"): the <data> of XML property lists and the byte
// strings of the command-line client's JSON.
//
// Pure and thread-safe. Decoding reports failure as nullopt, never by throwing.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/Value.h"

namespace krv {

// The encoding with "=" padding and no line breaks.
std::string encodeBase64(std::span<const std::uint8_t> bytes);

// Decoding skips white space (space, tab, CR, LF); padding is optional but, when present, only at
// the end and at most two characters; a lone trailing character is an error.
std::optional<Data> decodeBase64(std::string_view text);

}  // namespace krv
