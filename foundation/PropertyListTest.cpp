#include "foundation/PropertyList.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "foundation/Archivable.h"

namespace krv::plist {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text) { return Bytes(text.begin(), text.end()); }

Dictionary dictionaryOf(std::vector<Dictionary::Entry> entries) {
  Dictionary dictionary;
  for (auto& [key, value] : entries) dictionary.append(key, value);
  return dictionary;
}

std::string xmlDocument(std::string_view body) {
  return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\">" + std::string(body) +
         "</plist>\n";
}

// Assembles a binary list from raw object encodings: header, objects, offset table, trailer.
class BinaryList {
 public:
  std::uint64_t add(Bytes object) {
    m_objects.push_back(std::move(object));
    return m_objects.size() - 1;
  }
  Bytes finish(std::uint64_t top = 0, unsigned referenceSize = 1) const {
    Bytes out = bytesOf("bplist00");
    std::vector<std::uint64_t> offsets;
    for (const Bytes& object : m_objects) {
      offsets.push_back(out.size());
      out.insert(out.end(), object.begin(), object.end());
    }
    const std::uint64_t tableOffset = out.size();
    const unsigned offsetSize = tableOffset < 256 ? 1 : tableOffset < 65536 ? 2 : 4;
    for (std::uint64_t offset : offsets) appendBigEndian(out, offset, offsetSize);
    out.insert(out.end(), 6, 0);
    out.push_back(static_cast<std::uint8_t>(offsetSize));
    out.push_back(static_cast<std::uint8_t>(referenceSize));
    appendBigEndian(out, m_objects.size(), 8);
    appendBigEndian(out, top, 8);
    appendBigEndian(out, tableOffset, 8);
    return out;
  }
  static void appendBigEndian(Bytes& out, std::uint64_t value, unsigned size) {
    for (unsigned i = size; i-- > 0;) out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
  }

 private:
  std::vector<Bytes> m_objects;
};

// An array of `count` references, all to `target`.
Bytes arrayOfReferences(std::size_t count, std::uint8_t target) {
  Bytes object = {0xAF, 0x11};
  BinaryList::appendBigEndian(object, count, 2);
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
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const double inf = std::numeric_limits<double>::infinity();
  const std::vector<ValidCase> cases = {
      {"dictionary of scalars",
       bytesOf(
           xmlDocument("\n<dict>\n\t<key>Name</key>\n\t<string>x</string>\n\t<key>On</key><true/>"
                       "<key>Off</key><false></false><key>Blob</key><data>\n\tAAEC\n\tAw==\n\t"
                       "</data><key>When</key><date>2001-01-01T00:00:00Z</date></dict>\n")),
       Value(dictionaryOf({{"Name", Value("x")},
                           {"On", Value::boolean(true)},
                           {"Off", Value::boolean(false)},
                           {"Blob", Value(Data{0, 1, 2, 3})},
                           {"When", Value(Date{978307200.0})}}))},
      {"integers",
       bytesOf(xmlDocument("<array><integer> -42 </integer><integer>0x1F</integer>"
                           "<integer>-0x10</integer><integer>+7</integer>"
                           "<integer>18446744073709551615</integer>"
                           "<integer>-9223372036854775808</integer></array>")),
       Value(Array{Value::integer(-42), Value::integer(31), Value::integer(-16), Value::integer(7),
                   Value::unsignedInteger(18446744073709551615ull),
                   Value::integer(std::numeric_limits<std::int64_t>::min())})},
      {"reals",
       bytesOf(xmlDocument("<array><real>1.5</real><real>-1e3</real><real>.25</real>"
                           "<real>nan</real><real>-inf</real><real>+infinity</real>"
                           "<real>5e-324</real></array>")),
       Value(Array{Value::real(1.5), Value::real(-1000), Value::real(0.25), Value::real(nan),
                   Value::real(-inf), Value::real(inf), Value::real(5e-324)})},
      {"text with references, CDATA, comments and CR LF",
       bytesOf(
           xmlDocument("<string>a&lt;b&gt;&amp;&quot;&apos;&#x41;&#66;&#x1F600;<![CDATA[<x>&amp;]]>"
                       "<!-- note --><?pi x?>\r\nz\r</string>")),
       Value("a<b>&\"'AB\xF0\x9F\x98\x80<x>&amp;\nz\n")},
      {"empty elements",
       bytesOf(xmlDocument("<array><array/><dict/><string/><data/><string></string></array>")),
       Value(Array{Value(Array{}), Value(Dictionary{}), Value(""), Value(Data{}), Value("")})},
      {"bare root value with BOM, DOCTYPE and trailing comment",
       bytesOf("\xEF\xBB\xBF<!DOCTYPE plist SYSTEM \"x.dtd\"><array><integer>1</integer></array>"
               "<!-- end -->\n"),
       Value(Array{Value::integer(1)})},
      {"bare empty dictionary", bytesOf("<dict/>"), Value(Dictionary{})},
      {"dates around leap days and the calendar limits",
       bytesOf(
           xmlDocument("<array><date>2000-02-29T23:59:59Z</date><date>1969-12-31T23:59:59Z</date>"
                       "<date>0000-01-01T00:00:00Z</date><date>9999-12-31T23:59:59Z</date>"
                       "</array>")),
       Value(Array{Value(Date{951868799.0}), Value(Date{-1.0}), Value(Date{-62167219200.0}),
                   Value(Date{253402300799.0})})},
  };
  expectReads(readXml, cases);
}

TEST(PropertyListTest, ReadsHandBuiltBinaryList) {
  // { a = 1; b = (true, 2.5); } with one-byte offsets and references.
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
  expectReads(
      readBinary,
      {{"hand-built", list,
        Value(dictionaryOf({{"a", Value::integer(1)},
                            {"b", Value(Array{Value::boolean(true), Value::real(2.5)})}}))}});
}

TEST(PropertyListTest, ReadsBinaryScalarsAndContainers) {
  const auto single = [](Bytes object) {
    BinaryList list;
    list.add(std::move(object));
    return list.finish();
  };
  BinaryList shared;  // one string referred to twice, and a set
  shared.add({0xA2, 0x01, 0x02});
  shared.add({0x53, 'a', 'b', 'c'});
  shared.add({0xC2, 0x01, 0x03});
  shared.add({0x10, 0x05});
  const std::vector<ValidCase> cases = {
      {"two-byte integer", single({0x11, 0x12, 0x34}), Value::integer(0x1234)},
      {"four-byte integers are unsigned", single({0x12, 0xFF, 0xFF, 0xFF, 0xFF}),
       Value::integer(0xFFFFFFFF)},
      {"eight-byte integers are signed",
       single({0x13, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}), Value::integer(-2)},
      {"sixteen-byte unsigned",
       single({0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
       Value::unsignedInteger(~0ull)},
      {"sixteen-byte negative",
       single({0x14, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
               0xFF, 0xFF, 0xFF}),
       Value::integer(-1)},
      {"float", single({0x22, 0x3F, 0xC0, 0x00, 0x00}), Value::real(1.5)},
      {"date", single({0x33, 0xC1, 0xCD, 0x27, 0xE4, 0x40, 0, 0, 0}), Value(Date{0.0})},
      {"data with extended count",
       single({0x4F, 0x10, 0x10, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}),
       Value(Data{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15})},
      {"UTF-16 with a surrogate pair", single({0x63, 0x00, 0xE9, 0xD8, 0x3D, 0xDE, 0x00}),
       Value("\xC3\xA9\xF0\x9F\x98\x80")},
      {"shared string and a set", shared.finish(),
       Value(Array{Value("abc"), Value(Set{{Value("abc"), Value::integer(5)}})})},
  };
  expectReads(readBinary, cases);
}

TEST(PropertyListTest, ReadsOpenStep) {
  const std::vector<ValidCase> cases = {
      {"dictionary",
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
      {"a single unquoted string", bytesOf("  word  "), Value("word")},
      {"data at the top, not an XML tag", bytesOf("<0fbd AB>"), Value(Data{0x0f, 0xbd, 0xab})},
  };
  expectReads(readOpenStep, cases);
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
            "<plist version=\"1.0\">\n"
            "<dict>\n"
            "\t<key>Name</key>\n"
            "\t<string>a&lt;b &amp; c&gt;</string>\n"
            "\t<key>Count</key>\n"
            "\t<integer>-3</integer>\n"
            "\t<key>Ratio</key>\n"
            "\t<real>0.1</real>\n"
            "\t<key>Empty</key>\n"
            "\t<array/>\n"
            "\t<key>List</key>\n"
            "\t<array>\n"
            "\t\t<true/>\n"
            "\t\t<dict/>\n"
            "\t</array>\n"
            "\t<key>Blob</key>\n"
            "\t<data>\n"
            "\tAQIDBA==\n"
            "\t</data>\n"
            "\t<key>When</key>\n"
            "\t<date>2001-01-01T00:00:00Z</date>\n"
            "</dict>\n"
            "</plist>\n");
}

TEST(PropertyListTest, XmlRoundTripKeepsEveryKind) {
  Data large(200);
  for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 7);
  Array reals;
  for (double real :
       {0.1, -0.0, 1e300, -2.5e-308, 5e-324, 123456789.125, std::numeric_limits<double>::max(),
        std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity(),
        std::numeric_limits<double>::quiet_NaN()}) {
    reals.push_back(Value::real(real));
  }
  Array nested = {Value("leaf")};
  for (int depth = 1; depth < kMaximumPropertyListDepth - 1; ++depth) {
    nested = Array{Value(std::move(nested))};
  }
  const Value value(dictionaryOf({
      {"strings", Value(Array{Value(""), Value("tab\tline\nCR\rbell\x07 ]]> &amp; <x>"),
                              Value("\xC3\xA9\xF0\x9F\x98\x80")})},
      {"key with <&> and \r", Value("k")},
      {"integers",
       Value(Array{Value::integer(0), Value::integer(std::numeric_limits<std::int64_t>::min()),
                   Value::integer(std::numeric_limits<std::int64_t>::max()),
                   Value::unsignedInteger(~0ull)})},
      {"reals", Value(reals)},
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

class SomeObject final : public Archivable {
 public:
  std::string_view className() const override { return "SomeObject"; }
  void encode(Encoder&) const override {}
};

TEST(PropertyListTest, WriterRefusesWhatXmlCannotHold) {
  Array tooDeep;
  for (int depth = 0; depth < kMaximumPropertyListDepth; ++depth) {
    tooDeep = Array{Value(std::move(tooDeep))};
  }
  const std::vector<std::pair<const char*, Value>> cases = {
      {"set", Value(Set{{Value::integer(1)}})},
      {"object", Value(Array{Value(ObjectRef(std::make_shared<SomeObject>()))})},
      {"NUL in a string", Value(std::string("a\0b", 3))},
      {"NUL in a key", Value(dictionaryOf({{std::string("a\0b", 3), Value("x")}}))},
      {"ill-formed UTF-8", Value("\xC0\x80")},
      {"date past year 9999", Value(Date{253402300800.0})},
      {"date before year 0", Value(Date{-62167219201.0})},
      {"NaN date", Value(Date{std::numeric_limits<double>::quiet_NaN()})},
      {"nesting too deep", Value(std::move(tooDeep))},
  };
  for (const auto& [name, value] : cases) {
    SCOPED_TRACE(name);
    Result<Data> xml = writeXml(value);
    ASSERT_FALSE(xml.ok());
    EXPECT_TRUE(xml.error().is(kPosixErrorDomain, EINVAL));
    EXPECT_EQ(describeParseError(xml.error()), "");
  }
}

// ---- Hostile input ----------------------------------------------------------------------------

struct HostileCase {
  const char* name;
  Bytes input;
  const char* description;  // expected within the error's description
};

void expectRejects(Result<Value> (*reader)(std::span<const std::uint8_t>),
                   const std::vector<HostileCase>& cases) {
  for (const HostileCase& c : cases) {
    SCOPED_TRACE(c.name);
    Result<Value> value = reader(c.input);
    ASSERT_FALSE(value.ok()) << value->description();
    EXPECT_TRUE(value.error().is(kPropertyListErrorDomain, kPropertyListReadCorruptError));
    EXPECT_NE(describeParseError(value.error()).find(c.description), std::string::npos)
        << describeParseError(value.error());
  }
}

std::string repeated(std::string_view text, int count) {
  std::string out;
  for (int i = 0; i < count; ++i) out += text;
  return out;
}

TEST(PropertyListTest, RejectsHostileXml) {
  const auto doc = [](std::string_view body) { return bytesOf(xmlDocument(body)); };
  const std::vector<HostileCase> cases = {
      {"unterminated string", bytesOf("<plist>\n<string>abc"), "line 2: unterminated <string>"},
      {"unterminated comment", doc("<!-- x <string/>"), "unterminated comment"},
      {"unterminated CDATA", doc("<string><![CDATA[x</string>"), "unterminated CDATA"},
      {"mismatched end tag", doc("\n<dict>\n</array>"),
       "line 4: unexpected </array> inside <dict>"},
      {"bad UTF-8", doc("<string>\xC3\x28</string>"), "invalid UTF-8"},
      {"encoded surrogate", doc("<string>\xED\xA0\x80</string>"), "invalid UTF-8"},
      {"control character", doc("<string>\x01</string>"), "control character"},
      {"entity definitions", bytesOf("<!DOCTYPE plist [<!ENTITY a \"b\">]><string>&a;</string>"),
       "internal subset"},
      {"unknown entity", doc("<string>&nbsp;</string>"), "unknown entity"},
      {"NUL reference", doc("<string>&#0;</string>"), "invalid character reference"},
      {"surrogate reference", doc("<string>&#xD800;</string>"), "invalid character reference"},
      {"reference past U+10FFFF", doc("<string>&#x110000;</string>"),
       "invalid character reference"},
      {"unterminated reference", doc("<string>&amp</string>"), "malformed entity reference"},
      {"duplicate keys",
       doc("<dict><key>a</key><true/><key>b</key><true/>\n<key>a</key><true/></dict>"),
       "line 3: duplicate key \"a\""},
      {"key without value", doc("<dict><key>a</key></dict>"), "missing value for key"},
      {"value without key", doc("<dict><string>a</string></dict>"), "expected <key>"},
      {"bad base64 character", doc("<data>AA*A</data>"), "invalid base64"},
      {"base64 lone character", doc("<data>AAAAA</data>"), "invalid base64"},
      {"base64 padding inside", doc("<data>AA==AA==</data>"), "invalid base64"},
      {"impossible date", doc("<date>2021-02-29T00:00:00Z</date>"), "invalid <date>"},
      {"date without zone", doc("<date>2021-01-01T00:00:00</date>"), "invalid <date>"},
      {"leap second", doc("<date>2016-12-31T23:59:60Z</date>"), "invalid <date>"},
      {"integer overflow", doc("<integer>18446744073709551616</integer>"), "invalid <integer>"},
      {"integer underflow", doc("<integer>-9223372036854775809</integer>"), "invalid <integer>"},
      {"empty integer", doc("<integer/>"), "invalid <integer>"},
      {"real out of range", doc("<real>1e400</real>"), "invalid <real>"},
      {"real with payload", doc("<real>nan(1)</real>"), "invalid <real>"},
      {"element inside a string", doc("<string>a<b/></string>"), "unexpected <b> inside <string>"},
      {"text inside true", doc("<true>yes</true>"), "must be empty"},
      {"unknown element", doc("<integers/>"), "unknown element <integers>"},
      {"two values", doc("<true/><false/>"), "more than one value"},
      {"empty plist", doc(""), "empty <plist>"},
      {"content after the root", bytesOf("<plist><true/></plist><x/>"), "after the root"},
      {"foreign encoding", bytesOf("<?xml version=\"1.0\" encoding=\"UTF-16\"?><plist/>"),
       "unsupported encoding"},
      {"nesting too deep", doc(repeated("<array>", 200)), "nesting deeper than 128 levels"},
  };
  expectRejects(readXml, cases);
}

TEST(PropertyListTest, RejectsHostileBinary) {
  const auto single = [](Bytes object) {
    BinaryList list;
    list.add(std::move(object));
    return list.finish();
  };
  const auto pair = [](Bytes first, Bytes second) {
    BinaryList list;
    list.add(std::move(first));
    list.add(std::move(second));
    return list.finish();
  };
  Bytes truncated = single({0x10, 0x01});
  truncated.pop_back();
  Bytes tableOutside = single({0x10, 0x01});
  tableOutside[tableOutside.size() - 2] = 0x7F;
  Bytes offsetOutside = single({0x10, 0x01});
  offsetOutside[10] = 0xF0;  // the only entry of the offset table
  Bytes manyObjects = single({0x10, 0x01});
  manyObjects[manyObjects.size() - 24 + 7] = 0x20;  // object count 32 > table size

  BinaryList cycle;  // 0 -> 1 -> 0
  cycle.add({0xA1, 0x01});
  cycle.add({0xA2, 0x02, 0x00});
  cycle.add({0x09});
  BinaryList deep;
  for (int i = 0; i < 200; ++i) deep.add({0xA1, static_cast<std::uint8_t>(i + 1)});
  deep.add({0x09});
  BinaryList bomb;  // each level 1000 references to the next: 1000^4 values if expanded
  for (std::uint8_t level = 0; level < 4; ++level) bomb.add(arrayOfReferences(1000, level + 1));
  bomb.add({0x09});
  BinaryList stringBomb;  // 200 references to a 64 KiB string: 12.5 MiB from 66 KiB
  stringBomb.add(arrayOfReferences(200, 1));
  Bytes big = {0x4F, 0x12};
  BinaryList::appendBigEndian(big, 65536, 4);
  big.resize(big.size() + 65536, 'x');
  big[0] = 0x5F;
  stringBomb.add(big);
  BinaryList duplicateKeys;
  duplicateKeys.add({0xD2, 0x01, 0x01, 0x02, 0x02});
  duplicateKeys.add({0x51, 'k'});
  duplicateKeys.add({0x09});

  const std::vector<HostileCase> cases = {
      {"too short", bytesOf("bplist00"), "offset 0: too short"},
      {"other version", bytesOf("bplist01" + std::string(40, '\0')),
       "unsupported binary list version"},
      {"truncated", truncated, "invalid offset size"},
      {"offset table outside", tableOutside, "offset table out of range"},
      {"object offset outside", offsetOutside, "object offset out of range"},
      {"object count past the table", manyObjects, "offset table out of range"},
      {"reference out of range", pair({0xA1, 0x05}, {0x09}), "object reference out of range"},
      {"self reference", single({0xA1, 0x00}), "cycle"},
      {"indirect cycle", cycle.finish(), "cycle"},
      {"nesting too deep", deep.finish(), "nesting deeper than 128 levels"},
      {"reference bomb", bomb.finish(0, 1), "size limit"},
      {"string bomb", stringBomb.finish(), "size limit"},
      {"count past the end", single({0x5F, 0x13, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}),
       "runs past the object area"},
      {"array count past the end", single({0xAF, 0x12, 0x10, 0x00, 0x00, 0x00}),
       "runs past the object area"},
      {"sixteen-byte count", single({0x4F, 0x14, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}),
       "invalid count"},
      {"lone high surrogate", single({0x61, 0xD8, 0x00}), "unpaired UTF-16 surrogate"},
      {"lone low surrogate", single({0x62, 0xDC, 0x00, 0x00, 0x41}), "unpaired UTF-16 surrogate"},
      {"U+0000 in UTF-16", single({0x61, 0x00, 0x00}), "U+0000"},
      {"non-ASCII in an ASCII string", single({0x51, 0xE9}), "non-ASCII"},
      {"non-string key", pair({0xD1, 0x01, 0x01}, {0x10, 0x01}), "key is not a string"},
      {"duplicate keys", duplicateKeys.finish(), "duplicate key \"k\""},
      {"set with a repeated value", pair({0xC2, 0x01, 0x01}, {0x10, 0x01}), "same value twice"},
      {"null object", single({0x00}), "unsupported object type 0x00"},
      {"UID", single({0x80, 0x01}), "unsupported object type 0x80"},
      {"sixteen-byte integer out of range",
       single({0x14, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0}), "integer out of range"},
      {"NaN date", single({0x33, 0x7F, 0xF8, 0, 0, 0, 0, 0, 0}), "invalid date"},
      {"truncated real", single({0x23, 0x40}), "truncated real"},
  };
  expectRejects(readBinary, cases);
}

TEST(PropertyListTest, RejectsHostileOpenStep) {
  const std::vector<HostileCase> cases = {
      {"empty", bytesOf("  // nothing\n"), "line 2: no value"},
      {"unterminated string", bytesOf("{ a = \"abc;\n}\n"), "line 1: unterminated string"},
      {"unterminated comment", bytesOf("( a, /* b )"), "unterminated comment"},
      {"unterminated dictionary", bytesOf("{ a = b;"), "unterminated dictionary"},
      {"unterminated array", bytesOf("(a, b"), "unterminated array"},
      {"unterminated data", bytesOf("<0011"), "unterminated data"},
      {"missing comma", bytesOf("(a b)"), "expected ',' or ')'"},
      {"missing semicolon", bytesOf("{ a = b }"), "expected ';'"},
      {"missing equals", bytesOf("{ a b; }"), "expected '='"},
      {"odd hexadecimal digits", bytesOf("<001>"), "odd number"},
      {"non-hexadecimal data", bytesOf("<00zz>"), "in data"},
      {"array as key", bytesOf("{ (a) = b; }"), "key is not a string"},
      {"duplicate keys", bytesOf("{\n a = 1;\n b = 2;\n \"a\" = 3;\n}"),
       "line 4: duplicate key \"a\""},
      {"duplicate keys in a strings file", bytesOf("a = 1; a = 2;"), "duplicate key"},
      {"lone surrogate escape", bytesOf("\"\\UD800x\""), "unpaired UTF-16 surrogate"},
      {"NUL escape", bytesOf("\"\\0\""), "invalid octal escape"},
      {"NUL byte", Bytes{'"', 'a', 0, '"'}, "NUL byte"},
      {"bad UTF-8", bytesOf("\"\xFF\""), "invalid UTF-8"},
      {"trailing garbage", bytesOf("(a) )"), "after the value"},
      {"stray character", bytesOf("{ a = #; }"), "unexpected '#'"},
      {"nesting too deep", bytesOf(repeated("(", 200)), "nesting deeper than 128 levels"},
  };
  expectRejects(readOpenStep, cases);
}

TEST(PropertyListTest, ManyKeysTakeNoQuadraticTime) {
  // About 1.5 MiB with 100000 keys each; a quadratic duplicate check would not finish in time.
  constexpr int kKeys = 100000;
  std::string xml = "<plist><dict>";
  std::string openStep = "{";
  for (int i = 0; i < kKeys; ++i) {
    const std::string key = "key" + std::to_string(i);
    xml += "<key>" + key + "</key><true/>";
    openStep += key + "=v;";
  }
  xml += "</dict></plist>";
  openStep += "}";
  Result<Value> fromXml = readXml(bytesOf(xml));
  ASSERT_TRUE(fromXml.ok());
  EXPECT_EQ(fromXml->asDictionary()->size(), static_cast<std::size_t>(kKeys));
  Result<Value> fromOpenStep = readOpenStep(bytesOf(openStep));
  ASSERT_TRUE(fromOpenStep.ok());
  EXPECT_EQ(fromOpenStep->asDictionary()->size(), static_cast<std::size_t>(kKeys));
  // The same key once more at the end is found.
  xml.insert(xml.size() - 15, "<key>key0</key><true/>");
  EXPECT_FALSE(readXml(bytesOf(xml)).ok());
}

TEST(PropertyListTest, DescribesOnlyParseErrors) {
  Result<Value> failed = readXml(bytesOf("<plist>"));
  ASSERT_FALSE(failed.ok());
  EXPECT_EQ(failed.error().domain(), "NSCocoaErrorDomain");
  EXPECT_EQ(failed.error().code(), 3840);
  EXPECT_FALSE(describeParseError(failed.error()).empty());
  EXPECT_EQ(describeParseError(Error::posix(EINVAL)), "");
}

}  // namespace
}  // namespace krv::plist
