#include "foundation/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "foundation/Error.h"

namespace krv {
namespace {

struct ConversionCase {
  Number number;
  bool boolValue;
  std::int64_t integerValue;
  std::uint64_t unsignedValue;
  std::uint8_t unsignedCharValue;
  std::int32_t intValue;
};

TEST(NumberTest, ConvertsWithCRules) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const ConversionCase cases[] = {
      {Number::integer(0), false, 0, 0, 0, 0},
      {Number::integer(-1), true, -1, 0xFFFFFFFFFFFFFFFFull, 255, -1},
      {Number::integer(300), true, 300, 300, 44, 300},
      {Number::integer(0x1'0000'0005), true, 0x1'0000'0005, 0x1'0000'0005, 5, 5},
      {Number::unsignedInteger(0xFFFFFFFFFFFFFFFFull), true, -1, 0xFFFFFFFFFFFFFFFFull, 255, -1},
      {Number::real(2.9), true, 2, 2, 2, 2},
      {Number::real(-2.9), true, -2, 0xFFFFFFFFFFFFFFFEull, 254, -2},
      {Number::real(0.25), true, 0, 0, 0, 0},
      {Number::real(nan), true, 0, 0, 0, 0},
      {Number::real(1e300), true, std::numeric_limits<std::int64_t>::max(),
       std::numeric_limits<std::uint64_t>::max(), 255, -1},
      {Number::boolean(true), true, 1, 1, 1, 1},
      {Number::boolean(false), false, 0, 0, 0, 0},
  };
  for (const ConversionCase& c : cases) {
    SCOPED_TRACE(Value(c.number).description());
    EXPECT_EQ(c.number.boolValue(), c.boolValue);
    EXPECT_EQ(c.number.integerValue(), c.integerValue);
    EXPECT_EQ(c.number.unsignedIntegerValue(), c.unsignedValue);
    EXPECT_EQ(c.number.unsignedLongValue(), c.unsignedValue);
    EXPECT_EQ(c.number.unsignedCharValue(), c.unsignedCharValue);
    EXPECT_EQ(c.number.intValue(), c.intValue);
  }
}

TEST(NumberTest, UnsignedValuesInSignedRangeAreOrdinaryIntegers) {
  EXPECT_EQ(Number::unsignedInteger(5), Number::integer(5));
  EXPECT_EQ(Number::unsignedInteger(1ull << 63).kind(), Number::Kind::LargeUnsigned);
  EXPECT_FALSE(Number::integer(1) == Number::real(1.0));
  EXPECT_FALSE(Number::integer(1) == Number::boolean(true));
}

TEST(DictionaryTest, KeepsInsertionOrderAndReplacesInPlace) {
  Dictionary dictionary;
  dictionary.set("Path", Value("/a"));
  dictionary.set("Type", Value("NSFileTypeRegular"));
  dictionary.set("Path", Value("/b"));
  ASSERT_EQ(dictionary.size(), 2u);
  EXPECT_EQ(dictionary.entries()[0].first, "Path");
  EXPECT_EQ(*dictionary.find("Path")->asString(), "/b");
  EXPECT_TRUE(dictionary.remove("Path"));
  EXPECT_EQ(dictionary.find("Path"), nullptr);
}

// Small dictionaries are compared pairwise, larger ones sorted: both must name the same entry.
TEST(DictionaryTest, FindsTheFirstRepeatedKeyInSmallAndLargeDictionaries) {
  for (std::size_t size : {std::size_t{6}, std::size_t{40}}) {
    std::vector<Dictionary::Entry> entries;
    for (std::size_t i = 0; i < size; ++i) {
      entries.emplace_back("key" + std::to_string(i), Value::integer(0));
    }
    EXPECT_EQ(findDuplicateKey(entries), std::nullopt) << size;
    entries[size - 1].first = "key0";  // repeats the first key, last
    entries[4].first = "key2";         // repeats a later key, earlier
    EXPECT_EQ(findDuplicateKey(entries), 4u) << size;
  }
  EXPECT_EQ(findDuplicateKey({}), std::nullopt);
}

TEST(ValueTest, ComparesDeeplyAndObjectsByTheirItems) {
  Dictionary info;
  info.set("UnderlyingErrorCode", Value::integer(-60007));
  Value first(ObjectRef(std::make_shared<Error>("com.tavorin.privilegedCommand", 2, info)));
  Value second(ObjectRef(std::make_shared<Error>("com.tavorin.privilegedCommand", 2, info)));
  Value third(ObjectRef(std::make_shared<Error>("com.tavorin.privilegedCommand", 3, info)));
  EXPECT_EQ(first, second);
  EXPECT_FALSE(first == third);
  EXPECT_EQ(Value(Set{{Value::integer(1), Value::integer(2)}}),
            Value(Set{{Value::integer(2), Value::integer(1)}}));
  EXPECT_NE(first.objectAs<Error>(), nullptr);
}

}  // namespace
}  // namespace krv
