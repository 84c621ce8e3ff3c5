// The client side of the authorization service: the operations of Authorization.h over the
// service's socket (docs/authorization-protocol.md).

#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <mutex>

#include "authorization/AuthorityProtocol.h"
#include "authorization/Authorization.h"
#include "authorization/MessageChannel.h"
#include "authorization/PromptHandler.h"
#include "authorization/Secret.h"
#include "foundation/System.h"

namespace krv::auth {

namespace {

constexpr std::chrono::milliseconds kSendTimeout{10'000};
// The service may wait for the user (up to five minutes a prompt) and impose back-off delays
// between attempts; the client waits for each message at most this long.
constexpr std::chrono::milliseconds kReplyTimeout{600'000};

std::mutex g_pathMutex;
std::string g_socketPath(kServiceSocketPath);

Result<UniqueFd> connectToService() {
  return sys::connectLocalSocket(serviceSocketPath(), SOCK_STREAM);
}

struct Outcome {
  std::int32_t status = kStatusInternal;
  Dictionary results;
};

// Answers one prompt of the service through the handler (or says that nobody can answer).
Status answerPrompt(int socket, const Prompt& prompt, PromptHandler* handler) {
  if (!expectsAnswer(prompt.style)) {
    if (handler != nullptr) handler->show(prompt);
    return {};
  }
  Answer answer;
  answer.kind = AnswerKind::Unavailable;
  if (handler != nullptr) answer = handler->ask(prompt);
  Data payload = encodeAnswer(answer.kind, answer.response.view());
  Status sent = sendMessage(socket, payload, deadlineAfter(kSendTimeout));
  wipe(std::span<std::uint8_t>(payload));
  return sent;
}

// One operation: one connection, one request, prompts, one reply.
Outcome exchange(const Request& request, PromptHandler* handler) {
  Outcome outcome;
  Result<UniqueFd> socket = connectToService();
  if (!socket) return outcome;
  Data payload = encodeRequest(request);
  Status sent = sendMessage(socket->get(), payload, deadlineAfter(kSendTimeout));
  wipe(std::span<std::uint8_t>(payload));
  if (!sent) return outcome;
  for (;;) {
    Result<Data> received =
        receiveMessage(socket->get(), kMaximumReplyPayload, deadlineAfter(kReplyTimeout));
    if (!received) return outcome;
    Result<ServiceMessage> message = decodeServiceMessage(*received);
    wipe(std::span<std::uint8_t>(*received));
    if (!message) return outcome;
    if (message->prompt) {
      if (!answerPrompt(socket->get(), *message->prompt, handler)) return outcome;
      continue;
    }
    outcome.status = message->status;
    outcome.results = std::move(message->results);
    return outcome;
  }
}

void wipeToken(ExternalForm& token) { wipe(token.data(), token.size()); }

// One operation about a token; the request's copy of the token is wiped afterwards.
std::int32_t tokenOperation(Operation operation, const ExternalForm& token, std::uint32_t flags,
                            std::string_view rightName, uid_t user, PromptHandler* handler) {
  Request request;
  request.operation = operation;
  request.token = token;
  request.right = std::string(rightName);
  request.flags = flags;
  request.user = user;
  std::int32_t status = exchange(request, handler).status;
  wipeToken(request.token);
  return status;
}

// What both views of an authorization share: its token, wiped when the view ends, and whether it
// is still live (a freed authorization answers every operation with an invalid reference).
class TokenAuthorization : public Authorization {
 public:
  explicit TokenAuthorization(const ExternalForm& token) : m_token(token) {}
  ~TokenAuthorization() override { wipeToken(m_token); }

  std::int32_t makeExternalForm(ExternalForm& out) override {
    if (!m_live) return kStatusInvalidRef;
    out = m_token;
    return kStatusSuccess;
  }

 protected:
  const ExternalForm& token() const { return m_token; }
  bool isLive() const { return m_live; }
  // Ends the authorization: from now on every operation answers an invalid reference.
  void end() { m_live = false; }
  // Wipes the token once the last operation that needs it is done.
  void forgetToken() { wipeToken(m_token); }

 private:
  ExternalForm m_token;
  bool m_live = true;
};

// A client's own authorization, made by the service for the calling process.
class ClientAuthorization final : public TokenAuthorization {
 public:
  using TokenAuthorization::TokenAuthorization;
  ~ClientAuthorization() override {
    if (isLive()) free(kFlagDefaults);
  }

  std::int32_t copyRights(std::string_view rightName, std::uint32_t flags) override {
    if (!isLive()) return kStatusInvalidRef;
    std::shared_ptr<PromptHandler> handler;
    if ((flags & kFlagInteractionAllowed) != 0) {
      handler = currentPromptHandler();
      // Without a way to ask, the service must not start a conversation nobody can answer.
      if (!handler || !handler->canAsk()) flags &= ~kFlagInteractionAllowed;
    }
    return tokenOperation(Operation::CopyRights, token(), flags, rightName, 0, handler.get());
  }

  std::int32_t free(std::uint32_t flags) override {
    if (!isLive()) return kStatusInvalidRef;
    end();
    const std::int32_t status = tokenOperation(Operation::Free, token(), flags, {}, 0, nullptr);
    forgetToken();
    return status;
  }
};

// The daemon's view of a client's authorization: a token and the user it is claimed for.
class ServerAuthorization final : public TokenAuthorization {
 public:
  ServerAuthorization(const ExternalForm& token, uid_t claimedUser)
      : TokenAuthorization(token), m_claimedUser(claimedUser) {}

  std::int32_t copyRights(std::string_view rightName, std::uint32_t flags) override {
    if (!isLive()) return kStatusInvalidRef;
    return tokenOperation(Operation::Validate, token(), flags, rightName, m_claimedUser, nullptr);
  }

  std::int32_t free(std::uint32_t flags) override {
    if (!isLive()) return kStatusInvalidRef;
    end();
    std::int32_t status = kStatusSuccess;
    if ((flags & kFlagDestroyRights) != 0) {
      status = tokenOperation(Operation::DestroyRights, token(), 0, {}, m_claimedUser, nullptr);
    }
    forgetToken();
    return status;
  }

 private:
  uid_t m_claimedUser;
};

Outcome rightRequest(Operation operation, std::string_view rightName,
                     const Value* definition = nullptr) {
  Request request;
  request.operation = operation;
  request.right = std::string(rightName);
  if (definition != nullptr) request.definition = *definition;
  return exchange(request, nullptr);
}

}  // namespace

std::int32_t Authorization::create(std::unique_ptr<Authorization>& out) {
  Request request;
  request.operation = Operation::Create;
  Outcome outcome = exchange(request, nullptr);
  if (outcome.status != kStatusSuccess) return outcome.status;
  const Value* token = outcome.results.find("Token");
  if (token == nullptr || token->asData() == nullptr ||
      token->asData()->size() != std::tuple_size_v<ExternalForm>) {
    return kStatusInternal;
  }
  ExternalForm form{};
  std::copy(token->asData()->begin(), token->asData()->end(), form.begin());
  wipe(outcome.results);
  out = std::make_unique<ClientAuthorization>(form);
  wipeToken(form);
  return kStatusSuccess;
}

std::int32_t Authorization::createFromExternalForm(const ExternalForm& form, uid_t claimedUser,
                                                   std::unique_ptr<Authorization>& out) {
  out = std::make_unique<ServerAuthorization>(form, claimedUser);
  return kStatusSuccess;
}

std::string_view describeStatus(std::int32_t status) {
  switch (status) {
    case kStatusSuccess:
      return "success";
    case kStatusInvalidSet:
      return "invalid right or request";
    case kStatusInvalidRef:
      return "invalid authorization";
    case kStatusInvalidTag:
      return "invalid tag";
    case kStatusInvalidPointer:
      return "invalid pointer";
    case kStatusDenied:
      return "denied";
    case kStatusCanceled:
      return "cancelled";
    case kStatusInteractionNotAllowed:
      return "interaction not allowed";
    case kStatusInternal:
      return "internal error (is the authorization service running?)";
    case kStatusExternalizeNotAllowed:
      return "externalize not allowed";
    case kStatusInternalizeNotAllowed:
      return "internalize not allowed";
    case kStatusInvalidFlags:
      return "invalid flags";
    default:
      return "unknown status";
  }
}

std::int32_t rightExists(std::string_view rightName) {
  return rightGet(rightName, nullptr, nullptr);
}

std::int32_t rightGet(std::string_view rightName, Value* definition, std::string* problem) {
  Outcome outcome = rightRequest(Operation::RightGet, rightName);
  if (outcome.status != kStatusSuccess) return outcome.status;
  if (const Value* found = outcome.results.find("Definition"); found != nullptr) {
    if (definition != nullptr) *definition = *found;
  } else if (const Value* reason = outcome.results.find("Problem");
             reason != nullptr && reason->asString() != nullptr) {
    if (problem != nullptr) *problem = *reason->asString();
  } else {
    return kStatusInternal;
  }
  return kStatusSuccess;
}

std::int32_t rightSet(std::string_view rightName, const Value& definition) {
  return rightRequest(Operation::RightSet, rightName, &definition).status;
}

std::int32_t rightRemove(std::string_view rightName) {
  return rightRequest(Operation::RightRemove, rightName).status;
}

void setServiceSocketPath(std::string path) {
  std::lock_guard<std::mutex> lock(g_pathMutex);
  g_socketPath = std::move(path);
}

std::string serviceSocketPath() {
  std::lock_guard<std::mutex> lock(g_pathMutex);
  return g_socketPath;
}

}  // namespace krv::auth
