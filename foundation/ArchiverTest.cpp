#include "foundation/Archiver.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "foundation/CborWriter.h"
#include "foundation/Error.h"
#include "tests/support/Fixtures.h"

namespace krv {
namespace {

// Bytes from hexadecimal digits (spaces ignored); text between single quotes stands for itself.
Data hex(std::string_view text) {
  Data bytes;
  bool quoted = false;
  int high = -1;
  for (char c : text) {
    if (c == '\'') {
      quoted = !quoted;
    } else if (quoted) {
      bytes.push_back(static_cast<std::uint8_t>(c));
    } else if (std::isxdigit(static_cast<unsigned char>(c))) {
      const int nibble = c <= '9' ? c - '0' : (c | 0x20) - 'a' + 10;
      if (high >= 0) bytes.push_back(static_cast<std::uint8_t>(high << 4 | nibble));
      high = high >= 0 ? -1 : nibble;
    }
  }
  return bytes;
}

Dictionary dictionaryOf(std::initializer_list<std::pair<const char*, Value>> entries) {
  Dictionary dictionary;
  for (const auto& [key, value] : entries) dictionary.append(key, value);
  return dictionary;
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

// A class with a dictionary of names (keys of any bytes) and a plain dictionary.
class Names final : public Archivable {
 public:
  Names(Dictionary names, Dictionary plain)
      : m_names(std::move(names)), m_plain(std::move(plain)) {}
  std::string_view className() const override { return "Names"; }
  void encode(Encoder& encoder) const override {
    encoder.encodeNameDictionary("names", m_names);
    encoder.encodeDictionary("plain", m_plain);
  }
  static Result<ObjectRef> decode(Decoder& decoder) {
    KRV_TRY(Dictionary names, decoder.decodeNameDictionary("names"));
    KRV_TRY(Dictionary plain, decoder.decodeDictionary("plain"));
    return ObjectRef(std::make_shared<Names>(std::move(names), std::move(plain)));
  }

 private:
  Dictionary m_names;
  Dictionary m_plain;
};

const ClassRegistry& testClasses() {
  static const ClassRegistry registry = [] {
    ClassRegistry classes;
    classes.add(Error::kClassName, &Error::decode);
    classes.add("Pair", &Pair::decode);
    classes.add("Names", &Names::decode);
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

// Every kind of value with the edges of its encoding, in groups.
Value everyKind() {
  const Dictionary nested = dictionaryOf(
      {{"z", Value::integer(1)}, {"a", Value(Array{Value("x"), Value::boolean(false)})}});
  return Value(Array{
      Value(Array{Value(""), Value("grüße ✓ 𝄞"), Value::boolean(true), Value(Data{}),
                  Value(Data{0, 1, 0xFF})}),
      Value(Array{Value::integer(0), Value::integer(24), Value::integer(-25),
                  Value::integer(INT64_MIN), Value::integer(INT64_MAX)}),
      Value(Array{Value::unsignedInteger(UINT64_MAX), Value::real(0.1), Value::real(-0.0),
                  Value::real(INFINITY), Value::real(NAN)}),
      Value(Array{Value(Date{1700000000.5}), Value(Date{-1.25}), Value(Array{}), Value(Set{}),
                  Value(Dictionary{})}),
      Value(Array{Value(Set{{Value::integer(3), Value("b"), Value::real(-2.5), Value(Array{})}}),
                  Value(nested), Value(ObjectRef(std::make_shared<Error>("d", -7, nested))),
                  Value(ObjectRef(std::make_shared<Pair>(1, -2)))})});
}

const ArchiveForm kBothForms[] = {ArchiveForm::Sequential, ArchiveForm::Keyed};

// Re-archiving what was read must give the same bytes: this also shows that dictionaries keep
// their key order, which their equality ignores.
TEST(ArchiverTest, EveryKindOfValueRoundTripsInBothForms) {
  const Value original = everyKind();
  for (ArchiveForm form : kBothForms) {
    SCOPED_TRACE(form == ArchiveForm::Sequential ? "sequential" : "keyed");
    const Data bytes = archive(original, form);
    Result<Value> decoded = unarchive(bytes, form);
    ASSERT_TRUE(decoded) << decoded.error().description();
    EXPECT_EQ(*decoded, original) << decoded->description();
    EXPECT_EQ(archive(*decoded, form), bytes);
  }
}

// Shortest integer heads, set order and key order; the fixtures below pin the rest of the form.
TEST(ArchiverTest, WritesTheShortestForms) {
  const std::pair<Value, std::string_view> cases[] = {
      {Value::integer(24), "18 18"},
      {Value::integer(1000000), "1a 000f4240"},
      {Value::integer(-500), "39 01f3"},
      {Value::integer(INT64_MIN), "3b 7fffffffffffffff"},
      {Value::unsignedInteger(UINT64_MAX), "1b ffffffffffffffff"},
      // Numbers ascending, other elements after them in their order.
      {Value(Set{{Value("x"), Value::integer(3), Value::real(-0.5), Value::integer(1)}}),
       "d9 0102 84 fb bfe0000000000000 01 03 61 78"},
      {Value(dictionaryOf({{"b", Value::integer(1)}, {"a", Value::integer(2)}})),
       "a2 6162 01 6161 02"},
  };
  for (const auto& [value, expected] : cases) {
    EXPECT_EQ(archiveSequential(value), hex(expected)) << value.description();
  }
  EXPECT_EQ(archiveKeyed(Error("d", 5)),
            hex("d81b 82 67 'NSError' a3 68 'NSDomain' 61 64 66 'NSCode' 05 6a 'NSUserInfo' a0"));
}

TEST(ArchiverTest, AcceptsEveryFloatWidthAndIntegerDates) {
  const std::pair<std::string_view, Value> cases[] = {
      {"f9 0001", Value::real(std::ldexp(1.0, -24))},  // smallest half subnormal
      {"f9 c400", Value::real(-4.0)},
      {"f9 7c00", Value::real(INFINITY)},
      {"fa 3fc00000", Value::real(1.5)},
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

  // Keyed objects take their keys in any order.
  Result<Value> pair =
      unarchiveKeyed(hex("d81b 82 64 'Pair' a2 66 'second' 02 65 'first' 01"), testClasses());
  ASSERT_TRUE(pair) << pair.error().description();
  EXPECT_EQ(*pair, Value(ObjectRef(std::make_shared<Pair>(1, 2))));
}

Data nestedArrays(int levels) {
  Data bytes(static_cast<std::size_t>(levels), 0x81);
  bytes.push_back(0x00);
  return bytes;
}

TEST(ArchiverTest, RejectsHostilePayloadsAsArchiveFaults) {
  const std::pair<const char*, Data> cases[] = {
      {"empty payload", {}},
      {"truncated argument", hex("19 01")},
      {"truncated array", hex("82 01")},
      {"array of 2^32 elements", hex("9b 0000000100000000 01")},
      {"byte string past the end", hex("5a ffffffff 00")},
      {"indefinite array", hex("9f 01 ff")},
      {"reserved additional information", hex("1c")},
      {"trailing bytes", hex("01 02")},
      {"null", hex("f6")},
      {"integer below -2^63", hex("3b 8000000000000000")},
      {"tag 32", hex("d8 20 60")},
      {"date around a string", hex("c1 60")},
      {"set around an integer", hex("d9 0102 01")},
      {"duplicate set elements", hex("d9 0102 83 01 02 01")},
      {"zero and negative zero in a set", hex("d9 0102 82 f9 0000 f9 8000")},
      {"equal dictionaries in a set", hex("d9 0102 82 a2 6161 01 6162 02 a2 6162 02 6161 01")},
      {"integer map key", hex("a1 01 01")},
      {"duplicate map key", hex("a2 6161 01 6161 02")},
      {"duplicate key in a large map",  // seventeen keys
       hex("b1 6161 00 6162 00 6163 00 6164 00 6165 00 6166 00 6167 00 6168 00 6169 00 616a 00"
           "616b 00 616c 00 616d 00 616e 00 616f 00 6170 00 6161 00")},
      {"overlong UTF-8", hex("62 c080")},
      {"UTF-16 surrogate", hex("63 eda080")},
      {"cut UTF-8 sequence", hex("62 e282")},
      {"invalid UTF-8 in a map key", hex("a1 61 ff 00")},
      {"65 nested arrays", nestedArrays(65)},
      {"object that is not an array", hex("d8 1b 60")},
      {"object without a text class name", hex("d8 1b 81 01")},
      {"unknown class", hex("d8 1b 81 63 'Foo'")},
      {"error object missing an item", hex("d8 1b 83 67 'NSError' 61 64 05")},
      {"error object with an extra item", hex("d8 1b 85 67 'NSError' 61 64 05 a0 00")},
      {"error object with a real code", hex("d8 1b 84 67 'NSError' 61 64 f9 3c00 a0")},
      {"class ignoring a broken item", hex("d8 1b 82 68 'Careless' 62 ff ff")},
      {"keyed object missing a key", hex("d8 1b 82 64 'Pair' a1 65 'first' 01")},
      {"keyed object with an extra key",
       hex("d8 1b 82 64 'Pair' a3 65 'first' 01 66 'second' 02 65 'third' 03")},
      {"keyed object of three elements", hex("d8 1b 83 64 'Pair' a0 a0")},
      {"keyed object without a map", hex("d8 1b 82 64 'Pair' 01")},
  };
  for (const auto& [name, payload] : cases) {
    for (ArchiveForm form : kBothForms) {
      Result<Value> decoded = unarchive(payload, form);
      ASSERT_FALSE(decoded) << name << ": accepted as " << decoded->description();
      EXPECT_TRUE(decoded.error().isPosix()) << name;
      EXPECT_EQ(decoded.error().code(), EIO) << name;
    }
  }
  EXPECT_TRUE(unarchiveSequential(nestedArrays(64), testClasses()));
}

// Equal elements are found through their canonical forms: a set of two equal large sets or maps
// is refused at once, not after comparing every element with every other. Elements holding a NaN
// date are never equal, however alike they look.
// Names that are not UTF-8 are byte-string keys, and only in a dictionary of names.
TEST(ArchiverTest, ByteStringKeysOnlyInDictionariesOfNames) {
  const Value names(ObjectRef(std::make_shared<Names>(
      dictionaryOf({{"user.\xff", Value::integer(1)}, {"user.x", Value::integer(2)}}),
      dictionaryOf({{"a", Value::integer(3)}}))));
  EXPECT_EQ(archiveSequential(names),
            hex("d81b 83 65 'Names' a2 46 'user.' ff 01 66 'user.x' 02 a1 61 'a' 03"));
  for (ArchiveForm form : kBothForms) {
    Result<Value> decoded = unarchive(archive(names, form), form);
    ASSERT_TRUE(decoded) << decoded.error().description();
    EXPECT_EQ(*decoded, names);
  }
  const char* const refused[] = {
      "d81b 83 65 'Names' a0 a1 41 ff 01",           // in the plain dictionary
      "d81b 83 65 'Names' a1 41 ff a1 41 fe 01 a0",  // nested below a name
      "d81b 83 65 'Names' a1 41 'a' 01 a0",          // UTF-8 bytes, which must be text
      "a1 41 ff 01",                                 // anywhere else
  };
  for (const char* payload : refused) {
    Result<Value> decoded = unarchiveSequential(hex(payload), testClasses());
    ASSERT_FALSE(decoded) << payload;
    EXPECT_EQ(decoded.error().code(), EIO);
  }
  EXPECT_FALSE(unarchiveKeyed(hex("d81b 82 65 'Names' a2 65 'names' a0 65 'plain' a1 41 ff 01"),
                              testClasses()));
}

TEST(ArchiverTest, FindsEqualLargeSetElementsInLinearithmicTime) {
  constexpr std::int64_t kCount = 50000;
  Set numbers;
  Dictionary entries;
  for (std::int64_t i = 0; i < kCount; ++i) {
    numbers.elements.push_back(Value::integer(i));
    entries.append(std::to_string(i), Value::integer(i));
  }
  const auto start = std::chrono::steady_clock::now();
  for (const Value& element : {Value(numbers), Value(entries)}) {
    Result<Value> decoded =
        unarchiveSequential(archiveSequential(Value(Set{{element, element}})), testClasses());
    ASSERT_FALSE(decoded);
    EXPECT_EQ(decoded.error().code(), EIO);
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(10));
  const Value nanDate(Array{Value(Date{NAN})});
  EXPECT_TRUE(
      unarchiveSequential(archiveSequential(Value(Set{{nanDate, nanDate}})), testClasses()));
}

TEST(ArchiverTest, SequentialSizeIsKnownAheadAndTheArchiveAppendsInPlace) {
  const Error error("d", 1, dictionaryOf({{"Everything", everyKind()}}));
  const Data bytes = archiveSequential(error);
  EXPECT_EQ(sequentialArchiveSize(error), bytes.size());
  // Built after a header in one buffer, as a data block is.
  Data block(36, 0xAA);
  block.reserve(36 + bytes.size());
  appendSequentialArchive(error, block);
  EXPECT_EQ(block.capacity(), 36 + bytes.size());
  EXPECT_EQ(Data(block.begin(), block.begin() + 36), Data(36, 0xAA));
  EXPECT_EQ(Data(block.begin() + 36, block.end()), bytes);
}

// The fixtures were written by an independent encoder; both must read and re-encode exactly.
TEST(ArchiverTest, ReadsAndReproducesObjectsOfAnotherEncoder) {
  const Error acknowledgement(
      "com.tavorin.securityagent", 0,
      dictionaryOf(
          {{"ClientSocket", Value("/tmp/com.tavorin.system.securityagent3-1804289383.pipe")}}));
  const Array records = {Value(dictionaryOf({{"Path", Value("/var/tmp/old/report.txt")},
                                             {"Type", Value("NSFileTypeRegular")},
                                             {"Size", Value::integer(4096)},
                                             {"ModificationDate", Value(Date{1700000000.5})},
                                             {"POSIXMode", Value::integer(0644)}})),
                         Value(dictionaryOf({{"Path", Value("/var/tmp/old/cache")},
                                             {"Type", Value("NSFileTypeDirectory")},
                                             {"Size", Value::integer(192)},
                                             {"ModificationDate", Value(Date{-86400.25})},
                                             {"POSIXMode", Value::integer(0755)}})),
                         Value(dictionaryOf({{"Path", Value("/var/tmp/old/unreadable")},
                                             {"Type", Value("NSFileTypeUnknown")}}))};
  const Error chunk("com.tavorin.securityagent", 1,
                    dictionaryOf({{"CurrentProgress", Value::real(0.05)},
                                  {"FileSystemObjects", Value(records)}}));
  const std::pair<const char*, const Error*> fixtures[] = {
      {"acknowledgement.cbor", &acknowledgement}, {"payload-chunk.cbor", &chunk}};
  for (const auto& [name, expected] : fixtures) {
    SCOPED_TRACE(name);
    const Data fixture = test::readCborFixture(name);
    Result<Value> decoded = unarchiveSequential(fixture, ClassRegistry::errorObjects());
    ASSERT_TRUE(decoded) << decoded.error().description();
    ASSERT_NE(decoded->objectAs<Error>(), nullptr);
    EXPECT_EQ(*decoded->objectAs<Error>(), *expected);
    EXPECT_EQ(archiveSequential(*expected), fixture);
    EXPECT_EQ(archiveSequential(*decoded), fixture);  // the key order was kept
  }
}

}  // namespace
}  // namespace krv
