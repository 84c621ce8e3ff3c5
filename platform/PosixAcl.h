#pragma once
// The kernel's POSIX access control lists, through the system's ACL library (libacl): PosixAcl
// owns one list in the library's memory, and the sys:: calls read, write and remove an object's
// lists, each wrapped once (a failure is the POSIX error of its errno with the call's name).
//
// Lists are reached by path: for a pinned object pass PathHandle::procPath(), which reaches the
// object itself. Reading the access list of an object that has none stored gives the list its mode
// stands for (three base entries); reading the default list of a folder that has none gives an
// empty list. Only folders have default lists (another object's is EACCES). A file system without
// POSIX lists refuses writes with EOPNOTSUPP.
//
// PosixAcl is movable, not copyable; one owner, one thread at a time. The calls are thread-safe.

#include <sys/acl.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "foundation/Result.h"

namespace krv {

enum class PosixAclType : std::uint8_t { Access, Default };

// Permission bits of one entry, as in a mode's digit: read 4, write 2, execute 1.
inline constexpr unsigned kPosixAclRead = 4;
inline constexpr unsigned kPosixAclWrite = 2;
inline constexpr unsigned kPosixAclExecute = 1;

// The entries every list has: owner, owning group and others.
struct PosixAclBase {
  unsigned owner = 0;
  unsigned group = 0;
  unsigned other = 0;
  bool operator==(const PosixAclBase&) const = default;
};

// An entry for a named user or group.
struct PosixAclNamedEntry {
  enum class Kind : std::uint8_t { User, Group };
  Kind kind = Kind::User;
  std::uint32_t id = 0;
  unsigned permissions = 0;
  bool operator==(const PosixAclNamedEntry&) const = default;
};

class PosixAcl {
 public:
  // The list of the base entries and the named ones, with the mask computed as the union of the
  // owning group's and the named entries' permissions; without named entries, no mask (the list
  // then says no more than a mode). A user or group named twice, or an id of -1, is EINVAL.
  static Result<PosixAcl> make(const PosixAclBase& base, std::span<const PosixAclNamedEntry> named);

  explicit PosixAcl(acl_t acl) : m_acl(acl) {}
  PosixAcl(PosixAcl&& other) noexcept;
  PosixAcl& operator=(PosixAcl&& other) noexcept;
  PosixAcl(const PosixAcl&) = delete;
  PosixAcl& operator=(const PosixAcl&) = delete;
  ~PosixAcl();

  acl_t get() const { return m_acl; }
  bool empty() const;
  // The base entries (the owning group from its own entry, not from the mask); nothing when the
  // list lacks one of them, as an empty default list does.
  std::optional<PosixAclBase> base() const;
  std::vector<PosixAclNamedEntry> namedEntries() const;
  std::optional<unsigned> mask() const;

 private:
  acl_t m_acl = nullptr;
};

namespace sys {

Result<PosixAcl> getPosixAcl(const char* path, PosixAclType type);
Status setPosixAcl(const char* path, PosixAclType type, const PosixAcl& acl);
// Removing a default list that is not there succeeds.
Status deletePosixDefaultAcl(const char* path);

}  // namespace sys
}  // namespace krv
