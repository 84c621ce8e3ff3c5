// Object records and the spool that holds the records of a search until it knows their number.

#include "executor/ObjectRecords.h"

#include <fcntl.h>
#include <limits.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <cstring>
#include <span>

#include "executor/KRVCommandExecutor.h"
#include "filesystem/FileAttributes.h"
#include "foundation/Assert.h"
#include "foundation/ByteOrder.h"
#include "foundation/CborFormat.h"
#include "foundation/CborWriter.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/UserInformationKeys.h"
#include "foundation/Utf8.h"
#include "protocol/CommandTable.h"

namespace krv {
namespace {

// The encoded form of one record: path length (32 bits), the path's bytes, the type's index in
// kTypeNames (8 bits), size (64 bits), modification date (a double), mode (32 bits); host order,
// since the bytes never leave this process.
constexpr std::string_view kTypeNames[] = {
    kFileTypeRegular,          kFileTypeDirectory,    kFileTypeSymbolicLink, kFileTypeSocket,
    kFileTypeCharacterSpecial, kFileTypeBlockSpecial, kFileTypeUnknown,
};
constexpr std::uint8_t kUnknownTypeIndex = 6;
constexpr std::size_t kFixedPart = 4 + 1 + 8 + 8 + 4;
// No path the file system can name is longer; anything longer is not a record of this spool.
constexpr std::uint32_t kLongestPath = 1024 * 1024;
constexpr std::size_t kFileReadSize = 64 * 1024;
// The share of its file system that a spool file leaves free, at least: a twentieth.
constexpr std::uint64_t kFreeShareDivisor = 20;

std::uint8_t typeIndex(std::string_view type) {
  for (std::uint8_t i = 0; i < std::size(kTypeNames); ++i) {
    if (kTypeNames[i] == type) return i;
  }
  return kUnknownTypeIndex;
}

template <class T>
T take(const char*& in) {
  T value;
  std::memcpy(&value, in, sizeof value);
  in += sizeof value;
  return value;
}

// Appends the compact form: path length, path, type index, size, date, mode (kFixedPart bytes
// besides the path), with one resize and a copy per field.
void encode(const ObjectRecord& record, std::vector<char>& out) {
  const auto pathLength = static_cast<std::uint32_t>(record.path.size());
  const std::uint8_t type = typeIndex(record.type);
  const double date = record.modificationDate.secondsSince1970;
  static_assert(kFixedPart == sizeof pathLength + sizeof type + sizeof record.size + sizeof date +
                                  sizeof record.posixMode);
  const std::size_t start = out.size();
  out.resize(start + kFixedPart + record.path.size());
  char* at = out.data() + start;
  const auto put = [&at](const void* bytes, std::size_t count) {
    std::memcpy(at, bytes, count);
    at += count;
  };
  put(&pathLength, sizeof pathLength);
  put(record.path.data(), record.path.size());
  put(&type, sizeof type);
  put(&record.size, sizeof record.size);
  put(&date, sizeof date);
  put(&record.posixMode, sizeof record.posixMode);
}

enum class Decoded : std::uint8_t { Record, Incomplete, Malformed };

// A record as the spool holds it; the path views the spool's bytes.
struct SpooledRecord {
  std::string_view path;
  std::string_view type;
  std::uint64_t size = 0;
  Date modificationDate;
  std::uint32_t posixMode = 0;
};

// Decodes the record at the start of `bytes`; `used` is its length.
Decoded decode(std::span<const char> bytes, SpooledRecord& record, std::size_t& used) {
  if (bytes.size() < 4) return Decoded::Incomplete;
  const char* in = bytes.data();
  auto pathLength = take<std::uint32_t>(in);
  if (pathLength > kLongestPath) return Decoded::Malformed;
  if (bytes.size() < kFixedPart + pathLength) return Decoded::Incomplete;
  record.path = std::string_view(in, pathLength);
  in += pathLength;
  auto type = take<std::uint8_t>(in);
  record.type = kTypeNames[type < std::size(kTypeNames) ? type : kUnknownTypeIndex];
  record.size = take<std::uint64_t>(in);
  record.modificationDate.secondsSince1970 = take<double>(in);
  record.posixMode = take<std::uint32_t>(in);
  used = kFixedPart + pathLength;
  return Decoded::Record;
}

// A CBOR head in its shortest form at `at`; answers the end.
std::uint8_t* putHead(std::uint8_t* at, std::uint8_t major, std::uint64_t argument) {
  using namespace cbor;
  if (argument < kInfoOneByte) {
    *at = initialByte(major, static_cast<std::uint8_t>(argument));
    return at + 1;
  }
  std::size_t width = 8;
  std::uint8_t info = kInfoEightBytes;
  if (argument <= 0xFF) {
    width = 1;
    info = kInfoOneByte;
  } else if (argument <= 0xFFFF) {
    width = 2;
    info = kInfoTwoBytes;
  } else if (argument <= 0xFFFFFFFF) {
    width = 4;
    info = kInfoFourBytes;
  }
  *at++ = initialByte(major, info);
  for (std::size_t i = width; i > 0; --i)
    *at++ = static_cast<std::uint8_t>(argument >> (8 * (i - 1)));
  return at;
}

// A text key with its head (every key here is shorter than 24 bytes).
std::uint8_t* putKey(std::uint8_t* at, std::string_view key) {
  *at++ = cbor::initialByte(cbor::kMajorText, static_cast<std::uint8_t>(key.size()));
  std::memcpy(at, key.data(), key.size());
  return at + key.size();
}

std::uint8_t* putString(std::uint8_t* at, std::uint8_t major, std::string_view bytes) {
  at = putHead(at, major, bytes.size());
  if (!bytes.empty()) std::memcpy(at, bytes.data(), bytes.size());
  return at + bytes.size();
}

// The most bytes a record takes beyond its path and type: the map head, the five keys, the heads
// of path, type, size and mode at their widest, the date's tag and float.
constexpr std::size_t kRecordOverhead = 1 + 5 + 5 + 5 + 17 + 10 + 9 + 9 + 9 + 2 + 8 + 9;
// Records up to this size are put together on the stack and appended with one copy.
constexpr std::size_t kRecordBuffer = 1024;

// The dictionary form of objectRecordValue, item for item, written without building it.
void writeRecord(CborWriter& writer, std::string_view path, std::string_view type,
                 std::uint64_t size, Date modificationDate, std::uint32_t posixMode) {
  static_assert(key::kPath.size() < 24 && key::kModificationDate.size() < 24 &&
                key::kPOSIXMode.size() < 24);
  // A path travels as text when it is UTF-8 and as bytes when it is not (nameValue).
  const std::uint8_t pathMajor = isValidUtf8(path) ? cbor::kMajorText : cbor::kMajorBytes;
  if (path.size() + type.size() + kRecordOverhead <= kRecordBuffer) {
    std::uint8_t buffer[kRecordBuffer];
    std::uint8_t* at = buffer;
    *at++ = cbor::initialByte(cbor::kMajorMap, 5);
    at = putString(putKey(at, key::kPath), pathMajor, path);
    at = putString(putKey(at, key::kType), cbor::kMajorText, type);
    at = putHead(putKey(at, key::kSize), cbor::kMajorUnsigned, size);
    at = putKey(at, key::kModificationDate);
    *at++ = cbor::initialByte(cbor::kMajorTag, static_cast<std::uint8_t>(cbor::kDateTag));
    *at++ = cbor::kFloat64;
    storeBigEndian(at, std::bit_cast<std::uint64_t>(modificationDate.secondsSince1970));
    at += 8;
    at = putHead(putKey(at, key::kPOSIXMode), cbor::kMajorUnsigned, posixMode);
    writer.writeEncoded({buffer, static_cast<std::size_t>(at - buffer)});
    return;
  }
  writer.writeMapHeader(5);
  writer.writeText(key::kPath);
  if (pathMajor == cbor::kMajorText) {
    writer.writeText(path);
  } else {
    writer.writeBytes({reinterpret_cast<const std::uint8_t*>(path.data()), path.size()});
  }
  writer.writeText(key::kType);
  writer.writeText(type);
  writer.writeText(key::kSize);
  writer.writeNumber(Number::unsignedInteger(size));
  writer.writeText(key::kModificationDate);
  writer.writeTag(cbor::kDateTag);
  writer.writeDouble(modificationDate.secondsSince1970);
  writer.writeText(key::kPOSIXMode);
  writer.writeNumber(Number::unsignedInteger(posixMode));
}

}  // namespace

std::optional<ObjectRecord> objectRecordForPath(const std::string& path) {
  if (path.find('\0') != std::string::npos) return std::nullopt;
  Result<struct stat> status = sys::lstat(path);
  if (!status) return std::nullopt;
  return objectRecordFromStatus(path, *status);
}

std::optional<ObjectRecord> objectRecordFromStatus(std::string_view path,
                                                   const struct stat& status) {
  if (path.size() >= PATH_MAX) return std::nullopt;
  return ObjectRecord{
      std::string(path), fileTypeName(status.st_mode), static_cast<std::uint64_t>(status.st_size),
      dateFromTimestamp(status.st_mtim.tv_sec, static_cast<std::uint32_t>(status.st_mtim.tv_nsec)),
      static_cast<std::uint32_t>(status.st_mode & 07777)};
}

Value objectRecordValue(ObjectRecord record) {
  Dictionary dictionary;
  dictionary.reserve(5);
  dictionary.append(std::string(key::kPath), nameValue(std::move(record.path)));
  dictionary.append(std::string(key::kType), Value(record.type));
  dictionary.append(std::string(key::kSize), Value::unsignedInteger(record.size));
  dictionary.append(std::string(key::kModificationDate), Value(record.modificationDate));
  dictionary.append(std::string(key::kPOSIXMode), Value::unsignedInteger(record.posixMode));
  return Value(std::move(dictionary));
}

void writeObjectRecord(CborWriter& writer, const ObjectRecord& record) {
  writeRecord(writer, record.path, record.type, record.size, record.modificationDate,
              record.posixMode);
}

bool addFileSystemObjectInfoToArray(Array& array, const std::string& path) {
  std::optional<ObjectRecord> record = objectRecordForPath(path);
  if (!record) return false;
  array.push_back(objectRecordValue(std::move(*record)));
  return true;
}

// Hands the records out in the order they were added: first those in the file, then those still
// in memory (a spill always writes whole records, so no record straddles the two).
class ObjectRecordSpool::Reader {
 public:
  explicit Reader(const ObjectRecordSpool& spool) : m_spool(spool) {}

  // The next record; its path is valid until the next call.
  std::optional<SpooledRecord> next() {
    SpooledRecord record;
    std::size_t used = 0;
    while (m_fileOffset < m_spool.m_fileLength || m_position < m_window.size()) {
      std::span<const char> rest(m_window.data() + m_position, m_window.size() - m_position);
      Decoded result = decode(rest, record, used);
      if (result == Decoded::Record) {
        m_position += used;
        return record;
      }
      if (result == Decoded::Malformed || !readMore()) break;
    }
    m_fileOffset = m_spool.m_fileLength;  // the file is done with (or cannot be trusted)
    m_window.clear();
    m_position = 0;

    std::span<const char> memory(m_spool.m_memory);
    if (m_memoryPosition >= memory.size()) return std::nullopt;
    if (decode(memory.subspan(m_memoryPosition), record, used) != Decoded::Record) {
      m_memoryPosition = memory.size();
      return std::nullopt;
    }
    m_memoryPosition += used;
    return record;
  }

 private:
  bool readMore() {
    if (m_fileOffset >= m_spool.m_fileLength) return false;
    m_window.erase(m_window.begin(), m_window.begin() + static_cast<std::ptrdiff_t>(m_position));
    m_position = 0;
    std::size_t kept = m_window.size();
    std::uint64_t left = m_spool.m_fileLength - m_fileOffset;
    std::size_t wanted = left < kFileReadSize ? static_cast<std::size_t>(left) : kFileReadSize;
    m_window.resize(kept + wanted);
    Result<std::size_t> count = sys::readAt(
        m_spool.m_file.get(),
        std::span<std::uint8_t>(reinterpret_cast<std::uint8_t*>(m_window.data() + kept), wanted),
        static_cast<off_t>(m_fileOffset));
    if (!count || *count == 0) {
      m_window.resize(kept);
      return false;
    }
    m_window.resize(kept + *count);
    m_fileOffset += *count;
    return true;
  }

  const ObjectRecordSpool& m_spool;
  std::vector<char> m_window;
  std::size_t m_position = 0;
  std::uint64_t m_fileOffset = 0;
  std::size_t m_memoryPosition = 0;
};

bool ObjectRecordSpool::append(const ObjectRecord& record) {
  if (m_refusal) return false;
  const std::uint64_t held = m_fileLength + m_memory.size();
  if (held + kFixedPart + record.path.size() > m_limits.maximumSize) {
    refuse(Error::posix(EFBIG, "search records"));
    return false;
  }
  encode(record, m_memory);
  ++m_count;
  if (m_memory.size() >= m_limits.memoryBudget) spill();
  return !m_refusal;
}

// Ordinary users keep their share of the file system: a spool file never takes it from them.
Status ObjectRecordSpool::checkRoom(int fileFd, std::uint64_t length) const {
  KRV_TRY(struct statvfs fileSystem, sys::fileSystemStatus(fileFd));
  const std::uint64_t blockSize = fileSystem.f_frsize;
  const std::uint64_t available = fileSystem.f_bavail * blockSize;
  const std::uint64_t share = fileSystem.f_blocks / kFreeShareDivisor * blockSize;
  const std::uint64_t floor = std::max(m_limits.minimumFreeSpace, share);
  if (available < floor || available - floor < length) {
    return Error::posix(ENOSPC, "search records");
  }
  return {};
}

void ObjectRecordSpool::spill() {
  if (!m_file && !m_fileUnavailable) {
    // The first folder that can make the file and has room for it; none that can make one leaves
    // the records in memory, none with room refuses them.
    std::optional<Error> noRoom;
    for (const std::string& folder : m_limits.spillFolders) {
      Result<UniqueFd> file = sys::open(folder, O_TMPFILE | O_RDWR | O_NOCTTY, 0600);
      if (!file) continue;
      if (Status room = checkRoom(file->get(), m_memory.size()); !room) {
        noRoom = std::move(room).error();
        continue;
      }
      m_file = std::move(*file);
      break;
    }
    if (!m_file && noRoom) {
      refuse(std::move(*noRoom));
      return;
    }
    m_fileUnavailable = !m_file;
  }
  if (m_fileUnavailable) {
    if (m_memory.size() > m_limits.memoryOnlyLimit) refuse(Error::posix(ENOSPC, "search records"));
    return;
  }

  Status written = checkRoom(m_file.get(), m_memory.size());
  if (written) {
    written = sys::writeAll(
        m_file.get(), std::span<const std::uint8_t>(
                          reinterpret_cast<const std::uint8_t*>(m_memory.data()), m_memory.size()));
  }
  if (!written) {
    refuse(std::move(written).error());
    return;
  }
  m_fileLength += m_memory.size();
  m_memory.clear();
}

void ObjectRecordSpool::refuse(Error reason) {
  m_refusal = std::move(reason);
  // Nothing of a refused spool is ever sent: its memory and disk go back at once.
  m_memory = std::vector<char>();
  m_file.reset();
  m_fileLength = 0;
}

void ObjectRecordSpool::clear() {
  m_memory.clear();
  m_file.reset();
  m_fileLength = 0;
  m_fileUnavailable = false;
  m_count = 0;
  m_refusal.reset();
}

bool ObjectRecordSpool::sendPayload(KRVCommandExecutor& executor, std::string_view key,
                                    std::size_t granularity, double progressOffset) {
  KRV_ASSERT(!key.empty() && granularity != 0 && progressOffset >= 0.0, "ObjectRecordSpool");
  // A refused spool no longer holds its records: what it took is not the search's result.
  KRV_ASSERT(!m_refusal, "ObjectRecordSpool");
  Reader reader(*this);
  PayloadChunk chunk(key);
  // Each chunk is one payload message, written straight from the spooled form of its records.
  auto sendChunk = [&](std::uint64_t size, double progress) {
    for (std::uint64_t i = 0; i < size; ++i) {
      std::optional<SpooledRecord> record = reader.next();
      if (!record) break;
      chunk.add([&record](CborWriter& writer) {
        writeRecord(writer, record->path, record->type, record->size, record->modificationDate,
                    record->posixMode);
      });
    }
    return executor.sendPayloadChunk(chunk, progress);
  };

  const std::uint64_t count = m_count;
  if (count <= granularity) return sendChunk(count, progressOffset);
  const std::uint64_t fullChunks = count / granularity;
  const double divisor = static_cast<double>(fullChunks + 1);
  for (std::uint64_t i = 0; i < fullChunks; ++i) {
    double progress = (static_cast<double>(i) / divisor) * (1.0 - progressOffset) + progressOffset;
    if (!sendChunk(granularity, progress)) return false;
  }
  if (fullChunks * granularity >= count) return true;
  return sendChunk(count - fullChunks * granularity, progressOffset);
}

}  // namespace krv
