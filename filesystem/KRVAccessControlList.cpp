#include "filesystem/KRVAccessControlList.h"

#include <bit>
#include <utility>

#include "platform/AccessControlListStorage.h"

namespace krv {
namespace {

enum class SetPresence : std::uint8_t { All, None, Mixed };

SetPresence presenceOf(std::uint32_t set, std::uint32_t permissions) {
  const std::uint32_t present = permissions & set;
  if (present == set) return SetPresence::All;
  return present == 0 ? SetPresence::None : SetPresence::Mixed;
}

bool isOneBit(std::uint32_t value) { return std::has_single_bit(value); }

bool isFlagBit(std::uint32_t flag) { return isOneBit(flag) && (flag & kAclEntryKindBits) == 0; }

}  // namespace

std::optional<KRVAccessControlList> KRVAccessControlList::withSystemAcl(ExtendedAcl list,
                                                                        AclObjectKind kind) {
  if (!isValidAcl(list)) return std::nullopt;
  return KRVAccessControlList(std::move(list), kind);
}

Result<KRVAccessControlList> KRVAccessControlList::fromExternalRepresentation(
    std::span<const std::uint8_t> bytes, AclObjectKind kind) {
  KRV_TRY(ExtendedAcl list, readAclExternalForm(bytes));
  return KRVAccessControlList(std::move(list), kind);
}

std::optional<KRVAccessControlList> KRVAccessControlList::accessControlListForObject(
    const PathHandle& object) {
  Result<std::optional<ExtendedAcl>> stored = readAccessControlList(object);
  if (!stored || !*stored) return std::nullopt;
  return withSystemAcl(std::move(**stored),
                       object.isDirectory() ? AclObjectKind::Directory : AclObjectKind::File);
}

std::optional<KRVAccessControlList> KRVAccessControlList::accessControlListForObjectAtPath(
    const std::string& path) {
  if (path.empty()) return std::nullopt;
  Result<PathHandle> object = PathHandle::open(path, LinkHandling::Follow);
  if (!object) return std::nullopt;
  return accessControlListForObject(*object);
}

Data KRVAccessControlList::externalRepresentation() const { return aclExternalForm(m_list); }

bool KRVAccessControlList::isEqualToAccessControlList(const KRVAccessControlList& other) const {
  return count() == other.count() && externalRepresentation() == other.externalRepresentation();
}

std::optional<std::string> KRVAccessControlList::uuidStringOfIdentity(std::size_t index) const {
  if (index >= count()) return std::nullopt;
  return uuidString(m_list.entries[index].identity);
}

bool KRVAccessControlList::isDenyType(std::size_t index) const {
  return index < count() && m_list.entries[index].kind == AclEntryKind::Deny;
}

bool KRVAccessControlList::hasPermission(std::uint32_t permission, std::size_t index) const {
  return index < count() && isOneBit(permission) &&
         (m_list.entries[index].permissions & permission) != 0;
}

bool KRVAccessControlList::hasInheritanceFlag(std::uint32_t flag, std::size_t index) const {
  return index < count() && isFlagBit(flag) && (m_list.entries[index].flags & flag) != 0;
}

bool KRVAccessControlList::isInherited(std::size_t index) const {
  return hasInheritanceFlag(kAclEntryInherited, index);
}

std::uint32_t KRVAccessControlList::writeSet() const {
  return isForDirectory() ? kAclDirectoryWriteSet : kAclFileWriteSet;
}

PermissionsTag KRVAccessControlList::predefinedPermissionTag(std::size_t index) const {
  if (index >= count()) return PermissionsTag::FullControl;
  const std::uint32_t permissions = m_list.entries[index].permissions;
  const SetPresence read = presenceOf(kAclReadSet, permissions);
  const SetPresence write = presenceOf(writeSet(), permissions);
  const SetPresence administer = presenceOf(kAclAdministerSet, permissions);
  using enum SetPresence;
  if (administer == Mixed) return PermissionsTag::Custom;
  if (read == All && write == All && administer == All) return PermissionsTag::FullControl;
  if (read == All && write == All && administer == None) return PermissionsTag::ReadWrite;
  if (read == All && write == None && administer == None) return PermissionsTag::ReadOnly;
  if (write == All && read == None && administer == None) return PermissionsTag::WriteOnly;
  if (read == None && write == None && administer == None) return PermissionsTag::None;
  return PermissionsTag::Custom;
}

bool KRVAccessControlList::setUuidString(std::string_view text, std::size_t index) {
  if (index >= count()) return false;
  std::optional<Uuid> uuid = parseUuid(text);
  if (!uuid) return false;
  m_list.entries[index].identity = *uuid;
  return true;
}

bool KRVAccessControlList::setDenyType(bool deny, std::size_t index) {
  if (index >= count()) return false;
  m_list.entries[index].kind = deny ? AclEntryKind::Deny : AclEntryKind::Allow;
  return true;
}

bool KRVAccessControlList::setPredefinedPermissionsTag(PermissionsTag tag, std::size_t index) {
  if (index >= count()) return false;
  std::uint32_t permissions = 0;
  switch (tag) {
    case PermissionsTag::FullControl:
      permissions = kAclReadSet | writeSet() | kAclAdministerSet;
      break;
    case PermissionsTag::ReadWrite:
      permissions = kAclReadSet | writeSet();
      break;
    case PermissionsTag::ReadOnly:
      permissions = kAclReadSet;
      break;
    case PermissionsTag::WriteOnly:
      permissions = writeSet();
      break;
    case PermissionsTag::None:
      break;
    default:  // Custom, and any value beyond the table
      return false;
  }
  m_list.entries[index].permissions = permissions;
  return true;
}

bool KRVAccessControlList::setPermission(std::uint32_t permission, bool value, std::size_t index) {
  if (index >= count() || !isOneBit(permission)) return false;
  std::uint32_t& permissions = m_list.entries[index].permissions;
  permissions = value ? permissions | permission : permissions & ~permission;
  return true;
}

bool KRVAccessControlList::setInheritanceFlag(std::uint32_t flag, bool value, std::size_t index) {
  if (index >= count() || !isFlagBit(flag)) return false;
  std::uint32_t& flags = m_list.entries[index].flags;
  flags = value ? flags | flag : flags & ~flag;
  return true;
}

bool KRVAccessControlList::removeEntry(std::size_t index) {
  if (index >= count()) return false;
  m_list.entries.erase(m_list.entries.begin() + static_cast<std::ptrdiff_t>(index));
  return true;
}

bool KRVAccessControlList::removeAllEntries() {
  m_list.entries.clear();
  return true;
}

}  // namespace krv
