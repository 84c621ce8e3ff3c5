#include "foundation/Coding.h"

#include <cerrno>

namespace krv {

Error archiveFault(std::string_view reason) {
  std::string operation = "archive: ";
  operation += reason;
  return Error::posix(EIO, operation);
}

namespace {

Error mistyped(std::string_view key, std::string_view expected) {
  std::string reason = "item ";
  if (!key.empty()) {
    reason += '"';
    reason += key;
    reason += "\" ";
  }
  reason += "is not ";
  reason += expected;
  return archiveFault(reason);
}

}  // namespace

Result<std::int64_t> Decoder::decodeInteger(std::string_view key, std::int64_t min,
                                            std::int64_t max) {
  KRV_TRY(Value value, decodeValue(key));
  const Number* number = value.asNumber();
  if (number == nullptr || number->kind() != Number::Kind::Integer) {
    return mistyped(key, "an integer in range");
  }
  std::int64_t result = number->integerValue();
  if (result < min || result > max) return mistyped(key, "an integer in range");
  return result;
}

Result<std::uint64_t> Decoder::decodeUnsigned(std::string_view key, std::uint64_t max) {
  KRV_TRY(Value value, decodeValue(key));
  const Number* number = value.asNumber();
  if (number == nullptr || !number->isInteger() || number->isNegative()) {
    return mistyped(key, "an unsigned integer in range");
  }
  std::uint64_t result = number->unsignedIntegerValue();
  if (result > max) return mistyped(key, "an unsigned integer in range");
  return result;
}

Result<double> Decoder::decodeReal(std::string_view key) {
  KRV_TRY(Value value, decodeValue(key));
  const Number* number = value.asNumber();
  if (number == nullptr || !number->isReal()) return mistyped(key, "a floating-point number");
  return number->doubleValue();
}

Result<bool> Decoder::decodeBoolean(std::string_view key) {
  KRV_TRY(Value value, decodeValue(key));
  const Number* number = value.asNumber();
  if (number == nullptr || !number->isBoolean()) return mistyped(key, "a boolean");
  return number->boolValue();
}

Result<std::string> Decoder::decodeString(std::string_view key) {
  KRV_TRY(Value value, decodeValue(key));
  std::string* text = value.asString();
  if (text == nullptr) return mistyped(key, "a string");
  return std::move(*text);
}

Result<Data> Decoder::decodeData(std::string_view key) {
  KRV_TRY(Value value, decodeValue(key));
  Data* data = value.asData();
  if (data == nullptr) return mistyped(key, "a byte string");
  return std::move(*data);
}

Result<Array> Decoder::decodeArray(std::string_view key) {
  KRV_TRY(Value value, decodeValue(key));
  Array* array = value.asArray();
  if (array == nullptr) return mistyped(key, "an array");
  return std::move(*array);
}

Result<Dictionary> Decoder::decodeDictionary(std::string_view key) {
  KRV_TRY(Value value, decodeValue(key));
  Dictionary* dictionary = value.asDictionary();
  if (dictionary == nullptr) return mistyped(key, "a dictionary");
  return std::move(*dictionary);
}

ClassRegistry& ClassRegistry::add(std::string_view className, DecodeFunction decode) {
  if (find(className) == nullptr) m_classes.emplace_back(std::string(className), decode);
  return *this;
}

DecodeFunction ClassRegistry::find(std::string_view className) const {
  for (const auto& [name, decode] : m_classes) {
    if (name == className) return decode;
  }
  return nullptr;
}

const ClassRegistry& ClassRegistry::errorObjects() {
  static const ClassRegistry registry = [] {
    ClassRegistry result;
    result.add(Error::kClassName, &Error::decode);
    return result;
  }();
  return registry;
}

}  // namespace krv
