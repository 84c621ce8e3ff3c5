#include "foundation/Archiver.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <limits>
#include <string>

#include "foundation/CborWriter.h"
#include "foundation/Error.h"

namespace krv {
namespace {

Data hex(std::string_view text) {
  Data bytes;
  int high = -1;
  for (char c : text) {
    int nibble;
    if (c >= '0' && c <= '9') {
      nibble = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      nibble = c - 'a' + 10;
    } else {
      continue;
    }
    if (high < 0) {
      high = nibble;
    } else {
      bytes.push_back(static_cast<std::uint8_t>(high << 4 | nibble));
      high = -1;
    }
  }
  return bytes;
}

Data textBytes(std::string_view text) { return Data(text.begin(), text.end()); }

Data concat(std::initializer_list<Data> parts) {
  Data result;
  for (const Data& part : parts) result.insert(result.end(), part.begin(), part.end());
  return result;
}

// A test class of two integers, to exercise object arity and class decode failures.
class Pair final : public Archivable {
 public:
  Pair(std::int64_t first, std::int64_t second) : m_first(first), m_second(second) {}
  std::string_view className() const override { return "Pair"; }
  void encode(Encoder& encoder) const override {
    encoder.encodeInteger("first", m_first);
    encoder.encodeInteger("second", m_second);
  }
  static Result<ObjectRef> decode(Decoder& decoder) {
    KRV_TRY(std::int64_t first, decoder.decodeInteger("first"));
    KRV_TRY(std::int64_t second, decoder.decodeInteger("second"));
    return ObjectRef(std::make_shared<Pair>(first, second));
  }

 private:
  std::int64_t m_first;
  std::int64_t m_second;
};

// Takes one item and ignores whether that worked: the archiver must still reject broken items.
Result<ObjectRef> decodeCareless(Decoder& decoder) {
  (void)decoder.decodeValue("item");
  return ObjectRef(std::make_shared<Pair>(0, 0));
}

const ClassRegistry& testClasses() {
  static const ClassRegistry registry = [] {
    ClassRegistry classes;
    classes.add(Error::kClassName, &Error::decode);
    classes.add("Pair", &Pair::decode);
    classes.add("Careless", &decodeCareless);
    return classes;
  }();
  return registry;
}

Result<Value> unarchive(const Data& payload, ArchiveForm form) {
  return form == ArchiveForm::Sequential ? unarchiveSequential(payload, testClasses())
                                         : unarchiveKeyed(payload, testClasses());
}

Data archive(const Value& value, ArchiveForm form) {
  return form == ArchiveForm::Sequential ? archiveSequential(value) : archiveKeyed(value);
}

Dictionary record(std::string path, std::int64_t size, double modified) {
  Dictionary entry;
  entry.append("Path", Value(std::move(path)));
  entry.append("Type", Value("NSFileTypeRegular"));
  entry.append("Size", Value::integer(size));
  entry.append("ModificationDate", Value(Date{modified}));
  entry.append("POSIXMode", Value::integer(0644));
  return entry;
}

Value everyKind() {
  Dictionary nested;
  nested.append("z", Value::integer(1));
  nested.append("a", Value(Array{Value("x"), Value::boolean(false)}));
  Array array{
      Value(""),
      Value("grüße ✓ 𝄞"),
      Value::integer(0),
      Value::integer(23),
      Value::integer(24),
      Value::integer(-1),
      Value::integer(-25),
      Value::integer(std::numeric_limits<std::int64_t>::min()),
      Value::integer(std::numeric_limits<std::int64_t>::max()),
      Value::unsignedInteger(std::numeric_limits<std::uint64_t>::max()),
      Value::real(0.1),
      Value::real(-0.0),
      Value::real(std::numeric_limits<double>::infinity()),
      Value::real(std::numeric_limits<double>::quiet_NaN()),
      Value::boolean(true),
      Value(Data{}),
      Value(Data{0, 1, 0xFF}),
      Value(Date{1700000000.5}),
      Value(Date{-1.25}),
      Value(Array{}),
      Value(Set{{Value::integer(3), Value("b"), Value::real(-2.5), Value(Array{})}}),
      Value(Set{}),
      Value(nested),
      Value(Dictionary{}),
      Value(ObjectRef(std::make_shared<Error>("d", -7, nested))),
      Value(ObjectRef(std::make_shared<Pair>(1, -2))),
  };
  return Value(std::move(array));
}

const ArchiveForm kBothForms[] = {ArchiveForm::Sequential, ArchiveForm::Keyed};

TEST(ArchiverTest, EveryKindOfValueRoundTripsInBothForms) {
  const Value original = everyKind();
  for (ArchiveForm form : kBothForms) {
    SCOPED_TRACE(form == ArchiveForm::Sequential ? "sequential" : "keyed");
    const Data bytes = archive(original, form);
    Result<Value> decoded = unarchive(bytes, form);
    ASSERT_TRUE(decoded) << decoded.error().description();
    EXPECT_EQ(*decoded, original) << decoded->description();
    // Dictionary equality ignores order; the archive must not.
    const Dictionary& nested = *decoded->asArray()->at(22).asDictionary();
    EXPECT_EQ(nested.entries().front().first, "z");
    EXPECT_EQ(archive(*decoded, form), bytes);
  }
}

TEST(ArchiverTest, WritesTheShortestFormsOfRfc8949) {
  const std::pair<Value, std::string_view> cases[] = {
      {Value::integer(0), "00"},
      {Value::integer(23), "17"},
      {Value::integer(24), "18 18"},
      {Value::integer(500), "19 01f4"},
      {Value::integer(1000000), "1a 000f4240"},
      {Value::integer(-1), "20"},
      {Value::integer(-500), "39 01f3"},
      {Value::integer(std::numeric_limits<std::int64_t>::min()), "3b 7fffffffffffffff"},
      {Value::unsignedInteger(std::numeric_limits<std::uint64_t>::max()), "1b ffffffffffffffff"},
      {Value::real(1.5), "fb 3ff8000000000000"},
      {Value::boolean(false), "f4"},
      {Value::boolean(true), "f5"},
      {Value(""), "60"},
      {Value("IETF"), "64 49455446"},
      {Value(Data{1, 2}), "42 0102"},
      {Value(Date{0.0}), "c1 fb 0000000000000000"},
      {Value(Array{Value::integer(1), Value(Array{})}), "82 01 80"},
      // Numbers ascending, other elements after them in their order.
      {Value(Set{{Value("x"), Value::integer(3), Value::real(-0.5), Value::integer(1)}}),
       "d9 0102 84 fb bfe0000000000000 01 03 61 78"},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(archiveSequential(value), hex(expected)) << value.description();
  }

  Dictionary ordered;
  ordered.append("b", Value::integer(1));
  ordered.append("a", Value::integer(2));
  EXPECT_EQ(archiveSequential(Value(ordered)), hex("a2 6162 01 6161 02"));

  const Error error("d", 5);
  EXPECT_EQ(archiveSequential(error),
            concat({hex("d81b 84 67"), textBytes("NSError"), hex("61 64 05 a0")}));
  EXPECT_EQ(archiveKeyed(error),
            concat({hex("d81b 82 67"), textBytes("NSError"), hex("a3 68"), textBytes("NSDomain"),
                    hex("61 64 66"), textBytes("NSCode"), hex("05 6a"), textBytes("NSUserInfo"),
                    hex("a0")}));
}

TEST(ArchiverTest, AcceptsEveryFloatWidthAndIntegerDates) {
  const std::pair<std::string_view, Value> cases[] = {
      {"f9 3c00", Value::real(1.0)},
      {"f9 0001", Value::real(std::ldexp(1.0, -24))},  // smallest half subnormal
      {"f9 c400", Value::real(-4.0)},
      {"f9 7c00", Value::real(std::numeric_limits<double>::infinity())},
      {"fa 3fc00000", Value::real(1.5)},
      {"fb 3ff8000000000000", Value::real(1.5)},
      {"c1 1a 5f5e1000", Value(Date{1600000000.0})},
      {"c1 20", Value(Date{-1.0})},
      {"c1 f9 3e00", Value(Date{1.5})},
      {"18 05", Value::integer(5)},  // not the shortest form, but well-formed
  };
  for (const auto& [input, expected] : cases) {
    Result<Value> decoded = unarchiveSequential(hex(input), testClasses());
    ASSERT_TRUE(decoded) << input << ": " << decoded.error().description();
    EXPECT_EQ(*decoded, expected) << input;
  }
  Result<Value> nan = unarchiveSequential(hex("f9 7e00"), testClasses());
  ASSERT_TRUE(nan);
  EXPECT_TRUE(std::isnan(nan->asNumber()->doubleValue()));
}

struct HostileCase {
  const char* name;
  Data payload;
};

Data nestedArrays(int levels) {
  Data bytes(static_cast<std::size_t>(levels), 0x81);
  bytes.push_back(0x00);
  return bytes;
}

TEST(ArchiverTest, RejectsHostilePayloadsAsArchiveFaults) {
  const Data name = concat({hex("67"), textBytes("NSError")});
  const HostileCase cases[] = {
      {"empty payload", {}},
      {"truncated argument", hex("19 01")},
      {"truncated text", hex("62 61")},
      {"truncated array", hex("82 01")},
      {"array of 2^32 elements", hex("9b 0000000100000000 01")},
      {"byte string past the end", hex("5a ffffffff 00")},
      {"map past the end", hex("a3 6161 01 6162")},
      {"indefinite array", hex("9f 01 ff")},
      {"indefinite byte string", hex("5f 41 00 ff")},
      {"indefinite map", hex("bf ff")},
      {"lone break", hex("ff")},
      {"reserved additional information", hex("1c")},
      {"trailing bytes", hex("01 02")},
      {"null", hex("f6")},
      {"undefined", hex("f7")},
      {"simple value 16", hex("f0")},
      {"two-byte simple value", hex("f8 20")},
      {"integer below -2^63", hex("3b 8000000000000000")},
      {"tag 0", hex("c0 60")},
      {"tag 32", hex("d8 20 60")},
      {"date around a string", hex("c1 60")},
      {"date around a date", hex("c1 c1 00")},
      {"set around an integer", hex("d9 0102 01")},
      {"duplicate set elements", hex("d9 0102 83 01 02 01")},
      {"zero and negative zero in a set", hex("d9 0102 82 f9 0000 f9 8000")},
      {"equal dictionaries in a set", hex("d9 0102 82 a2 6161 01 6162 02 a2 6162 02 6161 01")},
      {"integer map key", hex("a1 01 01")},
      {"duplicate map key", hex("a2 6161 01 6161 02")},
      {"duplicate key in a large map",
       concat({hex("b1"), hex("6161 00 6162 00 6163 00 6164 00 6165 00 6166 00 6167 00 6168 00"),
               hex("6169 00 616a 00 616b 00 616c 00 616d 00 616e 00 616f 00 6170 00 6161 00")})},
      {"overlong UTF-8", hex("62 c080")},
      {"UTF-16 surrogate", hex("63 eda080")},
      {"code point above U+10FFFF", hex("64 f4908080")},
      {"lone continuation byte", hex("61 80")},
      {"cut UTF-8 sequence", hex("62 e282")},
      {"invalid UTF-8 in a map key", hex("a1 61 ff 00")},
      {"65 nested arrays", nestedArrays(65)},
      {"object of no elements", hex("d8 1b 80")},
      {"object without a text class name", hex("d8 1b 81 01")},
      {"object that is not an array", hex("d8 1b 60")},
      {"unknown class", concat({hex("d8 1b 81 63"), textBytes("Foo")})},
      {"error object missing its user information",
       concat({hex("d8 1b 83"), name, hex("61 64 05")})},
      {"error object with an extra item", concat({hex("d8 1b 85"), name, hex("61 64 05 a0 00")})},
      {"error object with a text code", concat({hex("d8 1b 84"), name, hex("61 64 61 35 a0")})},
      {"error object with a real code", concat({hex("d8 1b 84"), name, hex("61 64 f9 3c00 a0")})},
      {"class ignoring a broken item",
       concat({hex("d8 1b 82 68"), textBytes("Careless"), hex("62 ff ff")})},
  };
  for (const HostileCase& c : cases) {
    for (ArchiveForm form : kBothForms) {
      Result<Value> decoded = unarchive(c.payload, form);
      ASSERT_FALSE(decoded) << c.name << ": accepted as " << decoded->description();
      EXPECT_TRUE(decoded.error().isPosix()) << c.name;
      EXPECT_EQ(decoded.error().code(), EIO) << c.name;
    }
  }
  EXPECT_TRUE(unarchiveSequential(nestedArrays(64), testClasses()));
}

TEST(ArchiverTest, KeyedObjectsNeedExactlyTheirClassesKeys) {
  auto pair = [](std::string_view items) {
    return concat({hex("d8 1b 82 64"), textBytes("Pair"), hex(items)});
  };
  const Data first = concat({hex("65"), textBytes("first")});
  const Data second = concat({hex("66"), textBytes("second")});
  const Data other = concat({hex("65"), textBytes("third")});

  Result<Value> good =
      unarchiveKeyed(concat({pair("a2"), second, hex("02"), first, hex("01")}), testClasses());
  ASSERT_TRUE(good) << good.error().description();
  EXPECT_EQ(*good, Value(ObjectRef(std::make_shared<Pair>(1, 2))));

  const Data rejected[] = {
      concat({pair("a1"), first, hex("01")}),                                       // missing key
      concat({pair("a3"), first, hex("01"), second, hex("02"), other, hex("03")}),  // extra key
      concat({hex("d8 1b 83 64"), textBytes("Pair"), hex("a0 a0")}),  // three elements
      concat({pair(""), hex("01")}),                                  // no map
  };
  for (const Data& payload : rejected) EXPECT_FALSE(unarchiveKeyed(payload, testClasses()));
  // Each form reads only its own objects.
  const Pair object(1, 2);
  EXPECT_FALSE(unarchiveSequential(archiveKeyed(object), testClasses()));
  EXPECT_FALSE(unarchiveKeyed(archiveSequential(object), testClasses()));
}

Error realisticChunk() {
  Array records;
  for (int i = 0; i < 100; ++i) {
    records.emplace_back(record("/Users/someone/Library/Caches/com.example.application/file-" +
                                    std::to_string(i) + ".cache",
                                1000 + i, 1700000000.0 + i));
  }
  Dictionary userInfo;
  userInfo.append("CurrentProgress", Value::real(0.37));
  userInfo.append("FileSystemObjects", Value(std::move(records)));
  return Error("com.tavorin.securityagent", 1, std::move(userInfo));
}

TEST(ArchiverTest, SizeIsComputedWithoutBuildingAndMatches) {
  const Error chunk = realisticChunk();
  const Data bytes = archiveSequential(chunk);
  EXPECT_EQ(sequentialArchiveSize(chunk), bytes.size());
  EXPECT_EQ(sequentialArchiveSize(Error("d", 0)), archiveSequential(Error("d", 0)).size());

  // Built after a header in one buffer, as a data block is.
  Data block(36, 0xAA);
  block.reserve(36 + bytes.size());
  appendSequentialArchive(chunk, block);
  ASSERT_EQ(block.size(), 36 + bytes.size());
  EXPECT_EQ(block.capacity(), 36 + bytes.size());
  EXPECT_EQ(block[35], 0xAA);
  EXPECT_TRUE(std::equal(bytes.begin(), bytes.end(), block.begin() + 36));
  Result<Value> decoded = unarchiveSequential(bytes, ClassRegistry::errorObjects());
  ASSERT_TRUE(decoded);
  EXPECT_EQ(*decoded->objectAs<Error>(), chunk);
}

Data readFixture(std::string_view name) {
  const char* root = std::getenv("KRV_SOURCE_DIR");
  std::string path;
  if (root != nullptr) {
    path = root;
  } else {
    const std::string_view file = __FILE__;  // <source>/foundation/ArchiverTest.cpp
    path = std::string(file.substr(0, file.rfind('/'))) + "/..";
  }
  path += "/tests/fixtures/cbor/";
  path += name;
  std::ifstream input(path, std::ios::binary);
  EXPECT_TRUE(input) << path;
  return Data(std::istreambuf_iterator<char>(input), std::istreambuf_iterator<char>());
}

TEST(ArchiverTest, ReadsAndReproducesTheAcknowledgementOfAnotherEncoder) {
  const Data fixture = readFixture("acknowledgement.cbor");
  Result<Value> decoded = unarchiveSequential(fixture, ClassRegistry::errorObjects());
  ASSERT_TRUE(decoded) << decoded.error().description();
  const Error* ack = decoded->objectAs<Error>();
  ASSERT_NE(ack, nullptr);
  EXPECT_EQ(ack->domain(), "com.tavorin.securityagent");
  EXPECT_EQ(ack->code(), 0);
  ASSERT_EQ(ack->userInfo().size(), 1u);
  const Value* socket = ack->userInfo().find("ClientSocket");
  ASSERT_NE(socket, nullptr);
  EXPECT_EQ(*socket, Value("/tmp/com.tavorin.system.securityagent3-1804289383.pipe"));
  EXPECT_EQ(archiveSequential(*ack), fixture);
}

TEST(ArchiverTest, ReadsAndReproducesThePayloadChunkOfAnotherEncoder) {
  const Data fixture = readFixture("payload-chunk.cbor");
  Result<Value> decoded = unarchiveSequential(fixture, ClassRegistry::errorObjects());
  ASSERT_TRUE(decoded) << decoded.error().description();
  const Error* chunk = decoded->objectAs<Error>();
  ASSERT_NE(chunk, nullptr);
  EXPECT_TRUE(chunk->is("com.tavorin.securityagent", 1));
  const Dictionary& info = chunk->userInfo();
  ASSERT_EQ(info.size(), 2u);
  EXPECT_EQ(*info.find("CurrentProgress"), Value::real(0.05));
  const Array& records = *info.find("FileSystemObjects")->asArray();
  ASSERT_EQ(records.size(), 3u);
  const Dictionary& first = *records[0].asDictionary();
  EXPECT_EQ(first.entries()[0].first, "Path");
  EXPECT_EQ(*first.find("Path"), Value("/var/tmp/old/report.txt"));
  EXPECT_EQ(*first.find("Size"), Value::integer(4096));
  EXPECT_EQ(*first.find("ModificationDate"), Value(Date{1700000000.5}));
  EXPECT_EQ(*first.find("POSIXMode"), Value::integer(0644));
  EXPECT_EQ(*records[1].asDictionary()->find("ModificationDate"), Value(Date{-86400.25}));
  EXPECT_EQ(records[2].asDictionary()->size(), 2u);
  EXPECT_EQ(archiveSequential(*chunk), fixture);
}

}  // namespace
}  // namespace krv
