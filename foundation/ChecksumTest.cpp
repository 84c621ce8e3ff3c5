#include <gtest/gtest.h>

#include <string_view>

#include "foundation/Crc16.h"
#include "foundation/Md5.h"

namespace krv {
namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

TEST(Crc16Test, MatchesTheKermitCheckValues) {
  EXPECT_EQ(crc16(bytesOf("123456789")), 0x2189);
  EXPECT_EQ(crc16({}), 0);
  EXPECT_EQ(crc16(bytesOf("A")), 0x538D);
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
