#pragma once
// The object model: the values that cross the process boundary between a client and the daemon.
//
// A Value is one of: a string (UTF-8), a number, a data object (bytes), a date, an array, a set,
// a dictionary with string keys, or an archivable object (an error object, a request object, ...).
// There is no "nil" value: absence is expressed with std::optional or a null pointer.
//
// Values are plain, copyable and movable; an archivable object is shared through a pointer to a
// const object, so copying a Value never copies an object. A Value is not synchronised: share it
// between threads only as const.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace krv {

class Archivable;
class Value;

using ObjectRef = std::shared_ptr<const Archivable>;
using Data = std::vector<std::uint8_t>;
using Array = std::vector<Value>;

// A number keeps its kind (integer, floating point, boolean) across the wire. The conversions
// follow the C conversion rules of the receiving side: integer to narrower or unsigned integer
// wraps modulo 2^n, floating point to integer truncates toward zero. Where C leaves a conversion
// undefined (a floating-point value out of the target's range, NaN) the result saturates to the
// nearest representable value and NaN converts to 0.
class Number {
 public:
  enum class Kind : std::uint8_t {
    Integer,        // any value in the signed 64-bit range
    LargeUnsigned,  // values above 2^63-1 (up to 2^64-1)
    Real,           // double
    Boolean,
  };

  static Number integer(std::int64_t value);
  static Number unsignedInteger(std::uint64_t value);
  static Number real(double value);
  static Number boolean(bool value);

  Kind kind() const { return m_kind; }
  bool isInteger() const { return m_kind == Kind::Integer || m_kind == Kind::LargeUnsigned; }
  bool isReal() const { return m_kind == Kind::Real; }
  bool isBoolean() const { return m_kind == Kind::Boolean; }
  // True when the number is an integer that is negative (only Kind::Integer can be).
  bool isNegative() const { return m_kind == Kind::Integer && m_bits.i < 0; }

  bool boolValue() const;
  std::int64_t integerValue() const;
  std::uint64_t unsignedIntegerValue() const;
  unsigned long unsignedLongValue() const;
  std::uint8_t unsignedCharValue() const;
  std::int32_t intValue() const;
  double doubleValue() const;

  // Same kind and same value (a NaN equals a NaN of the same bits; 1 and 1.0 differ).
  bool operator==(const Number& other) const;

 private:
  union Bits {
    std::int64_t i;
    std::uint64_t u;
    double d;
    bool b;
  };
  Kind m_kind = Kind::Integer;
  Bits m_bits{};
};

// A point in time: seconds since 1970-01-01 00:00:00 UTC, with fractions.
struct Date {
  double secondsSince1970 = 0.0;
  bool operator==(const Date& other) const = default;
};

// An unordered collection of distinct values. The elements are kept in the order in which they
// were added; the archiver writes numbers in ascending order.
struct Set {
  std::vector<Value> elements;
  bool operator==(const Set& other) const;
};

// A dictionary with string keys that keeps its keys in insertion order (the wire form and the
// object records depend on a stable order). Lookups are linear: dictionaries here are small.
class Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;

  Dictionary() = default;

  // Sets the value for a key: replaces an existing entry in place, or appends a new one.
  void set(std::string_view key, Value value);
  // Appends without looking for an existing key; the caller guarantees the key is new.
  void append(std::string key, Value value);
  const Value* find(std::string_view key) const;
  bool remove(std::string_view key);
  bool contains(std::string_view key) const { return find(key) != nullptr; }

  // (Defined after Value: clang instantiates the vector members at once, and Value must be
  // complete by then.)
  std::size_t size() const;
  bool empty() const;
  void reserve(std::size_t count);
  const std::vector<Entry>& entries() const { return m_entries; }
  std::vector<Entry>::const_iterator begin() const;
  std::vector<Entry>::const_iterator end() const;

  // Each value in order, for changing values in place; the keys stay as they are.
  template <class Visit>
  void forEachValue(Visit&& visit);

  // Equal when both hold the same keys with equal values, whatever their order.
  bool operator==(const Dictionary& other) const;

 private:
  std::vector<Entry> m_entries;
};

// The index of the first entry whose key repeats an earlier one (the lowest such index), or
// nullopt: the check every reader of received dictionaries makes (archives, property lists).
// O(n log n); small dictionaries, the common case, are compared pairwise.
std::optional<std::size_t> findDuplicateKey(const std::vector<Dictionary::Entry>& entries);

// The kinds of Value, in the order of the storage alternatives. (g++ 12 wrongly reports scoped
// enumerators as shadowing the aliases of the same name, hence the local pragma.)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wshadow"
enum class ValueType : std::uint8_t { String, Number, Data, Date, Array, Set, Dictionary, Object };
#pragma GCC diagnostic pop

class Value {
 public:
  explicit Value(std::string value) : m_storage(std::move(value)) {}
  explicit Value(std::string_view value) : m_storage(std::string(value)) {}
  explicit Value(const char* value) : m_storage(std::string(value)) {}
  explicit Value(Number value) : m_storage(value) {}
  explicit Value(Data value) : m_storage(std::move(value)) {}
  explicit Value(Date value) : m_storage(value) {}
  explicit Value(Array value) : m_storage(std::move(value)) {}
  explicit Value(Set value) : m_storage(std::move(value)) {}
  explicit Value(Dictionary value) : m_storage(std::move(value)) {}
  explicit Value(ObjectRef value);

  static Value integer(std::int64_t value) { return Value(Number::integer(value)); }
  static Value unsignedInteger(std::uint64_t value) {
    return Value(Number::unsignedInteger(value));
  }
  static Value real(double value) { return Value(Number::real(value)); }
  static Value boolean(bool value) { return Value(Number::boolean(value)); }

  ValueType type() const { return static_cast<ValueType>(m_storage.index()); }

  // Typed access: a pointer to the held value, or null when the value is of another type.
  const std::string* asString() const { return std::get_if<std::string>(&m_storage); }
  const Number* asNumber() const { return std::get_if<Number>(&m_storage); }
  const Data* asData() const { return std::get_if<Data>(&m_storage); }
  const Date* asDate() const { return std::get_if<Date>(&m_storage); }
  const Array* asArray() const { return std::get_if<Array>(&m_storage); }
  const Set* asSet() const { return std::get_if<Set>(&m_storage); }
  const Dictionary* asDictionary() const { return std::get_if<Dictionary>(&m_storage); }
  const ObjectRef* asObject() const { return std::get_if<ObjectRef>(&m_storage); }

  // The held object when it is of class T, else null.
  template <class T>
  const T* objectAs() const {
    const ObjectRef* object = asObject();
    return object ? dynamic_cast<const T*>(object->get()) : nullptr;
  }

  // Mutable access for building values in place.
  std::string* asString() { return std::get_if<std::string>(&m_storage); }
  Data* asData() { return std::get_if<Data>(&m_storage); }
  Array* asArray() { return std::get_if<Array>(&m_storage); }
  Dictionary* asDictionary() { return std::get_if<Dictionary>(&m_storage); }

  // Deep equality; objects compare by identity of class and by their archived items.
  bool operator==(const Value& other) const;

  // A short human-readable rendering for logs and diagnostics (not a wire format).
  std::string description() const;

 private:
  std::variant<std::string, Number, Data, Date, Array, Set, Dictionary, ObjectRef> m_storage;
};

inline std::size_t Dictionary::size() const { return m_entries.size(); }
inline bool Dictionary::empty() const { return m_entries.empty(); }
inline void Dictionary::reserve(std::size_t count) { m_entries.reserve(count); }
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
  return m_entries.begin();
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
  return m_entries.end();
}
template <class Visit>
void Dictionary::forEachValue(Visit&& visit) {
  for (Entry& entry : m_entries) visit(entry.second);
}

// The name of a value's type as clients see it in diagnostics ("string", "number", ...).
std::string_view typeName(ValueType type);

}  // namespace krv
