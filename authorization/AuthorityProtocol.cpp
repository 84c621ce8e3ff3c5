#include "authorization/AuthorityProtocol.h"

#include <limits>
#include <utility>

#include "authorization/RightsStore.h"
#include "foundation/Archiver.h"
#include "foundation/Assert.h"
#include "foundation/CborWriter.h"
#include "foundation/Coding.h"
#include "foundation/Utf8.h"

namespace krv::auth {

namespace {

// The keys of the messages.
constexpr std::string_view kOperationKey = "Operation";
constexpr std::string_view kTokenKey = "Token";
constexpr std::string_view kRightKey = "Right";
constexpr std::string_view kFlagsKey = "Flags";
constexpr std::string_view kUserKey = "User";
constexpr std::string_view kUserNameKey = "UserName";
constexpr std::string_view kDefinitionKey = "Definition";
constexpr std::string_view kStatusKey = "Status";
constexpr std::string_view kPromptKey = "Prompt";
constexpr std::string_view kStyleKey = "Style";
constexpr std::string_view kMessageKey = "Message";
constexpr std::string_view kResponseKey = "Response";
constexpr std::string_view kCancelKey = "Cancel";
constexpr std::string_view kUnavailableKey = "Unavailable";

constexpr std::uint32_t kKnownFlags = kFlagInteractionAllowed | kFlagExtendRights |
                                      kFlagPartialRights | kFlagDestroyRights | kFlagPreAuthorize;

// The fields of a request, as bits.
enum Field : unsigned {
  kToken = 1u << 0,
  kRight = 1u << 1,
  kFlags = 1u << 2,
  kUser = 1u << 3,
  kUserName = 1u << 4,
  kDefinition = 1u << 5,
};

struct OperationLayout {
  Operation operation;
  std::string_view name;
  unsigned required;
  unsigned optional;
};

constexpr OperationLayout kOperations[] = {
    {Operation::Create, "Create", 0, 0},
    {Operation::CopyRights, "CopyRights", kToken | kRight | kFlags, kUserName},
    {Operation::Free, "Free", kToken | kFlags, 0},
    {Operation::Validate, "Validate", kToken | kRight | kFlags | kUser, 0},
    {Operation::DestroyRights, "DestroyRights", kToken | kUser, 0},
    {Operation::RightGet, "RightGet", kRight, 0},
    {Operation::RightSet, "RightSet", kRight | kDefinition, 0},
    {Operation::RightRemove, "RightRemove", kRight, 0},
};

const ClassRegistry& noClasses() {
  static const ClassRegistry registry;
  return registry;
}

std::optional<std::uint64_t> unsignedInteger(const Value& value, std::uint64_t maximum) {
  const Number* number = value.asNumber();
  if (number == nullptr || !number->isInteger() || number->isNegative()) return std::nullopt;
  std::uint64_t result = number->unsignedIntegerValue();
  if (result > maximum) return std::nullopt;
  return result;
}

bool isValidAccountName(std::string_view name) {
  if (name.empty() || name.size() > kMaximumAccountNameLength || name.front() == '-') return false;
  for (char c : name) {
    auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7f || c == ':' || c == '/') return false;
  }
  return true;
}

// C1 control characters are as dangerous on a terminal as C0 ones.
bool isC1Control(char32_t codePoint) { return codePoint >= 0x80 && codePoint <= 0x9F; }

Data archive(Dictionary dictionary) { return archiveSequential(Value(std::move(dictionary))); }

std::string_view styleName(PromptStyle style) {
  switch (style) {
    case PromptStyle::Secret:
      return "Secret";
    case PromptStyle::Visible:
      return "Visible";
    case PromptStyle::Error:
      return "Error";
    case PromptStyle::Information:
      return "Information";
  }
  return "Information";
}

std::optional<PromptStyle> styleNamed(std::string_view name) {
  for (PromptStyle style :
       {PromptStyle::Secret, PromptStyle::Visible, PromptStyle::Error, PromptStyle::Information}) {
    if (styleName(style) == name) return style;
  }
  return std::nullopt;
}

}  // namespace

std::string_view operationName(Operation operation) {
  for (const OperationLayout& layout : kOperations) {
    if (layout.operation == operation) return layout.name;
  }
  return "Unknown";
}

DecodedRequest decodeRequest(std::span<const std::uint8_t> payload) {
  DecodedRequest decoded;
  auto refuse = [&decoded](std::int32_t status) {
    decoded.status = status;
    return decoded;
  };
  if (payload.size() > kMaximumRequestPayload) return refuse(kStatusInvalidSet);
  Result<Value> root = unarchiveSequential(payload, noClasses());
  if (!root) return refuse(kStatusInvalidSet);
  const Dictionary* dictionary = root->asDictionary();
  if (dictionary == nullptr) return refuse(kStatusInvalidSet);
  const Value* operationValue = dictionary->find(kOperationKey);
  if (operationValue == nullptr || operationValue->asString() == nullptr) {
    return refuse(kStatusInvalidSet);
  }
  const OperationLayout* layout = nullptr;
  for (const OperationLayout& candidate : kOperations) {
    if (candidate.name == *operationValue->asString()) layout = &candidate;
  }
  if (layout == nullptr) return refuse(kStatusInvalidSet);

  Request& request = decoded.request;
  request.operation = layout->operation;
  unsigned present = 0;
  for (const auto& [key, value] : *dictionary) {
    if (key == kOperationKey) continue;
    unsigned field = 0;
    if (key == kTokenKey) {
      field = kToken;
    } else if (key == kRightKey) {
      field = kRight;
    } else if (key == kFlagsKey) {
      field = kFlags;
    } else if (key == kUserKey) {
      field = kUser;
    } else if (key == kUserNameKey) {
      field = kUserName;
    } else if (key == kDefinitionKey) {
      field = kDefinition;
    }
    if (field == 0 || ((layout->required | layout->optional) & field) == 0) {
      return refuse(kStatusInvalidSet);
    }
    present |= field;
    switch (field) {
      case kToken: {
        const Data* token = value.asData();
        if (token == nullptr || token->size() != request.token.size()) {
          return refuse(kStatusInvalidRef);
        }
        std::copy(token->begin(), token->end(), request.token.begin());
        break;
      }
      case kRight:
        if (value.asString() == nullptr || !isValidRightName(*value.asString())) {
          return refuse(kStatusInvalidSet);
        }
        request.right = *value.asString();
        break;
      case kFlags: {
        std::optional<std::uint64_t> flags =
            unsignedInteger(value, std::numeric_limits<std::uint32_t>::max());
        if (!flags) return refuse(kStatusInvalidSet);
        if ((*flags & ~std::uint64_t{kKnownFlags}) != 0) return refuse(kStatusInvalidFlags);
        request.flags = static_cast<std::uint32_t>(*flags);
        break;
      }
      case kUser: {
        // (uid_t)-1 means "no user" to the kernel; it is never a requester.
        std::optional<std::uint64_t> user =
            unsignedInteger(value, std::numeric_limits<std::uint32_t>::max() - 1);
        if (!user) return refuse(kStatusInvalidSet);
        request.user = static_cast<uid_t>(*user);
        break;
      }
      case kUserName:
        if (value.asString() == nullptr || !isValidAccountName(*value.asString())) {
          return refuse(kStatusInvalidSet);
        }
        request.account = *value.asString();
        break;
      case kDefinition:
        request.definition = value;
        break;
      default:
        return refuse(kStatusInvalidSet);
    }
  }
  if ((present & layout->required) != layout->required) return refuse(kStatusInvalidSet);
  return decoded;
}

Data encodeRequest(const Request& request) {
  Dictionary dictionary;
  const OperationLayout* layout = nullptr;
  for (const OperationLayout& candidate : kOperations) {
    if (candidate.operation == request.operation) layout = &candidate;
  }
  dictionary.append(std::string(kOperationKey), Value(operationName(request.operation)));
  const unsigned fields = layout != nullptr ? layout->required | layout->optional : 0;
  if (fields & kToken) {
    dictionary.append(std::string(kTokenKey),
                      Value(Data(request.token.begin(), request.token.end())));
  }
  if (fields & kRight) dictionary.append(std::string(kRightKey), Value(request.right));
  if (fields & kFlags) dictionary.append(std::string(kFlagsKey), Value::integer(request.flags));
  if (fields & kUser) dictionary.append(std::string(kUserKey), Value::integer(request.user));
  if ((fields & kUserName) && !request.account.empty()) {
    dictionary.append(std::string(kUserNameKey), Value(request.account));
  }
  if ((fields & kDefinition) && request.definition) {
    dictionary.append(std::string(kDefinitionKey), *request.definition);
  }
  return archive(std::move(dictionary));
}

std::string sanitizeMessage(std::string_view message) {
  static constexpr std::string_view kReplacement = "\xef\xbf\xbd";
  std::string safe;
  safe.reserve(std::min(message.size(), kMaximumPromptMessage));
  std::size_t i = 0;
  while (i < message.size()) {
    const auto byte = static_cast<unsigned char>(message[i]);
    std::string_view piece;
    std::size_t consumed = 1;
    if (byte < 0x80) {
      const bool control = (byte < 0x20 && byte != '\n' && byte != '\t') || byte == 0x7f;
      piece = control ? std::string_view("?") : message.substr(i, 1);
    } else if (const Utf8Character character = utf8CharacterAt(message, i);
               character.valid && !isC1Control(character.codePoint)) {
      piece = message.substr(i, character.length);
      consumed = character.length;
    } else {
      piece = kReplacement;
    }
    if (safe.size() + piece.size() > kMaximumPromptMessage) break;
    safe += piece;
    i += consumed;
  }
  return safe;
}

Data encodePrompt(const Prompt& prompt) {
  Dictionary inner;
  inner.append(std::string(kStyleKey), Value(styleName(prompt.style)));
  inner.append(std::string(kMessageKey), Value(sanitizeMessage(prompt.message)));
  Dictionary outer;
  outer.append(std::string(kPromptKey), Value(std::move(inner)));
  return archive(std::move(outer));
}

Data encodeReply(std::int32_t status, Dictionary results) {
  Dictionary reply;
  reply.append(std::string(kStatusKey), Value::integer(status));
  for (const auto& [key, value] : results) {
    if (key != kStatusKey) reply.append(key, value);
  }
  return archive(std::move(reply));
}

Result<ServiceMessage> decodeServiceMessage(std::span<const std::uint8_t> payload) {
  KRV_TRY(Value root, unarchiveSequential(payload, noClasses()));
  const Dictionary* dictionary = root.asDictionary();
  if (dictionary == nullptr) return archiveFault("service message is not a map");
  ServiceMessage message;
  if (const Value* prompt = dictionary->find(kPromptKey)) {
    const Dictionary* fields = prompt->asDictionary();
    if (dictionary->size() != 1 || fields == nullptr || fields->size() != 2) {
      return archiveFault("malformed prompt");
    }
    const Value* style = fields->find(kStyleKey);
    const Value* text = fields->find(kMessageKey);
    if (style == nullptr || style->asString() == nullptr || text == nullptr ||
        text->asString() == nullptr) {
      return archiveFault("malformed prompt");
    }
    std::optional<PromptStyle> known = styleNamed(*style->asString());
    if (!known) return archiveFault("unknown prompt style");
    message.prompt = Prompt{*known, sanitizeMessage(*text->asString())};
    return message;
  }
  const Value* status = dictionary->find(kStatusKey);
  if (status == nullptr || status->asNumber() == nullptr || !status->asNumber()->isInteger()) {
    return archiveFault("reply without status");
  }
  const std::int64_t code = status->asNumber()->integerValue();
  if (code < std::numeric_limits<std::int32_t>::min() ||
      code > std::numeric_limits<std::int32_t>::max() ||
      status->asNumber()->kind() != Number::Kind::Integer) {
    return archiveFault("status out of range");
  }
  message.status = static_cast<std::int32_t>(code);
  for (const auto& [key, value] : *dictionary) {
    if (key != kStatusKey) message.results.append(key, value);
  }
  return message;
}

namespace {

Result<Answer> answerFrom(const Value& root) {
  const Dictionary* dictionary = root.asDictionary();
  if (dictionary == nullptr || dictionary->size() != 1) {
    return archiveFault("answer is not a map of one entry");
  }
  const auto& [key, value] = dictionary->entries().front();
  Answer answer;
  if (key == kResponseKey && value.asString() != nullptr) {
    const std::string& text = *value.asString();
    // PAM takes C strings: a NUL would silently cut the response short.
    const bool fits = text.find('\0') == std::string::npos && answer.response.append(text);
    if (!fits) return archiveFault("response too long or holding NUL");
    answer.kind = AnswerKind::Response;
    return answer;
  }
  const Number* flag = value.asNumber();
  if (flag == nullptr || !flag->isBoolean() || !flag->boolValue()) {
    return archiveFault("malformed answer");
  }
  if (key == kCancelKey) {
    answer.kind = AnswerKind::Cancel;
  } else if (key == kUnavailableKey) {
    answer.kind = AnswerKind::Unavailable;
  } else {
    return archiveFault("unknown answer");
  }
  return answer;
}

}  // namespace

Result<Answer> decodeAnswer(Data& payload) {
  Result<Value> decoded = unarchiveSequential(payload, noClasses());
  wipe(std::span<std::uint8_t>(payload));
  if (!decoded) return std::move(decoded).error();
  Result<Answer> answer = answerFrom(*decoded);
  wipe(*decoded);  // every decoded copy of a response, whatever the answer was
  return answer;
}

Data encodeAnswer(AnswerKind kind, std::string_view response) {
  // Written into a buffer reserved at its final size: a buffer that grew would leave copies of
  // the response behind in freed memory.
  const std::string_view text = response.substr(0, Secret::kCapacity);
  Data out;
  out.reserve(16 + text.size());
  const std::uint8_t* const reserved = out.data();
  {
    CborWriter writer(out);
    writer.writeMapHeader(1);
    switch (kind) {
      case AnswerKind::Response:
        writer.writeText(kResponseKey);
        writer.writeText(text);
        break;
      case AnswerKind::Cancel:
        writer.writeText(kCancelKey);
        writer.writeNumber(Number::boolean(true));
        break;
      case AnswerKind::Unavailable:
        writer.writeText(kUnavailableKey);
        writer.writeNumber(Number::boolean(true));
        break;
    }
  }
  KRV_ASSERT(out.data() == reserved, "AuthorityProtocol");
  return out;
}

}  // namespace krv::auth
