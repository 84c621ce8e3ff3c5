#include "platform/PosixAcl.h"

#include <acl/libacl.h>

#include <cerrno>
#include <utility>

namespace krv {
namespace {

acl_type_t libraryType(PosixAclType type) {
  return type == PosixAclType::Access ? ACL_TYPE_ACCESS : ACL_TYPE_DEFAULT;
}

Status addEntry(acl_t& acl, acl_tag_t tag, const id_t* qualifier, unsigned permissions) {
  acl_entry_t entry = nullptr;
  acl_permset_t permissionSet = nullptr;
  if (acl_create_entry(&acl, &entry) != 0) return Error::fromErrno("acl_create_entry");
  if (acl_set_tag_type(entry, tag) != 0) return Error::fromErrno("acl_set_tag_type");
  if (qualifier != nullptr && acl_set_qualifier(entry, qualifier) != 0) {
    return Error::fromErrno("acl_set_qualifier");
  }
  if (acl_get_permset(entry, &permissionSet) != 0 || acl_clear_perms(permissionSet) != 0) {
    return Error::fromErrno("acl_get_permset");
  }
  for (unsigned bit : {kPosixAclRead, kPosixAclWrite, kPosixAclExecute}) {
    if ((permissions & bit) != 0 && acl_add_perm(permissionSet, bit) != 0) {
      return Error::fromErrno("acl_add_perm");
    }
  }
  if (acl_set_permset(entry, permissionSet) != 0) return Error::fromErrno("acl_set_permset");
  return {};
}

unsigned permissionsOf(acl_entry_t entry) {
  acl_permset_t permissionSet = nullptr;
  if (acl_get_permset(entry, &permissionSet) != 0) return 0;
  unsigned permissions = 0;
  for (unsigned bit : {kPosixAclRead, kPosixAclWrite, kPosixAclExecute}) {
    if (acl_get_perm(permissionSet, bit) == 1) permissions |= bit;
  }
  return permissions;
}

// Calls visit(tag, entry) for every entry in the list's order.
template <class Visit>
void forEachEntry(acl_t acl, Visit visit) {
  if (acl == nullptr) return;
  acl_entry_t entry = nullptr;
  for (int which = ACL_FIRST_ENTRY; acl_get_entry(acl, which, &entry) == 1;
       which = ACL_NEXT_ENTRY) {
    acl_tag_t tag = ACL_UNDEFINED_TAG;
    if (acl_get_tag_type(entry, &tag) == 0) visit(tag, entry);
  }
}

}  // namespace

Result<PosixAcl> PosixAcl::make(const PosixAclBase& base,
                                std::span<const PosixAclNamedEntry> named) {
  // Far beyond what any file system stores; keeps the count an int.
  if (named.size() > 65536) return Error::posix(E2BIG, "acl_init");
  PosixAcl list(acl_init(static_cast<int>(named.size()) + 4));
  if (list.m_acl == nullptr) return Error::fromErrno("acl_init");
  KRV_TRY_VOID(addEntry(list.m_acl, ACL_USER_OBJ, nullptr, base.owner));
  KRV_TRY_VOID(addEntry(list.m_acl, ACL_GROUP_OBJ, nullptr, base.group));
  KRV_TRY_VOID(addEntry(list.m_acl, ACL_OTHER, nullptr, base.other));
  for (const PosixAclNamedEntry& entry : named) {
    const id_t id = entry.id;
    if (id == ACL_UNDEFINED_ID) return Error::posix(EINVAL, "acl_set_qualifier");
    const acl_tag_t tag = entry.kind == PosixAclNamedEntry::Kind::User ? ACL_USER : ACL_GROUP;
    KRV_TRY_VOID(addEntry(list.m_acl, tag, &id, entry.permissions));
  }
  if (!named.empty() && acl_calc_mask(&list.m_acl) != 0) return Error::fromErrno("acl_calc_mask");
  if (acl_valid(list.m_acl) != 0) return Error::fromErrno("acl_valid");
  return list;
}

PosixAcl::PosixAcl(PosixAcl&& other) noexcept : m_acl(std::exchange(other.m_acl, nullptr)) {}

PosixAcl& PosixAcl::operator=(PosixAcl&& other) noexcept {
  if (this != &other) {
    if (m_acl != nullptr) acl_free(m_acl);
    m_acl = std::exchange(other.m_acl, nullptr);
  }
  return *this;
}

PosixAcl::~PosixAcl() {
  if (m_acl != nullptr) acl_free(m_acl);
}

bool PosixAcl::empty() const { return m_acl == nullptr || acl_entries(m_acl) <= 0; }

std::optional<PosixAclBase> PosixAcl::base() const {
  PosixAclBase base;
  unsigned found = 0;
  forEachEntry(m_acl, [&](acl_tag_t tag, acl_entry_t entry) {
    if (tag == ACL_USER_OBJ) {
      base.owner = permissionsOf(entry);
      found |= 1;
    } else if (tag == ACL_GROUP_OBJ) {
      base.group = permissionsOf(entry);
      found |= 2;
    } else if (tag == ACL_OTHER) {
      base.other = permissionsOf(entry);
      found |= 4;
    }
  });
  if (found != 7) return std::nullopt;
  return base;
}

std::vector<PosixAclNamedEntry> PosixAcl::namedEntries() const {
  std::vector<PosixAclNamedEntry> named;
  forEachEntry(m_acl, [&](acl_tag_t tag, acl_entry_t entry) {
    if (tag != ACL_USER && tag != ACL_GROUP) return;
    void* qualifier = acl_get_qualifier(entry);
    if (qualifier == nullptr) return;
    PosixAclNamedEntry namedEntry;
    namedEntry.kind =
        tag == ACL_USER ? PosixAclNamedEntry::Kind::User : PosixAclNamedEntry::Kind::Group;
    namedEntry.id = *static_cast<const id_t*>(qualifier);
    namedEntry.permissions = permissionsOf(entry);
    acl_free(qualifier);
    named.push_back(namedEntry);
  });
  return named;
}

std::optional<unsigned> PosixAcl::mask() const {
  std::optional<unsigned> mask;
  forEachEntry(m_acl, [&](acl_tag_t tag, acl_entry_t entry) {
    if (tag == ACL_MASK) mask = permissionsOf(entry);
  });
  return mask;
}

namespace sys {

Result<PosixAcl> getPosixAcl(const char* path, PosixAclType type) {
  acl_t acl = acl_get_file(path, libraryType(type));
  if (acl == nullptr) return Error::fromErrno("acl_get_file");
  return PosixAcl(acl);
}

Status setPosixAcl(const char* path, PosixAclType type, const PosixAcl& acl) {
  if (acl_set_file(path, libraryType(type), acl.get()) != 0)
    return Error::fromErrno("acl_set_file");
  return {};
}

Status deletePosixDefaultAcl(const char* path) {
  if (acl_delete_def_file(path) != 0) return Error::fromErrno("acl_delete_def_file");
  return {};
}

}  // namespace sys
}  // namespace krv
