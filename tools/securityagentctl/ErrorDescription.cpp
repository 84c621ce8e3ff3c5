#include "tools/securityagentctl/ErrorDescription.h"

#include <cerrno>

#include "authorization/Authorization.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "protocol/CommandCodes.h"
#include "protocol/CommandTable.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"
#include "tools/securityagentctl/HelpTable.h"

namespace krv::ctl {

namespace {

const Number* numberEntry(const Error& result, std::string_view key) {
  const Value* value = result.userInfo().find(key);
  return value != nullptr ? value->asNumber() : nullptr;
}

// ": " and the text of the result's UnderlyingErrorCode, an errno; "" without one.
std::string underlyingErrorText(const Error& result) {
  const Number* code = numberEntry(result, key::kUnderlyingErrorCode);
  if (code == nullptr) return "";
  return ": " + sys::errorText(code->intValue());
}

std::string authorizationText(const Error& result) {
  const Number* status = numberEntry(result, key::kUnderlyingErrorCode);
  const std::int64_t value = status != nullptr ? status->integerValue() : 0;
  switch (value) {
    case auth::kStatusDenied:
      return "authorization denied (the right's rule refuses, or the password was wrong three "
             "times)";
    case auth::kStatusCanceled:
      return "authorization canceled";
    case auth::kStatusInteractionNotAllowed:
      return "authorization needs an administrator's password, and none could be asked";
    case auth::kStatusInvalidRef:
      return "authorization failed: the authorization is no longer valid";
    case auth::kStatusInternal:
      return "authorization failed: the authorization service could not be reached or could "
             "not do it";
    case auth::kStatusInvalidSet:
    case auth::kStatusInvalidFlags:
      return format("authorization failed: the service refused the request (%lld)",
                    static_cast<long long>(value));
    default:
      return format("authorization failed (%lld)", static_cast<long long>(value));
  }
}

std::string commandText(const Error& result) {
  switch (result.code()) {
    case kResultSuccess:
      return "";
    case kResultUnknownCommand:
      return "unknown command code";
    case kResultAuthorizationFailed:
      return authorizationText(result);
    case kResultBadArgument:
      return "an argument is invalid";
    case kResultMalformedArguments:
      return "the argument list is malformed";
    case kResultUnsafeProgram:
      return "no program that is safe to run is installed for it";
    case kResultProgramFailed: {
      const Number* status = numberEntry(result, key::kUnderlyingErrorCode);
      return status != nullptr ? format("the program failed (exit status %lld)",
                                        static_cast<long long>(status->integerValue()))
                               : "the program failed";
    }
    case kResultBackupIsFolder:
      return "a folder is in the place of the backup";
    case kResultNotWritten:
      return "it could not be created";
    case kResultWhiteout:
      return "it is a whiteout";
    case kResultFlagsNotChanged:
      return "its flags could not be changed";
    case kResultSystemProtected:
      return "a system protection flag refuses it";
    case kResultPowerManagementFailed:
      return "the power management setting could not be made";
    case kResultFirmwareVariableFailed:
      return "the firmware variable could not be written";
    case kResultNotAPropertyList: {
      const Value* message = result.userInfo().find(key::kUnderlyingErrorMessage);
      return message != nullptr && message->asString() != nullptr
                 ? "the value is not a property list: " + *message->asString()
                 : "the value is not a property list";
    }
    case kResultNotStored:
      return "the value could not be stored";
    case kResultNoProcessInRunFile:
      return "the run file names no process";
    case kResultSignalNotSent:
      return "the signal could not be sent";
    case kResultAclNotSet:
      return "the access control list could not be set" + underlyingErrorText(result);
    case kResultStatusNotRead:
      return "the object could not be read" + underlyingErrorText(result);
    case kResultPermissionsNotChanged:
      return "the owner, group or permissions could not be changed" + underlyingErrorText(result);
    default:
      return "";
  }
}

std::string transportText(const Error& result) {
  switch (result.code()) {
    case kTransportPipeNotCreated:
      return "the daemon could not create the response pipe";
    case kTransportRightRemovalFailed:
      return "removing the right definitions failed";
    case kTransportReplyNotAnError:
      return "the daemon's reply was not a result";
    case kTransportPipeMessageInvalid:
      return "the daemon ended the command without a result";
    case kTransportCommandInvalid:
      return "the command is not valid for its code";
    case kTransportResultNotTransferable:
      return "the result was too large to be transferred";
    default:
      return "";
  }
}

// What a POSIX code means for this command, beyond the errno's own text.
std::string posixHint(const CommandHelp* help, std::int64_t code) {
  if (code == EACCES && help != nullptr && help->refusesForeignLinks) {
    return " (the path goes through a symbolic link a user owns that leads to somebody else's "
           "object)";
  }
  if (code == ENOSYS) return " (the daemon does not carry out this command on this machine)";
  if (code == EOVERFLOW && help != nullptr && help->code == kCommandCompareFolders) {
    return " (the abort marker stopped the comparison)";
  }
  return "";
}

// The path the failure concerns: FailingPath, else the only path argument given.
std::optional<std::string> failurePath(const CommandHelp* help, const Array& arguments,
                                       const Error& result) {
  if (const Value* failing = result.userInfo().find(key::kFailingPath)) {
    if (std::optional<std::string> bytes = nameBytes(*failing)) return bytes;
  }
  if (help == nullptr) return std::nullopt;
  const std::size_t described = argumentCount(*help);
  std::optional<std::string> found;
  for (std::size_t index = 0; index < arguments.size() && described > 0; ++index) {
    std::size_t position = index;
    if (position >= described) {
      if (help->repeatFrom == kNoRepetition) break;
      const std::size_t group = described - static_cast<std::size_t>(help->repeatFrom);
      position = static_cast<std::size_t>(help->repeatFrom) +
                 (index - static_cast<std::size_t>(help->repeatFrom)) % group;
    }
    if (help->arguments[position].kind != ArgumentKind::Path) continue;
    if (found) return std::nullopt;  // several paths: none of them is known to be the one
    found = nameBytes(arguments[index]);
  }
  return found;
}

}  // namespace

std::string explainResult(const Error& result) {
  if (result.domain() == kPosixErrorDomain) {
    if (const Value* message = result.userInfo().find(key::kUnderlyingErrorMessage)) {
      if (message->asString()) return *message->asString();
    }
    return sys::errorText(static_cast<int>(result.code()));
  }
  if (result.domain() == kTransportErrorDomain) return transportText(result);
  if (result.domain() == kCommandErrorDomain) return commandText(result);
  return "";
}

std::string describeFailure(std::uint32_t code, const Array& arguments, const Error& result) {
  const CommandHelp* help = commandHelp(code);
  std::string reason = explainResult(result);
  if (reason.empty()) {
    reason = format("%s code %lld", escapedName(result.domain()).c_str(),
                    static_cast<long long>(result.code()));
  } else {
    reason = escapedName(reason);
  }
  if (result.domain() == kPosixErrorDomain) reason += posixHint(help, result.code());
  if (result.domain() == kCommandErrorDomain && result.code() == kResultAuthorizationFailed) {
    return "securityagentctl: not authorized to " +
           std::string(help != nullptr ? help->action : "run the command") + ": " + reason;
  }
  std::string line = "securityagentctl: cannot ";
  line += help != nullptr ? help->failure : "run the command";
  if (std::optional<std::string> path = failurePath(help, arguments, result)) {
    line += " '" + escapedName(*path) + "'";
  }
  return line + ": " + reason;
}

}  // namespace krv::ctl
