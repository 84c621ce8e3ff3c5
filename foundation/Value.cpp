#include "foundation/Value.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

#include "foundation/Archivable.h"

namespace krv {

namespace {

// Floating point to signed 64-bit: truncation toward zero, saturating where C is undefined.
std::int64_t truncateToInt64(double value) {
  if (std::isnan(value)) return 0;
  constexpr double kTwoTo63 = 9223372036854775808.0;
  if (value >= kTwoTo63) return std::numeric_limits<std::int64_t>::max();
  if (value < -kTwoTo63) return std::numeric_limits<std::int64_t>::min();
  return static_cast<std::int64_t>(value);
}

// Floating point to unsigned 64-bit: negative values go through the signed conversion and wrap,
// as the C conversion through a signed register does on the platforms the clients use.
std::uint64_t truncateToUInt64(double value) {
  if (std::isnan(value)) return 0;
  constexpr double kTwoTo64 = 18446744073709551616.0;
  if (value >= kTwoTo64) return std::numeric_limits<std::uint64_t>::max();
  if (value >= 0) return static_cast<std::uint64_t>(value);
  return static_cast<std::uint64_t>(truncateToInt64(value));
}

}  // namespace

Number Number::integer(std::int64_t value) {
  Number number;
  number.m_kind = Kind::Integer;
  number.m_bits.i = value;
  return number;
}

Number Number::unsignedInteger(std::uint64_t value) {
  if (value <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
    return integer(static_cast<std::int64_t>(value));
  }
  Number number;
  number.m_kind = Kind::LargeUnsigned;
  number.m_bits.u = value;
  return number;
}

Number Number::real(double value) {
  Number number;
  number.m_kind = Kind::Real;
  number.m_bits.d = value;
  return number;
}

Number Number::boolean(bool value) {
  Number number;
  number.m_kind = Kind::Boolean;
  number.m_bits.b = value;
  return number;
}

bool Number::boolValue() const {
  switch (m_kind) {
    case Kind::Integer:
      return m_bits.i != 0;
    case Kind::LargeUnsigned:
      return true;
    case Kind::Real:
      return m_bits.d != 0.0;  // NaN is true, as in C
    case Kind::Boolean:
      return m_bits.b;
  }
  return false;
}

std::int64_t Number::integerValue() const {
  switch (m_kind) {
    case Kind::Integer:
      return m_bits.i;
    case Kind::LargeUnsigned:
      return static_cast<std::int64_t>(m_bits.u);  // modular, as C
    case Kind::Real:
      return truncateToInt64(m_bits.d);
    case Kind::Boolean:
      return m_bits.b ? 1 : 0;
  }
  return 0;
}

std::uint64_t Number::unsignedIntegerValue() const {
  switch (m_kind) {
    case Kind::Integer:
      return static_cast<std::uint64_t>(m_bits.i);
    case Kind::LargeUnsigned:
      return m_bits.u;
    case Kind::Real:
      return truncateToUInt64(m_bits.d);
    case Kind::Boolean:
      return m_bits.b ? 1 : 0;
  }
  return 0;
}

unsigned long Number::unsignedLongValue() const {
  return static_cast<unsigned long>(unsignedIntegerValue());
}

std::uint8_t Number::unsignedCharValue() const {
  return static_cast<std::uint8_t>(unsignedIntegerValue());
}

std::int32_t Number::intValue() const { return static_cast<std::int32_t>(integerValue()); }

double Number::doubleValue() const {
  switch (m_kind) {
    case Kind::Integer:
      return static_cast<double>(m_bits.i);
    case Kind::LargeUnsigned:
      return static_cast<double>(m_bits.u);
    case Kind::Real:
      return m_bits.d;
    case Kind::Boolean:
      return m_bits.b ? 1.0 : 0.0;
  }
  return 0.0;
}

bool Number::operator==(const Number& other) const {
  if (m_kind != other.m_kind) return false;
  switch (m_kind) {
    case Kind::Integer:
      return m_bits.i == other.m_bits.i;
    case Kind::LargeUnsigned:
      return m_bits.u == other.m_bits.u;
    case Kind::Real:
      return std::memcmp(&m_bits.d, &other.m_bits.d, sizeof(double)) == 0 ||
             m_bits.d == other.m_bits.d;
    case Kind::Boolean:
      return m_bits.b == other.m_bits.b;
  }
  return false;
}

bool Set::operator==(const Set& other) const {
  if (elements.size() != other.elements.size()) return false;
  for (const Value& element : elements) {
    bool found = false;
    for (const Value& candidate : other.elements) {
      if (element == candidate) {
        found = true;
        break;
      }
    }
    if (!found) return false;
  }
  return true;
}

void Dictionary::set(std::string_view key, Value value) {
  for (Entry& entry : m_entries) {
    if (entry.first == key) {
      entry.second = std::move(value);
      return;
    }
  }
  m_entries.emplace_back(std::string(key), std::move(value));
}

void Dictionary::append(std::string key, Value value) {
  m_entries.emplace_back(std::move(key), std::move(value));
}

const Value* Dictionary::find(std::string_view key) const {
  for (const Entry& entry : m_entries) {
    if (entry.first == key) return &entry.second;
  }
  return nullptr;
}

bool Dictionary::remove(std::string_view key) {
  for (auto it = m_entries.begin(); it != m_entries.end(); ++it) {
    if (it->first == key) {
      m_entries.erase(it);
      return true;
    }
  }
  return false;
}

bool Dictionary::operator==(const Dictionary& other) const {
  if (m_entries.size() != other.m_entries.size()) return false;
  for (const Entry& entry : m_entries) {
    const Value* theirs = other.find(entry.first);
    if (theirs == nullptr || !(*theirs == entry.second)) return false;
  }
  return true;
}

std::optional<std::size_t> findDuplicateKey(const std::vector<Dictionary::Entry>& entries) {
  const std::size_t count = entries.size();
  if (count <= 16) {
    for (std::size_t later = 1; later < count; ++later) {
      for (std::size_t earlier = 0; earlier < later; ++earlier) {
        if (entries[earlier].first == entries[later].first) return later;
      }
    }
    return std::nullopt;
  }
  std::vector<std::pair<std::string_view, std::size_t>> keys;
  keys.reserve(count);
  for (std::size_t i = 0; i < count; ++i) keys.emplace_back(entries[i].first, i);
  std::sort(keys.begin(), keys.end());
  std::optional<std::size_t> duplicate;
  for (std::size_t i = 1; i < count; ++i) {
    if (keys[i].first == keys[i - 1].first && (!duplicate || keys[i].second < *duplicate)) {
      duplicate = keys[i].second;
    }
  }
  return duplicate;
}

Value::Value(ObjectRef value) : m_storage(std::move(value)) {}

namespace {

// Collects what an object encodes, so that two objects can be compared item by item.
class ItemCollector final : public Encoder {
 public:
  bool isKeyed() const override { return true; }
  void encodeValue(std::string_view key, const Value& value) override {
    items.append(std::string(key), value);
  }
  Dictionary items;
};

Dictionary itemsOf(const Archivable& object) {
  ItemCollector collector;
  object.encode(collector);
  return std::move(collector.items);
}

void appendEscaped(std::string& out, std::string_view text) {
  out += '"';
  for (char c : text) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (static_cast<unsigned char>(c) < 0x20) {
      char buffer[8];
      std::snprintf(buffer, sizeof buffer, "\\x%02x", static_cast<unsigned>(c));
      out += buffer;
    } else {
      out += c;
    }
  }
  out += '"';
}

void describe(const Value& value, std::string& out);

void describeNumber(const Number& number, std::string& out) {
  char buffer[32];
  switch (number.kind()) {
    case Number::Kind::Integer:
      std::snprintf(buffer, sizeof buffer, "%lld", static_cast<long long>(number.integerValue()));
      break;
    case Number::Kind::LargeUnsigned:
      std::snprintf(buffer, sizeof buffer, "%llu",
                    static_cast<unsigned long long>(number.unsignedIntegerValue()));
      break;
    case Number::Kind::Real:
      std::snprintf(buffer, sizeof buffer, "%.17g", number.doubleValue());
      break;
    case Number::Kind::Boolean:
      std::snprintf(buffer, sizeof buffer, "%s", number.boolValue() ? "true" : "false");
      break;
  }
  out += buffer;
}

void describe(const Value& value, std::string& out) {
  switch (value.type()) {
    case ValueType::String:
      appendEscaped(out, *value.asString());
      break;
    case ValueType::Number:
      describeNumber(*value.asNumber(), out);
      break;
    case ValueType::Data: {
      out += '<';
      const Data& data = *value.asData();
      for (std::size_t i = 0; i < data.size(); ++i) {
        char buffer[4];
        std::snprintf(buffer, sizeof buffer, "%02x", data[i]);
        if (i != 0 && i % 4 == 0) out += ' ';
        out += buffer;
      }
      out += '>';
      break;
    }
    case ValueType::Date: {
      char buffer[48];
      std::snprintf(buffer, sizeof buffer, "date(%.3f)", value.asDate()->secondsSince1970);
      out += buffer;
      break;
    }
    case ValueType::Array:
    case ValueType::Set: {
      const std::vector<Value>& elements =
          value.asArray() ? *value.asArray() : value.asSet()->elements;
      out += value.asArray() ? "(" : "{(";
      for (std::size_t i = 0; i < elements.size(); ++i) {
        if (i != 0) out += ", ";
        describe(elements[i], out);
      }
      out += value.asArray() ? ")" : ")}";
      break;
    }
    case ValueType::Dictionary: {
      out += '{';
      bool first = true;
      for (const auto& [key, element] : *value.asDictionary()) {
        if (!first) out += ", ";
        first = false;
        out += key;
        out += " = ";
        describe(element, out);
      }
      out += '}';
      break;
    }
    case ValueType::Object: {
      const Archivable& object = **value.asObject();
      out += object.className();
      std::string items;
      describe(Value(itemsOf(object)), items);
      out += items;
      break;
    }
  }
}

}  // namespace

bool Value::operator==(const Value& other) const {
  if (m_storage.index() != other.m_storage.index()) return false;
  if (const ObjectRef* mine = asObject()) {
    const ObjectRef& theirs = *other.asObject();
    if (mine->get() == theirs.get()) return true;
    if (!*mine || !theirs) return false;
    if ((*mine)->className() != theirs->className()) return false;
    return itemsOf(**mine) == itemsOf(*theirs);
  }
  return m_storage == other.m_storage;
}

std::string Value::description() const {
  std::string out;
  describe(*this, out);
  return out;
}

std::string_view typeName(ValueType type) {
  switch (type) {
    case ValueType::String:
      return "string";
    case ValueType::Number:
      return "number";
    case ValueType::Data:
      return "data";
    case ValueType::Date:
      return "date";
    case ValueType::Array:
      return "array";
    case ValueType::Set:
      return "set";
    case ValueType::Dictionary:
      return "dictionary";
    case ValueType::Object:
      return "object";
  }
  return "unknown";
}

}  // namespace krv
