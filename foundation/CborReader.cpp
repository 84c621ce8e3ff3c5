#include "foundation/CborReader.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <limits>
#include <numeric>
#include <string_view>
#include <utility>

#include "foundation/Archiver.h"
#include "foundation/ByteOrder.h"
#include "foundation/CborFormat.h"
#include "foundation/NameValue.h"
#include "foundation/Utf8.h"

namespace krv {

namespace {

using namespace cbor;

// The largest argument of a negative integer whose value (-1 - argument) is at least -2^63.
constexpr std::uint64_t kLargestNegativeArgument =
    static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max());

// A container reserves at most this many elements before they are read: a length is only a claim
// until its elements are there, and nested claims would otherwise add up level by level.
constexpr std::uint64_t kMaximumReservation = 1024;

double halfToDouble(std::uint16_t half) {
  const int exponent = (half >> 10) & 0x1F;
  const int mantissa = half & 0x3FF;
  double value;
  if (exponent == 0) {
    value = std::ldexp(mantissa, -24);
  } else if (exponent < 31) {
    value = std::ldexp(mantissa + 1024, exponent - 25);
  } else {
    value = mantissa == 0 ? std::numeric_limits<double>::infinity()
                          : std::numeric_limits<double>::quiet_NaN();
  }
  return (half & 0x8000) != 0 ? -value : value;
}

double singleToDouble(std::uint32_t bits) {
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

double doubleFromBits(std::uint64_t bits) {
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

bool holdsNaNDate(const Value& value);

// Looks through the items of an object for a date holding NaN, without copying them.
class NaNDateFinder final : public Encoder {
 public:
  bool isKeyed() const override { return true; }
  void encodeValue(std::string_view, const Value& value) override {
    found = found || holdsNaNDate(value);
  }
  void encodeString(std::string_view, std::string_view) override {}
  void encodeData(std::string_view, const Data&) override {}
  void encodeArray(std::string_view, const Array& value) override {
    for (const Value& element : value) {
      if (found) return;
      found = holdsNaNDate(element);
    }
  }
  void encodeDictionary(std::string_view, const Dictionary& value) override {
    for (const Dictionary::Entry& entry : value) {
      if (found) return;
      found = holdsNaNDate(entry.second);
    }
  }
  bool found = false;
};

// A value with a date holding NaN anywhere inside equals nothing, not even a copy of itself
// (containers compare element by element, and that date never compares equal). Linear in the size
// of the value; the nesting is bounded by the reader.
bool holdsNaNDate(const Value& value) {
  switch (value.type()) {
    case ValueType::Date:
      return std::isnan(value.asDate()->secondsSince1970);
    case ValueType::Array:
      return std::any_of(value.asArray()->begin(), value.asArray()->end(), holdsNaNDate);
    case ValueType::Set:
      return std::any_of(value.asSet()->elements.begin(), value.asSet()->elements.end(),
                         holdsNaNDate);
    case ValueType::Dictionary:
      return std::any_of(value.asDictionary()->begin(), value.asDictionary()->end(),
                         [](const Dictionary::Entry& entry) { return holdsNaNDate(entry.second); });
    case ValueType::Object: {
      NaNDateFinder finder;
      (*value.asObject())->encode(finder);
      return finder.found;
    }
    case ValueType::String:
    case ValueType::Number:
    case ValueType::Data:
      return false;
  }
  return false;
}

// The items of a keyed object, which its decode function takes out one by one.
class EntryList {
 public:
  void reserve(std::size_t count) { m_entries.reserve(count); }
  void append(std::string key, Value value) {
    m_entries.emplace_back(std::move(key), std::move(value));
  }
  const std::vector<Dictionary::Entry>& entries() const { return m_entries; }
  std::vector<Dictionary::Entry>& entries() { return m_entries; }

 private:
  std::vector<Dictionary::Entry> m_entries;
};

}  // namespace

// The items of a sequential object, read from the payload as the decode function asks for them.
class CborReader::SequentialItems final : public Decoder {
 public:
  SequentialItems(CborReader& reader, std::uint64_t count, int depth)
      : m_reader(reader), m_remaining(count), m_depth(depth) {}

  bool isKeyed() const override { return false; }

  Result<Value> decodeValue(std::string_view) override {
    if (m_reader.m_failure) return *m_reader.m_failure;
    if (m_remaining == 0) return archiveFault("object has fewer items than its class reads");
    --m_remaining;
    Value value{Number()};
    if (!m_reader.readValue(m_depth, value)) return *m_reader.m_failure;
    return value;
  }

  Result<Dictionary> decodeNameDictionary(std::string_view) override {
    if (m_reader.m_failure) return *m_reader.m_failure;
    if (m_remaining == 0) return archiveFault("object has fewer items than its class reads");
    --m_remaining;
    Value value{Number()};
    if (!m_reader.readValue(m_depth, value, MapKeys::Names)) return *m_reader.m_failure;
    Dictionary* dictionary = value.asDictionary();
    if (dictionary == nullptr) return archiveFault("item is not a dictionary");
    return std::move(*dictionary);
  }

  bool allTaken() const { return m_remaining == 0; }

 private:
  CborReader& m_reader;
  std::uint64_t m_remaining;
  int m_depth;
};

// The items of a keyed object; each key can be taken once.
class CborReader::KeyedItems final : public Decoder {
 public:
  explicit KeyedItems(std::vector<Dictionary::Entry>& entries)
      : m_entries(entries), m_taken(entries.size(), false) {}

  bool isKeyed() const override { return true; }

  // The items were read before the class could say which of them are dictionaries of names, so
  // each dictionary item was allowed name keys; an item taken as anything else must have text keys
  // only (a key that is not UTF-8 can only have come as a byte string).
  Result<Value> decodeValue(std::string_view key) override {
    KRV_TRY(Value value, take(key));
    if (const Dictionary* dictionary = value.asDictionary()) {
      for (const Dictionary::Entry& entry : *dictionary) {
        if (!isValidUtf8(entry.first)) return archiveFault("map key is not a text string");
      }
    }
    return value;
  }

  Result<Dictionary> decodeNameDictionary(std::string_view key) override {
    KRV_TRY(Value value, take(key));
    Dictionary* dictionary = value.asDictionary();
    if (dictionary == nullptr) return archiveFault("item is not a dictionary");
    return std::move(*dictionary);
  }

  bool allTaken() const { return m_takenCount == m_entries.size(); }

 private:
  Result<Value> take(std::string_view key) {
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
      if (m_entries[i].first != key) continue;
      if (m_taken[i]) break;
      m_taken[i] = true;
      ++m_takenCount;
      return std::move(m_entries[i].second);
    }
    std::string reason = "object has no item \"";
    reason += key;
    reason += '"';
    return archiveFault(reason);
  }

  std::vector<Dictionary::Entry>& m_entries;
  std::vector<bool> m_taken;
  std::size_t m_takenCount = 0;
};

Result<Value> CborReader::readRoot() {
  Value root{Number()};
  if (!readValue(0, root)) {
    if (!m_failure) m_failure = archiveFault("undecodable payload");
    return std::move(*m_failure);
  }
  if (m_position != m_payload.size()) {
    fail("bytes after the root item");
    return std::move(*m_failure);
  }
  return root;
}

bool CborReader::fail(const char* reason) {
  if (!m_failure) {
    std::string text = reason;
    text += " at byte ";
    text += std::to_string(m_position);
    m_failure = archiveFault(text);
  }
  return false;
}

bool CborReader::fail(Error error) {
  if (!m_failure) m_failure = std::move(error);
  return false;
}

template <class Argument>
bool CborReader::takeArgument(Head& head) {
  if (remaining() < sizeof(Argument)) return fail("truncated item");
  head.argument = loadBigEndian<Argument>(m_payload.data() + m_position);
  m_position += sizeof(Argument);
  return true;
}

bool CborReader::readHead(Head& head) {
  if (remaining() == 0) return fail("truncated item");
  const std::uint8_t initial = m_payload[m_position++];
  head.major = static_cast<std::uint8_t>(initial >> 5);
  head.info = initial & 0x1F;
  if (head.info < kInfoOneByte) {
    head.argument = head.info;
    return true;
  }
  switch (head.info) {
    case kInfoOneByte:
      return takeArgument<std::uint8_t>(head);
    case kInfoTwoBytes:
      return takeArgument<std::uint16_t>(head);
    case kInfoFourBytes:
      return takeArgument<std::uint32_t>(head);
    case kInfoEightBytes:
      return takeArgument<std::uint64_t>(head);
    case kInfoIndefinite:
      return fail("indefinite length");
    default:
      return fail("reserved additional information");
  }
}

bool CborReader::takeBytes(std::uint64_t length, const std::uint8_t*& bytes) {
  if (length > remaining()) return fail("length runs past the end");
  bytes = m_payload.data() + m_position;
  m_position += static_cast<std::size_t>(length);
  return true;
}

bool CborReader::takeText(std::uint64_t length, std::string_view& text) {
  const std::uint8_t* bytes = nullptr;
  if (!takeBytes(length, bytes)) return false;
  const auto size = static_cast<std::size_t>(length);
  if (findInvalidUtf8({reinterpret_cast<const char*>(bytes), size}) != std::string_view::npos) {
    return fail("invalid UTF-8");
  }
  text = std::string_view(reinterpret_cast<const char*>(bytes), size);
  return true;
}

bool CborReader::enter(int depth) {
  if (depth >= kMaximumArchiveDepth) return fail("nesting deeper than 64 levels");
  return true;
}

bool CborReader::readValue(int depth, Value& out, MapKeys keys) {
  Head head;
  if (!readHead(head)) return false;
  switch (head.major) {
    case kMajorUnsigned:
      out = Value::unsignedInteger(head.argument);
      return true;
    case kMajorNegative:
      if (head.argument > kLargestNegativeArgument) return fail("integer below -2^63");
      out = Value::integer(static_cast<std::int64_t>(~head.argument));  // -1 - argument
      return true;
    case kMajorBytes: {
      const std::uint8_t* bytes = nullptr;
      if (!takeBytes(head.argument, bytes)) return false;
      out = Value(Data(bytes, bytes + head.argument));
      return true;
    }
    case kMajorText: {
      std::string_view text;
      if (!takeText(head.argument, text)) return false;
      out = Value(text);
      return true;
    }
    case kMajorArray: {
      Array array;
      if (!readArray(head.argument, depth, array)) return false;
      out = Value(std::move(array));
      return true;
    }
    case kMajorMap: {
      Dictionary dictionary;
      if (!readMap(head.argument, depth, dictionary, keys)) return false;
      out = Value(std::move(dictionary));
      return true;
    }
    case kMajorTag:
      if (!enter(depth)) return false;
      return readTagged(head.argument, depth + 1, out);
    case kMajorSimple:
      switch (head.info) {
        case kInfoFalse:
          out = Value::boolean(false);
          return true;
        case kInfoTrue:
          out = Value::boolean(true);
          return true;
        case kInfoTwoBytes:
          out = Value::real(halfToDouble(static_cast<std::uint16_t>(head.argument)));
          return true;
        case kInfoFourBytes:
          out = Value::real(singleToDouble(static_cast<std::uint32_t>(head.argument)));
          return true;
        case kInfoEightBytes:
          out = Value::real(doubleFromBits(head.argument));
          return true;
        default:
          return fail("simple value other than false and true");
      }
    default:
      return fail("unknown major type");
  }
}

bool CborReader::readArray(std::uint64_t count, int depth, Array& out) {
  if (!enter(depth)) return false;
  // Every element takes at least one byte.
  if (count > remaining()) return fail("array length runs past the end");
  out.reserve(static_cast<std::size_t>(std::min(count, kMaximumReservation)));
  for (std::uint64_t i = 0; i < count; ++i) {
    out.emplace_back(Number());
    if (!readValue(depth + 1, out.back())) return false;
  }
  return true;
}

bool CborReader::readKey(MapKeys keys, std::string_view& key) {
  Head head;
  if (!readHead(head)) return false;
  if (head.major == kMajorText) return takeText(head.argument, key);
  if (head.major != kMajorBytes || keys != MapKeys::Names) {
    return fail("map key is not a text string");
  }
  // A name travels as bytes only when it is not UTF-8: every name has exactly one form, so equal
  // names are equal keys.
  const std::uint8_t* bytes = nullptr;
  if (!takeBytes(head.argument, bytes)) return false;
  const auto size = static_cast<std::size_t>(head.argument);
  key = std::string_view(reinterpret_cast<const char*>(bytes), size);
  if (isValidUtf8(key)) return fail("name key of UTF-8 bytes is not a text string");
  return true;
}

template <class Entries>
bool CborReader::readMap(std::uint64_t count, int depth, Entries& out, MapKeys keys,
                         MapKeys valueKeys) {
  if (!enter(depth)) return false;
  // Every entry takes at least two bytes.
  if (count > remaining() / 2) return fail("map length runs past the end");
  out.reserve(static_cast<std::size_t>(std::min(count, kMaximumReservation)));
  for (std::uint64_t i = 0; i < count; ++i) {
    std::string_view key;
    if (!readKey(keys, key)) return false;
    Value value{Number()};
    if (!readValue(depth + 1, value, valueKeys)) return false;
    out.append(std::string(key), std::move(value));
  }
  if (findDuplicateKey(out.entries())) return fail("duplicate map key");
  return true;
}

bool CborReader::readTagged(std::uint64_t tag, int depth, Value& out) {
  switch (tag) {
    case kDateTag:
      return readDate(out);
    case kSetTag:
      return readSet(depth, out);
    case kObjectTag:
      return readObject(depth, out);
    default:
      return fail("tag other than 1, 27 and 258");
  }
}

bool CborReader::readDate(Value& out) {
  Head head;
  if (!readHead(head)) return false;
  double seconds;
  if (head.major == kMajorUnsigned) {
    seconds = static_cast<double>(head.argument);
  } else if (head.major == kMajorNegative) {
    if (head.argument > kLargestNegativeArgument) return fail("integer below -2^63");
    seconds = static_cast<double>(static_cast<std::int64_t>(~head.argument));
  } else if (head.major == kMajorSimple && head.info == kInfoTwoBytes) {
    seconds = halfToDouble(static_cast<std::uint16_t>(head.argument));
  } else if (head.major == kMajorSimple && head.info == kInfoFourBytes) {
    seconds = singleToDouble(static_cast<std::uint32_t>(head.argument));
  } else if (head.major == kMajorSimple && head.info == kInfoEightBytes) {
    seconds = doubleFromBits(head.argument);
  } else {
    return fail("date is not a number");
  }
  out = Value(Date{seconds});
  return true;
}

bool CborReader::readSet(int depth, Value& out) {
  Head head;
  if (!readHead(head)) return false;
  if (head.major != kMajorArray) return fail("set is not an array");
  Array elements;
  if (!readArray(head.argument, depth, elements)) return false;
  if (!checkDistinct(elements)) return false;
  out = Value(Set{std::move(elements)});
  return true;
}

// Sorting the canonical forms finds equal elements in O(n log n). Equal canonical forms mean equal
// values except where a date holding NaN is inside; that is checked by a linear walk rather than
// with Value's equality, which compares sets and dictionaries in quadratic time (a set of two
// equal sets of 50,000 numbers each would keep the reader busy for minutes).
bool CborReader::checkDistinct(const Array& elements) {
  if (elements.size() < 2) return true;
  Data canonical;
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // offset, length
  spans.reserve(elements.size());
  {
    CborWriter writer(canonical);
    for (const Value& element : elements) {
      const std::size_t start = writer.size();
      writer.writeCanonical(element);
      spans.emplace_back(start, writer.size() - start);
    }
  }
  auto bytesOf = [&canonical, &spans](std::size_t index) {
    return std::string_view(reinterpret_cast<const char*>(canonical.data()) + spans[index].first,
                            spans[index].second);
  };
  std::vector<std::size_t> order(elements.size());
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::sort(order.begin(), order.end(),
            [&bytesOf](std::size_t a, std::size_t b) { return bytesOf(a) < bytesOf(b); });
  for (std::size_t i = 1; i < order.size(); ++i) {
    if (bytesOf(order[i - 1]) == bytesOf(order[i]) && !holdsNaNDate(elements[order[i]])) {
      return fail("duplicate set element");
    }
  }
  return true;
}

bool CborReader::readObject(int depth, Value& out) {
  Head head;
  if (!readHead(head)) return false;
  if (head.major != kMajorArray) return fail("object is not an array");
  if (!enter(depth)) return false;
  if (head.argument == 0) return fail("object without a class name");
  if (head.argument > remaining()) return fail("object length runs past the end");

  Head nameHead;
  if (!readHead(nameHead)) return false;
  if (nameHead.major != kMajorText) return fail("object without a class name");
  const std::uint8_t* name = nullptr;
  if (!takeBytes(nameHead.argument, name)) return false;
  DecodeFunction decode = m_classes.find(std::string_view(
      reinterpret_cast<const char*>(name), static_cast<std::size_t>(nameHead.argument)));
  if (decode == nullptr) return fail("unknown class");

  if (m_form == ArchiveForm::Sequential) {
    SequentialItems items(*this, head.argument - 1, depth + 1);
    Result<ObjectRef> object = decode(items);
    return finishObject(std::move(object), items.allTaken(), out);
  }

  if (head.argument != 2) return fail("keyed object is not a class name and a map");
  Head mapHead;
  if (!readHead(mapHead)) return false;
  if (mapHead.major != kMajorMap) return fail("keyed object without a map of items");
  EntryList entries;
  if (!readMap(mapHead.argument, depth + 1, entries, MapKeys::Text, MapKeys::Names)) return false;
  KeyedItems items(entries.entries());
  Result<ObjectRef> object = decode(items);
  return finishObject(std::move(object), items.allTaken(), out);
}

bool CborReader::finishObject(Result<ObjectRef> object, bool allItemsTaken, Value& out) {
  // A parse failure stands even when the decode function chose to ignore it.
  if (m_failure) return false;
  if (!object) {
    const Error& error = object.error();
    if (error.isPosix() && error.code() == EIO) return fail(std::move(object).error());
    return fail(archiveFault("object refused its items: " + error.description()));
  }
  if (object.value() == nullptr) return fail("class made no object");
  if (!allItemsTaken) return fail("object has items its class does not read");
  out = Value(std::move(object).value());
  return true;
}

}  // namespace krv
