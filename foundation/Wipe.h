#pragma once
// The one erasure of secrets (a password, a token, a buffer that held one): explicit_bzero, which
// the compiler may not leave out because the bytes are never read again. Wiping a value clears the
// bytes of every string and byte string inside it, in arrays and dictionaries too (keys, sets and
// objects are left alone: the protocols put no secret there); the value keeps its shape.
//
// Thread-safe as far as the caller owns what it wipes.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "foundation/Value.h"

namespace krv {

void wipe(void* bytes, std::size_t length);
inline void wipe(std::string& text) { wipe(text.data(), text.size()); }
inline void wipe(std::span<std::uint8_t> bytes) { wipe(bytes.data(), bytes.size()); }
void wipe(Value& value);
void wipe(Dictionary& dictionary);

}  // namespace krv
