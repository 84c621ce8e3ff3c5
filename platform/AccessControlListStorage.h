#pragma once
// Where an object's extended access control list lives on Linux, and what of it the kernel
// enforces (docs/access-control-lists.md has the full account).
//
// Record. The list's byte form (platform/ExtendedAcl.h) is stored exactly as written in the
// extended attribute "trusted.com.tavorin.acl"; only root can read or write that namespace. Reading
// returns the record: an object without one has no list - which is not an empty list - and so has
// every object of a file system without extended attributes. A record that is not a valid byte
// form is EINVAL.
//
// Enforcement. Writing a list also mirrors its allow entries for user and group identities into the
// object's POSIX ACLs (mirroredAclEntries says exactly which): the access ACL, and on a folder the
// default ACL, which gives objects created inside the inheritable entries. Owner, owning group and
// others keep what the object's current access ACL gives them (its mode when it has none; the
// owning group from its own entry, never from the mask); a new default ACL takes the same three;
// the mask is recomputed. A folder whose list inherits nothing loses its default ACL. Deny entries,
// opaque identities and every other right live in the record only: the kernel does not enforce
// them. The POSIX ACLs belong to the list: writing replaces any named entries set by other means.
// Removing a list removes the record, the default ACL and the named entries of the access ACL, so
// the mode's group bits are the owning group's permissions again.
//
// Order and failures. A write sets the access ACL, then the default ACL, then the record; when a
// step fails, the ones before it are put back as they were (best effort), so that a failed write
// does not leave the kernel granting what neither the old nor the new list grants. Removal takes
// the POSIX ACLs away first and the record last, so a failure never leaves access enforced that
// the record no longer shows. Errors are the POSIX errors of the failed calls: EOPNOTSUPP where
// the file system keeps no trusted attributes or no POSIX ACLs (a list that mirrors nothing needs
// no POSIX ACLs), EPERM on an immutable object, EINVAL for a list without a byte form. Removing a
// list where there is none, or where the file system keeps no attributes, succeeds.
//
// The calls act on a pinned object and reach it through its /proc/self/fd path: a handle of a
// symbolic link itself reaches the link (which takes no POSIX ACL), so following a link is the
// caller's resolution. Thread-safe as the system calls are; concurrent writes to one object are
// not ordered against each other.

#include <optional>
#include <vector>

#include "foundation/Result.h"
#include "platform/ExtendedAcl.h"
#include "platform/FileSystemCalls.h"
#include "platform/PosixAcl.h"

namespace krv {

inline constexpr char kAccessControlListAttribute[] = "trusted.com.tavorin.acl";

Result<std::optional<ExtendedAcl>> readAccessControlList(const PathHandle& object);
Status writeAccessControlList(const PathHandle& object, const ExtendedAcl& list);
Status removeAccessControlList(const PathHandle& object);

// The named POSIX entries that mirror `list` in the ACL of `type`, sorted by kind and id:
//   - allow entries only, for user and group identity UUIDs (an id of -1 names nobody);
//   - read-data/list (0x2) gives read, write-data/add-file (0x4) write, execute/search (0x8)
//     execute; an entry with none of the three is left out;
//   - the access ACL takes the entries that are not only-inherit (0x100), which are for objects
//     created inside a folder; the default ACL takes those with file-inherit (0x20) or
//     directory-inherit (0x40) - POSIX cannot tell new files from new folders, so either flag
//     reaches both, at every depth;
//   - entries naming the same user or group are merged;
//   - each entry also gets `otherPermissions`: POSIX consults a named entry instead of the others
//     entry, and an allow entry must never take away what everyone has.
std::vector<PosixAclNamedEntry> mirroredAclEntries(const ExtendedAcl& list, PosixAclType type,
                                                   unsigned otherPermissions);

}  // namespace krv
