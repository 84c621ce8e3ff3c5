#pragma once
// CborWriter: the encoder behind the archivers. It writes values of the object model as CBOR
// (RFC 8949) in the form of docs/wire-format.md, always with the shortest argument encoding and
// floating-point numbers as float64, so that equal inputs give identical bytes.
//
// A writer either appends to a byte buffer it does not own (the buffer must outlive the writer) or,
// built without one, only counts the bytes it would write; both run the same code, so the count is
// exact. Objects are written by calling their encode() twice: once with a counting encoder to learn
// the number of items for the array or map header, then with an encoder that writes each item in
// place (large result dictionaries are never copied).
//
// Writing never fails. An object whose two encode() calls disagree is a programming error and
// fatal. One writer belongs to one thread.

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "foundation/Archivable.h"
#include "foundation/Value.h"

namespace krv {

// How objects are written (and read back): their items in order, or named items in a map.
enum class ArchiveForm : std::uint8_t { Sequential, Keyed };

class CborWriter {
 public:
  // Appends to `output`, whose size is final once the writer is destroyed (while writing, the
  // buffer may hold unused room at its end).
  explicit CborWriter(Data& output)
      : m_output(&output), m_base(output.size()), m_room(output.size()) {}
  // Counts only.
  CborWriter() = default;
  ~CborWriter();

  CborWriter(const CborWriter&) = delete;
  CborWriter& operator=(const CborWriter&) = delete;

  // The number of bytes written (or counted) so far.
  std::size_t size() const { return m_size; }

  void writeValue(const Value& value, ArchiveForm form);
  void writeObject(const Archivable& object, ArchiveForm form);

  void writeNumber(const Number& number);
  void writeDouble(double value);
  void writeText(std::string_view text);
  void writeBytes(std::span<const std::uint8_t> bytes);
  void writeArrayHeader(std::size_t count);
  void writeMapHeader(std::size_t count);
  void writeTag(std::uint64_t tag);
  // Appends bytes that already form complete items.
  void writeEncoded(std::span<const std::uint8_t> items);

  void writeArray(const Array& array, ArchiveForm form);
  void writeDictionary(const Dictionary& dictionary, ArchiveForm form);
  // Keys by the names rule: text when they are UTF-8, byte strings otherwise.
  void writeNameDictionary(const Dictionary& dictionary, ArchiveForm form);
  void writeSet(const Set& set, ArchiveForm form);

  // A byte string that is equal for two values exactly when the values are equal (Value's
  // operator==), apart from dates holding NaN, which never equal anything: dictionaries and object
  // items sorted by key, sets by the canonical form of their elements, -0.0 written as 0.0. It is
  // not a wire form; the reader uses it to find duplicate set elements in O(n log n).
  void writeCanonical(const Value& value);

 private:
  void writeHead(std::uint8_t major, std::uint64_t argument);
  void append(const std::uint8_t* bytes, std::size_t count);
  void grow(std::size_t count);

  Data* m_output = nullptr;
  std::size_t m_base = 0;  // the size of the output before the writer's first byte
  std::size_t m_room = 0;  // the size of the output, written or not
  std::size_t m_size = 0;
};

}  // namespace krv
