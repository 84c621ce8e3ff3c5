#include "foundation/NameValue.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "foundation/Archiver.h"

namespace krv {
namespace {

// Reverses escapedName, so that the tests can show that nothing is lost.
std::string unescaped(std::string_view text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '\\' || i + 1 >= text.size()) {
      bytes += text[i];
      continue;
    }
    const char kind = text[++i];
    if (kind == 'x' && i + 2 < text.size()) {
      bytes +=
          static_cast<char>(std::strtoul(std::string(text.substr(i + 1, 2)).c_str(), nullptr, 16));
      i += 2;
    } else {
      bytes += kind == 't' ? '\t' : kind == 'n' ? '\n' : kind == 'r' ? '\r' : kind;
    }
  }
  return bytes;
}

bool showsNothingHidden(std::string_view text) {
  for (std::size_t offset = 0; offset < text.size();) {
    const Utf8Character character = utf8CharacterAt(text, offset);
    if (!character.valid || isHiddenCharacter(character.codePoint)) return false;
    offset += character.length;
  }
  return true;
}

TEST(NameValueTest, EveryNameHasOneEncodingAndCrossesTheWireUnchanged) {
  const struct {
    std::string bytes;
    bool text;
  } cases[] = {
      {"", true},
      {"/tmp/plain", true},
      {"/tmp/caf\xc3\xa9/\xf0\x9f\x93\x81", true},
      {std::string("nul\0inside", 10), true},
      {"/tmp/bad\xffname", false},
      {"\xc0\x80", false},          // overlong NUL
      {"\xed\xa0\x80", false},      // a surrogate
      {"\xf4\x90\x80\x80", false},  // past U+10FFFF
      {"cut \xe2\x82", false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(escapedName(c.bytes));
    const Value value = nameValue(c.bytes);
    EXPECT_EQ(value.type(), c.text ? ValueType::String : ValueType::Data);
    EXPECT_TRUE(isNameValue(value));
    Result<Value> received =
        unarchiveSequential(archiveSequential(value), ClassRegistry::errorObjects());
    ASSERT_TRUE(received) << received.error().operation();
    EXPECT_EQ(nameBytes(*received), c.bytes);
  }
  // Bytes that are UTF-8 must come as text, and only strings and bytes are names.
  EXPECT_FALSE(isNameValue(Value(Data{'/', 't', 'm', 'p'})));
  EXPECT_FALSE(isNameValue(Value::integer(1)));
  EXPECT_EQ(nameBytes(Value::integer(1)), std::nullopt);
}

TEST(NameValueTest, EscapesWhatCouldForgeALineOrReachTheTerminal) {
  const std::pair<std::string, std::string> cases[] = {
      {"/tmp/caf\xc3\xa9 ok", "/tmp/caf\xc3\xa9 ok"},
      {"a\n/etc/shadow", "a\\n/etc/shadow"},
      {"back\\slash", "back\\\\slash"},
      {"\x1b]0;title\x07", "\\x1b]0;title\\x07"},
      {"bad\xffname", "bad\\xffname"},
      {"csi\xc2\x9b", "csi\\xc2\\x9b"},                 // U+009B, a one-character escape sequence
      {"abc\xe2\x80\xaetxt", "abc\\xe2\\x80\\xaetxt"},  // right-to-left override
  };
  for (const auto& [bytes, shown] : cases) {
    EXPECT_EQ(escapedName(bytes), shown);
  }
}

TEST(NameValueTest, EscapingLosesNothingAndHidesNothing) {
  std::vector<std::string> samples = {"\\x41", "\\\\n", "\xe2\x80\xa8", "\xf0\x9f\x93\x81\xff"};
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      samples.push_back({static_cast<char>(first), static_cast<char>(second)});
    }
  }
  for (const std::string& bytes : samples) {
    const std::string shown = escapedName(bytes);
    ASSERT_EQ(unescaped(shown), bytes) << shown;
    ASSERT_TRUE(showsNothingHidden(shown)) << shown;
  }
}

}  // namespace
}  // namespace krv
