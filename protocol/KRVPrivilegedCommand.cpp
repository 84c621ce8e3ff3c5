#include "protocol/KRVPrivilegedCommand.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "foundation/Format.h"
#include "foundation/NameValue.h"

namespace krv {

KRVPrivilegedCommand::~KRVPrivilegedCommand() {
  // A still-held reference is freed with default flags (credentials stay valid).
  if (m_authorization) m_authorization->free(auth::kFlagDefaults);
}

std::vector<std::unique_ptr<KRVPrivilegedCommand>>
KRVPrivilegedCommand::allImplementedCommandsNeedingAuthorization() {
  std::vector<std::unique_ptr<KRVPrivilegedCommand>> commands;
  commands.reserve(kNumberOfCommandCodes);
  for (const CommandRecord& record : commandTable()) {
    if (record.code < kCommandShutdown || record.rightName[0] == '\0') continue;
    commands.push_back(privilegedCommandWithCode(record.code, {}));
  }
  return commands;
}

std::unique_ptr<KRVPrivilegedCommand> KRVPrivilegedCommand::privilegedCommandWithCode(
    std::uint32_t code, Array arguments) {
  if (code >= kNumberOfCommandCodes) return nullptr;
  auto command = std::make_unique<KRVPrivilegedCommand>();
  command->m_commandCode = code;
  command->m_arguments = std::move(arguments);
  command->m_userIdentification = ::getuid();
  return command;
}

bool KRVPrivilegedCommand::hasAuthorizationToken() const {
  return std::any_of(m_authorizationToken.begin(), m_authorizationToken.end(),
                     [](std::uint8_t byte) { return byte != 0; });
}

std::optional<ValueType> KRVPrivilegedCommand::requiredClassForArgumentAtIndex(
    std::size_t index) const {
  const CommandRecord* record = commandRecord(m_commandCode);
  if (record == nullptr || record->numberOfArguments == 0 || record->signature == nullptr) {
    return std::nullopt;
  }
  if (record->numberOfArguments == kAnyNumberOfArguments) {
    return classForArgumentType(record->signature[0]);
  }
  if (index >= std::char_traits<char>::length(record->signature)) return std::nullopt;
  return classForArgumentType(record->signature[index]);
}

namespace {

// A string argument is a path or a name in its one wire form: text, or the bytes of one that is
// not UTF-8 (see foundation/NameValue.h).
bool hasRequiredClass(const Value& argument, ValueType required) {
  if (required == ValueType::String) return isNameValue(argument);
  return argument.type() == required;
}

}  // namespace

bool KRVPrivilegedCommand::isValid() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  if (record == nullptr) return false;
  if (record->numberOfArguments != kAnyNumberOfArguments &&
      static_cast<std::int64_t>(m_arguments.size()) != record->numberOfArguments) {
    return false;
  }
  for (std::size_t index = 0; index < m_arguments.size(); ++index) {
    std::optional<ValueType> required = requiredClassForArgumentAtIndex(index);
    if (!required || !hasRequiredClass(m_arguments[index], *required)) return false;
  }
  return true;
}

bool KRVPrivilegedCommand::isNeedingAuthorization() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  return record != nullptr && record->needsAuthorization;
}

bool KRVPrivilegedCommand::isSendingProgressReports() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  return record != nullptr && record->sendsProgressReports;
}

bool KRVPrivilegedCommand::isSendingLiveOutputReports() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  return record != nullptr && record->sendsLiveOutputReports;
}

const char* KRVPrivilegedCommand::rightNameUTF8String() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  return record != nullptr ? record->rightName : "";
}

std::optional<std::string> KRVPrivilegedCommand::commentForAuthorizationRight() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  if (record == nullptr || record->comment == nullptr) return std::nullopt;
  return std::string(record->comment);
}

std::int64_t KRVPrivilegedCommand::numberOfRequiredArguments() const {
  const CommandRecord* record = commandRecord(m_commandCode);
  return record != nullptr ? record->numberOfArguments : 0;
}

std::string KRVPrivilegedCommand::description() const {
  return std::string(kClassName) + "<" + rightNameUTF8String() +
         ">: " + Value(m_arguments).description() + "\n";
}

Error KRVPrivilegedCommand::authorizationError(std::int32_t status) const {
  Dictionary userInfo;
  userInfo.set(key::kUnderlyingErrorCode, Value::integer(status));
  return Error(std::string(kCommandErrorDomain), kResultAuthorizationFailed, std::move(userInfo));
}

Status KRVPrivilegedCommand::preAuthorizeOnClient() {
  // A reference held from an earlier attempt is replaced; freeing it with default flags keeps its
  // credentials and only ends the old reference.
  std::unique_ptr<auth::Authorization> authorization;
  std::int32_t status = auth::Authorization::create(authorization);
  m_authorization = std::move(authorization);
  if (status == auth::kStatusSuccess) {
    status = m_authorization->copyRights(rightNameUTF8String(), auth::kFlagInteractionAllowed |
                                                                    auth::kFlagExtendRights |
                                                                    auth::kFlagPreAuthorize);
  }
  if (status == auth::kStatusSuccess) {
    status = m_authorization->makeExternalForm(m_authorizationToken);
  }
  if (status != auth::kStatusSuccess) return authorizationError(status);
  return {};
}

Status KRVPrivilegedCommand::authorizeOnServer() const {
  std::unique_ptr<auth::Authorization> authorization;
  std::int32_t status = auth::Authorization::createFromExternalForm(
      m_authorizationToken, static_cast<uid_t>(m_userIdentification), authorization);
  if (status == auth::kStatusSuccess) {
    status = authorization->copyRights(rightNameUTF8String(), auth::kFlagExtendRights);
  }
  if (status != auth::kStatusSuccess) {
    m_authorization.reset();
    return authorizationError(status);
  }
  m_authorization = std::move(authorization);
  return {};
}

void KRVPrivilegedCommand::discardAuthorization() const {
  if (!m_authorization) return;
  m_authorization->free(m_deauthorizesAfterExecution ? auth::kFlagDestroyRights
                                                     : auth::kFlagDefaults);
  m_authorization.reset();
}

void KRVPrivilegedCommand::encode(Encoder& encoder) const {
  encoder.encodeInteger("Version", kVersion);
  encoder.encodeInteger("CommandCode", static_cast<std::int32_t>(m_commandCode));
  encoder.encodeArray("Arguments", m_arguments);
  encoder.encodeData("AuthorizationToken",
                     Data(m_authorizationToken.begin(), m_authorizationToken.end()));
  encoder.encodeUnsigned("UserIdentification", m_userIdentification);
  encoder.encodeInteger("DeauthorizesAfterExecution", m_deauthorizesAfterExecution ? 1 : 0);
}

Result<ObjectRef> KRVPrivilegedCommand::decode(Decoder& decoder) {
  constexpr std::int64_t kInt32Min = -2147483648LL;
  constexpr std::int64_t kInt32Max = 2147483647LL;
  KRV_TRY(std::int64_t senderVersion, decoder.decodeInteger("Version", kInt32Min, kInt32Max));
  if (senderVersion != kVersion) {
    std::fprintf(stderr,
                 "%s: WARNING: receiver implementation is version %.2f, sender implementation "
                 "uses version %.2f. Update is necessary.\n",
                 std::string(kClassName).c_str(), kVersion / 100.0,
                 static_cast<double>(senderVersion) / 100.0);
  }
  KRV_TRY(std::int64_t code, decoder.decodeInteger("CommandCode", kInt32Min, kInt32Max));
  KRV_TRY(Array arguments, decoder.decodeArray("Arguments"));
  KRV_TRY(Data token, decoder.decodeData("AuthorizationToken"));
  KRV_TRY(std::uint64_t uid, decoder.decodeUnsigned("UserIdentification", 0xFFFFFFFFu));
  KRV_TRY(std::int64_t deauthorizes, decoder.decodeInteger("DeauthorizesAfterExecution", 0, 1));
  if (token.size() != std::tuple_size_v<auth::ExternalForm>) {
    return archiveFault("authorization token is not 32 bytes");
  }

  auto command = std::make_shared<KRVPrivilegedCommand>();
  command->m_commandCode = static_cast<std::uint32_t>(static_cast<std::int32_t>(code));
  command->m_arguments = std::move(arguments);
  std::copy(token.begin(), token.end(), command->m_authorizationToken.begin());
  command->m_userIdentification = static_cast<std::uint32_t>(uid);
  command->m_deauthorizesAfterExecution = deauthorizes != 0;
  if (!command->isValid()) return archiveFault("command is not valid for its code");
  return ObjectRef(std::move(command));
}

const ClassRegistry& KRVPrivilegedCommand::transportClasses() {
  static const ClassRegistry registry = [] {
    ClassRegistry result;
    result.add(Error::kClassName, &Error::decode);
    result.add(kClassName, &KRVPrivilegedCommand::decode);
    return result;
  }();
  return registry;
}

}  // namespace krv
