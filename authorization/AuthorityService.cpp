#include "authorization/AuthorityService.h"

#include <cerrno>
#include <utility>

#include "authorization/MessageChannel.h"
#include "authorization/Secret.h"
#include "foundation/Format.h"
#include "foundation/System.h"

namespace krv::auth {

namespace {

using Level = SystemLog::Level;

constexpr std::string_view kTokenResult = "Token";
constexpr std::string_view kDefinitionResult = "Definition";
constexpr std::string_view kProblemResult = "Problem";
constexpr const char* kRetryMessage = "Sorry, try again.";

// The prompts of one authentication, relayed over the connection.
class ConnectionChannel final : public PromptChannel {
 public:
  ConnectionChannel(int connection, const ServiceTimeouts& timeouts)
      : m_connection(connection), m_timeouts(timeouts) {}

  bool gone() const { return m_gone; }

  std::optional<Answer> ask(const Prompt& prompt) override {
    if (!tell(prompt)) return std::nullopt;
    Result<Data> payload =
        receiveMessage(m_connection, kMaximumAnswerPayload, deadlineAfter(m_timeouts.answer));
    if (!payload) {
      m_gone = true;
      return std::nullopt;
    }
    Result<Answer> answer = decodeAnswer(*payload);
    if (!answer) {
      m_gone = true;
      return std::nullopt;
    }
    return std::move(answer).value();
  }

  bool tell(const Prompt& prompt) override {
    if (m_gone) return false;
    m_gone = !sendMessage(m_connection, encodePrompt(prompt), deadlineAfter(m_timeouts.send));
    return !m_gone;
  }

  bool pause(Instant duration) override {
    if (m_gone) return false;
    auto wait = std::chrono::ceil<std::chrono::milliseconds>(duration);
    m_gone = !waitQuietly(m_connection, deadlineAfter(wait));
    return !m_gone;
  }

 private:
  int m_connection;
  const ServiceTimeouts& m_timeouts;
  bool m_gone = false;
};

}  // namespace

AuthorityService::AuthorityService(const Clock& clock, TokenStore& tokens,
                                   const RightsStore& rights, Authenticator& authenticator,
                                   const UserDirectory& users, BackOff& backOff, SystemLog& log,
                                   ServiceTimeouts timeouts)
    : m_clock(clock),
      m_tokens(tokens),
      m_rights(rights),
      m_authenticator(authenticator),
      m_users(users),
      m_backOff(backOff),
      m_log(log),
      m_timeouts(timeouts) {}

void AuthorityService::serve(int connection, Peer& peer) {
  Result<Data> payload =
      receiveMessage(connection, kMaximumRequestPayload, deadlineAfter(m_timeouts.request));
  Reply reply;
  bool clientGone = false;
  Request request;
  if (!payload) {
    const auto error = payload.error().code();
    if (error != EIO && error != EMSGSIZE) return;  // gone or silent: nobody to answer
    log(Level::Warning, format("Malformed request from uid %u", peer.uid));
    reply.status = kStatusInvalidSet;
  } else {
    DecodedRequest decoded = decodeRequest(*payload);
    wipe(std::span<std::uint8_t>(*payload));
    request = std::move(decoded.request);
    reply.status = decoded.status;
    if (decoded.status != kStatusSuccess) {
      log(Level::Warning,
          format("Refused malformed request from uid %u (status %d)", peer.uid, decoded.status));
    }
  }

  if (reply.status == kStatusSuccess) {
    switch (request.operation) {
      case Operation::Create:
        reply = create(peer);
        break;
      case Operation::CopyRights:
        reply = copyRights(connection, peer, request, clientGone);
        break;
      case Operation::Free:
        reply = freeAuthorization(peer, request);
        break;
      case Operation::Validate:
        reply = validate(peer, request);
        break;
      case Operation::DestroyRights:
        reply = destroyRights(peer, request);
        break;
      case Operation::RightGet:
        reply = rightGet(peer, request);
        break;
      case Operation::RightSet:
        reply = rightSet(peer, request);
        break;
      case Operation::RightRemove:
        reply = rightRemove(peer, request);
        break;
    }
  }
  wipe(request.token.data(), request.token.size());
  if (clientGone) return;

  Data message = encodeReply(reply.status, reply.results);
  (void)sendMessage(connection, message, deadlineAfter(m_timeouts.send));
  wipe(std::span<std::uint8_t>(message));
  wipe(reply.results);  // results may hold a token
}

AuthorityService::Reply AuthorityService::create(Peer& peer) {
  Reply reply;
  Creator creator;
  creator.uid = peer.uid;
  creator.session = peer.session;
  if (peer.process.valid()) {
    Result<UniqueFd> process = sys::duplicate(peer.process.get());
    if (process) creator.process = std::move(process).value();
  }
  // A token must end with its creator and keep to its login session: when the system was too
  // short of descriptors or memory to tell them, no token (a kernel without process descriptors
  // only makes tokens live until they are freed or unused for long enough).
  if (!peer.identified || (peer.process.valid() && !creator.process.valid())) {
    log(Level::Error, format("Could not create an authorization for uid %u: out of resources to "
                             "follow its creator",
                             peer.uid));
    reply.status = kStatusInternal;
    return reply;
  }
  ExternalForm token{};
  reply.status = m_tokens.create(std::move(creator), token);
  if (reply.status != kStatusSuccess) {
    log(Level::Warning,
        format("Refused to create an authorization for uid %u: limit reached", peer.uid));
    return reply;
  }
  reply.results.append(std::string(kTokenResult), Value(Data(token.begin(), token.end())));
  wipe(token.data(), token.size());
  return reply;
}

std::optional<const Rule*> AuthorityService::ruleOf(const std::string& right) {
  RightsStore::Lookup lookup = m_rights.lookup(right);
  switch (lookup.state) {
    case RightsStore::State::Defined: {
      const Rule* rule = findRule(lookup.definition.rule);
      if (rule == nullptr) {
        log(Level::Warning, format("Right '%s' names the unknown rule '%s': denied", right.c_str(),
                                   lookup.definition.rule.c_str()));
      }
      return rule;
    }
    case RightsStore::State::Missing:
      // A right nobody defined falls back to the rule "default" (an administrator must
      // authenticate), as clients of this authorization model expect. So a command works the very
      // first time, before the daemon that defines its right has ever been started.
      log(Level::Debug,
          format("Right '%s' is not defined: the rule \"default\" applies", right.c_str()));
      return findRule("default");
    case RightsStore::State::Unsafe:
      log(Level::Error, format("Definition of right '%s' is unsafe (%s): denied", right.c_str(),
                               lookup.problem.c_str()));
      return nullptr;
    case RightsStore::State::Broken:
      log(Level::Error, format("Definition of right '%s' is broken (%s): denied", right.c_str(),
                               lookup.problem.c_str()));
      return nullptr;
    case RightsStore::State::Unavailable:
      log(Level::Error, format("Definition of right '%s' cannot be read now (%s)", right.c_str(),
                               lookup.problem.c_str()));
      return std::nullopt;
  }
  return nullptr;
}

Result<Subject> AuthorityService::subjectOf(uid_t uid, const Rule* rule) const {
  Subject subject;
  subject.uid = uid;
  // Group membership costs a name-service lookup; only "is-admin" needs it for the requester.
  if (uid != 0 && rule != nullptr && rule->ruleClass == RuleClass::IsAdministrator) {
    KRV_TRY(subject.administrator, m_users.isAdministrator(uid));
  }
  return subject;
}

std::optional<AuthorityService::Evaluation> AuthorityService::evaluate(std::uint64_t id,
                                                                       const std::string& right,
                                                                       uid_t uid, Use use) {
  std::optional<const Rule*> rule = ruleOf(right);
  if (!rule) return std::nullopt;
  Result<Subject> subject = subjectOf(uid, *rule);
  if (!subject) {
    log(Level::Error, format("Could not tell whether uid %u is an administrator: %s", uid,
                             subject.error().description().c_str()));
    return std::nullopt;
  }
  return Evaluation{*rule, m_tokens.evaluate(id, right, *rule, *subject, use)};
}

AuthorityService::Reply AuthorityService::copyRights(int connection, const Peer& peer,
                                                     const Request& request, bool& clientGone) {
  Reply reply;
  if ((request.flags & kFlagDestroyRights) != 0) {
    reply.status = kStatusInvalidFlags;
    return reply;
  }
  std::optional<TokenStore::Entry> entry = m_tokens.find(request.token);
  // Another user's token is as good as unknown: its existence is not revealed.
  if (!entry || entry->creatorUid != peer.uid) {
    reply.status = kStatusInvalidRef;
    return reply;
  }
  std::optional<Evaluation> evaluation = evaluate(entry->id, request.right, peer.uid, Use::Client);
  if (!evaluation) {
    reply.status = kStatusInternal;
    return reply;
  }
  const Rule* rule = evaluation->rule;
  switch (evaluation->verdict) {
    case Verdict::Granted:
      log(Level::Debug, format("Right '%s' granted to uid %u", request.right.c_str(), peer.uid));
      reply.status = kStatusSuccess;
      return reply;
    case Verdict::Denied:
      log(Level::Info, format("Right '%s' denied to uid %u (rule '%s')", request.right.c_str(),
                              peer.uid, rule != nullptr ? std::string(rule->name).c_str() : "-"));
      reply.status = kStatusDenied;
      return reply;
    case Verdict::Gone:
      reply.status = kStatusInvalidRef;
      return reply;
    case Verdict::NeedsAuthentication:
      break;
  }
  if ((request.flags & kFlagExtendRights) == 0) {
    reply.status = kStatusDenied;
  } else if ((request.flags & kFlagInteractionAllowed) == 0) {
    reply.status = kStatusInteractionNotAllowed;
  } else {
    reply.status = authenticate(connection, peer, request, entry->id, *rule, clientGone);
  }
  return reply;
}

std::int32_t AuthorityService::authenticate(int connection, const Peer& peer,
                                            const Request& request, std::uint64_t id,
                                            const Rule& rule, bool& clientGone) {
  auto lookupFailed = [this](const char* what, const Error& error) {
    log(Level::Error, format("Could not look up %s: %s", what, error.description().c_str()));
    return kStatusInternal;
  };
  Result<std::optional<UserAccount>> requester = m_users.accountOf(peer.uid);
  if (!requester) return lookupFailed("the requesting user", requester.error());
  AttemptKey key;
  key.requester = peer.uid;
  key.account = request.account;
  if (key.account.empty()) {
    if (!*requester) {
      log(Level::Warning, format("uid %u has no account name to authenticate: denied", peer.uid));
      return kStatusDenied;
    }
    key.account = (*requester)->name;
    key.accountKnown = true;
    key.ownAccount = true;
  } else {
    Result<std::optional<UserAccount>> named = m_users.accountNamed(key.account);
    if (!named) return lookupFailed("the account to authenticate", named.error());
    key.accountKnown = named->has_value();
    key.ownAccount = key.accountKnown && (*named)->uid == peer.uid;
  }
  const std::string& account = key.account;
  const std::string requesterName = *requester ? (*requester)->name : std::string();
  ConnectionChannel channel(connection, m_timeouts);

  for (int attempt = 1; attempt <= kMaximumPasswordAttempts; ++attempt) {
    // The turn is held until this attempt ends, however it ends.
    BackOff::Turn turn = m_backOff.reserve(key);
    if (turn.refused()) {
      log(Level::Warning,
          format("Refused authentication as '%s' for uid %u: other attempts wait for every turn "
                 "within the largest delay",
                 account.c_str(), peer.uid));
      return kStatusInternal;
    }
    if (turn.wait() > Instant::zero()) {
      log(Level::Info,
          format("Delaying authentication as '%s' for uid %u by %lld ms after repeated failures",
                 account.c_str(), peer.uid,
                 static_cast<long long>(
                     std::chrono::duration_cast<std::chrono::milliseconds>(turn.wait()).count())));
      if (!channel.pause(turn.wait())) {
        log(Level::Info, format("Client of uid %u went away while waiting to authenticate as '%s'",
                                peer.uid, account.c_str()));
        clientGone = true;
        return kStatusCanceled;
      }
    }
    AuthenticationResult result = m_authenticator.authenticate(account, requesterName, channel);
    switch (result.outcome) {
      case AuthenticationOutcome::Authenticated: {
        m_backOff.recordSuccess(key);
        Result<std::optional<UserAccount>> authenticated = m_users.accountNamed(result.account);
        if (!authenticated) return lookupFailed("the authenticated account", authenticated.error());
        if (!*authenticated) {
          log(Level::Warning,
              format("Authenticated account '%s' is unknown: denied", result.account.c_str()));
          return kStatusDenied;
        }
        Result<bool> administrator = m_users.isAdministrator(**authenticated);
        if (!administrator) return lookupFailed("the administrators", administrator.error());
        Credential credential;
        credential.uid = (*authenticated)->uid;
        credential.administrator = *administrator;
        credential.obtained = m_clock.now();
        if (!credentialQualifies(rule, credential, peer.uid)) {
          log(Level::Warning,
              format("Right '%s' denied to uid %u: '%s' authenticated but is not entitled by "
                     "rule '%s'",
                     request.right.c_str(), peer.uid, (*authenticated)->name.c_str(),
                     std::string(rule.name).c_str()));
          return kStatusDenied;
        }
        if (!m_tokens.addCredential(id, request.right, rule, credential,
                                    (request.flags & kFlagPreAuthorize) != 0)) {
          return kStatusInvalidRef;
        }
        log(Level::Info, format("Right '%s' granted to uid %u after authentication as '%s'",
                                request.right.c_str(), peer.uid, (*authenticated)->name.c_str()));
        return kStatusSuccess;
      }
      case AuthenticationOutcome::Failed:
        m_backOff.recordFailure(key);
        log(Level::Warning, format("Authentication as '%s' for uid %u failed (attempt %d of %d)",
                                   account.c_str(), peer.uid, attempt, kMaximumPasswordAttempts));
        if (attempt < kMaximumPasswordAttempts &&
            !channel.tell(Prompt{PromptStyle::Error, kRetryMessage})) {
          clientGone = true;
          return kStatusCanceled;
        }
        break;
      case AuthenticationOutcome::Refused:
        log(Level::Warning, format("Account '%s' may not be used now: denied", account.c_str()));
        return kStatusDenied;
      case AuthenticationOutcome::Cancelled:
        log(Level::Info, format("Authentication for uid %u cancelled", peer.uid));
        return kStatusCanceled;
      case AuthenticationOutcome::NoInteraction:
        return kStatusInteractionNotAllowed;
      case AuthenticationOutcome::Disconnected:
        log(Level::Info, format("Client of uid %u went away during authentication", peer.uid));
        clientGone = true;
        return kStatusCanceled;
      case AuthenticationOutcome::Error:
        log(Level::Error, format("PAM failed to authenticate '%s'", account.c_str()));
        return kStatusInternal;
    }
  }
  log(Level::Warning, format("Right '%s' denied to uid %u after %d failed attempts",
                             request.right.c_str(), peer.uid, kMaximumPasswordAttempts));
  return kStatusDenied;
}

AuthorityService::Reply AuthorityService::freeAuthorization(const Peer& peer,
                                                            const Request& request) {
  Reply reply;
  if ((request.flags & ~kFlagDestroyRights) != 0) {
    reply.status = kStatusInvalidFlags;
    return reply;
  }
  std::optional<TokenStore::Entry> entry = m_tokens.find(request.token);
  if (!entry || entry->creatorUid != peer.uid ||
      !m_tokens.free(entry->id, (request.flags & kFlagDestroyRights) != 0)) {
    reply.status = kStatusInvalidRef;
  }
  return reply;
}

AuthorityService::Reply AuthorityService::validate(const Peer& peer, const Request& request) {
  Reply reply;
  if (peer.uid != 0) {
    log(Level::Warning, format("uid %u may not validate authorizations: denied", peer.uid));
    reply.status = kStatusDenied;
    return reply;
  }
  if ((request.flags & ~(kFlagExtendRights | kFlagPartialRights)) != 0) {
    reply.status = kStatusInvalidFlags;
    return reply;
  }
  std::optional<TokenStore::Entry> entry = m_tokens.find(request.token);
  if (!entry) {
    // Unknown or expired: the client authenticates again and sends a fresh token.
    reply.status = kStatusInteractionNotAllowed;
    return reply;
  }
  if (entry->creatorUid != request.user) {
    log(Level::Warning, format("Authorization of uid %u presented for uid %u: denied",
                               entry->creatorUid, request.user));
    reply.status = kStatusDenied;
    return reply;
  }
  std::optional<Evaluation> evaluation =
      evaluate(entry->id, request.right, request.user, Use::Validation);
  if (!evaluation) {
    reply.status = kStatusInternal;
    return reply;
  }
  switch (evaluation->verdict) {
    case Verdict::Granted:
      log(Level::Debug,
          format("Right '%s' validated for uid %u", request.right.c_str(), request.user));
      reply.status = kStatusSuccess;
      break;
    case Verdict::Denied:
      reply.status = kStatusDenied;
      break;
    case Verdict::NeedsAuthentication:
    case Verdict::Gone:
      reply.status = kStatusInteractionNotAllowed;
      break;
  }
  return reply;
}

AuthorityService::Reply AuthorityService::destroyRights(const Peer& peer, const Request& request) {
  Reply reply;
  if (peer.uid != 0) {
    reply.status = kStatusDenied;
    return reply;
  }
  std::optional<TokenStore::Entry> entry = m_tokens.find(request.token);
  if (!entry) {
    reply.status = kStatusInvalidRef;
  } else if (entry->creatorUid != request.user) {
    reply.status = kStatusDenied;
  } else if (!m_tokens.destroyRights(entry->id)) {
    reply.status = kStatusInvalidRef;
  }
  return reply;
}

AuthorityService::Reply AuthorityService::rightGet(const Peer& peer, const Request& request) {
  Reply reply;
  if (peer.uid != 0) {
    reply.status = kStatusDenied;
    return reply;
  }
  RightsStore::Lookup lookup = m_rights.lookup(request.right);
  switch (lookup.state) {
    case RightsStore::State::Defined:
      reply.results.append(std::string(kDefinitionResult), definitionValue(lookup.definition));
      break;
    case RightsStore::State::Unsafe:
    case RightsStore::State::Broken:
      reply.results.append(std::string(kProblemResult), Value(lookup.problem));
      break;
    case RightsStore::State::Missing:
      reply.status = kStatusDenied;
      break;
    case RightsStore::State::Unavailable:
      log(Level::Error, format("Definition of right '%s' cannot be read now (%s)",
                               request.right.c_str(), lookup.problem.c_str()));
      reply.status = kStatusInternal;
      break;
  }
  return reply;
}

AuthorityService::Reply AuthorityService::rightSet(const Peer& peer, const Request& request) {
  Reply reply;
  if (peer.uid != 0) {
    log(Level::Warning, format("uid %u may not define rights: denied", peer.uid));
    reply.status = kStatusDenied;
    return reply;
  }
  Result<RightDefinition> definition = definitionFromValue(*request.definition);
  if (!definition || findRule(definition->rule) == nullptr) {
    reply.status = kStatusInvalidSet;
    return reply;
  }
  if (Status stored = m_rights.set(request.right, *definition); !stored) {
    log(Level::Error, format("Could not write the definition of right '%s': %s",
                             request.right.c_str(), stored.error().description().c_str()));
    reply.status = kStatusInternal;
    return reply;
  }
  log(Level::Info,
      format("Right '%s' defined with rule '%s'", request.right.c_str(), definition->rule.c_str()));
  return reply;
}

AuthorityService::Reply AuthorityService::rightRemove(const Peer& peer, const Request& request) {
  Reply reply;
  if (peer.uid != 0) {
    log(Level::Warning, format("uid %u may not remove rights: denied", peer.uid));
    reply.status = kStatusDenied;
    return reply;
  }
  if (Status removed = m_rights.remove(request.right); !removed) {
    if (removed.error().code() == ENOENT) {
      reply.status = kStatusDenied;
    } else {
      log(Level::Error, format("Could not remove the definition of right '%s': %s",
                               request.right.c_str(), removed.error().description().c_str()));
      reply.status = kStatusInternal;
    }
    return reply;
  }
  log(Level::Info, format("Right '%s' removed", request.right.c_str()));
  return reply;
}

}  // namespace krv::auth
