#include <gtest/gtest.h>

#include <string_view>
#include <vector>

#include "foundation/Crc16.h"
#include "foundation/Md5.h"

namespace krv {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The bitwise definition, one bit at a time.
std::uint16_t bitwiseCrc16(std::span<const std::uint8_t> bytes) {
  unsigned crc = 0;
  for (std::uint8_t byte : bytes) {
    crc ^= byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1u) ? (crc >> 1) ^ 0x8408u : crc >> 1;
  }
  return static_cast<std::uint16_t>(crc);
}

TEST(Crc16Test, MatchesTheKermitCheckValues) {
  EXPECT_EQ(crc16(bytesOf("123456789")), 0x2189);
  EXPECT_EQ(crc16({}), 0);
  EXPECT_EQ(crc16(bytesOf("A")), 0x538D);
}

// Every length around the eight-byte steps and every start offset (the words are read unaligned),
// over bytes that use every bit.
TEST(Crc16Test, WordStepsAgreeWithTheBitwiseDefinition) {
  std::vector<std::uint8_t> bytes(300);
  std::uint32_t state = 12345;
  for (std::uint8_t& byte : bytes) {
    state = state * 1103515245u + 12345u;
    byte = static_cast<std::uint8_t>(state >> 24);
  }
  for (std::size_t offset = 0; offset < 8; ++offset) {
    for (std::size_t length = 0; length + offset <= bytes.size();
         length += (length < 40 ? 1 : 37)) {
      const std::span<const std::uint8_t> span(bytes.data() + offset, length);
      ASSERT_EQ(crc16(span), bitwiseCrc16(span)) << "offset " << offset << " length " << length;
    }
  }
}

TEST(Md5Test, MatchesTheReferenceVectors) {
  const std::pair<std::string_view, std::string_view> vectors[] = {
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
       "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& [input, expected] : vectors) {
    EXPECT_EQ(Md5::hex(Md5::digest(bytesOf(input))), expected) << input;
    Md5 md5;  // the same in pieces of seven bytes
    for (std::size_t i = 0; i < input.size(); i += 7) md5.update(bytesOf(input.substr(i, 7)));
    EXPECT_EQ(Md5::hex(md5.finish()), expected) << input;
  }
}

}  // namespace
}  // namespace krv
