#pragma once
// KRVFileSystemObjectDescription: a snapshot of the metadata of one file system object - its type
// and mode bits, owner and group, four time stamps with nanoseconds, size, file flags, a
// fingerprint (length and MD5 digest) of each extended attribute, and its access control list -
// which the folder comparison takes of each object of two trees, compares with a fixed set of
// questions and sends to the client inside its reports. It archives itself in both forms and never
// changes the object it describes.
//
// Taking a snapshot. Everything is read without following a symbolic link - a link is described as
// a link - except the access control list, whose lookup follows one (a link's snapshot carries
// its destination's list, none when the link is broken). One statx gives mode, owner, group (an
// owner or group the kernel does not report is 0xFFFFFFFE), times (the creation time is the birth
// time, 0 where the file system keeps none), size and the kernel's flag attributes. The flags word
// is that of platform/FileFlags.h (the kernel's flags and the record "trusted.com.tavorin.flags").
// Extended attributes: the names of the "user.", "trusted." and "security." namespaces and any
// other except "system." (the kernel's POSIX ACL mirror; the list is compared as a list) and the
// internal records "trusted.com.tavorin.*"; an attribute whose value is empty is left out; for a
// compressed object (flag 0x20) the resource fork attribute keeps its length only. Names are bytes.
// A path whose object cannot be examined gives an invalid snapshot (error code -1), never an error.
//
// The attributes the system treats specially match with or without a leading "user.":
// "com.apple.ResourceFork", "com.apple.decmpfs", and names beginning with
// "com.apple.metadata:_kTimeMachine".
//
// Equality questions (each answers false when the other snapshot is absent):
//   hasPOSIXPermissionsEqualTo     owner, group and the nine permission bits (not the set-id and
//                                  sticky bits)
//   hasAccessControlListEqualTo    both absent, or both present with equal byte forms
//   hasExtendedAttributesEqualTo   over the union of names (a missing one counts as length 0):
//                                  equal lengths, and equal digests where both sides have one;
//                                  with either object compressed the resource fork and decmpfs
//                                  names are ignored, with ignoreTimeMachine the Time Machine names
//   hasAttributesEqualTo           the flags but 0x20, and the modification time. The creation time
//                                  is carried but never compared: no copy on Linux can keep it
//   hasStatusChangeTimeEqualTo     the status change time
//   hasContentsEqualTo             type and size; with compareBytes also the bytes of regular files
//                                  and the destinations of links (see filesystem/ContentComparer.h)
//
// Archive forms (docs/folder-comparison.md): the sequential form is the path, twelve 64-bit
// integers (error code, mode, owner, group, then seconds and nanoseconds of access, modification,
// status change and creation), the size, the flags, the attribute dictionary and the list's byte
// form (empty when there is none); the keyed form names the same items "Path", "ErrorCode",
// "POSIXMode", "Owner", "GroupOwner", "AccessTime.s", "AccessTime.ns", "ModificationTime.s",
// "ModificationTime.ns", "StatusChangeTime.s", "StatusChangeTime.ns", "CreationTime.s",
// "CreationTime.ns", "Size", "Flags", "ExtendedAttributes", "ACL". The path and the attribute names
// are names (foundation/NameValue.h): an attribute name that is not UTF-8 is a byte-string key.
// Each attribute is {"ValueSize": length, "ValueChecksum": 32 lower-case hexadecimal digits}. The
// decoder refuses anything else; integers are cut to their field's width, and a list whose bytes
// cannot be read leaves the snapshot without one.
//
// A plain value: copyable, movable, one thread at a time. The folder comparison refills two
// snapshots for every object (describeObject) and copies only those it keeps.

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/KRVAccessControlList.h"
#include "foundation/Archivable.h"
#include "foundation/Coding.h"
#include "foundation/Md5.h"
#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"

namespace krv {

// An object named relative to an open folder, as the *at() calls take it (AT_FDCWD with a path).
struct ObjectAt {
  int folderFd;
  const char* name;
};

// One extended attribute as a snapshot holds it.
struct ExtendedAttributeDescription {
  std::string name;  // its bytes, with the namespace ("user.note")
  std::uint64_t valueSize = 0;
  std::optional<Md5::Digest> valueChecksum;  // absent for a compressed object's resource fork
  bool operator==(const ExtendedAttributeDescription&) const = default;
};

struct Timestamp {
  std::int64_t seconds = 0;
  std::int64_t nanoseconds = 0;
  bool operator==(const Timestamp&) const = default;
};

class KRVFileSystemObjectDescription final : public Archivable {
 public:
  static constexpr std::string_view kClassName = "KRVFileSystemObjectDescription";
  // The owner or group that cannot be read.
  static constexpr std::uint32_t kUnknownIdentity = 0xFFFFFFFE;
  // The most liveValueForExtendedAttributeOfDescription returns.
  static constexpr std::size_t kMaximumLiveValueSize = 4 * 1024 * 1024;

  // The empty, invalid snapshot: error code -1, owner and group kUnknownIdentity, all else 0.
  KRVFileSystemObjectDescription() = default;

  // A snapshot of the object at `path` (links not followed); nothing for an empty path.
  static std::shared_ptr<const KRVFileSystemObjectDescription> descriptionForObjectAtPath(
      const std::string& path);

  // Refills this snapshot with the object `object`, calling it `path`. The memory already held is
  // reused, which keeps walks free of allocations. With `openedFile`, a regular file is opened for
  // a comparison of its bytes (filesystem/ContentComparer.h), its attributes are read through that
  // descriptor, and the descriptor is handed over (invalid when it could not be opened, and for
  // any other object).
  void describeObject(ObjectAt object, std::string_view path, UniqueFd* openedFile = nullptr);
  // Makes this the invalid snapshot of `path`.
  void describeMissingObject(std::string_view path);

  bool isValid() const { return m_errorCode == 0; }
  std::int32_t errorCode() const { return m_errorCode; }
  const std::string& path() const { return m_path; }
  std::uint16_t posixMode() const { return m_mode; }
  std::uint16_t posixPermissions() const { return m_mode & 0x1FF; }
  std::uint32_t objectOwnerIdentification() const { return m_owner; }
  std::uint32_t objectGroupOwnerIdentification() const { return m_group; }
  std::uint64_t objectSize() const { return m_size; }
  std::uint32_t objectFlags() const { return m_flags; }
  // 0 unknown, 1 named pipe, 2 character device, 3 folder, 4 block device, 5 regular file,
  // 6 symbolic link, 7 socket, 8 whiteout (never on Linux).
  std::int64_t objectType() const;
  // "NSFileTypeRegular", ...; a named pipe and a whiteout are "NSFileTypeUnknown".
  std::string_view objectTypeAsNSFileType() const;
  const std::vector<ExtendedAttributeDescription>& extendedAttributes() const {
    return m_attributes;
  }
  // The attribute dictionary as it travels: name -> {"ValueSize", "ValueChecksum"}.
  Dictionary extendedAttributeDescriptions() const;
  const std::optional<KRVAccessControlList>& accessControlList() const { return m_list; }
  bool usesFileSystemCompression() const;

  const Timestamp& accessTimestamp() const { return m_accessTime; }
  const Timestamp& modificationTimestamp() const { return m_modificationTime; }
  const Timestamp& statusChangeTimestamp() const { return m_statusChangeTime; }
  const Timestamp& creationTimestamp() const { return m_creationTime; }
  // Dates of the whole seconds (the nanoseconds are dropped); no creation date when its seconds
  // are 0.
  Date accessTime() const { return Date{static_cast<double>(m_accessTime.seconds)}; }
  Date modificationTime() const { return Date{static_cast<double>(m_modificationTime.seconds)}; }
  Date statusChangeTime() const { return Date{static_cast<double>(m_statusChangeTime.seconds)}; }
  std::optional<Date> creationTime() const;

  bool hasPOSIXPermissionsEqualTo(const KRVFileSystemObjectDescription* other) const;
  bool hasAccessControlListEqualTo(const KRVFileSystemObjectDescription* other) const;
  bool hasExtendedAttributesEqualTo(const KRVFileSystemObjectDescription* other,
                                    bool ignoreTimeMachineAttributes) const;
  bool hasAttributesEqualTo(const KRVFileSystemObjectDescription* other) const;
  bool hasStatusChangeTimeEqualTo(const KRVFileSystemObjectDescription* other) const;
  // Reads the objects at the two snapshots' paths when bytes are compared.
  bool hasContentsEqualTo(const KRVFileSystemObjectDescription* other, bool compareBytes) const;
  // Valid, a regular file, and a last path component beginning with "._".
  bool isAppleDoubleFile() const;

  // "KRVFileSystemObjectDescription for path '...':\ntype 5 owner: ..." (or, when invalid,
  // "KRVFileSystemObjectDescription: does not contain a valid description.").
  std::string description() const;
  // The attribute dictionaries sorted by name, case-insensitively (ASCII letters), each with
  // "Name" added.
  Array sortedExtendedAttributesDescriptions() const;
  // The "Name" of such a dictionary, as bytes; nothing for an absent one or one without a name.
  static std::optional<std::string> nameOfExtendedAttributeInDescription(
      const Dictionary* description);
  // The value of the named attribute of the object at this snapshot's path, now (at most
  // kMaximumLiveValueSize bytes); nothing without an error when the description has no name; the
  // POSIX error of the read when the attribute is missing or empty (ENODATA) or cannot be read.
  Result<std::optional<Data>> liveValueForExtendedAttributeOfDescription(
      const Dictionary* description) const;

  std::string_view className() const override { return kClassName; }
  void encode(Encoder& encoder) const override;
  static Result<ObjectRef> decode(Decoder& decoder);
  // The classes a comparison's messages and saved results hold: the error object and this.
  static const ClassRegistry& comparisonClasses();

  bool operator==(const KRVFileSystemObjectDescription& other) const;
  // About the bytes of memory the snapshot holds.
  std::size_t memoryFootprint() const;

 private:
  void readExtendedAttributes(ObjectAt object, std::uint64_t kernelAttributes);
  void readAccessControlList(ObjectAt object, bool holdsRecord);

  std::string m_path;
  std::int32_t m_errorCode = -1;
  std::uint16_t m_mode = 0;
  std::uint32_t m_owner = kUnknownIdentity;
  std::uint32_t m_group = kUnknownIdentity;
  std::uint64_t m_size = 0;
  std::uint32_t m_flags = 0;
  std::vector<ExtendedAttributeDescription> m_attributes;
  std::optional<KRVAccessControlList> m_list;
  Timestamp m_accessTime;
  Timestamp m_modificationTime;
  Timestamp m_statusChangeTime;
  Timestamp m_creationTime;
};

// Whether an attribute name is one of those the system treats specially, with or without "user.".
bool isResourceForkAttribute(std::string_view name);
bool isCompressionAttribute(std::string_view name);
bool isTimeMachineAttribute(std::string_view name);

}  // namespace krv
