#include "platform/AccessControlListStorage.h"

#include <algorithm>
#include <cerrno>
#include <tuple>

namespace krv {
namespace {

unsigned posixPermissionsOf(std::uint32_t rights) {
  unsigned permissions = 0;
  if ((rights & kAclReadData) != 0) permissions |= kPosixAclRead;
  if ((rights & kAclWriteData) != 0) permissions |= kPosixAclWrite;
  if ((rights & kAclExecute) != 0) permissions |= kPosixAclExecute;
  return permissions;
}

bool belongsTo(const ExtendedAclEntry& entry, PosixAclType type) {
  if (type == PosixAclType::Access) return (entry.flags & kAclEntryOnlyInherit) == 0;
  return (entry.flags & (kAclEntryFileInherit | kAclEntryDirectoryInherit)) != 0;
}

// Whether the access ACL says more than a mode can.
bool isExtended(const PosixAcl& acl) { return acl.mask().has_value(); }

// Puts a folder's default ACL back as it was before a failed write.
void restoreDefault(const char* path, const std::optional<PosixAcl>& previous) {
  if (!previous) return;
  if (previous->empty()) {
    (void)sys::deletePosixDefaultAcl(path);
  } else {
    (void)sys::setPosixAcl(path, PosixAclType::Default, *previous);
  }
}

}  // namespace

std::vector<PosixAclNamedEntry> mirroredAclEntries(const ExtendedAcl& list, PosixAclType type,
                                                   unsigned otherPermissions) {
  std::vector<PosixAclNamedEntry> named;
  for (const ExtendedAclEntry& entry : list.entries) {
    if (entry.kind != AclEntryKind::Allow || !belongsTo(entry, type)) continue;
    const unsigned permissions = posixPermissionsOf(entry.permissions);
    if (permissions == 0) continue;
    PosixAclNamedEntry mirrored;
    if (std::optional<uid_t> uid = uidOfUuid(entry.identity)) {
      mirrored = {PosixAclNamedEntry::Kind::User, *uid, permissions};
    } else if (std::optional<gid_t> gid = gidOfUuid(entry.identity)) {
      mirrored = {PosixAclNamedEntry::Kind::Group, *gid, permissions};
    } else {
      continue;
    }
    if (mirrored.id == static_cast<std::uint32_t>(-1)) continue;
    auto same = std::find_if(named.begin(), named.end(), [&](const PosixAclNamedEntry& other) {
      return other.kind == mirrored.kind && other.id == mirrored.id;
    });
    if (same != named.end()) {
      same->permissions |= mirrored.permissions;
    } else {
      named.push_back(mirrored);
    }
  }
  for (PosixAclNamedEntry& entry : named) entry.permissions |= otherPermissions;
  std::sort(named.begin(), named.end(), [](const auto& a, const auto& b) {
    return std::tie(a.kind, a.id) < std::tie(b.kind, b.id);
  });
  return named;
}

Result<std::optional<ExtendedAcl>> readAccessControlList(const PathHandle& object) {
  Result<std::optional<Data>> record =
      sys::getExtendedAttribute(object.procPath(), kAccessControlListAttribute,
                                LinkHandling::Follow, kAclMaximumExternalSize);
  if (!record) {
    if (record.error().code() == E2BIG) return Error::posix(EINVAL, "access control list length");
    return std::move(record).error();
  }
  if (!*record) return std::optional<ExtendedAcl>();
  KRV_TRY(ExtendedAcl list, readAclExternalForm(**record));
  return std::optional<ExtendedAcl>(std::move(list));
}

Status writeAccessControlList(const PathHandle& object, const ExtendedAcl& list) {
  if (!isValidAcl(list)) return Error::posix(EINVAL, "access control list");
  const char* path = object.procPath();
  const Data record = aclExternalForm(list);
  auto writeRecord = [&] {
    return sys::setExtendedAttribute(path, kAccessControlListAttribute, record,
                                     LinkHandling::Follow);
  };

  Result<PosixAcl> current = sys::getPosixAcl(path, PosixAclType::Access);
  if (!current) {
    // A file system without POSIX ACLs can still keep a list that the kernel has nothing of.
    const bool mirrorsSomething =
        !mirroredAclEntries(list, PosixAclType::Access, 0).empty() ||
        (object.isDirectory() && !mirroredAclEntries(list, PosixAclType::Default, 0).empty());
    if (current.error().code() != EOPNOTSUPP || mirrorsSomething) {
      return std::move(current).error();
    }
    return writeRecord();
  }
  const PosixAcl& oldAccess = *current;
  const std::optional<PosixAclBase> base = oldAccess.base();
  if (!base) return Error::posix(EINVAL, "acl_get_file");
  KRV_TRY(PosixAcl access,
          PosixAcl::make(*base, mirroredAclEntries(list, PosixAclType::Access, base->other)));

  std::optional<PosixAcl> oldDefault;
  std::optional<PosixAcl> newDefault;
  if (object.isDirectory()) {
    KRV_TRY(oldDefault, sys::getPosixAcl(path, PosixAclType::Default));
    std::vector<PosixAclNamedEntry> inherited =
        mirroredAclEntries(list, PosixAclType::Default, base->other);
    if (!inherited.empty()) {
      KRV_TRY(newDefault, PosixAcl::make(*base, inherited));
    }
  }

  const bool accessChanges = isExtended(oldAccess) || isExtended(access);
  if (accessChanges) {
    KRV_TRY_VOID(sys::setPosixAcl(path, PosixAclType::Access, access));
  }
  auto restoreAccess = [&] {
    if (accessChanges) (void)sys::setPosixAcl(path, PosixAclType::Access, oldAccess);
  };

  Status defaultSet;
  if (newDefault) {
    defaultSet = sys::setPosixAcl(path, PosixAclType::Default, *newDefault);
  } else if (oldDefault && !oldDefault->empty()) {
    defaultSet = sys::deletePosixDefaultAcl(path);
  }
  if (!defaultSet) {
    restoreAccess();
    return defaultSet;
  }

  Status written = writeRecord();
  if (!written) {
    restoreDefault(path, oldDefault);
    restoreAccess();
  }
  return written;
}

Status removeAccessControlList(const PathHandle& object) {
  const char* path = object.procPath();
  Result<PosixAcl> access = sys::getPosixAcl(path, PosixAclType::Access);
  if (!access && access.error().code() != EOPNOTSUPP) return std::move(access).error();
  if (access && isExtended(*access)) {
    const std::optional<PosixAclBase> base = access->base();
    if (!base) return Error::posix(EINVAL, "acl_get_file");
    KRV_TRY(PosixAcl plain, PosixAcl::make(*base, {}));
    KRV_TRY_VOID(sys::setPosixAcl(path, PosixAclType::Access, plain));
  }
  if (access && object.isDirectory()) {
    KRV_TRY(PosixAcl inherited, sys::getPosixAcl(path, PosixAclType::Default));
    if (!inherited.empty()) {
      KRV_TRY_VOID(sys::deletePosixDefaultAcl(path));
    }
  }
  Status removed =
      sys::removeExtendedAttribute(path, kAccessControlListAttribute, LinkHandling::Follow);
  if (!removed && removed.error().code() == EOPNOTSUPP) return {};
  return removed;
}

}  // namespace krv
