#pragma once
// The decoding half of the coding interface, and the registry of classes an unarchiver accepts.
//
// An unarchiver meets an object on the wire, finds its class name in a ClassRegistry and calls the
// class's decode function with a Decoder over the object's items. The decode function takes the
// items it expects; the unarchiver then rejects the object if any item was left over. A decode
// function returns an error (never throws) for a missing or mistyped item or for an object that
// refuses itself; the whole archive is then rejected.
//
// Errors: every failure here is an archive fault, the POSIX error EIO (see archiveFault()).

#include <cstdint>
#include <limits>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

// The error of a payload that cannot be decoded: EIO, with the reason for logs.
Error archiveFault(std::string_view reason);

class Decoder {
 public:
  virtual ~Decoder() = default;

  virtual bool isKeyed() const = 0;
  // Takes the next item (sequential form) or the item under key (keyed form). A missing item is an
  // archive fault.
  virtual Result<Value> decodeValue(std::string_view key) = 0;

  // Typed takes. The kind must match exactly (an integer field accepts only an integer number, a
  // real field only a floating-point number) and integers must lie in [min, max].
  Result<std::int64_t> decodeInteger(std::string_view key,
                                     std::int64_t min = std::numeric_limits<std::int64_t>::min(),
                                     std::int64_t max = std::numeric_limits<std::int64_t>::max());
  Result<std::uint64_t> decodeUnsigned(
      std::string_view key, std::uint64_t max = std::numeric_limits<std::uint64_t>::max());
  Result<double> decodeReal(std::string_view key);
  Result<bool> decodeBoolean(std::string_view key);
  Result<std::string> decodeString(std::string_view key);
  Result<Data> decodeData(std::string_view key);
  Result<Array> decodeArray(std::string_view key);
  Result<Dictionary> decodeDictionary(std::string_view key);
  // A dictionary whose keys are names (a snapshot's extended attributes): each key came as text or,
  // when its bytes are not UTF-8, as a byte string (foundation/NameValue.h); the keys hold the
  // bytes. This is the one place where a map key may be other than text. Decoders that cannot
  // tell the forms apart take a dictionary of text keys.
  virtual Result<Dictionary> decodeNameDictionary(std::string_view key) {
    return decodeDictionary(key);
  }
};

using DecodeFunction = Result<ObjectRef> (*)(Decoder&);

// The closed set of classes an unarchiver may create. Built once (before threads use it) and then
// only read, so a const registry may be shared between threads.
class ClassRegistry {
 public:
  ClassRegistry() = default;

  // Adds a class; a name added twice keeps its first decode function.
  ClassRegistry& add(std::string_view className, DecodeFunction decode);
  DecodeFunction find(std::string_view className) const;

  // A registry that knows the error object only.
  static const ClassRegistry& errorObjects();

 private:
  std::vector<std::pair<std::string, DecodeFunction>> m_classes;
};

}  // namespace krv
