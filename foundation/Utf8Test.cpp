#include "foundation/Utf8.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <string>

namespace krv {
namespace {

constexpr std::size_t kValid = std::string_view::npos;

// Runs of ASCII are checked eight bytes at a time: the fault must be found wherever it falls
// relative to those runs.
TEST(Utf8Test, FindsTheFirstIllFormedByteWhereverItFalls) {
  const struct {
    std::string bytes;
    std::size_t invalidAt;
  } cases[] = {
      {"", kValid},
      {"plain ascii, longer than one run of eight", kValid},
      {"1234567\x80", 7},
      {"12345678\x80", 8},
      {"123456789abcdef\xff", 15},
      {"1234567\xc3\xa9 straddles a run", kValid},
      {"123456\xf0\x9f\x93\x81 four bytes across the boundary", kValid},
      {"\xe0\xa0\x80 and \xf4\x8f\xbf\xbf, the smallest three and largest four", kValid},
      {"abcdefgh\xc0\x80", 8},          // overlong NUL
      {"abcdefgh\xe0\x9f\xbf", 8},      // overlong below U+0800
      {"abcdefgh\xf0\x8f\xbf\xbf", 8},  // overlong below U+10000
      {"abc\xed\xa0\x80", 3},           // a surrogate
      {"abc\xf4\x90\x80\x80", 3},       // past U+10FFFF
      {"abc\xf5\x80\x80\x80", 3},
      {"abcdefgh\xe2\x82", 8},  // cut at the end
      {"ok \xe2\x82 then more text after it", 3},
      {"\xc3\xa9\xc3", 2},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bytes);
    EXPECT_EQ(findInvalidUtf8(c.bytes), c.invalidAt);
    EXPECT_EQ(isValidUtf8(c.bytes), c.invalidAt == kValid);
  }
}

TEST(Utf8Test, ReadsBackEveryCodePointItWrites) {
  for (char32_t codePoint :
       {0x0u, 0x7Fu, 0x80u, 0x7FFu, 0x800u, 0xD7FFu, 0xE000u, 0xFFFFu, 0x10000u, 0x10FFFFu}) {
    std::string bytes = "x";
    appendUtf8(bytes, codePoint);
    const Utf8Character character = utf8CharacterAt(bytes, 1);
    EXPECT_TRUE(character.valid) << static_cast<std::uint32_t>(codePoint);
    EXPECT_EQ(static_cast<std::uint32_t>(character.codePoint), codePoint);
    EXPECT_EQ(character.length, bytes.size() - 1);
  }
  EXPECT_FALSE(utf8CharacterAt("\xe2\x82", 0).valid);
  EXPECT_EQ(utf8CharacterAt("\xe2\x82", 0).length, 1u);
  EXPECT_FALSE(utf8CharacterAt("ab", 2).valid);  // past the end
}

}  // namespace
}  // namespace krv
