#pragma once
// KRVPrivilegedCommand: the one request that crosses from a client to the daemon: a command code
// with its arguments, the client's authorization in its 32-byte external form, the client's user
// identifier, and whether the rights obtained should be destroyed after the command.
//
// The client builds it, pre-authorizes it and sends it archived; the daemon unarchives it (an
// object that fails isValid() refuses itself, so it never exists on the receiving side),
// authorizes it again and hands it to an executor thread. Ownership: the object owns its
// arguments and its live authorization reference; it is used by one thread at a time (the main
// thread, then the executor thread that takes it over). The live authorization is runtime state,
// not part of the archived value, so the authorization operations work on const objects.

#include <sys/types.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "authorization/Authorization.h"
#include "foundation/Archivable.h"
#include "foundation/Coding.h"
#include "foundation/Result.h"
#include "protocol/CommandTable.h"

namespace krv {

// The command error domain: command results and authorization failures.
inline constexpr std::string_view kCommandErrorDomain = "com.tavorin.privilegedCommand";

class KRVPrivilegedCommand final : public Archivable {
 public:
  static constexpr std::string_view kClassName = "KRVPrivilegedCommand";
  static constexpr std::int32_t kVersion = 310;

  static std::int32_t version() { return kVersion; }
  static std::string_view errorDomain() { return kCommandErrorDomain; }

  // One command (with no arguments) for every code from 2 to 54 that has a right, ascending.
  static std::vector<std::unique_ptr<KRVPrivilegedCommand>>
  allImplementedCommandsNeedingAuthorization();

  // A command for the code and arguments, or null for a code of 55 or more. The token is cleared,
  // the user identifier is the caller's (getuid), the flag is cleared.
  static std::unique_ptr<KRVPrivilegedCommand> privilegedCommandWithCode(std::uint32_t code,
                                                                         Array arguments);

  // Code 0, no arguments, no token, user 0, flag cleared.
  KRVPrivilegedCommand() = default;
  ~KRVPrivilegedCommand() override;
  KRVPrivilegedCommand(const KRVPrivilegedCommand&) = delete;
  KRVPrivilegedCommand& operator=(const KRVPrivilegedCommand&) = delete;

  std::uint32_t commandCode() const { return m_commandCode; }
  const Array& arguments() const { return m_arguments; }
  void setArguments(Array arguments) { m_arguments = std::move(arguments); }
  const auth::ExternalForm& authorizationToken() const { return m_authorizationToken; }
  void setAuthorizationToken(const auth::ExternalForm& token) { m_authorizationToken = token; }
  std::uint32_t userIdentification() const { return m_userIdentification; }
  void setUserIdentification(std::uint32_t uid) { m_userIdentification = uid; }
  bool deauthorizesAfterExecution() const { return m_deauthorizesAfterExecution; }
  void setDeauthorizesAfterExecution(bool flag) { m_deauthorizesAfterExecution = flag; }

  // True when any of the 32 token bytes is non-zero.
  bool hasAuthorizationToken() const;
  // The value type required at an argument position, or nothing.
  std::optional<ValueType> requiredClassForArgumentAtIndex(std::size_t index) const;
  // Code at most 54, the fixed argument count matched, every argument of its required type. A
  // string argument is a path or a name in its one wire form (foundation/NameValue.h): a text
  // string of valid UTF-8, or a byte string whose bytes are not valid UTF-8.
  bool isValid() const;

  // Table accessors for this command's code (false / empty for codes above 54).
  bool isNeedingAuthorization() const;
  bool isSendingProgressReports() const;
  bool isSendingLiveOutputReports() const;
  const char* rightNameUTF8String() const;
  std::string rightName() const { return rightNameUTF8String(); }
  std::optional<std::string> commentForAuthorizationRight() const;
  std::int64_t numberOfRequiredArguments() const;

  // "KRVPrivilegedCommand<right name>: (arguments)\n"
  std::string description() const;

  // Client side: obtains the right (the user may be asked), stores the external form in the token.
  // Failure: command error domain, code 2, {UnderlyingErrorCode: status}.
  Status preAuthorizeOnClient();
  // Daemon side: re-creates the authorization from the token and obtains the right without
  // interaction (a right that needs the user's input fails with status -60007).
  Status authorizeOnServer() const;
  // Frees a held authorization, destroying its rights when deauthorizesAfterExecution is set.
  void discardAuthorization() const;
  bool hasAuthorization() const { return m_authorization != nullptr; }

  std::string_view className() const override { return kClassName; }
  void encode(Encoder& encoder) const override;
  static Result<ObjectRef> decode(Decoder& decoder);

  // The classes a request socket or a response pipe may carry: the error object and this class.
  static const ClassRegistry& transportClasses();

 private:
  Error authorizationError(std::int32_t status) const;

  std::uint32_t m_commandCode = 0;
  Array m_arguments;
  auth::ExternalForm m_authorizationToken{};
  std::uint32_t m_userIdentification = 0;
  bool m_deauthorizesAfterExecution = false;
  mutable std::unique_ptr<auth::Authorization> m_authorization;
};

}  // namespace krv
