#include "foundation/Uuid.h"

#include <gtest/gtest.h>

#include <string_view>

namespace krv {
namespace {

const Uuid kSample = {0x01, 0x23, 0x45, 0x67, 0x89, 0xAB, 0xCD, 0xEF,
                      0xFE, 0xDC, 0xBA, 0x98, 0x76, 0x54, 0x32, 0x10};

TEST(UuidTest, CanonicalTextIsUpperCaseAndGrouped) {
  EXPECT_EQ(uuidString(kSample), "01234567-89AB-CDEF-FEDC-BA9876543210");
  EXPECT_EQ(uuidString(Uuid{}), "00000000-0000-0000-0000-000000000000");
}

TEST(UuidTest, ParsesWhatPeopleTypeAndNothingElse) {
  for (const char* text : {
           "01234567-89AB-CDEF-FEDC-BA9876543210",
           "01234567-89ab-cdef-fedc-ba9876543210",
           "0123456789abCDEFfedcba9876543210",
           "{01234567-89AB-CDEF-FEDC-BA9876543210}",
           "{0123456789ABCDEFFEDCBA9876543210}",
       }) {
    EXPECT_EQ(parseUuid(text), kSample) << text;
  }
  for (const char* text : {
           "",
           "01234567-89AB-CDEF-FEDC-BA987654321",    // a digit short
           "01234567-89AB-CDEF-FEDC-BA98765432100",  // a digit over
           "01234567-89AB-CDEF-FEDCBA9876543210-",   // a hyphen moved
           "0123456789AB-CDEF-FEDC-BA9876543210",    // some hyphens only
           " 01234567-89AB-CDEF-FEDC-BA9876543210",
           "01234567-89AB-CDEF-FEDC-BA987654321G",
           "{01234567-89AB-CDEF-FEDC-BA9876543210",
           "urn:uuid:01234567-89AB-CDEF-FEDC-BA98",
       }) {
    EXPECT_EQ(parseUuid(text), std::nullopt) << text;
  }
  EXPECT_EQ(parseUuid(std::string_view("01234567-89AB-CDEF-FEDC-BA98765432\0"
                                       "0",
                                       36)),
            std::nullopt);
}

}  // namespace
}  // namespace krv
