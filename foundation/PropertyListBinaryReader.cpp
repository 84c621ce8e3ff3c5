// The binary property-list reader ("bplist00").
//
// Layout: the 8-byte header, the objects, the offset table (one offset per object, each
// offsetSize bytes, big-endian) and a 32-byte trailer: 6 unused bytes, the offset size, the object
// reference size, then the object count, the top object's number and the offset table's position
// as 64-bit big-endian integers. Objects refer to each other by number.
//
// The input is hostile: every position and count is checked against the object area before use,
// with arithmetic that cannot overflow; a count can never ask for more memory than its bytes
// could fill; the references on the path from the top object are tracked to refuse cycles; and
// since one object may be referred to many times (and so copied into the tree many times), the
// total size of the tree built is capped in proportion to the input.

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

#include "foundation/Format.h"
#include "foundation/PropertyList.h"
#include "foundation/PropertyListSupport.h"
#include "foundation/Utf8.h"

namespace krv::plist {

namespace {

using detail::parseError;

constexpr std::size_t kHeaderSize = 8;
constexpr std::size_t kTrailerSize = 32;
// Seconds from 1970-01-01 to 2001-01-01, the epoch of binary dates.
constexpr double kBinaryDateEpoch = 978307200.0;

// The tree may cost this much, counted as kNodeCost per value plus the bytes of its strings and
// data, before the reader gives up: generous for any list a writer makes, and a bound on what a
// list of shared references can make the reader build.
constexpr std::uint64_t kNodeCost = 32;
constexpr std::uint64_t kBaseBudget = 8u << 20;
constexpr std::uint64_t kBudgetPerInputByte = 32;

// A byte string that determines a value up to Value equality, used to find repeated elements of
// a set. Dictionaries and sets are put in a canonical order; -0.0 is written as 0.0 (they are
// equal), other reals by their bits.
void appendCanonical(const Value& value, std::string& out);

void appendCanonicalSize(std::uint64_t size, std::string& out) {
  for (int shift = 56; shift >= 0; shift -= 8) out += static_cast<char>(size >> shift);
}

void appendCanonicalDouble(double value, std::string& out) {
  if (value == 0.0) value = 0.0;
  appendCanonicalSize(std::bit_cast<std::uint64_t>(value), out);
}

std::vector<std::string> canonicalElements(const std::vector<Value>& elements) {
  std::vector<std::string> keys;
  keys.reserve(elements.size());
  for (const Value& element : elements) {
    keys.emplace_back();
    appendCanonical(element, keys.back());
  }
  return keys;
}

void appendCanonicalString(std::string_view text, std::string& out) {
  out += static_cast<char>(ValueType::String);
  appendCanonicalSize(text.size(), out);
  out += text;
}

void appendCanonical(const Value& value, std::string& out) {
  if (const std::string* text = value.asString()) return appendCanonicalString(*text, out);
  out += static_cast<char>(value.type());
  switch (value.type()) {
    case ValueType::String:
      break;
    case ValueType::Number: {
      const Number& number = *value.asNumber();
      out += static_cast<char>(number.kind());
      if (number.isReal()) {
        appendCanonicalDouble(number.doubleValue(), out);
      } else {
        appendCanonicalSize(number.unsignedIntegerValue(), out);
      }
      break;
    }
    case ValueType::Data:
      appendCanonicalSize(value.asData()->size(), out);
      out.append(value.asData()->begin(), value.asData()->end());
      break;
    case ValueType::Date:
      appendCanonicalDouble(value.asDate()->secondsSince1970, out);
      break;
    case ValueType::Array:
      appendCanonicalSize(value.asArray()->size(), out);
      for (const Value& element : *value.asArray()) appendCanonical(element, out);
      break;
    case ValueType::Set: {
      std::vector<std::string> keys = canonicalElements(value.asSet()->elements);
      std::sort(keys.begin(), keys.end());
      appendCanonicalSize(keys.size(), out);
      for (const std::string& key : keys) out += key;
      break;
    }
    case ValueType::Dictionary: {
      std::vector<const Dictionary::Entry*> entries;
      for (const Dictionary::Entry& entry : *value.asDictionary()) entries.push_back(&entry);
      std::sort(entries.begin(), entries.end(),
                [](const Dictionary::Entry* a, const Dictionary::Entry* b) {
                  return a->first < b->first;
                });
      appendCanonicalSize(entries.size(), out);
      for (const Dictionary::Entry* entry : entries) {
        appendCanonicalString(entry->first, out);
        appendCanonical(entry->second, out);
      }
      break;
    }
    case ValueType::Object:
      break;  // never produced by a reader
  }
}

class BinaryReader {
 public:
  explicit BinaryReader(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}

  Result<Value> run() {
    Value root("");
    if (!parseTrailer() || !parseObject(m_topObject, 1, root)) {
      return parseError(format("offset %llu: %s",
                               static_cast<unsigned long long>(m_failure.offset()),
                               m_failure.message().c_str()));
    }
    return root;
  }

 private:
  bool fail(std::uint64_t offset, std::string message) {
    return m_failure.record(offset, std::move(message));
  }

  // A big-endian unsigned integer of 1 to 8 bytes; the caller has checked the bounds.
  std::uint64_t readUnsigned(std::uint64_t offset, unsigned size) const {
    std::uint64_t value = 0;
    for (unsigned i = 0; i < size; ++i) value = (value << 8) | m_bytes[offset + i];
    return value;
  }

  // True when [offset, offset + length) lies in the object area.
  bool inObjectArea(std::uint64_t offset, std::uint64_t length) const {
    return offset <= m_tableOffset && length <= m_tableOffset - offset;
  }

  bool parseTrailer() {
    const std::uint64_t size = m_bytes.size();
    if (size < kHeaderSize + kTrailerSize + 1) return fail(0, "too short for a binary list");
    if (std::memcmp(m_bytes.data(), "bplist00", kHeaderSize) != 0) {
      return fail(0, "unsupported binary list version");
    }
    const std::uint64_t trailer = size - kTrailerSize;
    m_offsetSize = m_bytes[trailer + 6];
    m_referenceSize = m_bytes[trailer + 7];
    m_objectCount = readUnsigned(trailer + 8, 8);
    m_topObject = readUnsigned(trailer + 16, 8);
    m_tableOffset = readUnsigned(trailer + 24, 8);
    if (m_offsetSize < 1 || m_offsetSize > 8) return fail(trailer + 6, "invalid offset size");
    if (m_referenceSize < 1 || m_referenceSize > 8) {
      return fail(trailer + 7, "invalid object reference size");
    }
    if (m_objectCount == 0) return fail(trailer + 8, "no objects");
    if (m_topObject >= m_objectCount) return fail(trailer + 16, "top object out of range");
    if (m_tableOffset < kHeaderSize + 1 || m_tableOffset > trailer ||
        m_objectCount > (trailer - m_tableOffset) / m_offsetSize) {
      return fail(trailer + 24, "offset table out of range");
    }
    m_onPath.assign(m_objectCount, false);
    m_budget = kBaseBudget + kBudgetPerInputByte * size;
    return true;
  }

  bool charge(std::uint64_t offset, std::uint64_t cost) {
    if (cost > m_budget) return fail(offset, "the list expands beyond the size limit");
    m_budget -= cost;
    return true;
  }

  // The length of a data, string or container object: the marker's low nibble, or an integer
  // object that follows the marker when the nibble is 0xF.
  bool readCount(std::uint64_t offset, std::uint64_t& count, std::uint64_t& contentOffset) {
    const unsigned nibble = m_bytes[offset] & 0x0F;
    if (nibble != 0x0F) {
      count = nibble;
      contentOffset = offset + 1;
      return true;
    }
    if (!inObjectArea(offset + 1, 1)) return fail(offset, "truncated count");
    const unsigned marker = m_bytes[offset + 1];
    if ((marker & 0xF0) != 0x10 || (marker & 0x0F) > 3) return fail(offset + 1, "invalid count");
    const unsigned size = 1u << (marker & 0x0F);
    if (!inObjectArea(offset + 2, size)) return fail(offset, "truncated count");
    count = readUnsigned(offset + 2, size);
    contentOffset = offset + 2 + size;
    return true;
  }

  // Reads `count` object references of m_referenceSize bytes starting at `offset`.
  bool readReferences(std::uint64_t offset, std::uint64_t count,
                      std::vector<std::uint64_t>& references) {
    references.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i) {
      const std::uint64_t at = offset + i * m_referenceSize;
      const std::uint64_t reference = readUnsigned(at, m_referenceSize);
      if (reference >= m_objectCount) return fail(at, "object reference out of range");
      references.push_back(reference);
    }
    return true;
  }

  bool parseObject(std::uint64_t reference, int depth, Value& out) {
    const std::uint64_t entry = m_tableOffset + reference * m_offsetSize;
    const std::uint64_t offset = readUnsigned(entry, m_offsetSize);
    if (offset < kHeaderSize || offset >= m_tableOffset)
      return fail(entry, "object offset out of range");
    if (m_onPath[reference]) return fail(offset, "object refers to itself (a cycle)");
    if (!charge(offset, kNodeCost)) return false;
    const unsigned marker = m_bytes[offset];
    const unsigned nibble = marker & 0x0F;
    switch (marker >> 4) {
      case 0x0:
        if (marker == 0x08 || marker == 0x09) {
          out = Value::boolean(marker == 0x09);
          return true;
        }
        return fail(offset, format("unsupported object type 0x%02x", marker));
      case 0x1:
        return parseInteger(offset, nibble, out);
      case 0x2: {
        if (nibble != 2 && nibble != 3) return fail(offset, "invalid real size");
        const unsigned size = 1u << nibble;
        if (!inObjectArea(offset + 1, size)) return fail(offset, "truncated real");
        const std::uint64_t bits = readUnsigned(offset + 1, size);
        out = Value::real(
            size == 4 ? static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bits)))
                      : std::bit_cast<double>(bits));
        return true;
      }
      case 0x3: {
        if (marker != 0x33) return fail(offset, "invalid date");
        if (!inObjectArea(offset + 1, 8)) return fail(offset, "truncated date");
        const double seconds = std::bit_cast<double>(readUnsigned(offset + 1, 8));
        if (!std::isfinite(seconds)) return fail(offset, "invalid date");
        out = Value(Date{seconds + kBinaryDateEpoch});
        return true;
      }
      case 0x4:
      case 0x5:
      case 0x6:
        return parseBytes(offset, out);
      case 0xA:
      case 0xC:
      case 0xD:
        if (depth > kMaximumPropertyListDepth) {
          return fail(offset, format("nesting deeper than %d levels", kMaximumPropertyListDepth));
        }
        m_onPath[reference] = true;
        if (!parseContainer(offset, depth, out)) return false;
        m_onPath[reference] = false;
        return true;
      default:
        return fail(offset, format("unsupported object type 0x%02x", marker));
    }
  }

  // 1, 2 and 4-byte integers are unsigned, 8-byte ones signed; a 16-byte integer is accepted
  // when its value fits in 64 bits (signed or unsigned).
  bool parseInteger(std::uint64_t offset, unsigned nibble, Value& out) {
    if (nibble > 4) return fail(offset, "invalid integer size");
    const unsigned size = 1u << nibble;
    if (!inObjectArea(offset + 1, size)) return fail(offset, "truncated integer");
    if (size < 8) {
      out = Value::integer(static_cast<std::int64_t>(readUnsigned(offset + 1, size)));
    } else if (size == 8) {
      out = Value::integer(static_cast<std::int64_t>(readUnsigned(offset + 1, 8)));
    } else {
      const std::uint64_t high = readUnsigned(offset + 1, 8);
      const std::uint64_t low = readUnsigned(offset + 9, 8);
      if (high == 0) {
        out = Value::unsignedInteger(low);
      } else if (high == ~std::uint64_t{0} && (low >> 63) != 0) {
        out = Value::integer(static_cast<std::int64_t>(low));
      } else {
        return fail(offset, "integer out of range");
      }
    }
    return true;
  }

  // Data, ASCII strings and UTF-16 strings. Strings never hold U+0000.
  bool parseBytes(std::uint64_t offset, Value& out) {
    const unsigned type = m_bytes[offset] >> 4;
    std::uint64_t count = 0;
    std::uint64_t start = 0;
    if (!readCount(offset, count, start)) return false;
    const std::uint64_t unit = type == 0x6 ? 2 : 1;
    if (start > m_tableOffset || count > (m_tableOffset - start) / unit) {
      return fail(offset, "length runs past the object area");
    }
    const std::uint8_t* bytes = m_bytes.data() + start;
    if (type == 0x4) {
      if (!charge(offset, count)) return false;
      out = Value(Data(bytes, bytes + count));
      return true;
    }
    std::string text;
    if (type == 0x5) {
      if (!charge(offset, count)) return false;
      for (std::uint64_t i = 0; i < count; ++i) {
        if (bytes[i] == 0 || bytes[i] >= 0x80) {
          return fail(start + i, "ASCII string holds a NUL or non-ASCII byte");
        }
      }
      text.assign(reinterpret_cast<const char*>(bytes), count);
    } else {
      // UTF-8 takes at most 3 bytes for each UTF-16 unit.
      if (!charge(offset, count * 3)) return false;
      text.reserve(count * 3);
      for (std::uint64_t i = 0; i < count; ++i) {
        char32_t unit16 = static_cast<char32_t>((bytes[2 * i] << 8) | bytes[2 * i + 1]);
        if (unit16 == 0) return fail(start + 2 * i, "UTF-16 string holds U+0000");
        if (unit16 >= 0xDC00 && unit16 <= 0xDFFF) {
          return fail(start + 2 * i, "unpaired UTF-16 surrogate");
        }
        if (unit16 >= 0xD800 && unit16 <= 0xDBFF) {
          if (i + 1 == count) return fail(start + 2 * i, "unpaired UTF-16 surrogate");
          const char32_t low = static_cast<char32_t>((bytes[2 * i + 2] << 8) | bytes[2 * i + 3]);
          if (low < 0xDC00 || low > 0xDFFF) return fail(start + 2 * i, "unpaired UTF-16 surrogate");
          unit16 = 0x10000 + ((unit16 - 0xD800) << 10) + (low - 0xDC00);
          ++i;
        }
        appendUtf8(text, unit16);
      }
    }
    out = Value(std::move(text));
    return true;
  }

  bool parseContainer(std::uint64_t offset, int depth, Value& out) {
    const unsigned type = m_bytes[offset] >> 4;
    std::uint64_t count = 0;
    std::uint64_t start = 0;
    if (!readCount(offset, count, start)) return false;
    const std::uint64_t perEntry = (type == 0xD ? 2 : 1) * std::uint64_t{m_referenceSize};
    if (start > m_tableOffset || count > (m_tableOffset - start) / perEntry) {
      return fail(offset, "length runs past the object area");
    }
    std::vector<std::uint64_t> references;
    if (!readReferences(start, type == 0xD ? count * 2 : count, references)) return false;
    if (type == 0xD) return parseDictionary(offset, references, count, depth, out);
    std::vector<Value> elements;
    elements.reserve(count);
    for (std::uint64_t reference : references) {
      Value element("");
      if (!parseObject(reference, depth + 1, element)) return false;
      elements.push_back(std::move(element));
    }
    if (type == 0xA) {
      out = Value(std::move(elements));
      return true;
    }
    // A set must not hold the same value twice. Building the comparison keys costs about as
    // much as the elements themselves, so it is charged as well: nested sets cannot multiply it.
    std::vector<std::string> keys = canonicalElements(elements);
    std::uint64_t keyBytes = 0;
    for (const std::string& key : keys) keyBytes += key.size();
    if (!charge(offset, keyBytes)) return false;
    std::sort(keys.begin(), keys.end());
    if (std::adjacent_find(keys.begin(), keys.end()) != keys.end()) {
      return fail(offset, "set holds the same value twice");
    }
    out = Value(Set{std::move(elements)});
    return true;
  }

  bool parseDictionary(std::uint64_t offset, const std::vector<std::uint64_t>& references,
                       std::uint64_t count, int depth, Value& out) {
    Dictionary dictionary;
    dictionary.reserve(count);
    for (std::uint64_t i = 0; i < count; ++i) {
      Value key("");
      Value value("");
      if (!parseObject(references[i], depth + 1, key)) return false;
      std::string* keyText = key.asString();
      if (keyText == nullptr) return fail(offset, "dictionary key is not a string");
      if (!parseObject(references[count + i], depth + 1, value)) return false;
      dictionary.append(std::move(*keyText), std::move(value));
    }
    if (const std::optional<std::size_t> duplicate = findDuplicateKey(dictionary.entries())) {
      return fail(offset, "duplicate key " +
                              detail::quoteForMessage(dictionary.entries()[*duplicate].first));
    }
    out = Value(std::move(dictionary));
    return true;
  }

  std::span<const std::uint8_t> m_bytes;
  unsigned m_offsetSize = 0;
  unsigned m_referenceSize = 0;
  std::uint64_t m_objectCount = 0;
  std::uint64_t m_topObject = 0;
  std::uint64_t m_tableOffset = 0;
  std::vector<bool> m_onPath;
  std::uint64_t m_budget = 0;
  detail::ParseFailure m_failure;
};

}  // namespace

Result<Value> readBinary(std::span<const std::uint8_t> bytes) { return BinaryReader(bytes).run(); }

}  // namespace krv::plist
