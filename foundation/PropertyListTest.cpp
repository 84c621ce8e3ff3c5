#include "foundation/PropertyList.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/Error.h"

namespace krv::plist {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

Dictionary dictionaryOf(std::vector<Dictionary::Entry> entries) {
  Dictionary dictionary;
  for (auto& [key, value] : entries) dictionary.append(key, value);
  return dictionary;
}

Bytes xmlDocument(std::string_view body) {
  return bytesOf("<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" +
                 std::string(body) + "</plist>\n");
}

std::string repeated(std::string_view text, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += text;
  return out;
}

void appendBigEndian(Bytes& out, std::uint64_t value, unsigned size) {
  for (unsigned i = size; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
}

// A binary list of raw object encodings (the first is the top object), with one-byte references.
Bytes binaryList(const std::vector<Bytes>& objects) {
  Bytes out = bytesOf("bplist00");
  std::vector<std::uint64_t> offsets;
  for (const Bytes& object : objects) {
    offsets.push_back(out.size());
    out.insert(out.end(), object.begin(), object.end());
  }
  const std::uint64_t tableOffset = out.size();
  const unsigned offsetSize = tableOffset < 256 ? 1 : tableOffset < 65536 ? 2 : 4;
  for (std::uint64_t offset : offsets) appendBigEndian(out, offset, offsetSize);
  out.insert(out.end(), 6, 0);
  out.push_back(static_cast<std::uint8_t>(offsetSize));
  out.push_back(1);
  appendBigEndian(out, objects.size(), 8);
  appendBigEndian(out, 0, 8);
  appendBigEndian(out, tableOffset, 8);
  return out;
}

// An array of `count` references, all to `target`.
Bytes arrayOfReferences(std::size_t count, std::uint8_t target) {
  Bytes object = {0xAF, 0x11};
  appendBigEndian(object, count, 2);
  object.insert(object.end(), count, target);
  return object;
}

// ---- Reading valid lists ----------------------------------------------------------------------

struct ValidCase {
  const char* name;
  Bytes input;
  Value expected;
};

void expectReads(Result<Value> (*reader)(std::span<const std::uint8_t>),
                 const std::vector<ValidCase>& cases) {
  for (const ValidCase& c : cases) {
    SCOPED_TRACE(c.name);
    Result<Value> value = reader(c.input);
    ASSERT_TRUE(value.ok()) << describeParseError(value.error());
    EXPECT_EQ(*value, c.expected) << value->description();
    // Detection picks the same reader.
    Result<Value> detected = read(c.input);
    ASSERT_TRUE(detected.ok()) << describeParseError(detected.error());
    EXPECT_EQ(*detected, c.expected);
  }
}

TEST(PropertyListTest, ReadsXml) {
  expectReads(
      readXml,
      {{"dictionary of scalars",
        xmlDocument("\n<dict>\n\t<key>Name</key>\n\t<string>x</string>\n\t<key>On</key><true/>"
                    "<key>Off</key><false></false><key>Blob</key><data>\n\tAAEC\n\tAw==\n\t"
                    "</data><key>When</key><date>2001-01-01T00:00:00Z</date></dict>\n"),
        Value(dictionaryOf({{"Name", Value("x")},
                            {"On", Value::boolean(true)},
                            {"Off", Value::boolean(false)},
                            {"Blob", Value(Data{0, 1, 2, 3})},
                            {"When", Value(Date{978307200.0})}}))},
       {"numbers",
        xmlDocument("<array><integer> -42 </integer><integer>0x1F</integer><integer>-0x10</integer>"
                    "<integer>+7</integer><integer>18446744073709551615</integer>"
                    "<integer>-9223372036854775808</integer><real>1.5</real><real>-1e3</real>"
                    "<real>.25</real><real>nan</real><real>-inf</real><real>+infinity</real>"
                    "<real>5e-324</real></array>"),
        Value(Array{Value::integer(-42), Value::integer(31), Value::integer(-16), Value::integer(7),
                    Value::unsignedInteger(UINT64_MAX), Value::integer(INT64_MIN), Value::real(1.5),
                    Value::real(-1000), Value::real(0.25), Value::real(NAN), Value::real(-INFINITY),
                    Value::real(INFINITY), Value::real(5e-324)})},
       {"text with references, CDATA, comments and CR LF",
        xmlDocument("<string>a&lt;b&gt;&amp;&quot;&apos;&#x41;&#66;&#x1F600;<![CDATA[<x>&amp;]]>"
                    "<!-- note --><?pi x?>\r\nz\r</string>"),
        Value("a<b>&\"'AB\xF0\x9F\x98\x80<x>&amp;\nz\n")},
       {"bare root value with BOM, DOCTYPE and trailing comment",
        bytesOf("\xEF\xBB\xBF<!DOCTYPE plist SYSTEM \"x.dtd\"><array><integer>1</integer></array>"
                "<!-- end -->\n"),
        Value(Array{Value::integer(1)})},
       {"dates around leap days and the calendar limits",
        xmlDocument("<array><date>2000-02-29T23:59:59Z</date><date>1969-12-31T23:59:59Z</date>"
                    "<date>0000-01-01T00:00:00Z</date><date>9999-12-31T23:59:59Z</date></array>"),
        Value(Array{Value(Date{951868799.0}), Value(Date{-1.0}), Value(Date{-62167219200.0}),
                    Value(Date{253402300799.0})})}});
}

TEST(PropertyListTest, ReadsBinary) {
  // { a = 1; b = (true, 2.5); } built by hand, with one-byte offsets and references.
  const Bytes list = {
      'b',  'p',  'l',  'i',  's',  't',  '0',  '0',         // header
      0xD2, 0x01, 0x02, 0x03, 0x04,                          // 8: dict, keys 1 2, values 3 4
      0x51, 'a',                                             // 13: "a"
      0x51, 'b',                                             // 15: "b"
      0x10, 0x01,                                            // 17: 1
      0xA2, 0x05, 0x06,                                      // 19: (5, 6)
      0x09,                                                  // 22: true
      0x23, 0x40, 0x04, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // 23: 2.5
      0x08, 0x0D, 0x0F, 0x11, 0x13, 0x16, 0x17,              // 32: offset table
      0,    0,    0,    0,    0,    0,    0x01, 0x01,        // 39: trailer
      0,    0,    0,    0,    0,    0,    0,    7,           // object count
      0,    0,    0,    0,    0,    0,    0,    0,           // top object
      0,    0,    0,    0,    0,    0,    0,    32,          // offset table offset
  };
  const auto sixteenBytes = [](std::uint8_t high, std::uint8_t low) {
    Bytes object = {0x14};
    object.insert(object.end(), 8, high);
    object.insert(object.end(), 8, low);
    return binaryList({object});
  };
  Bytes data = {0x4F, 0x10, 0x10};
  for (std::uint8_t i = 0; i < 16; ++i) data.push_back(i);
  expectReads(
      readBinary,
      {{"hand-built", list,
        Value(dictionaryOf({{"a", Value::integer(1)},
                            {"b", Value(Array{Value::boolean(true), Value::real(2.5)})}}))},
       {"four-byte integers are unsigned", binaryList({{0x12, 0xFF, 0xFF, 0xFF, 0xFF}}),
        Value::integer(0xFFFFFFFF)},
       {"eight-byte integers are signed",
        binaryList({{0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}}), Value::integer(-2)},
       {"sixteen-byte unsigned", sixteenBytes(0, 0xFF), Value::unsignedInteger(~0ull)},
       {"sixteen-byte negative", sixteenBytes(0xFF, 0xFF), Value::integer(-1)},
       {"float", binaryList({{0x22, 0x3F, 0xC0, 0x00, 0x00}}), Value::real(1.5)},
       {"date", binaryList({{0x33, 0xC1, 0xCD, 0x27, 0xE4, 0x40, 0, 0, 0}}), Value(Date{0.0})},
       {"data with extended count", binaryList({data}), Value(Data(data.begin() + 3, data.end()))},
       {"UTF-16 with a surrogate pair", binaryList({{0x63, 0x00, 0xE9, 0xD8, 0x3D, 0xDE, 0x00}}),
        Value("\xC3\xA9\xF0\x9F\x98\x80")},
       {"shared string and a set",
        binaryList({{0xA2, 0x01, 0x02}, {0x53, 'a', 'b', 'c'}, {0xC2, 0x01, 0x03}, {0x10, 0x05}}),
        Value(Array{Value("abc"), Value(Set{{Value("abc"), Value::integer(5)}})})}});
}

TEST(PropertyListTest, ReadsOpenStep) {
  expectReads(
      readOpenStep,
      {{"dictionary",
        bytesOf("// settings\n{\n  Name = \"A \\\"quoted\\\" \\\\ value\\n\";\n  /* list */ List = "
                "(one, 2, \"three\",);\n  Blob = <0fbd 7700>;\n  'single' = x.y/z-1$+:_;\n}\n"),
        Value(dictionaryOf({{"Name", Value("A \"quoted\" \\ value\n")},
                            {"List", Value(Array{Value("one"), Value("2"), Value("three")})},
                            {"Blob", Value(Data{0x0f, 0xbd, 0x77, 0x00})},
                            {"single", Value("x.y/z-1$+:_")}}))},
       {"escapes", bytesOf("\"\\a\\b\\f\\n\\r\\t\\v\\101\\351\\U00e9\\UD83D\\UDE00\\q\""),
        Value("\a\b\f\n\r\t\v"
              "A\xC3\xA9\xC3\xA9\xF0\x9F\x98\x80q")},
       {"empty containers", bytesOf("( (), {}, <> )"),
        Value(Array{Value(Array{}), Value(Dictionary{}), Value(Data{})})},
       {"strings-file form", bytesOf("/* c */ \"a\" = \"1\";\nb = (x);\n"),
        Value(dictionaryOf({{"a", Value("1")}, {"b", Value(Array{Value("x")})}}))},
       {"data at the top, not an XML tag", bytesOf("<0fbd AB>"), Value(Data{0x0f, 0xbd, 0xab})}});
}

// ---- Writing ----------------------------------------------------------------------------------

TEST(PropertyListTest, WritesExpectedXmlText) {
  const Value value(dictionaryOf({{"Name", Value("a<b & c>")},
                                  {"Count", Value::integer(-3)},
                                  {"Ratio", Value::real(0.1)},
                                  {"Empty", Value(Array{})},
                                  {"List", Value(Array{Value::boolean(true), Value(Dictionary{})})},
                                  {"Blob", Value(Data{1, 2, 3, 4})},
                                  {"When", Value(Date{978307200.75})}}));
  Result<Data> xml = writeXml(value);
  ASSERT_TRUE(xml.ok());
  EXPECT_EQ(std::string(xml->begin(), xml->end()),
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
            "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
            "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
            "<plist version=\"1.0\">\n<dict>\n"
            "\t<key>Name</key>\n\t<string>a&lt;b &amp; c&gt;</string>\n"
            "\t<key>Count</key>\n\t<integer>-3</integer>\n"
            "\t<key>Ratio</key>\n\t<real>0.1</real>\n"
            "\t<key>Empty</key>\n\t<array/>\n"
            "\t<key>List</key>\n\t<array>\n\t\t<true/>\n\t\t<dict/>\n\t</array>\n"
            "\t<key>Blob</key>\n\t<data>\n\tAQIDBA==\n\t</data>\n"
            "\t<key>When</key>\n\t<date>2001-01-01T00:00:00Z</date>\n"
            "</dict>\n</plist>\n");
}

TEST(PropertyListTest, XmlRoundTripKeepsEveryKind) {
  Data large(200);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
  Array nested = {Value("leaf")};  // as deep as the writer allows
  for (int depth = 1; depth < kMaximumPropertyListDepth - 1; ++depth) {
    nested = Array{Value(std::move(nested))};
  }
  const Value value(dictionaryOf({
      {"strings", Value(Array{Value(""), Value("tab\tline\nCR\rbell\x07 ]]> &amp; <x>"),
                              Value("\xC3\xA9\xF0\x9F\x98\x80")})},
      {"key with <&> and \r", Value("k")},
      {"integers", Value(Array{Value::integer(0), Value::integer(INT64_MIN),
                               Value::integer(INT64_MAX), Value::unsignedInteger(UINT64_MAX)})},
      {"reals", Value(Array{Value::real(0.1), Value::real(-0.0), Value::real(5e-324),
                            Value::real(123456789.125), Value::real(DBL_MAX), Value::real(INFINITY),
                            Value::real(-INFINITY), Value::real(NAN)})},
      {"booleans", Value(Array{Value::boolean(true), Value::boolean(false)})},
      {"dates", Value(Array{Value(Date{-62167219200.0}), Value(Date{253402300799.0}),
                            Value(Date{-1.0}), Value(Date{1700000000.0})})},
      {"data", Value(Array{Value(Data{}), Value(Data{0xFF}), Value(Data{1, 2}), Value(large)})},
      {"nested", Value(nested)},
      {"empty", Value(Dictionary{})},
  }));
  Result<Data> xml = writeXml(value);
  ASSERT_TRUE(xml.ok());
  Result<Value> back = readXml(*xml);
  ASSERT_TRUE(back.ok()) << describeParseError(back.error());
  EXPECT_EQ(*back, value);
}

TEST(PropertyListTest, WriterRefusesWhatXmlCannotHold) {
  Array tooDeep;
  for (int depth = 0; depth < kMaximumPropertyListDepth; ++depth) {
    tooDeep = Array{Value(std::move(tooDeep))};
  }
  const std::vector<std::pair<const char*, Value>> cases = {
      {"object", Value(Array{Value(ObjectRef(std::make_shared<Error>("d", 1)))})},
      {"NUL in a string", Value(std::string("a\0b", 3))},
      {"NUL in a key", Value(dictionaryOf({{std::string("a\0b", 3), Value("x")}}))},
      {"ill-formed UTF-8", Value("\xC0\x80")},
      {"NaN date", Value(Date{NAN})},
      {"nesting too deep", Value(std::move(tooDeep))},
  };
  for (const auto& [name, value] : cases) {
    SCOPED_TRACE(name);
    Result<Data> xml = writeXml(value);
    ASSERT_FALSE(xml.ok());
    EXPECT_TRUE(xml.error().is(kPosixErrorDomain, EINVAL));
    EXPECT_EQ(describeParseError(xml.error()), "");  // not a parse error
  }
}

// ---- Hostile input: the fuzzers try the variants, these pin one case of each kind --------------

// Each input with the text expected within the description of its error.
void expectRejects(Result<Value> (*reader)(std::span<const std::uint8_t>),
                   const std::vector<std::pair<Bytes, const char*>>& cases) {
  for (std::size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(testing::Message() << "case " << i << ": " << cases[i].second);
    Result<Value> value = reader(cases[i].first);
    ASSERT_FALSE(value.ok()) << value->description();
    EXPECT_TRUE(value.error().is("NSCocoaErrorDomain", 3840));
    EXPECT_NE(describeParseError(value.error()).find(cases[i].second), std::string::npos)
        << describeParseError(value.error());
  }
}

TEST(PropertyListTest, RejectsHostileXml) {
  expectRejects(
      readXml,
      {{bytesOf("<plist>\n<string>abc"), "line 2: unterminated <string>"},
       {xmlDocument("<!-- x <string/>"), "unterminated comment"},
       {xmlDocument("\n<dict>\n</array>"), "line 4: unexpected </array> inside <dict>"},
       {xmlDocument("<string>\xC3\x28</string>"), "invalid UTF-8"},
       {xmlDocument("<string>\x01</string>"), "control character"},
       {bytesOf("<!DOCTYPE plist [<!ENTITY a \"b\">]><string>&a;</string>"), "internal subset"},
       {xmlDocument("<string>&nbsp;</string>"), "unknown entity"},
       {xmlDocument("<dict><key>a</key><true/><key>b</key><true/>\n<key>a</key><true/></dict>"),
        "line 3: duplicate key \"a\""},
       {xmlDocument("<dict><key>a</key></dict>"), "missing value for key"},
       {xmlDocument("<dict><string>a</string></dict>"), "expected <key>"},
       {xmlDocument("<data>AA*A</data>"), "invalid base64"},
       {xmlDocument("<date>2021-02-29T00:00:00Z</date>"), "invalid <date>"},
       {xmlDocument("<integer>18446744073709551616</integer>"), "invalid <integer>"},
       {xmlDocument("<real>1e400</real>"), "invalid <real>"},
       {xmlDocument("<integers/>"), "unknown element <integers>"},
       {xmlDocument("<true/><false/>"), "more than one value"},
       {bytesOf("<plist><true/></plist><x/>"), "after the root"},
       {bytesOf("<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist/>"), "unsupported encoding"},
       {xmlDocument(repeated("<array>", 200)), "nesting deeper than 128 levels"}});
}

TEST(PropertyListTest, RejectsHostileBinary) {
  const Bytes one = binaryList({{0x10, 0x01}});
  const auto edited = [&one](std::size_t index, std::uint8_t byte) {
    Bytes copy = one;
    copy[index] = byte;
    return copy;
  };
  std::vector<Bytes> deep;
  for (int i = 0; i < 200; ++i) deep.push_back({0xA1, static_cast<std::uint8_t>(i + 1)});
  deep.push_back({0x09});
  std::vector<Bytes> bomb;  // each level 1000 references to the next: 1000^4 values if expanded
  for (std::uint8_t level = 0; level < 4; ++level) {
    bomb.push_back(arrayOfReferences(1000, level + 1));
  }
  bomb.push_back({0x09});
  Bytes big = {0x5F, 0x12, 0x00, 0x01, 0x00, 0x00};  // a 64 KiB string, referred to 200 times
  big.resize(big.size() + 65536, 'x');

  expectRejects(
      readBinary,
      {{bytesOf("bplist00"), "offset 0: too short"},
       {bytesOf("bplist01" + std::string(40, '\0')), "unsupported binary list version"},
       {Bytes(one.begin(), one.end() - 1), "invalid offset size"},  // trailer cut short
       {edited(one.size() - 2, 0x7F), "offset table out of range"},
       {edited(10, 0xF0), "object offset out of range"},
       {binaryList({{0xA1, 0x05}, {0x09}}), "object reference out of range"},
       {binaryList({{0xA1, 0x01}, {0xA2, 0x02, 0x00}, {0x09}}), "cycle"},  // 0 -> 1 -> 0
       {binaryList(deep), "nesting deeper than 128 levels"},
       {binaryList(bomb), "size limit"},                              // reference bomb
       {binaryList({arrayOfReferences(200, 1), big}), "size limit"},  // string bomb
       {binaryList({{0x5F, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}}),
        "runs past the object area"},
       {binaryList({{0xAF, 0x12, 0x10, 0x00, 0x00, 0x00}}), "runs past the object area"},
       {binaryList({{0x4F, 0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}),
        "invalid count"},
       {binaryList({{0xD1, 0x01, 0x01}, {0x10, 0x01}}), "key is not a string"},
       {binaryList({{0xD2, 0x01, 0x01, 0x02, 0x02}, {0x51, 'k'}, {0x09}}), "duplicate key \"k\""},
       {binaryList({{0xC2, 0x01, 0x01}, {0x10, 0x01}}), "same value twice"},
       {binaryList({{0x80, 0x01}}), "unsupported object type 0x80"},  // UID
       {binaryList({{0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}}),
        "integer out of range"},
       {binaryList({{0x23, 0x40}}), "truncated real"}});
}

TEST(PropertyListTest, RejectsHostileOpenStep) {
  expectRejects(readOpenStep,
                {{bytesOf("  // nothing\n"), "line 2: no value"},
                 {bytesOf("{ a = \"abc;\n}\n"), "line 1: unterminated string"},
                 {bytesOf("( a, /* b )"), "unterminated comment"},
                 {bytesOf("{ a = b;"), "unterminated dictionary"},
                 {bytesOf("<0011"), "unterminated data"},
                 {bytesOf("{ a = b }"), "expected ';'"},
                 {bytesOf("<001>"), "odd number"},
                 {bytesOf("{ (a) = b; }"), "key is not a string"},
                 {bytesOf("{\n a = 1;\n b = 2;\n \"a\" = 3;\n}"), "line 4: duplicate key \"a\""},
                 {bytesOf("a = 1; a = 2;"), "duplicate key"},
                 {bytesOf("(a) )"), "after the value"},
                 {bytesOf(repeated("(", 200)), "nesting deeper than 128 levels"}});
}

TEST(PropertyListTest, ManyKeysTakeNoQuadraticTime) {
  // About 1.5 MiB with 100000 keys each; a quadratic duplicate check would not finish in time.
  constexpr std::size_t kKeys = 100000;
  std::string xml = "<plist><dict>";
  std::string openStep = "{";
  for (std::size_t i = 0; i < kKeys; ++i) {
    xml += "<key>key" + std::to_string(i) + "</key><true/>";
    openStep += "key" + std::to_string(i) + "=v;";
  }
  Result<Value> fromXml = readXml(bytesOf(xml + "</dict></plist>"));
  Result<Value> fromOpenStep = readOpenStep(bytesOf(openStep + "}"));
  ASSERT_TRUE(fromXml.ok() && fromOpenStep.ok());
  EXPECT_EQ(fromXml->asDictionary()->size(), kKeys);
  EXPECT_EQ(fromOpenStep->asDictionary()->size(), kKeys);
  // The same key once more at the end is found.
  EXPECT_FALSE(readXml(bytesOf(xml + "<key>key0</key><true/></dict></plist>")).ok());
}

}  // namespace
}  // namespace krv::plist
