#include "foundation/ByteOrder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace krv {
namespace {

TEST(ByteOrderTest, MostSignificantByteGoesWhereTheOrderSays) {
  const std::uint8_t bytes[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x88};
  EXPECT_EQ(loadBigEndian<std::uint16_t>(bytes), 0x0102U);
  EXPECT_EQ(loadBigEndian<std::uint32_t>(bytes + 4), 0x05060788U);
  EXPECT_EQ(loadBigEndian<std::uint64_t>(bytes), 0x0102030405060788ULL);
  EXPECT_EQ(loadLittleEndian<std::uint16_t>(bytes), 0x0201U);
  EXPECT_EQ(loadLittleEndian<std::uint32_t>(bytes + 4), 0x88070605U);
  EXPECT_EQ(loadLittleEndian<std::uint64_t>(bytes), 0x8807060504030201ULL);

  std::vector<std::uint8_t> out;
  appendBigEndian(out, std::uint32_t{0x012cc16d});
  appendLittleEndian(out, std::uint16_t{0xBEEF});
  appendBigEndian(out, std::uint64_t{0x8000000000000001});
  EXPECT_EQ(out, (std::vector<std::uint8_t>{0x01, 0x2c, 0xc1, 0x6d, 0xEF, 0xBE, 0x80, 0, 0, 0, 0, 0,
                                            0, 0x01}));
  std::uint8_t stored[4] = {};
  storeLittleEndian(stored, std::uint32_t{0xA1B2C3D4});
  EXPECT_EQ(loadBigEndian<std::uint32_t>(stored), 0xD4C3B2A1U);
}

}  // namespace
}  // namespace krv
