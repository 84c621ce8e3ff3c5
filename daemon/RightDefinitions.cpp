// The rights of the command table in the rights store: checked at start-up, defined when missing,
// removed when the component is prepared for uninstallation. A right that exists is never
// rewritten, so an administrator's change survives restarts.

#include <memory>

#include "authorization/Authorization.h"
#include "daemon/SecurityAgentDaemon.h"
#include "foundation/Format.h"
#include "protocol/KRVPrivilegedCommand.h"

namespace krv {

namespace {

// The name an earlier version used for the system-protection right, misspelling included.
constexpr const char* kLegacyRightName = "com.tavorin.remove.system-protecton";

bool rightExists(std::string_view name) { return auth::rightExists(name) == auth::kStatusSuccess; }

Value definitionFor(const KRVPrivilegedCommand& command) {
  std::optional<std::string> comment = command.commentForAuthorizationRight();
  if (!comment || comment->empty()) return Value("default");
  Dictionary definition;
  definition.set("rule", Value("default"));
  definition.set("comment", Value(*comment));
  return Value(std::move(definition));
}

// Removes one right if it exists; false when the removal failed.
bool removeIfDefined(const std::string& name, SystemLog& log) {
  if (!rightExists(name)) return true;
  log.log(SystemLog::Level::Debug, format("Removing right definition '%s'", name.c_str()));
  if (auth::rightRemove(name) == auth::kStatusSuccess) return true;
  log.log(SystemLog::Level::Debug, format("Removing right definition '%s' failed.", name.c_str()));
  return false;
}

}  // namespace

bool allRightsDefined() {
  for (const auto& command : KRVPrivilegedCommand::allImplementedCommandsNeedingAuthorization()) {
    if (!rightExists(command->rightNameUTF8String())) return false;
  }
  return true;
}

bool setupRightDefinitions() {
  std::unique_ptr<auth::Authorization> authorization;
  if (auth::Authorization::create(authorization) != auth::kStatusSuccess) return false;
  bool ok = true;
  for (const auto& command : KRVPrivilegedCommand::allImplementedCommandsNeedingAuthorization()) {
    if (rightExists(command->rightNameUTF8String())) continue;
    if (auth::rightSet(command->rightNameUTF8String(), definitionFor(*command)) !=
        auth::kStatusSuccess) {
      ok = false;
      break;
    }
  }
  authorization->free(auth::kFlagDefaults);
  return ok;
}

bool removeRightDefinitions(SystemLog& log) {
  std::unique_ptr<auth::Authorization> authorization;
  if (auth::Authorization::create(authorization) != auth::kStatusSuccess) return false;
  bool ok = true;
  for (const auto& command : KRVPrivilegedCommand::allImplementedCommandsNeedingAuthorization()) {
    if (!removeIfDefined(command->rightName(), log)) {
      ok = false;
      break;
    }
  }
  if (ok) ok = removeIfDefined(kLegacyRightName, log);
  authorization->free(auth::kFlagDefaults);
  return ok;
}

}  // namespace krv
