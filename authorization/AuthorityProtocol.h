#pragma once
// AuthorityProtocol: the messages between clients and the authorization service
// (docs/authorization-protocol.md is the reference for clients in other languages).
//
// Every message is one data block whose payload is one CBOR item, a map with text keys:
//   request   {"Operation": name, ...fields of the operation}
//   prompt    {"Prompt": {"Style": "Secret" | "Visible" | "Error" | "Information",
//                          "Message": text}}                            service -> client
//   answer    {"Response": text} | {"Cancel": true} | {"Unavailable": true}
//                                                                      client -> service
//   reply     {"Status": integer, ...results}                           service -> client, last
// Only "Secret" and "Visible" prompts are answered.
//
// decodeRequest() and decodeAnswer() read hostile bytes: they accept exactly the documented keys
// with exactly the documented types and refuse everything else with a status (never a crash, no
// allocation beyond the payload's size). Statuses of a refused request: kStatusInvalidRef for a
// token that is not 32 bytes, kStatusInvalidFlags for unknown flag bits, kStatusInvalidSet for
// everything else (not CBOR, not a map, unknown operation, missing, unknown or mistyped keys, a
// malformed right or account name).
//
// Stateless and thread-safe.

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "authorization/Authorization.h"
#include "authorization/Secret.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv::auth {

inline constexpr std::string_view kServiceSocketPath =
    "/var/run/com.tavorin.system.authority.socket";

// Payload limits: requests are small; an answer holds at most one PAM response.
inline constexpr std::size_t kMaximumRequestPayload = 64 * 1024;
inline constexpr std::size_t kMaximumAnswerPayload = 4 * 1024;
inline constexpr std::size_t kMaximumReplyPayload = 256 * 1024;
// Prompt texts are cut to PAM's own message limit.
inline constexpr std::size_t kMaximumPromptMessage = 512;
inline constexpr std::size_t kMaximumAccountNameLength = 256;

enum class Operation : std::uint8_t {
  Create,
  CopyRights,
  Free,
  Validate,
  DestroyRights,
  RightGet,
  RightSet,
  RightRemove,
};

std::string_view operationName(Operation operation);

struct Request {
  Operation operation = Operation::Create;
  ExternalForm token{};
  std::string right;
  std::uint32_t flags = 0;
  uid_t user = 0;                   // Validate, DestroyRights: the uid the request claims
  std::string account;              // CopyRights, optional: the account to authenticate as
  std::optional<Value> definition;  // RightSet
};

struct DecodedRequest {
  std::int32_t status = kStatusSuccess;  // not success: refuse the request with it
  Request request;
};

DecodedRequest decodeRequest(std::span<const std::uint8_t> payload);
Data encodeRequest(const Request& request);

enum class PromptStyle : std::uint8_t { Secret, Visible, Error, Information };

struct Prompt {
  PromptStyle style = PromptStyle::Secret;
  std::string message;
};

inline bool expectsAnswer(PromptStyle style) {
  return style == PromptStyle::Secret || style == PromptStyle::Visible;
}

// The message made safe to show: valid UTF-8 (invalid bytes become U+FFFD), control characters
// other than newline and tab replaced by "?", at most kMaximumPromptMessage bytes.
std::string sanitizeMessage(std::string_view message);

Data encodePrompt(const Prompt& prompt);
// A reply: {"Status": status} plus the given results.
Data encodeReply(std::int32_t status, Dictionary results = {});

// What the service sent: a prompt or the final reply.
struct ServiceMessage {
  std::optional<Prompt> prompt;
  std::int32_t status = kStatusInternal;
  Dictionary results;  // the reply's other entries
};
Result<ServiceMessage> decodeServiceMessage(std::span<const std::uint8_t> payload);

enum class AnswerKind : std::uint8_t { Response, Cancel, Unavailable };

struct Answer {
  AnswerKind kind = AnswerKind::Cancel;
  Secret response;
};

// Decodes an answer and wipes the payload and every decoded copy of the response. EIO (an archive
// fault) when it is not exactly one of the three forms or the response exceeds Secret::kCapacity.
Result<Answer> decodeAnswer(Data& payload);
// Encodes an answer; the caller wipes the result after sending it.
Data encodeAnswer(AnswerKind kind, std::string_view response = {});

}  // namespace krv::auth
