#pragma once
// RightsStore: the right definitions, one XML property list per right in
// "/etc/com.tavorin.system.authority/rights.d/<right name>.plist".
//
// A definition is a rule name ("default") or a dictionary with "rule" and, optionally, "comment"
// (and nothing else). The store only keeps definitions; what a rule means is in Rules.h.
//
// Every file and folder is treated as hostile input:
// - right names are letters, digits, ".", "_" and "-" only, 1 to kMaximumRightNameLength long,
//   never starting with "." (so "..", "a/b" and the store's own temporary files cannot be named);
// - the folder is reached from "/" one component at a time without following symbolic links, and
//   every folder on the way must be owned by root and not writable by group or others (a sticky
//   folder such as /tmp is accepted on the way, never as the store itself);
// - a definition file must be a regular file (not a symbolic link, FIFO or device), owned by root,
//   not writable by group or others and at most kMaximumDefinitionFileSize bytes. Anything else is
//   Unsafe; a safe file that does not parse is Broken. Both count as existing (so a set-up that
//   only adds missing rights never overwrites an administrator's edit) and both evaluate to deny.
// - a lookup the system could not carry out for want of resources or because of an input/output
//   error (sys::isResourceExhaustion: out of descriptors or memory, EIO) is Unavailable: it says
//   nothing about the definition, and callers report a failure of their own, never a denial.
// - set() writes a temporary file in the same folder, syncs it and renames it over the old one,
//   then syncs the folder: readers see the old or the new definition, never a mixture.
//
// Errors are POSIX errors: EINVAL for a bad name or definition, EPERM for an unsafe folder,
// ENOENT from remove() when the right is not defined, otherwise the failing call's errno.
// Stateless apart from the folder path; thread-safe.

#include <cstddef>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv::auth {

inline constexpr std::string_view kRightsDirectory = "/etc/com.tavorin.system.authority/rights.d";
inline constexpr std::size_t kMaximumRightNameLength = 200;
inline constexpr std::size_t kMaximumRuleNameLength = 200;
inline constexpr std::size_t kMaximumCommentLength = 4096;
inline constexpr std::size_t kMaximumDefinitionFileSize = 64 * 1024;

bool isValidRightName(std::string_view name);

struct RightDefinition {
  std::string rule;
  std::string comment;  // empty when there is none

  bool operator==(const RightDefinition& other) const = default;
};

// The definition in its value form: the rule name alone when there is no comment, otherwise the
// dictionary {"rule": rule, "comment": comment}.
Value definitionValue(const RightDefinition& definition);
// Reads either form. The rule must be a name of right-name characters; the comment a string of at
// most kMaximumCommentLength bytes; a dictionary may hold no other keys. Otherwise EINVAL.
Result<RightDefinition> definitionFromValue(const Value& value);

class RightsStore {
 public:
  enum class State { Defined, Missing, Unsafe, Broken, Unavailable };
  struct Lookup {
    State state = State::Missing;
    RightDefinition definition;  // when Defined
    std::string problem;         // when Unsafe, Broken or Unavailable: why, for the log
  };

  explicit RightsStore(std::string directory = std::string(kRightsDirectory));

  const std::string& directory() const { return m_directory; }

  // True when a file (of any kind, even a broken or unsafe one) exists under the right's name.
  Result<bool> exists(std::string_view name) const;
  Lookup lookup(std::string_view name) const;
  // Creates the folder (mode 0755) when it is missing.
  Status set(std::string_view name, const RightDefinition& definition) const;
  Status remove(std::string_view name) const;

 private:
  std::string m_directory;
};

}  // namespace krv::auth
