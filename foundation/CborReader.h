#pragma once
// CborReader: the strict decoder behind the unarchivers. It reads one CBOR item (RFC 8949) from a
// payload into the object model, in the form of docs/wire-format.md, and refuses everything else:
// malformed or truncated items, indefinite lengths, reserved encodings, simple values other than
// false and true, tags other than date (1), object (27) and set (258), integers below -2^63,
// invalid UTF-8 (overlong forms, surrogates, code points above U+10FFFF), non-text or duplicate
// map keys (except in a dictionary of names, see Decoder::decodeNameDictionary), duplicate set
// elements, more than kMaximumArchiveDepth nested arrays, maps and tags,
// unknown classes, objects whose class leaves items unread, and bytes after the root item.
//
// Objects are decoded by the class's decode function from the ClassRegistry, fed with the object's
// items straight from the payload (sequential form) or from its map (keyed form). Lengths are
// checked against the bytes that remain before anything is allocated, and no container reserves
// more than a bounded number of elements ahead of reading them.
//
// The payload and the registry are borrowed and must outlive the reader. One reader decodes one
// payload on one thread. Failures are archive faults (EIO) naming the offending byte offset.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/CborWriter.h"
#include "foundation/Coding.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

class CborReader {
 public:
  CborReader(std::span<const std::uint8_t> payload, const ClassRegistry& classes, ArchiveForm form)
      : m_payload(payload), m_classes(classes), m_form(form) {}

  CborReader(const CborReader&) = delete;
  CborReader& operator=(const CborReader&) = delete;

  // Decodes the root item; the payload must hold nothing else. Call once.
  Result<Value> readRoot();

 private:
  class SequentialItems;
  class KeyedItems;

  // Which keys a map may have: text strings only, or names (foundation/NameValue.h): text, or byte
  // strings whose bytes are not UTF-8.
  enum class MapKeys : std::uint8_t { Text, Names };

  struct Head {
    std::uint8_t major = 0;
    std::uint8_t info = 0;  // the additional information of the initial byte
    std::uint64_t argument = 0;
  };

  // The reading functions return false after recording the failure in m_failure. `depth` is the
  // number of arrays, maps and tags enclosing the item. `keys` applies to the item itself when it
  // is a map, never to maps nested in it.
  bool readHead(Head& head);
  // The argument that follows an initial byte, big-endian, as wide as Argument.
  template <class Argument>
  bool takeArgument(Head& head);
  bool readValue(int depth, Value& out, MapKeys keys = MapKeys::Text);
  bool takeBytes(std::uint64_t length, const std::uint8_t*& bytes);
  // Takes a text string of `length` bytes and checks that it is UTF-8; `text` views the payload.
  bool takeText(std::uint64_t length, std::string_view& text);
  bool enter(int depth);
  bool readArray(std::uint64_t count, int depth, Array& out);
  // `valueKeys` applies to the map's values (the items of a keyed object may be dictionaries of
  // names; their class decides when it takes them).
  template <class Entries>
  bool readMap(std::uint64_t count, int depth, Entries& out, MapKeys keys,
               MapKeys valueKeys = MapKeys::Text);
  bool readKey(MapKeys keys, std::string_view& key);
  bool readTagged(std::uint64_t tag, int depth, Value& out);
  bool readDate(Value& out);
  bool readSet(int depth, Value& out);
  bool readObject(int depth, Value& out);
  bool checkDistinct(const Array& elements);
  bool finishObject(Result<ObjectRef> object, bool allItemsTaken, Value& out);

  bool fail(const char* reason);
  bool fail(Error error);

  std::size_t remaining() const { return m_payload.size() - m_position; }

  std::span<const std::uint8_t> m_payload;
  const ClassRegistry& m_classes;
  ArchiveForm m_form;
  std::size_t m_position = 0;
  // The first failure; once set, the whole payload is rejected whatever a decode function does.
  std::optional<Error> m_failure;
};

}  // namespace krv
