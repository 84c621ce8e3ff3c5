#include "protocol/ObjectRecordChunk.h"

#include <bit>
#include <cstring>
#include <string>

#include "foundation/ByteOrder.h"
#include "foundation/UserInformationKeys.h"
#include "foundation/Utf8.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {

namespace {

constexpr std::uint8_t kMajorUnsigned = 0;
constexpr std::uint8_t kMajorBytes = 2;
constexpr std::uint8_t kMajorText = 3;
constexpr std::uint8_t kMajorArray = 4;
constexpr std::uint8_t kFloat64 = 0xFB;
// The fewest bytes a record can take: the map head, then each key with the shortest item (an
// empty path and type, a size and mode below 24, a tagged float64 date).
constexpr std::size_t kSmallestRecord = 1 + (5 + 1) + (5 + 1) + (5 + 1) + (17 + 10) + (10 + 1);

class Cursor {
 public:
  explicit Cursor(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}

  bool atEnd() const { return m_offset == m_bytes.size(); }
  std::size_t remaining() const { return m_bytes.size() - m_offset; }

  // The exact bytes given (a fixed head, a key with its head).
  bool expect(std::string_view fixed) {
    if (remaining() < fixed.size() ||
        std::memcmp(m_bytes.data() + m_offset, fixed.data(), fixed.size()) != 0) {
      return false;
    }
    m_offset += fixed.size();
    return true;
  }
  // A text key: its head (shortest, as the daemon writes it) and its bytes.
  bool expectKey(std::string_view key) {
    if (key.size() >= 24) {
      const char head[] = {static_cast<char>(kMajorText << 5 | 24), static_cast<char>(key.size())};
      if (!expect({head, sizeof head})) return false;
    } else {
      const char head = static_cast<char>(kMajorText << 5 | key.size());
      if (!expect({&head, 1})) return false;
    }
    return expect(key);
  }
  // A head of any width: its major type and argument. Indefinite lengths and the reserved widths
  // are declined.
  bool head(std::uint8_t& major, std::uint64_t& argument) {
    if (atEnd()) return false;
    const std::uint8_t initial = m_bytes[m_offset++];
    major = initial >> 5;
    const std::uint8_t info = initial & 0x1F;
    if (info < 24) {
      argument = info;
      return true;
    }
    if (info > 27) return false;
    const std::size_t width = std::size_t{1} << (info - 24);
    if (remaining() < width) return false;
    argument = 0;
    for (std::size_t i = 0; i < width; ++i) argument = argument << 8 | m_bytes[m_offset + i];
    m_offset += width;
    return true;
  }
  bool unsignedInteger(std::uint64_t& value) {
    std::uint8_t major = 0;
    return head(major, value) && major == kMajorUnsigned;
  }
  // A text or byte string of that major type; text must be UTF-8.
  bool string(std::uint8_t& major, std::string_view& bytes) {
    std::uint64_t length = 0;
    if (!head(major, length) || (major != kMajorText && major != kMajorBytes) ||
        length > remaining()) {
      return false;
    }
    bytes = {reinterpret_cast<const char*>(m_bytes.data() + m_offset),
             static_cast<std::size_t>(length)};
    m_offset += static_cast<std::size_t>(length);
    return major == kMajorBytes || isValidUtf8(bytes);
  }
  bool text(std::string_view& bytes) {
    std::uint8_t major = 0;
    return string(major, bytes) && major == kMajorText;
  }
  bool float64(double& value) {
    if (remaining() < 9 || m_bytes[m_offset] != kFloat64) return false;
    value = std::bit_cast<double>(loadBigEndian<std::uint64_t>(m_bytes.data() + m_offset + 1));
    m_offset += 9;
    return true;
  }

 private:
  std::span<const std::uint8_t> m_bytes;
  std::size_t m_offset = 0;
};

bool readRecord(Cursor& cursor, ObjectRecordView& record) {
  std::uint8_t major = 0;
  return cursor.expect("\xA5") && cursor.expectKey(key::kPath) &&
         cursor.string(major, record.path) && cursor.expectKey(key::kType) &&
         cursor.text(record.type) && cursor.expectKey(key::kSize) &&
         cursor.unsignedInteger(record.size) && cursor.expectKey(key::kModificationDate) &&
         cursor.expect("\xC1") && cursor.float64(record.modificationDate) &&
         cursor.expectKey(key::kPOSIXMode) && cursor.unsignedInteger(record.posixMode);
}

}  // namespace

bool readObjectRecordChunk(std::span<const std::uint8_t> payload, double& progress,
                           std::vector<ObjectRecordView>& records) {
  records.clear();
  Cursor cursor(payload);
  // Tag 27, an array of four: the class name, the domain, code 1 and a map of two entries.
  if (!cursor.expect("\xD8\x1B\x84") || !cursor.expectKey("NSError") ||
      !cursor.expectKey(kTransportErrorDomain) || !cursor.expect("\x01\xA2") ||
      !cursor.expectKey(key::kCurrentProgress) || !cursor.float64(progress) ||
      !cursor.expectKey(key::kFileSystemObjects)) {
    return false;
  }
  std::uint8_t major = 0;
  std::uint64_t count = 0;
  // A count no payload of this length could hold is declined before anything is set aside.
  if (!cursor.head(major, count) || major != kMajorArray ||
      count > cursor.remaining() / kSmallestRecord) {
    return false;
  }
  records.reserve(static_cast<std::size_t>(count));
  for (std::uint64_t i = 0; i < count; ++i) {
    ObjectRecordView& record = records.emplace_back();
    if (!readRecord(cursor, record)) {
      records.clear();
      return false;
    }
  }
  if (!cursor.atEnd()) {
    records.clear();
    return false;
  }
  return true;
}

}  // namespace krv
