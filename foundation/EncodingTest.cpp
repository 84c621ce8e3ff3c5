// Base64, ISO 8601 dates and byte order: the small encodings every reader and writer shares.

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "foundation/Base64.h"
#include "foundation/ByteOrder.h"
#include "foundation/IsoDate.h"

namespace krv {
namespace {

Data bytesOf(std::string_view text) { return Data(text.begin(), text.end()); }

TEST(Base64Test, EncodesTheStandardVectorsAndDecodesThemBack) {
  const std::pair<std::string, std::string> vectors[] = {
      {"", ""},
      {"f", "Zg=="},
      {"fo", "Zm8="},
      {"foo", "Zm9v"},
      {"foob", "Zm9vYg=="},
      {"fooba", "Zm9vYmE="},
      {"foobar", "Zm9vYmFy"},
      {"\xff\xfe", "//4="},
  };
  for (const auto& [plain, encoded] : vectors) {
    EXPECT_EQ(encodeBase64(bytesOf(plain)), encoded);
    EXPECT_EQ(decodeBase64(encoded), bytesOf(plain)) << encoded;
  }
}

TEST(Base64Test, DecodingSkipsWhiteSpaceAndRefusesMisplacedPadding) {
  EXPECT_EQ(decodeBase64(" Zm9v\n\tYmFy\r\n"), bytesOf("foobar"));
  EXPECT_EQ(decodeBase64("Zm8"), bytesOf("fo"));  // padding is optional
  for (std::string_view bad : {"Z", "Zm9vY", "Zg=a", "Zg===", "Z===", "Zm9v*", "Zg=\n=x"}) {
    EXPECT_EQ(decodeBase64(bad), std::nullopt) << bad;
  }
}

TEST(IsoDateTest, WritesAndReadsYearsZeroToNineThousandNineHundredNinetyNine) {
  const std::pair<double, std::string> dates[] = {
      {0.0, "1970-01-01T00:00:00Z"},
      {-1.0, "1969-12-31T23:59:59Z"},
      {951868799.0, "2000-02-29T23:59:59Z"},
      {-62135596800.0, "0001-01-01T00:00:00Z"},  // four digits, also below the year 1000
      {-62167219200.0, "0000-01-01T00:00:00Z"},
      {253402300799.0, "9999-12-31T23:59:59Z"},
  };
  for (const auto& [seconds, text] : dates) {
    EXPECT_EQ(formatIsoDate(seconds), text);
    EXPECT_EQ(parseIsoDate(text), seconds) << text;
  }
  EXPECT_EQ(formatIsoDate(0.75), "1970-01-01T00:00:00Z");
  EXPECT_EQ(formatIsoDate(-0.25), "1969-12-31T23:59:59Z");  // rounded down, not toward zero
  const double outside[] = {253402300800.0, -62167219201.0, std::nan(""), HUGE_VAL};
  for (double seconds : outside) {
    EXPECT_EQ(formatIsoDate(seconds), std::nullopt) << seconds;
  }
  for (std::string_view bad :
       {"2021-02-29T00:00:00Z", "2000-01-01T24:00:00Z", "2000-01-01 00:00:00Z",
        "2000-01-01T00:00:00", "+2000-01-01T00:00Z"}) {
    EXPECT_EQ(parseIsoDate(bad), std::nullopt) << bad;
  }
}

TEST(ByteOrderTest, LoadsAndStoresEitherOrderWhateverTheHost) {
  const std::uint8_t bytes[8] = {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x08};
  EXPECT_EQ(loadLittleEndian<std::uint16_t>(bytes), 0x0201u);
  EXPECT_EQ(loadBigEndian<std::uint16_t>(bytes), 0x0102u);
  EXPECT_EQ(loadLittleEndian<std::uint32_t>(bytes), 0x04030201u);
  EXPECT_EQ(loadBigEndian<std::uint32_t>(bytes), 0x01020304u);
  EXPECT_EQ(loadLittleEndian<std::uint64_t>(bytes), 0x0807060504030201u);
  EXPECT_EQ(loadBigEndian<std::uint64_t>(bytes), 0x0102030405060708u);

  std::uint8_t out[8] = {};
  storeBigEndian<std::uint64_t>(out, 0x0102030405060708u);
  EXPECT_TRUE(std::equal(out, out + 8, bytes));
  storeLittleEndian<std::uint32_t>(out, 0x04030201u);
  storeLittleEndian<std::uint32_t>(out + 4, 0x08070605u);
  EXPECT_TRUE(std::equal(out, out + 8, bytes));
}

}  // namespace
}  // namespace krv
