#include "foundation/CborWriter.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "foundation/Assert.h"
#include "foundation/ByteOrder.h"
#include "foundation/CborFormat.h"
#include "foundation/NameValue.h"

namespace krv {

namespace {

using namespace cbor;

// Counts the items an object encodes, without looking at them.
class ItemCounter final : public Encoder {
 public:
  explicit ItemCounter(ArchiveForm form) : m_keyed(form == ArchiveForm::Keyed) {}

  bool isKeyed() const override { return m_keyed; }
  void encodeValue(std::string_view, const Value&) override { ++m_count; }
  void encodeString(std::string_view, std::string_view) override { ++m_count; }
  void encodeData(std::string_view, const Data&) override { ++m_count; }
  void encodeArray(std::string_view, const Array&) override { ++m_count; }
  void encodeDictionary(std::string_view, const Dictionary&) override { ++m_count; }

  std::size_t count() const { return m_count; }

 private:
  bool m_keyed;
  std::size_t m_count = 0;
};

// Writes each item of an object straight into the writer (the key first in the keyed form).
class ItemWriter final : public Encoder {
 public:
  ItemWriter(CborWriter& writer, ArchiveForm form) : m_writer(writer), m_form(form) {}

  bool isKeyed() const override { return m_form == ArchiveForm::Keyed; }
  void encodeValue(std::string_view key, const Value& value) override {
    writeKey(key);
    m_writer.writeValue(value, m_form);
  }
  void encodeString(std::string_view key, std::string_view value) override {
    writeKey(key);
    m_writer.writeText(value);
  }
  void encodeData(std::string_view key, const Data& value) override {
    writeKey(key);
    m_writer.writeBytes(value);
  }
  void encodeArray(std::string_view key, const Array& value) override {
    writeKey(key);
    m_writer.writeArray(value, m_form);
  }
  void encodeDictionary(std::string_view key, const Dictionary& value) override {
    writeKey(key);
    m_writer.writeDictionary(value, m_form);
  }
  void encodeNameDictionary(std::string_view key, const Dictionary& value) override {
    writeKey(key);
    m_writer.writeNameDictionary(value, m_form);
  }

  std::size_t written() const { return m_written; }

 private:
  void writeKey(std::string_view key) {
    ++m_written;
    if (m_form == ArchiveForm::Keyed) m_writer.writeText(key);
  }

  CborWriter& m_writer;
  ArchiveForm m_form;
  std::size_t m_written = 0;
};

// The numeric value for ordering the numbers of a set. long double holds every 64-bit integer and
// every double exactly on the platforms the daemon runs on.
long double numericValue(const Number& number) {
  switch (number.kind()) {
    case Number::Kind::Integer:
      return static_cast<long double>(number.integerValue());
    case Number::Kind::LargeUnsigned:
      return static_cast<long double>(number.unsignedIntegerValue());
    case Number::Kind::Real:
      return number.doubleValue();
    case Number::Kind::Boolean:
      return number.boolValue() ? 1.0L : 0.0L;
  }
  return 0.0L;
}

bool isNaN(const Number& number) { return number.isReal() && std::isnan(number.doubleValue()); }

// Ascending, NaN last; equal numbers of different kinds keep their order (stable sort).
bool numberBefore(const Value* a, const Value* b) {
  const Number& left = *a->asNumber();
  const Number& right = *b->asNumber();
  if (isNaN(left) || isNaN(right)) return !isNaN(left) && isNaN(right);
  return numericValue(left) < numericValue(right);
}

double withoutNegativeZero(double value) { return value == 0.0 ? 0.0 : value; }

void writeCanonicalValue(CborWriter& writer, const Value& value);

void writeCanonicalArray(CborWriter& writer, const Array& array) {
  writer.writeArrayHeader(array.size());
  for (const Value& element : array) writeCanonicalValue(writer, element);
}

void writeCanonicalDictionary(CborWriter& writer, const Dictionary& dictionary) {
  std::vector<const Dictionary::Entry*> entries;
  entries.reserve(dictionary.size());
  for (const Dictionary::Entry& entry : dictionary) entries.push_back(&entry);
  std::sort(
      entries.begin(), entries.end(),
      [](const Dictionary::Entry* a, const Dictionary::Entry* b) { return a->first < b->first; });
  writer.writeMapHeader(entries.size());
  for (const Dictionary::Entry* entry : entries) {
    writer.writeText(entry->first);
    writeCanonicalValue(writer, entry->second);
  }
}

// Writes each element on its own, then the elements in the byte order of their forms.
void writeCanonicalSet(CborWriter& writer, const Set& set) {
  Data scratch;
  std::vector<std::pair<std::size_t, std::size_t>> spans;  // offset, length
  spans.reserve(set.elements.size());
  {
    CborWriter elementWriter(scratch);
    for (const Value& element : set.elements) {
      std::size_t start = elementWriter.size();
      writeCanonicalValue(elementWriter, element);
      spans.emplace_back(start, elementWriter.size() - start);
    }
  }
  auto bytesOf = [&scratch](const std::pair<std::size_t, std::size_t>& span) {
    return std::span<const std::uint8_t>(scratch.data() + span.first, span.second);
  };
  std::sort(spans.begin(), spans.end(), [&](const auto& a, const auto& b) {
    auto left = bytesOf(a);
    auto right = bytesOf(b);
    return std::lexicographical_compare(left.begin(), left.end(), right.begin(), right.end());
  });
  writer.writeTag(kSetTag);
  writer.writeArrayHeader(spans.size());
  for (const auto& span : spans) writer.writeEncoded(bytesOf(span));
}

// Collects the canonical form of each item of an object under its key.
class CanonicalItems final : public Encoder {
 public:
  bool isKeyed() const override { return true; }
  void encodeValue(std::string_view key, const Value& value) override {
    CborWriter writer(add(key));
    writeCanonicalValue(writer, value);
  }
  void encodeString(std::string_view key, std::string_view value) override {
    CborWriter(add(key)).writeText(value);
  }
  void encodeData(std::string_view key, const Data& value) override {
    CborWriter(add(key)).writeBytes(value);
  }
  void encodeArray(std::string_view key, const Array& value) override {
    CborWriter writer(add(key));
    writeCanonicalArray(writer, value);
  }
  void encodeDictionary(std::string_view key, const Dictionary& value) override {
    CborWriter writer(add(key));
    writeCanonicalDictionary(writer, value);
  }

  void write(CborWriter& writer) {
    std::stable_sort(m_items.begin(), m_items.end(),
                     [](const auto& a, const auto& b) { return a.first < b.first; });
    writer.writeMapHeader(m_items.size());
    for (const auto& [key, bytes] : m_items) {
      writer.writeText(key);
      writer.writeEncoded(bytes);
    }
  }

 private:
  Data& add(std::string_view key) { return m_items.emplace_back(std::string(key), Data()).second; }

  std::vector<std::pair<std::string, Data>> m_items;
};

void writeCanonicalValue(CborWriter& writer, const Value& value) {
  switch (value.type()) {
    case ValueType::String:
    case ValueType::Data:
      writer.writeValue(value, ArchiveForm::Keyed);
      break;
    case ValueType::Number: {
      const Number& number = *value.asNumber();
      if (number.isReal()) {
        writer.writeDouble(withoutNegativeZero(number.doubleValue()));
      } else {
        writer.writeNumber(number);
      }
      break;
    }
    case ValueType::Date:
      writer.writeTag(kDateTag);
      writer.writeDouble(withoutNegativeZero(value.asDate()->secondsSince1970));
      break;
    case ValueType::Array:
      writeCanonicalArray(writer, *value.asArray());
      break;
    case ValueType::Set:
      writeCanonicalSet(writer, *value.asSet());
      break;
    case ValueType::Dictionary:
      writeCanonicalDictionary(writer, *value.asDictionary());
      break;
    case ValueType::Object: {
      const ObjectRef& object = *value.asObject();
      KRV_ASSERT(object != nullptr, "Archiver");
      CanonicalItems items;
      object->encode(items);
      writer.writeTag(kObjectTag);
      writer.writeArrayHeader(2);
      writer.writeText(object->className());
      items.write(writer);
      break;
    }
  }
}

}  // namespace

CborWriter::~CborWriter() {
  if (m_output != nullptr) m_output->resize(m_base + m_size);
}

// Inserting piece by piece into the vector costs more than the encoding itself, so the writer
// resizes the output ahead (using all reserved capacity first) and copies into it.
void CborWriter::grow(std::size_t count) {
  const std::size_t needed = m_base + m_size + count;
  std::size_t room = m_output->capacity();
  if (room < needed) room = std::max(needed, 2 * room);
  m_output->resize(room);
  m_room = room;
}

void CborWriter::append(const std::uint8_t* bytes, std::size_t count) {
  if (count == 0) return;  // an empty string or data may have no storage at all
  if (m_output != nullptr) {
    if (m_room - m_base - m_size < count) grow(count);
    std::memcpy(m_output->data() + m_base + m_size, bytes, count);
  }
  m_size += count;
}

void CborWriter::writeEncoded(std::span<const std::uint8_t> items) {
  append(items.data(), items.size());
}

void CborWriter::writeHead(std::uint8_t major, std::uint64_t argument) {
  std::uint8_t buffer[9];
  std::size_t width;
  if (argument < kInfoOneByte) {
    buffer[0] = initialByte(major, static_cast<std::uint8_t>(argument));
    width = 0;
  } else if (argument <= 0xFF) {
    buffer[0] = initialByte(major, kInfoOneByte);
    buffer[1] = static_cast<std::uint8_t>(argument);
    width = 1;
  } else if (argument <= 0xFFFF) {
    buffer[0] = initialByte(major, kInfoTwoBytes);
    storeBigEndian(buffer + 1, static_cast<std::uint16_t>(argument));
    width = 2;
  } else if (argument <= 0xFFFFFFFF) {
    buffer[0] = initialByte(major, kInfoFourBytes);
    storeBigEndian(buffer + 1, static_cast<std::uint32_t>(argument));
    width = 4;
  } else {
    buffer[0] = initialByte(major, kInfoEightBytes);
    storeBigEndian(buffer + 1, argument);
    width = 8;
  }
  append(buffer, 1 + width);
}

void CborWriter::writeNumber(const Number& number) {
  switch (number.kind()) {
    case Number::Kind::Integer: {
      std::int64_t value = number.integerValue();
      if (value >= 0) {
        writeHead(kMajorUnsigned, static_cast<std::uint64_t>(value));
      } else {
        writeHead(kMajorNegative, ~static_cast<std::uint64_t>(value));  // -1 - value
      }
      break;
    }
    case Number::Kind::LargeUnsigned:
      writeHead(kMajorUnsigned, number.unsignedIntegerValue());
      break;
    case Number::Kind::Real:
      writeDouble(number.doubleValue());
      break;
    case Number::Kind::Boolean: {
      const std::uint8_t byte = number.boolValue() ? kTrue : kFalse;
      append(&byte, 1);
      break;
    }
  }
}

void CborWriter::writeDouble(double value) {
  std::uint64_t bits;
  std::memcpy(&bits, &value, sizeof bits);
  std::uint8_t buffer[9];
  buffer[0] = kFloat64;
  storeBigEndian(buffer + 1, bits);
  append(buffer, sizeof buffer);
}

void CborWriter::writeText(std::string_view text) {
  writeHead(kMajorText, text.size());
  append(reinterpret_cast<const std::uint8_t*>(text.data()), text.size());
}

void CborWriter::writeBytes(std::span<const std::uint8_t> bytes) {
  writeHead(kMajorBytes, bytes.size());
  append(bytes.data(), bytes.size());
}

void CborWriter::writeArrayHeader(std::size_t count) { writeHead(kMajorArray, count); }

void CborWriter::writeMapHeader(std::size_t count) { writeHead(kMajorMap, count); }

void CborWriter::writeTag(std::uint64_t tag) { writeHead(kMajorTag, tag); }

void CborWriter::writeArray(const Array& array, ArchiveForm form) {
  writeArrayHeader(array.size());
  for (const Value& element : array) writeValue(element, form);
}

void CborWriter::writeDictionary(const Dictionary& dictionary, ArchiveForm form) {
  writeMapHeader(dictionary.size());
  for (const auto& [key, element] : dictionary) {
    writeText(key);
    writeValue(element, form);
  }
}

void CborWriter::writeNameDictionary(const Dictionary& dictionary, ArchiveForm form) {
  writeMapHeader(dictionary.size());
  for (const auto& [key, element] : dictionary) {
    if (isValidUtf8(key)) {
      writeText(key);
    } else {
      writeBytes({reinterpret_cast<const std::uint8_t*>(key.data()), key.size()});
    }
    writeValue(element, form);
  }
}

void CborWriter::writeSet(const Set& set, ArchiveForm form) {
  writeTag(kSetTag);
  writeArrayHeader(set.elements.size());
  std::vector<const Value*> numbers;
  for (const Value& element : set.elements) {
    if (element.asNumber() != nullptr) numbers.push_back(&element);
  }
  std::stable_sort(numbers.begin(), numbers.end(), numberBefore);
  for (const Value* number : numbers) writeNumber(*number->asNumber());
  for (const Value& element : set.elements) {
    if (element.asNumber() == nullptr) writeValue(element, form);
  }
}

void CborWriter::writeObject(const Archivable& object, ArchiveForm form) {
  ItemCounter counter(form);
  object.encode(counter);
  writeTag(kObjectTag);
  if (form == ArchiveForm::Sequential) {
    writeArrayHeader(1 + counter.count());
    writeText(object.className());
  } else {
    writeArrayHeader(2);
    writeText(object.className());
    writeMapHeader(counter.count());
  }
  ItemWriter items(*this, form);
  object.encode(items);
  // A different number of items than announced would corrupt the archive for every reader.
  KRV_ASSERT(items.written() == counter.count(), "Archiver");
}

void CborWriter::writeValue(const Value& value, ArchiveForm form) {
  switch (value.type()) {
    case ValueType::String:
      writeText(*value.asString());
      break;
    case ValueType::Number:
      writeNumber(*value.asNumber());
      break;
    case ValueType::Data:
      writeBytes(*value.asData());
      break;
    case ValueType::Date:
      writeTag(kDateTag);
      writeDouble(value.asDate()->secondsSince1970);
      break;
    case ValueType::Array:
      writeArray(*value.asArray(), form);
      break;
    case ValueType::Set:
      writeSet(*value.asSet(), form);
      break;
    case ValueType::Dictionary:
      writeDictionary(*value.asDictionary(), form);
      break;
    case ValueType::Object: {
      const ObjectRef& object = *value.asObject();
      KRV_ASSERT(object != nullptr, "Archiver");
      writeObject(*object, form);
      break;
    }
  }
}

void CborWriter::writeCanonical(const Value& value) { writeCanonicalValue(*this, value); }

}  // namespace krv
