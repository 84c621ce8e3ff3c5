#include "tools/securityagentctl/ResultPrinter.h"

#include <gtest/gtest.h>

#include <cmath>

namespace krv::ctl {
namespace {

// A file's times are whatever its owner set: the text is ISO 8601 with four-digit years where
// that form exists, and the seconds elsewhere.
TEST(ResultPrinterTest, WritesEveryDateAFileCanCarry) {
  const std::pair<double, std::string> dates[] = {
      {1706702400.0, "\"2024-01-31T12:00:00Z\""},
      {-62135596800.0, "\"0001-01-01T00:00:00Z\""},
      {253402300800.0, "\"253402300800\""},
      {NAN, "\"nan\""},
  };
  for (const auto& [seconds, json] : dates) {
    EXPECT_EQ(toJson(Value(Date{seconds})), json) << seconds;
  }
  EXPECT_EQ(toJson(Value(Data{0xff, 0xfe, 'a'})), "{\"base64\":\"//5h\"}");
}

}  // namespace
}  // namespace krv::ctl
