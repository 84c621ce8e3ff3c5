#pragma once
// Authorization references: the client-side and daemon-side operations on the authorization
// service (com.tavorin.system.authority), which keeps credentials and the rights store.
//
// The operations and their statuses mirror an authorization API the client applications already
// know: a reference is created, rights are copied into it (asking the user when interaction is
// allowed), it is turned into a 32-byte external form that travels inside a request, and it is
// freed, optionally destroying the credentials it obtained.
//
// Statuses are 32-bit values: 0 success, otherwise one of the kStatus... constants below. They
// travel to clients as `UnderlyingErrorCode`, and the client's retry logic depends on -60007.
//
// Thread-safety: one Authorization object belongs to one thread at a time. Every operation talks
// to the service over its own connection and blocks until the service answers.
//
// The client side: create() asks the service for a new authorization, whose token is its external
// form; copyRights() with kFlagInteractionAllowed asks the user through the process's prompt
// handler (authorization/PromptHandler.h: /dev/tty by default, a callback for GUI applications).
// The daemon side: createFromExternalForm() only remembers the token and the claimed user;
// copyRights() has the service validate them (the service refuses this to callers other than
// root), and free() with kFlagDestroyRights has it destroy what the token's authorization
// obtained. A service that cannot be reached gives kStatusInternal.

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <memory>
#include <string_view>

#include "foundation/Value.h"

namespace krv::auth {

using ExternalForm = std::array<std::uint8_t, 32>;

inline constexpr std::int32_t kStatusSuccess = 0;
inline constexpr std::int32_t kStatusInvalidSet = -60001;
inline constexpr std::int32_t kStatusInvalidRef = -60002;
inline constexpr std::int32_t kStatusInvalidTag = -60003;
inline constexpr std::int32_t kStatusInvalidPointer = -60004;
inline constexpr std::int32_t kStatusDenied = -60005;
inline constexpr std::int32_t kStatusCanceled = -60006;
inline constexpr std::int32_t kStatusInteractionNotAllowed = -60007;
inline constexpr std::int32_t kStatusInternal = -60008;
inline constexpr std::int32_t kStatusExternalizeNotAllowed = -60009;
inline constexpr std::int32_t kStatusInternalizeNotAllowed = -60010;
inline constexpr std::int32_t kStatusInvalidFlags = -60011;

// Flags of copyRights and free.
inline constexpr std::uint32_t kFlagDefaults = 0;
inline constexpr std::uint32_t kFlagInteractionAllowed = 1u << 0;
inline constexpr std::uint32_t kFlagExtendRights = 1u << 1;
inline constexpr std::uint32_t kFlagPartialRights = 1u << 2;
inline constexpr std::uint32_t kFlagDestroyRights = 1u << 3;
inline constexpr std::uint32_t kFlagPreAuthorize = 1u << 4;

class Authorization {
 public:
  virtual ~Authorization() = default;

  // Client side: a new, empty authorization (no rights, no environment, default flags).
  static std::int32_t create(std::unique_ptr<Authorization>& out);
  // Daemon side: the authorization named by an external form, for a request that claims to come
  // from `claimedUser`. Nothing is asked of the service yet; copyRights() validates.
  static std::int32_t createFromExternalForm(const ExternalForm& form, uid_t claimedUser,
                                             std::unique_ptr<Authorization>& out);

  // Obtains one right. Client side with kFlagInteractionAllowed | kFlagExtendRights |
  // kFlagPreAuthorize (0x13): the user may be asked for a password. Daemon side with
  // kFlagExtendRights only (0x2): a right that would need the user's input fails with
  // kStatusInteractionNotAllowed.
  virtual std::int32_t copyRights(std::string_view rightName, std::uint32_t flags) = 0;
  virtual std::int32_t makeExternalForm(ExternalForm& out) = 0;
  // Ends the authorization; with kFlagDestroyRights the credentials it obtained (shared copies
  // included) become invalid. Destroying the object without free() frees with default flags.
  virtual std::int32_t free(std::uint32_t flags) = 0;
};

// A short English description of a status ("denied", "interaction not allowed", ...).
std::string_view describeStatus(std::int32_t status);

// Right definitions in the service's rights store, for root callers (others get kStatusDenied).
// A definition is a rule name ("default") or a dictionary {"rule": name, "comment": text}.
//
// rightExists: kStatusSuccess when a definition file exists under the name, even a broken or
// unsafe one (so that an administrator's edit is never overwritten); kStatusDenied when not.
std::int32_t rightExists(std::string_view rightName);
// rightGet: the definition into *definition (when not null). For a file that exists but cannot be
// used, kStatusSuccess with *definition untouched and the reason in *problem (when not null).
// kStatusDenied when the right is not defined.
std::int32_t rightGet(std::string_view rightName, Value* definition,
                      std::string* problem = nullptr);
// rightSet: writes the definition (atomically, replacing an existing one). kStatusInvalidSet for a
// malformed name or definition or an unknown rule.
std::int32_t rightSet(std::string_view rightName, const Value& definition);
// rightRemove: kStatusDenied when the right is not defined.
std::int32_t rightRemove(std::string_view rightName);

// The path of the service's socket (kServiceSocketPath unless changed, e.g. to reach a service
// started elsewhere). Process-wide; synchronised.
void setServiceSocketPath(std::string path);
std::string serviceSocketPath();

}  // namespace krv::auth
