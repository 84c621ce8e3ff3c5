#include "platform/ExtendedAcl.h"

#include <algorithm>
#include <cerrno>

#include "foundation/ByteOrder.h"

namespace krv {
namespace {

constexpr std::uint8_t kUserUuidPrefix[12] = {0xFF, 0xFF, 0xEE, 0xEE, 0xDD, 0xDD,
                                              0xCC, 0xCC, 0xBB, 0xBB, 0xAA, 0xAA};
constexpr std::uint8_t kGroupUuidPrefix[12] = {0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF,
                                               0xAB, 0xCD, 0xEF, 0xAB, 0xCD, 0xEF};

Uuid identityUuid(const std::uint8_t (&prefix)[12], std::uint32_t id) {
  Uuid uuid{};
  std::copy(std::begin(prefix), std::end(prefix), uuid.begin());
  storeBigEndian(uuid.data() + 12, id);
  return uuid;
}

std::optional<std::uint32_t> idOfUuid(const std::uint8_t (&prefix)[12], const Uuid& uuid) {
  if (!std::equal(std::begin(prefix), std::end(prefix), uuid.begin())) return std::nullopt;
  return loadBigEndian<std::uint32_t>(uuid.data() + 12);
}

bool isKnownKind(AclEntryKind kind) {
  return kind == AclEntryKind::Allow || kind == AclEntryKind::Deny;
}

Error malformed(const char* what) { return Error::posix(EINVAL, what); }

}  // namespace

bool isValidAcl(const ExtendedAcl& list) {
  if (list.entries.size() > kAclMaximumEntries) return false;
  return std::all_of(list.entries.begin(), list.entries.end(), [](const ExtendedAclEntry& entry) {
    return isKnownKind(entry.kind) && (entry.flags & kAclEntryKindBits) == 0;
  });
}

Data aclExternalForm(const ExtendedAcl& list) {
  Data bytes;
  bytes.reserve(kAclHeaderSize + kAclEntrySize * list.entries.size());
  appendBigEndian(bytes, kAclExternalMagic);
  bytes.insert(bytes.end(), list.owner.begin(), list.owner.end());
  bytes.insert(bytes.end(), list.group.begin(), list.group.end());
  appendBigEndian(bytes, static_cast<std::uint32_t>(list.entries.size()));
  appendBigEndian(bytes, list.flags);
  for (const ExtendedAclEntry& entry : list.entries) {
    bytes.insert(bytes.end(), entry.identity.begin(), entry.identity.end());
    appendBigEndian(bytes, (entry.flags & ~kAclEntryKindBits) |
                               (static_cast<std::uint32_t>(entry.kind) & kAclEntryKindBits));
    appendBigEndian(bytes, entry.permissions);
  }
  return bytes;
}

Result<ExtendedAcl> readAclExternalForm(std::span<const std::uint8_t> bytes) {
  if (bytes.size() < kAclHeaderSize) return malformed("access control list header");
  if (loadBigEndian<std::uint32_t>(bytes.data()) != kAclExternalMagic) {
    return malformed("access control list magic");
  }
  const std::uint32_t count = loadBigEndian<std::uint32_t>(bytes.data() + 36);
  if (count > kAclMaximumEntries) return malformed("access control list entry count");
  if (bytes.size() != kAclHeaderSize + kAclEntrySize * count) {
    return malformed("access control list length");
  }

  ExtendedAcl list;
  std::copy_n(bytes.data() + 4, list.owner.size(), list.owner.begin());
  std::copy_n(bytes.data() + 20, list.group.size(), list.group.begin());
  list.flags = loadBigEndian<std::uint32_t>(bytes.data() + 40);
  list.entries.reserve(count);
  for (const std::uint8_t* at = bytes.data() + kAclHeaderSize; at != bytes.data() + bytes.size();
       at += kAclEntrySize) {
    ExtendedAclEntry entry;
    std::copy_n(at, entry.identity.size(), entry.identity.begin());
    const std::uint32_t flags = loadBigEndian<std::uint32_t>(at + 16);
    entry.kind = static_cast<AclEntryKind>(flags & kAclEntryKindBits);
    if (!isKnownKind(entry.kind)) return malformed("access control entry kind");
    entry.flags = flags & ~kAclEntryKindBits;
    entry.permissions = loadBigEndian<std::uint32_t>(at + 20);
    list.entries.push_back(entry);
  }
  return list;
}

Uuid userUuid(uid_t uid) { return identityUuid(kUserUuidPrefix, uid); }
Uuid groupUuid(gid_t gid) { return identityUuid(kGroupUuidPrefix, gid); }

std::optional<uid_t> uidOfUuid(const Uuid& uuid) { return idOfUuid(kUserUuidPrefix, uuid); }
std::optional<gid_t> gidOfUuid(const Uuid& uuid) { return idOfUuid(kGroupUuidPrefix, uuid); }

}  // namespace krv
