#include "filesystem/KRVFileSystemObjectDescription.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <span>

#include "filesystem/ContentComparer.h"
#include "foundation/ByteOrder.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "platform/AccessControlListStorage.h"
#include "platform/ExtendedAcl.h"
#include "platform/FileFlags.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

constexpr std::string_view kUserNamespace = "user.";
constexpr std::string_view kSystemNamespace = "system.";
constexpr std::string_view kInternalRecords = "trusted.com.tavorin.";
constexpr std::string_view kValueSizeKey = "ValueSize";
constexpr std::string_view kValueChecksumKey = "ValueChecksum";
constexpr std::string_view kNameKey = "Name";
constexpr std::int64_t kDirectoryType = 3;
constexpr std::int64_t kRegularFileType = 5;

// Most objects have no attributes or a few short ones: the first attempt at a list or a value
// uses a buffer this small, because the kernel prepares room for the whole buffer it is given.
constexpr std::size_t kFirstAttemptSize = 256;

// The name without a leading "user.".
std::string_view withoutUserNamespace(std::string_view name) {
  if (name.starts_with(kUserNamespace)) name.remove_prefix(kUserNamespace.size());
  return name;
}

// The room for attribute lists and values that do not fit the first attempt, kept per thread.
std::vector<std::uint8_t>& scratch() {
  thread_local std::vector<std::uint8_t> buffer;
  return buffer;
}

// An attribute list or value: into `small` when it fits, else into the thread's scratch room of
// the size the kernel names (asked again when the value grows meanwhile). The bytes, or nothing
// when there is no such attribute or it cannot be read.
template <class Call>
std::optional<std::span<const std::uint8_t>> readAttribute(std::span<std::uint8_t> small,
                                                           Call call) {
  Result<std::size_t> length = call(small);
  if (length) return std::span<const std::uint8_t>(small.data(), *length);
  for (int attempt = 0; attempt < 4 && length.error().code() == ERANGE; ++attempt) {
    Result<std::size_t> size = call(std::span<std::uint8_t>());
    if (!size) return std::nullopt;
    std::vector<std::uint8_t>& room = scratch();
    room.resize(std::max<std::size_t>(*size, 1));
    length = call(std::span<std::uint8_t>(room));
    if (length) return std::span<const std::uint8_t>(room.data(), *length);
  }
  return std::nullopt;
}

Timestamp timestampOf(const struct statx_timestamp& time) { return {time.tv_sec, time.tv_nsec}; }

std::string dateText(std::int64_t seconds) {
  const auto time = static_cast<std::time_t>(seconds);
  std::tm utc{};
  if (::gmtime_r(&time, &utc) == nullptr) return format("%lld", static_cast<long long>(seconds));
  char buffer[48];
  std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S +0000", &utc);
  return buffer;
}

int compareCaseInsensitively(std::string_view a, std::string_view b) {
  const std::size_t common = std::min(a.size(), b.size());
  for (std::size_t i = 0; i < common; ++i) {
    auto fold = [](char c) {
      return static_cast<unsigned char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    };
    if (fold(a[i]) != fold(b[i])) return fold(a[i]) < fold(b[i]) ? -1 : 1;
  }
  if (a.size() != b.size()) return a.size() < b.size() ? -1 : 1;
  return 0;
}

std::optional<Md5::Digest> digestFromHex(std::string_view text) {
  if (text.size() != 32) return std::nullopt;
  Md5::Digest digest{};
  for (std::size_t i = 0; i < 32; ++i) {
    const char c = text[i];
    int nibble;
    if (c >= '0' && c <= '9') {
      nibble = c - '0';
    } else if (c >= 'a' && c <= 'f') {
      nibble = c - 'a' + 10;
    } else {
      return std::nullopt;
    }
    digest[i / 2] = static_cast<std::uint8_t>(digest[i / 2] | (nibble << (i % 2 == 0 ? 4 : 0)));
  }
  return digest;
}

// The attribute descriptions of one snapshot, by name, for the union of two sides: a sorted view
// where there are many (a hostile object may carry thousands), a plain scan otherwise.
class AttributeIndex {
 public:
  explicit AttributeIndex(const std::vector<ExtendedAttributeDescription>& attributes)
      : m_attributes(attributes) {
    if (attributes.size() <= kLinearLimit) return;
    m_sorted.reserve(attributes.size());
    for (const ExtendedAttributeDescription& attribute : attributes) m_sorted.push_back(&attribute);
    std::sort(m_sorted.begin(), m_sorted.end(),
              [](const auto* a, const auto* b) { return a->name < b->name; });
  }

  const ExtendedAttributeDescription* find(std::string_view name) const {
    if (m_sorted.empty()) {
      for (const ExtendedAttributeDescription& attribute : m_attributes) {
        if (attribute.name == name) return &attribute;
      }
      return nullptr;
    }
    auto at = std::lower_bound(m_sorted.begin(), m_sorted.end(), name,
                               [](const auto* a, std::string_view n) { return a->name < n; });
    return at != m_sorted.end() && (*at)->name == name ? *at : nullptr;
  }

 private:
  static constexpr std::size_t kLinearLimit = 16;
  const std::vector<ExtendedAttributeDescription>& m_attributes;
  std::vector<const ExtendedAttributeDescription*> m_sorted;
};

// The integer item of an archive, as its 64 bits (a narrower field takes the low ones, as C's
// conversions do).
Result<std::uint64_t> decodeBits(Decoder& decoder, std::string_view key) {
  KRV_TRY(Value value, decoder.decodeValue(key));
  const Number* number = value.asNumber();
  if (number == nullptr || !number->isInteger()) {
    return archiveFault(std::string("item \"") + std::string(key) + "\" is not an integer");
  }
  return number->unsignedIntegerValue();
}

Result<Timestamp> decodeTimestamp(Decoder& decoder, std::string_view seconds,
                                  std::string_view nanoseconds) {
  Timestamp time;
  KRV_TRY(std::uint64_t secondBits, decodeBits(decoder, seconds));
  KRV_TRY(std::uint64_t nanosecondBits, decodeBits(decoder, nanoseconds));
  time.seconds = static_cast<std::int64_t>(secondBits);
  time.nanoseconds = static_cast<std::int64_t>(nanosecondBits);
  return time;
}

Result<std::vector<ExtendedAttributeDescription>> attributesFromDictionary(Dictionary dictionary) {
  std::vector<ExtendedAttributeDescription> attributes;
  attributes.reserve(dictionary.size());
  for (const auto& [name, value] : dictionary) {
    const Dictionary* entry = value.asDictionary();
    if (entry == nullptr) return archiveFault("extended attribute is not a dictionary");
    ExtendedAttributeDescription attribute;
    attribute.name = name;
    const Value* size = entry->find(kValueSizeKey);
    if (size == nullptr || size->asNumber() == nullptr || !size->asNumber()->isInteger() ||
        size->asNumber()->isNegative()) {
      return archiveFault("extended attribute without a length");
    }
    attribute.valueSize = size->asNumber()->unsignedIntegerValue();
    std::size_t known = 1;
    if (const Value* checksum = entry->find(kValueChecksumKey)) {
      const std::string* text = checksum->asString();
      if (text == nullptr || !(attribute.valueChecksum = digestFromHex(*text))) {
        return archiveFault("extended attribute checksum is not an MD5 digest");
      }
      ++known;
    }
    if (entry->size() != known) return archiveFault("extended attribute with unknown items");
    attributes.push_back(std::move(attribute));
  }
  return attributes;
}

}  // namespace

bool isResourceForkAttribute(std::string_view name) {
  return withoutUserNamespace(name) == "com.apple.ResourceFork";
}

bool isCompressionAttribute(std::string_view name) {
  return withoutUserNamespace(name) == "com.apple.decmpfs";
}

bool isTimeMachineAttribute(std::string_view name) {
  return withoutUserNamespace(name).starts_with("com.apple.metadata:_kTimeMachine");
}

std::shared_ptr<const KRVFileSystemObjectDescription>
KRVFileSystemObjectDescription::descriptionForObjectAtPath(const std::string& path) {
  if (path.empty()) return nullptr;
  auto description = std::make_shared<KRVFileSystemObjectDescription>();
  // A path with a NUL byte names nothing (the kernel would see a shorter path).
  if (checkPath(path)) {
    description->describeObject({AT_FDCWD, path.c_str()}, path);
  } else {
    description->describeMissingObject(path);
  }
  return description;
}

void KRVFileSystemObjectDescription::describeMissingObject(std::string_view path) {
  m_path.assign(path);
  m_errorCode = -1;
  m_mode = 0;
  m_owner = kUnknownIdentity;
  m_group = kUnknownIdentity;
  m_size = 0;
  m_flags = 0;
  m_attributes.clear();
  m_list.reset();
  m_accessTime = m_modificationTime = m_statusChangeTime = m_creationTime = Timestamp{};
}

void KRVFileSystemObjectDescription::describeObject(ObjectAt object, std::string_view path,
                                                    UniqueFd* openedFile) {
  if (openedFile != nullptr) openedFile->reset();
  Result<struct statx> status =
      sys::statxAt(object.folderFd, object.name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT);
  if (!status) {
    describeMissingObject(path);
    return;
  }
  m_path.assign(path);
  m_errorCode = 0;
  m_mode = status->stx_mode;
  m_owner = (status->stx_mask & STATX_UID) != 0 ? status->stx_uid : kUnknownIdentity;
  m_group = (status->stx_mask & STATX_GID) != 0 ? status->stx_gid : kUnknownIdentity;
  m_size = status->stx_size;
  m_accessTime = timestampOf(status->stx_atime);
  m_modificationTime = timestampOf(status->stx_mtime);
  m_statusChangeTime = timestampOf(status->stx_ctime);
  m_creationTime =
      (status->stx_mask & STATX_BTIME) != 0 ? timestampOf(status->stx_btime) : Timestamp{};
  // The flags record, if the object has one, is among its attributes.
  m_flags = composeFileFlags(status->stx_attributes, std::nullopt);
  m_list.reset();
  if (openedFile != nullptr && S_ISREG(m_mode)) {
    // The file's own descriptor reaches its attributes without looking its name up again.
    *openedFile = openForComparison(object);
    if (*openedFile) object = {openedFile->get(), ""};
  }
  readExtendedAttributes(object, status->stx_attributes);
}

void KRVFileSystemObjectDescription::readExtendedAttributes(ObjectAt object,
                                                            std::uint64_t kernelAttributes) {
  m_attributes.clear();
  const bool isLink = S_ISLNK(m_mode);
  std::uint8_t firstList[kFirstAttemptSize];
  std::optional<std::span<const std::uint8_t>> list =
      readAttribute(firstList, [&](std::span<std::uint8_t> buffer) {
        return sys::listExtendedAttributesAt(
            object.folderFd, object.name, LinkHandling::NoFollow,
            {reinterpret_cast<char*>(buffer.data()), buffer.size()});
      });
  bool holdsListRecord = false;
  if (list && !list->empty()) {
    // The list may sit in the scratch room, which reading the values reuses.
    const std::string names(reinterpret_cast<const char*>(list->data()), list->size());
    const bool compressed = usesFileSystemCompression();
    std::uint8_t firstValue[kFirstAttemptSize];
    for (std::size_t start = 0; start < names.size();) {
      std::size_t end = names.find('\0', start);
      if (end == std::string::npos) end = names.size();
      const std::string_view name(names.data() + start, end - start);
      start = end + 1;
      if (name.empty() || name.starts_with(kSystemNamespace)) continue;
      if (name.starts_with(kInternalRecords)) {
        if (name == kAccessControlListAttribute) holdsListRecord = true;
        if (name != kFlagsRecordAttribute) continue;
      }
      const std::string terminated(name);
      auto value = [&](std::span<std::uint8_t> buffer) {
        return sys::getExtendedAttributeAt(object.folderFd, object.name, terminated.c_str(),
                                           LinkHandling::NoFollow, buffer);
      };
      if (name == kFlagsRecordAttribute) {
        std::optional<std::span<const std::uint8_t>> record = readAttribute(firstValue, value);
        if (record && record->size() == sizeof(std::uint32_t)) {
          m_flags =
              composeFileFlags(kernelAttributes, loadLittleEndian<std::uint32_t>(record->data()));
        }
        continue;
      }
      if (compressed && isResourceForkAttribute(name)) {
        Result<std::size_t> size = value({});
        if (size && *size > 0) m_attributes.push_back({terminated, *size, std::nullopt});
        continue;
      }
      std::optional<std::span<const std::uint8_t>> bytes = readAttribute(firstValue, value);
      if (!bytes || bytes->empty()) continue;
      m_attributes.push_back({terminated, bytes->size(), Md5::digest(*bytes)});
    }
  }
  // Reading a list follows a link, so a link's list is not among its own attributes.
  readAccessControlList(object, isLink || holdsListRecord);
}

void KRVFileSystemObjectDescription::readAccessControlList(ObjectAt object, bool holdsRecord) {
  if (!holdsRecord) return;
  std::uint8_t bytes[kAclMaximumExternalSize];
  Result<std::size_t> length =
      sys::getExtendedAttributeAt(object.folderFd, object.name, kAccessControlListAttribute,
                                  LinkHandling::Follow, std::span<std::uint8_t>(bytes));
  if (!length) return;
  // The kind is that of the object described; a link's list comes back as a file's after
  // archiving too.
  const AclObjectKind kind =
      objectType() == kDirectoryType ? AclObjectKind::Directory : AclObjectKind::File;
  Result<KRVAccessControlList> list =
      KRVAccessControlList::fromExternalRepresentation({bytes, *length}, kind);
  if (list) m_list = std::move(*list);
}

std::int64_t KRVFileSystemObjectDescription::objectType() const {
  switch (m_mode & 0xF000) {
    case 0x1000:
      return 1;
    case 0x2000:
      return 2;
    case 0x4000:
      return 3;
    case 0x6000:
      return 4;
    case 0x8000:
      return 5;
    case 0xA000:
      return 6;
    case 0xC000:
      return 7;
    case 0xE000:
      return 8;
    default:
      return 0;
  }
}

std::string_view KRVFileSystemObjectDescription::objectTypeAsNSFileType() const {
  switch (objectType()) {
    case 2:
      return "NSFileTypeCharacterSpecial";
    case 3:
      return "NSFileTypeDirectory";
    case 4:
      return "NSFileTypeBlockSpecial";
    case 5:
      return "NSFileTypeRegular";
    case 6:
      return "NSFileTypeSymbolicLink";
    case 7:
      return "NSFileTypeSocket";
    default:
      return "NSFileTypeUnknown";
  }
}

Dictionary KRVFileSystemObjectDescription::extendedAttributeDescriptions() const {
  Dictionary attributes;
  attributes.reserve(m_attributes.size());
  for (const ExtendedAttributeDescription& attribute : m_attributes) {
    Dictionary entry;
    entry.append(std::string(kValueSizeKey), Value::unsignedInteger(attribute.valueSize));
    if (attribute.valueChecksum) {
      entry.append(std::string(kValueChecksumKey), Value(Md5::hex(*attribute.valueChecksum)));
    }
    // set, not append: a decoded dictionary has distinct names, a listing has too.
    attributes.set(attribute.name, Value(std::move(entry)));
  }
  return attributes;
}

bool KRVFileSystemObjectDescription::usesFileSystemCompression() const {
  return (m_flags & kCompressedFlag) != 0;
}

std::optional<Date> KRVFileSystemObjectDescription::creationTime() const {
  if (m_creationTime.seconds == 0) return std::nullopt;
  return Date{static_cast<double>(m_creationTime.seconds)};
}

bool KRVFileSystemObjectDescription::hasPOSIXPermissionsEqualTo(
    const KRVFileSystemObjectDescription* other) const {
  return other != nullptr && m_owner == other->m_owner && m_group == other->m_group &&
         posixPermissions() == other->posixPermissions();
}

bool KRVFileSystemObjectDescription::hasAccessControlListEqualTo(
    const KRVFileSystemObjectDescription* other) const {
  if (other == nullptr) return false;
  if (!m_list || !other->m_list) return !m_list && !other->m_list;
  return m_list->isEqualToAccessControlList(*other->m_list);
}

bool KRVFileSystemObjectDescription::hasExtendedAttributesEqualTo(
    const KRVFileSystemObjectDescription* other, bool ignoreTimeMachineAttributes) const {
  if (other == nullptr) return false;
  if (m_attributes.empty() && other->m_attributes.empty()) return true;
  const bool ignoreCompression = usesFileSystemCompression() || other->usesFileSystemCompression();
  auto ignored = [&](std::string_view name) {
    return (ignoreCompression && (isResourceForkAttribute(name) || isCompressionAttribute(name))) ||
           (ignoreTimeMachineAttributes && isTimeMachineAttribute(name));
  };
  const AttributeIndex theirs(other->m_attributes);
  for (const ExtendedAttributeDescription& attribute : m_attributes) {
    if (ignored(attribute.name)) continue;
    const ExtendedAttributeDescription* match = theirs.find(attribute.name);
    if (attribute.valueSize != (match != nullptr ? match->valueSize : 0)) return false;
    if (match != nullptr && attribute.valueChecksum && match->valueChecksum &&
        *attribute.valueChecksum != *match->valueChecksum) {
      return false;
    }
  }
  const AttributeIndex ours(m_attributes);
  for (const ExtendedAttributeDescription& attribute : other->m_attributes) {
    if (ignored(attribute.name) || ours.find(attribute.name) != nullptr) continue;
    if (attribute.valueSize != 0) return false;
  }
  return true;
}

bool KRVFileSystemObjectDescription::hasAttributesEqualTo(
    const KRVFileSystemObjectDescription* other) const {
  return other != nullptr && (m_flags & ~kCompressedFlag) == (other->m_flags & ~kCompressedFlag) &&
         m_modificationTime == other->m_modificationTime;
}

bool KRVFileSystemObjectDescription::hasStatusChangeTimeEqualTo(
    const KRVFileSystemObjectDescription* other) const {
  return other != nullptr && m_statusChangeTime == other->m_statusChangeTime;
}

bool KRVFileSystemObjectDescription::hasContentsEqualTo(const KRVFileSystemObjectDescription* other,
                                                        bool compareBytes) const {
  if (other == nullptr) return false;
  ContentComparer comparer;
  return comparer.contentsEqual(*this, {AT_FDCWD, m_path.c_str()}, *other,
                                {AT_FDCWD, other->m_path.c_str()}, compareBytes);
}

bool KRVFileSystemObjectDescription::isAppleDoubleFile() const {
  if (!isValid() || objectType() != kRegularFileType) return false;
  const std::size_t slash = m_path.rfind('/');
  const std::string_view last = slash == std::string::npos
                                    ? std::string_view(m_path)
                                    : std::string_view(m_path).substr(slash + 1);
  return last.starts_with("._");
}

std::string KRVFileSystemObjectDescription::description() const {
  if (!isValid()) return std::string(kClassName) + ": does not contain a valid description.";
  const std::optional<Date> created = creationTime();
  return format(
             "%s for path '%s':\ntype %lld owner: %d group owner: %d POSIX access: 0%03o last "
             "access: %s last modification: %s last status change: %s created: %s size: %llu "
             "bytes flags: 0x%x, extended attributes: ",
             std::string(kClassName).c_str(), escapedName(m_path).c_str(),
             static_cast<long long>(objectType()), static_cast<int>(m_owner),
             static_cast<int>(m_group), static_cast<unsigned>(posixPermissions()),
             dateText(m_accessTime.seconds).c_str(), dateText(m_modificationTime.seconds).c_str(),
             dateText(m_statusChangeTime.seconds).c_str(),
             created ? dateText(m_creationTime.seconds).c_str() : "(null)",
             static_cast<unsigned long long>(m_size), static_cast<unsigned>(m_flags)) +
         Value(extendedAttributeDescriptions()).description() + " ACL: " +
         (m_list ? format("%zu entries", m_list->count()) : std::string("not available"));
}

Array KRVFileSystemObjectDescription::sortedExtendedAttributesDescriptions() const {
  std::vector<const ExtendedAttributeDescription*> sorted;
  sorted.reserve(m_attributes.size());
  for (const ExtendedAttributeDescription& attribute : m_attributes) sorted.push_back(&attribute);
  std::stable_sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
    return compareCaseInsensitively(a->name, b->name) < 0;
  });
  Array descriptions;
  descriptions.reserve(sorted.size());
  for (const ExtendedAttributeDescription* attribute : sorted) {
    Dictionary entry;
    entry.append(std::string(kValueSizeKey), Value::unsignedInteger(attribute->valueSize));
    if (attribute->valueChecksum) {
      entry.append(std::string(kValueChecksumKey), Value(Md5::hex(*attribute->valueChecksum)));
    }
    entry.append(std::string(kNameKey), nameValue(attribute->name));
    descriptions.emplace_back(std::move(entry));
  }
  return descriptions;
}

std::optional<std::string> KRVFileSystemObjectDescription::nameOfExtendedAttributeInDescription(
    const Dictionary* description) {
  if (description == nullptr) return std::nullopt;
  const Value* name = description->find(kNameKey);
  return name != nullptr ? nameBytes(*name) : std::nullopt;
}

Result<std::optional<Data>>
KRVFileSystemObjectDescription::liveValueForExtendedAttributeOfDescription(
    const Dictionary* description) const {
  const std::optional<std::string> name = nameOfExtendedAttributeInDescription(description);
  if (!name || name->empty()) return std::optional<Data>();
  KRV_TRY_VOID(checkPath(m_path));
  KRV_TRY_VOID(checkPath(*name));
  KRV_TRY(std::optional<Data> value,
          sys::getExtendedAttribute(m_path.c_str(), name->c_str(), LinkHandling::NoFollow,
                                    kMaximumLiveValueSize));
  if (!value || value->empty()) return Error::posix(ENODATA, "getxattr");
  return value;
}

void KRVFileSystemObjectDescription::encode(Encoder& encoder) const {
  encoder.encodeValue("Path", nameValue(m_path));
  encoder.encodeInteger("ErrorCode", m_errorCode);
  encoder.encodeInteger("POSIXMode", m_mode);
  encoder.encodeInteger("Owner", m_owner);
  encoder.encodeInteger("GroupOwner", m_group);
  encoder.encodeInteger("AccessTime.s", m_accessTime.seconds);
  encoder.encodeInteger("AccessTime.ns", m_accessTime.nanoseconds);
  encoder.encodeInteger("ModificationTime.s", m_modificationTime.seconds);
  encoder.encodeInteger("ModificationTime.ns", m_modificationTime.nanoseconds);
  encoder.encodeInteger("StatusChangeTime.s", m_statusChangeTime.seconds);
  encoder.encodeInteger("StatusChangeTime.ns", m_statusChangeTime.nanoseconds);
  encoder.encodeInteger("CreationTime.s", m_creationTime.seconds);
  encoder.encodeInteger("CreationTime.ns", m_creationTime.nanoseconds);
  encoder.encodeUnsigned("Size", m_size);
  encoder.encodeUnsigned("Flags", m_flags);
  encoder.encodeNameDictionary("ExtendedAttributes", extendedAttributeDescriptions());
  encoder.encodeData("ACL", m_list ? m_list->externalRepresentation() : Data());
}

Result<ObjectRef> KRVFileSystemObjectDescription::decode(Decoder& decoder) {
  auto description = std::make_shared<KRVFileSystemObjectDescription>();
  KRV_TRY(Value path, decoder.decodeValue("Path"));
  if (!isNameValue(path)) return archiveFault("snapshot path is not a name");
  description->m_path = *nameBytes(path);
  KRV_TRY(std::uint64_t errorCode, decodeBits(decoder, "ErrorCode"));
  KRV_TRY(std::uint64_t mode, decodeBits(decoder, "POSIXMode"));
  KRV_TRY(std::uint64_t owner, decodeBits(decoder, "Owner"));
  KRV_TRY(std::uint64_t group, decodeBits(decoder, "GroupOwner"));
  description->m_errorCode = static_cast<std::int32_t>(static_cast<std::uint32_t>(errorCode));
  description->m_mode = static_cast<std::uint16_t>(mode);
  description->m_owner = static_cast<std::uint32_t>(owner);
  description->m_group = static_cast<std::uint32_t>(group);
  KRV_TRY(description->m_accessTime, decodeTimestamp(decoder, "AccessTime.s", "AccessTime.ns"));
  KRV_TRY(description->m_modificationTime,
          decodeTimestamp(decoder, "ModificationTime.s", "ModificationTime.ns"));
  KRV_TRY(description->m_statusChangeTime,
          decodeTimestamp(decoder, "StatusChangeTime.s", "StatusChangeTime.ns"));
  KRV_TRY(description->m_creationTime,
          decodeTimestamp(decoder, "CreationTime.s", "CreationTime.ns"));
  KRV_TRY(description->m_size, decodeBits(decoder, "Size"));
  KRV_TRY(std::uint64_t flags, decodeBits(decoder, "Flags"));
  description->m_flags = static_cast<std::uint32_t>(flags);
  KRV_TRY(Dictionary attributes, decoder.decodeNameDictionary("ExtendedAttributes"));
  KRV_TRY(description->m_attributes, attributesFromDictionary(std::move(attributes)));
  KRV_TRY(Data list, decoder.decodeData("ACL"));
  if (!list.empty()) {
    const AclObjectKind kind = description->objectType() == kDirectoryType
                                   ? AclObjectKind::Directory
                                   : AclObjectKind::File;
    // A list that cannot be read leaves the snapshot without one.
    Result<KRVAccessControlList> decoded =
        KRVAccessControlList::fromExternalRepresentation(list, kind);
    if (decoded) description->m_list = std::move(*decoded);
  }
  return ObjectRef(std::move(description));
}

const ClassRegistry& KRVFileSystemObjectDescription::comparisonClasses() {
  static const ClassRegistry registry = [] {
    ClassRegistry classes;
    classes.add(Error::kClassName, &Error::decode);
    classes.add(kClassName, &KRVFileSystemObjectDescription::decode);
    return classes;
  }();
  return registry;
}

std::size_t KRVFileSystemObjectDescription::memoryFootprint() const {
  std::size_t bytes = sizeof *this + m_path.capacity() +
                      m_attributes.capacity() * sizeof(ExtendedAttributeDescription);
  for (const ExtendedAttributeDescription& attribute : m_attributes) {
    bytes += attribute.name.capacity();
  }
  if (m_list) bytes += m_list->count() * sizeof(ExtendedAclEntry);
  return bytes;
}

bool KRVFileSystemObjectDescription::operator==(const KRVFileSystemObjectDescription& other) const {
  auto listBytes = [](const std::optional<KRVAccessControlList>& list) {
    return list ? std::optional<Data>(list->externalRepresentation()) : std::nullopt;
  };
  return m_path == other.m_path && m_errorCode == other.m_errorCode && m_mode == other.m_mode &&
         m_owner == other.m_owner && m_group == other.m_group && m_size == other.m_size &&
         m_flags == other.m_flags && m_attributes == other.m_attributes &&
         listBytes(m_list) == listBytes(other.m_list) && m_accessTime == other.m_accessTime &&
         m_modificationTime == other.m_modificationTime &&
         m_statusChangeTime == other.m_statusChangeTime && m_creationTime == other.m_creationTime;
}

}  // namespace krv
