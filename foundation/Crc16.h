#pragma once
// The checksum of data blocks: CRC-16 with polynomial 0x1021, initial value 0, input and result
// reflected, no final XOR (CRC-16/KERMIT; check value 0x2189 for "123456789"). The tables are
// computed at compile time, so they are complete before any thread can use them. Long spans are
// taken eight bytes per step (eight tables, "slicing by eight"), since every data block a command
// streams is checked on both sides.

#include <cstdint>
#include <span>

namespace krv {

std::uint16_t crc16(std::span<const std::uint8_t> bytes);

}  // namespace krv
