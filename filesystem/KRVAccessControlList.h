#pragma once
// KRVAccessControlList: one extended access control list - allow and deny entries that name users,
// groups or opaque identities by UUID - read and edited by entry index, with five predefined
// permission sets so that a user interface can show an entry as "read only" or "full control" and
// set it that way in one step. It is the form in which an object's list sits in snapshots, travels
// in archives (its external representation, the portable byte form of platform/ExtendedAcl.h) and
// is compared by the folder comparison.
//
// Building a list. The model's own operations never add an entry: entries come from outside, from
// the byte form (fromExternalRepresentation), from an object (accessControlListForObject) or from a
// ready ExtendedAcl (withSystemAcl, which is how code and tests build a list entry by entry). Edits
// change only the list in memory; platform/AccessControlListStorage.h writes one to an object.
//
// Permission sets (which permissions form the write set depends on the kind of object):
//   read        0x2 0x8 0x80 0x200 0x800
//   write       0x4 0x20 0x10 0x100 0x400, and 0x40 for a folder
//   administer  0x1000 0x2000
// Other permissions (synchronize, a file's 0x40, unknown bits) belong to no set: reading a tag
// ignores them, setting a tag drops them.
//
// Index-addressed operations take an index below count(); any other index answers false, nothing,
// or - for predefinedPermissionTag - FullControl, deliberately not a distinct error value. No
// operation throws or reports an error object; a failed edit leaves the list unchanged.
//
// A plain value: copyable and movable, one thread at a time (concurrent const use is fine).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "platform/ExtendedAcl.h"
#include "platform/FileSystemCalls.h"

namespace krv {

// Whether a list belongs to a folder (Directory) or to any other object (File).
enum class AclObjectKind : std::uint8_t { File, Directory };

enum class PermissionsTag : std::uint8_t {
  FullControl = 0,  // read, write and administer sets all present
  ReadWrite = 1,    // read and write sets all present, administer set absent
  ReadOnly = 2,     // read set all present, write and administer sets absent
  WriteOnly = 3,    // write set all present, read and administer sets absent
  None = 4,         // no permission of any of the three sets
  Custom = 5,       // any other combination; reported, never set
};

inline constexpr std::uint32_t kAclReadSet =
    kAclReadData | kAclExecute | kAclReadAttributes | kAclReadExtendedAttributes | kAclReadSecurity;
inline constexpr std::uint32_t kAclFileWriteSet =
    kAclWriteData | kAclAppendData | kAclDelete | kAclWriteAttributes | kAclWriteExtendedAttributes;
inline constexpr std::uint32_t kAclDirectoryWriteSet = kAclFileWriteSet | kAclDeleteChild;
inline constexpr std::uint32_t kAclAdministerSet = kAclWriteSecurity | kAclChangeOwner;

class KRVAccessControlList {
 public:
  static constexpr std::string_view kClassName = "KRVAccessControlList";

  // An empty list.
  explicit KRVAccessControlList(AclObjectKind kind = AclObjectKind::File) : m_kind(kind) {}

  // A list holding a copy of `list`; nothing when it has no byte form (more than 128 entries, a
  // kind other than allow or deny, a flag in the kind bits).
  static std::optional<KRVAccessControlList> withSystemAcl(ExtendedAcl list, AclObjectKind kind);
  // The list of a byte form; EINVAL for a malformed one (platform/ExtendedAcl.h).
  static Result<KRVAccessControlList> fromExternalRepresentation(
      std::span<const std::uint8_t> bytes, AclObjectKind kind);
  // The list stored for the object, whose kind it takes; nothing when the object has none or it
  // cannot be read. The path form follows a symbolic link, as list lookups always have.
  static std::optional<KRVAccessControlList> accessControlListForObject(const PathHandle& object);
  static std::optional<KRVAccessControlList> accessControlListForObjectAtPath(
      const std::string& path);

  const ExtendedAcl& systemAcl() const { return m_list; }
  std::size_t count() const { return m_list.entries.size(); }
  bool isForDirectory() const { return m_kind == AclObjectKind::Directory; }

  // The portable byte form of the list.
  Data externalRepresentation() const;
  // Equal external representations, so entry order matters.
  bool isEqualToAccessControlList(const KRVAccessControlList& other) const;

  // The identity as canonical UUID text (upper case, 8-4-4-4-12).
  std::optional<std::string> uuidStringOfIdentity(std::size_t index) const;
  bool isDenyType(std::size_t index) const;
  // `permission` and `flag` name one bit; a value of several bits or none answers false.
  bool hasPermission(std::uint32_t permission, std::size_t index) const;
  bool hasInheritanceFlag(std::uint32_t flag, std::size_t index) const;
  bool isInherited(std::size_t index) const;
  PermissionsTag predefinedPermissionTag(std::size_t index) const;

  // Edits answer whether they were made. The UUID text is parsed as foundation/Uuid.h says (an
  // empty or unparsable text is refused). Setting a tag replaces every permission of the entry
  // with the tag's sets (Custom is refused). Flags in the kind bits (0xF) are refused: the kind is
  // set with setDenyType.
  bool setUuidString(std::string_view text, std::size_t index);
  bool setDenyType(bool deny, std::size_t index);
  bool setPredefinedPermissionsTag(PermissionsTag tag, std::size_t index);
  bool setPermission(std::uint32_t permission, bool value, std::size_t index);
  bool setInheritanceFlag(std::uint32_t flag, bool value, std::size_t index);
  bool removeEntry(std::size_t index);
  bool removeAllEntries();

 private:
  KRVAccessControlList(ExtendedAcl list, AclObjectKind kind)
      : m_list(std::move(list)), m_kind(kind) {}

  std::uint32_t writeSet() const;

  ExtendedAcl m_list;
  AclObjectKind m_kind = AclObjectKind::File;
};

}  // namespace krv
