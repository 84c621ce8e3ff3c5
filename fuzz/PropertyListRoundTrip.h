#pragma once
// The check the property-list fuzzers share: a value a reader accepted, when XML can hold it,
// must come back equal from writeXml and readXml. Equal up to what the XML form drops: dates
// keep whole seconds and every NaN reads back as the same quiet NaN.

#include <cmath>
#include <cstdlib>
#include <limits>

#include "foundation/PropertyList.h"

namespace krv::fuzz {

inline Value expectedAfterXml(const Value& value) {
  if (const Number* number = value.asNumber()) {
    if (number->isReal() && std::isnan(number->doubleValue())) {
      return Value::real(std::numeric_limits<double>::quiet_NaN());
    }
    return value;
  }
  if (const Date* date = value.asDate()) return Value(Date{std::floor(date->secondsSince1970)});
  if (const Array* array = value.asArray()) {
    Array out;
    for (const Value& element : *array) out.push_back(expectedAfterXml(element));
    return Value(std::move(out));
  }
  if (const Dictionary* dictionary = value.asDictionary()) {
    Dictionary out;
    for (const auto& [key, element] : *dictionary) out.append(key, expectedAfterXml(element));
    return Value(std::move(out));
  }
  return value;
}

// False for what the XML form cannot hold: sets and dates outside years 0000 to 9999. Strings
// and keys need no check: a reader never makes one that is not UTF-8 or holds U+0000.
inline bool xmlCanHold(const Value& value) {
  if (value.asSet() != nullptr) return false;
  if (const Date* date = value.asDate()) {
    const double seconds = std::floor(date->secondsSince1970);
    return std::isfinite(seconds) && seconds >= -62167219200.0 && seconds <= 253402300799.0;
  }
  if (const Array* array = value.asArray()) {
    for (const Value& element : *array) {
      if (!xmlCanHold(element)) return false;
    }
  }
  if (const Dictionary* dictionary = value.asDictionary()) {
    for (const auto& [key, element] : *dictionary) {
      if (!xmlCanHold(element)) return false;
    }
  }
  return true;
}

inline void checkXmlRoundTrip(const Value& value) {
  Result<Data> xml = plist::writeXml(value);
  if (xmlCanHold(value) != xml.ok()) std::abort();
  if (!xml) return;
  Result<Value> back = plist::readXml(*xml);
  if (!back) std::abort();
  if (!(*back == expectedAfterXml(value))) std::abort();
  // Writing is deterministic: the text read back writes to the same text.
  Result<Data> again = plist::writeXml(*back);
  if (!again || *again != *xml) std::abort();
}

}  // namespace krv::fuzz
