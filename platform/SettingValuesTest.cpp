#include "platform/SettingValues.h"

#include <gtest/gtest.h>

#include <climits>

#include "platform/KernelValues.h"
#include "platform/PreferenceStore.h"

namespace krv {
namespace {

TEST(SettingValuesTest, BooleansAreExactlyTrueOrFalse) {
  EXPECT_EQ(convertSettingValue(SettingValueType::Boolean, "true"), Value::boolean(true));
  EXPECT_EQ(convertSettingValue(SettingValueType::Boolean, "false"), Value::boolean(false));
  for (const char* text : {"TRUE", "1", "yes", " true", ""}) {
    EXPECT_FALSE(convertSettingValue(SettingValueType::Boolean, text)) << text;
  }
  for (SettingValueType type : {SettingValueType::Boolean, SettingValueType::Number,
                                SettingValueType::String, SettingValueType::Data}) {
    EXPECT_FALSE(convertSettingValue(type, std::nullopt));
  }
}

TEST(SettingValuesTest, NumbersAreTheLeadingDigitsHeldAtTheLimits) {
  const std::pair<const char*, std::int64_t> cases[] = {
      {"42", 42},
      {"  -17 apples", -17},
      {"+8", 8},
      {"\xc2\xa0\t9", 9},  // Unicode white space too
      {"abc", 0},
      {"", 0},
      {"- 5", 0},
      {"9223372036854775807", LLONG_MAX},
      {"9223372036854775808", LLONG_MAX},
      {"-9223372036854775808", LLONG_MIN},
      {"-99999999999999999999999", LLONG_MIN},
  };
  for (const auto& [text, value] : cases) {
    EXPECT_EQ(convertSettingValue(SettingValueType::Number, text), Value::integer(value)) << text;
  }
}

TEST(SettingValuesTest, DataIsPercentHexWithRoomForALengthThirdOfBytes) {
  const std::pair<const char*, std::optional<Data>> cases[] = {
      {"%01%ff", Data{0x01, 0xFF}},
      {"% 1 %0xA", Data{0x01, 0x0A}},
      {"%1%2%3", Data{1, 2}},  // room for two; the rest is ignored
      {"%41   ", Data{0x41}},  // the text ends before the room is full
      {"   ", Data{}},
      {"%1", std::nullopt},  // shorter than three characters
      {"%100", std::nullopt},
      {"%fffffffffff", std::nullopt},
      {"%zz", std::nullopt},
      {"01%02", std::nullopt},
      {"%01xyz", std::nullopt},
      {"%01%02\xc3\xa9\xc3\xa9", Data{1, 2}},  // characters, not bytes, make the room
      {"%0x", Data{0x00}},                     // "0x" without a digit after it is the number 0
  };
  for (const auto& [text, bytes] : cases) {
    EXPECT_EQ(percentHexBytes(text), bytes) << text;
  }
  EXPECT_EQ(convertSettingValue(SettingValueType::String, "%01"), Value("%01"));
}

TEST(SettingValuesTest, SettingAndDomainNamesThatNameNoFileAreRefused) {
  EXPECT_EQ(KernelValues::pathComponentsOf("net.ipv4.conf.v0/forwarding").value(),
            (std::vector<std::string>{"net", "ipv4", "conf", "v0", "forwarding"}));
  for (const char* name : {"", ".", "a..b", "a.", "/a", "a//b", "a/../b", "a/./b"}) {
    EXPECT_FALSE(KernelValues::pathComponentsOf(name)) << name;
  }
  EXPECT_TRUE(PreferenceStore::isValidName(".GlobalPreferences"));
  // "." is a regression: a configuration store named so would be its own folder.
  for (const char* name : {"", ".", "..", "a/b", "a..b", "/etc/passwd"}) {
    EXPECT_FALSE(PreferenceStore::isValidName(name)) << name;
  }
  EXPECT_FALSE(PreferenceStore::isValidName(std::string("a\0b", 3)));
}

}  // namespace
}  // namespace krv
