#include "foundation/ByteOrder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace krv {
namespace {

TEST(ByteOrderTest, MostSignificantByteGoesWhereTheOrderSays) {
  const std::uint8_t bytes[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88};
  EXPECT_EQ(loadBigEndian<std::uint64_t>(bytes), 0x0102030405060788ULL);
  EXPECT_EQ(loadLittleEndian<std::uint64_t>(bytes), 0x8807060504030201ULL);
  EXPECT_EQ(loadLittleEndian<std::uint16_t>(bytes + 6), 0x8807U);

  std::vector<std::uint8_t> out;
  appendBigEndian(out, std::uint32_t{0x012cc16d});
  appendLittleEndian(out, std::uint16_t{0xBEEF});
  EXPECT_EQ(out, (std::vector<std::uint8_t>{0x01, 0x2c, 0xc1, 0x6d, 0xEF, 0xBE}));
}

}  // namespace
}  // namespace krv
