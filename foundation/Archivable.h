#pragma once
// The encoding half of the coding interface.
//
// A class whose objects cross the process boundary derives from Archivable and writes its items
// once, in encode(); the same code serves the sequential form (items in a fixed order, keys
// ignored) and the keyed form (named items). An Encoder is used by one thread for one object.
// encode() must have no side effects: an archiver may call it more than once per object.
// Decoding is the other half, in foundation/Coding.h.

#include <cstdint>
#include <string_view>

#include "foundation/Value.h"

namespace krv {

class Encoder {
 public:
  virtual ~Encoder() = default;

  // True for the keyed form. A class may use it to pick keys, but the items it writes must be the
  // same in both forms so that both round-trip.
  virtual bool isKeyed() const = 0;
  // Writes the next item (sequential form) or the item under key (keyed form).
  virtual void encodeValue(std::string_view key, const Value& value) = 0;

  // Container and text items. The defaults wrap the item in a Value (a copy); archivers override
  // them to write the item in place, which matters for large result dictionaries.
  virtual void encodeString(std::string_view key, std::string_view value) {
    encodeValue(key, Value(value));
  }
  virtual void encodeData(std::string_view key, const Data& value) {
    encodeValue(key, Value(value));
  }
  virtual void encodeArray(std::string_view key, const Array& value) {
    encodeValue(key, Value(value));
  }
  virtual void encodeDictionary(std::string_view key, const Dictionary& value) {
    encodeValue(key, Value(value));
  }
  // A dictionary whose keys are names, which may be any bytes: the archivers write each key as
  // text when it is UTF-8 and as a byte string when it is not (foundation/NameValue.h). Encoders
  // that keep values in memory take it as a plain dictionary.
  virtual void encodeNameDictionary(std::string_view key, const Dictionary& value) {
    encodeDictionary(key, value);
  }

  void encodeInteger(std::string_view key, std::int64_t value) {
    encodeValue(key, Value::integer(value));
  }
  void encodeUnsigned(std::string_view key, std::uint64_t value) {
    encodeValue(key, Value::unsignedInteger(value));
  }
  void encodeReal(std::string_view key, double value) { encodeValue(key, Value::real(value)); }
  void encodeBoolean(std::string_view key, bool value) { encodeValue(key, Value::boolean(value)); }
};

class Archivable {
 public:
  virtual ~Archivable() = default;

  // The class name on the wire ("NSError", "KRVPrivilegedCommand", ...).
  virtual std::string_view className() const = 0;
  virtual void encode(Encoder& encoder) const = 0;
};

}  // namespace krv
