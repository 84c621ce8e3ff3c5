#pragma once
// ExtendedAcl: the data of one extended access control list - allow and deny entries that name
// identities by UUID, in evaluation order - with its portable byte form and the identity UUIDs of
// this system's users and groups. Linux has no lists of this kind: this is the in-memory list that
// KRVAccessControlList edits and platform/AccessControlListStorage.h stores.
//
// Byte form (docs/access-control-lists.md), every 32-bit field big-endian:
//   header, 44 bytes: magic 0x012cc16d (4), owner GUID (16), group GUID (16), entry count (4),
//                     flags (4)
//   each entry, 24 bytes: identity GUID (16), flags (4), rights (4)
// An entry's flags word holds its kind in the low four bits (1 allow, 2 deny) and the inheritance
// flags above them. Lists made here have zero owner and group GUIDs and zero header flags; a list
// read from bytes keeps whatever its bytes say in those fields and in every bit of the flags and
// rights words, so that writing it again gives the very bytes it was read from.
//
// The reader takes at most kAclMaximumEntries entries and refuses (EINVAL) a length other than
// 44 + 24 x count, a wrong magic, a larger count and an entry kind other than allow or deny. It
// allocates nothing before the length has been checked against the count.
//
// Identities: FFFFEEEE-DDDD-CCCC-BBBB-AAAA followed by a uid (4 bytes, big-endian) names that user,
// ABCDEFAB-CDEF-ABCD-EFAB-CDEF followed by a gid names that group; any other UUID is opaque.
//
// Plain values and pure functions: thread-safe as values are.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "foundation/Result.h"
#include "foundation/Uuid.h"
#include "foundation/Value.h"

namespace krv {

enum class AclEntryKind : std::uint32_t { Allow = 1, Deny = 2 };

// Entry flags. The low four bits of the flags word are the kind, never a flag.
inline constexpr std::uint32_t kAclEntryKindBits = 0xF;
inline constexpr std::uint32_t kAclEntryInherited = 0x10;
inline constexpr std::uint32_t kAclEntryFileInherit = 0x20;
inline constexpr std::uint32_t kAclEntryDirectoryInherit = 0x40;
inline constexpr std::uint32_t kAclEntryLimitInherit = 0x80;
inline constexpr std::uint32_t kAclEntryOnlyInherit = 0x100;

// Rights (permission values); the first name is a file's meaning, the second a folder's.
inline constexpr std::uint32_t kAclReadData = 0x2;   // list directory
inline constexpr std::uint32_t kAclWriteData = 0x4;  // add file
inline constexpr std::uint32_t kAclExecute = 0x8;    // search
inline constexpr std::uint32_t kAclDelete = 0x10;
inline constexpr std::uint32_t kAclAppendData = 0x20;  // add subdirectory
inline constexpr std::uint32_t kAclDeleteChild = 0x40;
inline constexpr std::uint32_t kAclReadAttributes = 0x80;
inline constexpr std::uint32_t kAclWriteAttributes = 0x100;
inline constexpr std::uint32_t kAclReadExtendedAttributes = 0x200;
inline constexpr std::uint32_t kAclWriteExtendedAttributes = 0x400;
inline constexpr std::uint32_t kAclReadSecurity = 0x800;
inline constexpr std::uint32_t kAclWriteSecurity = 0x1000;
inline constexpr std::uint32_t kAclChangeOwner = 0x2000;
inline constexpr std::uint32_t kAclSynchronize = 0x100000;

inline constexpr std::uint32_t kAclExternalMagic = 0x012cc16d;
inline constexpr std::size_t kAclHeaderSize = 44;
inline constexpr std::size_t kAclEntrySize = 24;
inline constexpr std::size_t kAclMaximumEntries = 128;
inline constexpr std::size_t kAclMaximumExternalSize =
    kAclHeaderSize + kAclEntrySize * kAclMaximumEntries;

struct ExtendedAclEntry {
  Uuid identity{};
  AclEntryKind kind = AclEntryKind::Allow;
  std::uint32_t flags = 0;  // without the kind bits
  std::uint32_t permissions = 0;

  bool operator==(const ExtendedAclEntry&) const = default;
};

struct ExtendedAcl {
  Uuid owner{};
  Uuid group{};
  std::uint32_t flags = 0;
  std::vector<ExtendedAclEntry> entries;

  bool operator==(const ExtendedAcl&) const = default;
};

// Whether the list has a byte form: at most kAclMaximumEntries entries, each of them allow or deny
// with no flag in the kind bits.
bool isValidAcl(const ExtendedAcl& list);

// The byte form of a valid list (of an invalid one: bytes that the reader refuses).
Data aclExternalForm(const ExtendedAcl& list);
Result<ExtendedAcl> readAclExternalForm(std::span<const std::uint8_t> bytes);

Uuid userUuid(uid_t uid);
Uuid groupUuid(gid_t gid);
// The user or group a UUID names; nothing for a UUID of the other kind or an opaque one.
std::optional<uid_t> uidOfUuid(const Uuid& uuid);
std::optional<gid_t> gidOfUuid(const Uuid& uuid);

}  // namespace krv
