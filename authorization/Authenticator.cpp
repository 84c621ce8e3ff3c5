#include <security/pam_appl.h>

#include <cstdlib>
#include <cstring>
#include <new>

#include "authorization/Authenticator.h"
#include "authorization/Secret.h"

namespace krv::auth {

namespace {

enum class Abort : std::uint8_t { None, EmptyPassword, Cancelled, NoInteraction, Disconnected };

struct Conversation {
  PromptChannel* channel = nullptr;
  Abort abort = Abort::None;
};

void dropResponses(pam_response* responses, int count) {
  if (responses == nullptr) return;
  for (int i = 0; i < count; ++i) {
    if (responses[i].resp != nullptr) {
      wipe(responses[i].resp, std::strlen(responses[i].resp));
      std::free(responses[i].resp);
    }
  }
  std::free(responses);
}

PromptStyle styleOf(int pamStyle) {
  switch (pamStyle) {
    case PAM_PROMPT_ECHO_OFF:
      return PromptStyle::Secret;
    case PAM_PROMPT_ECHO_ON:
      return PromptStyle::Visible;
    case PAM_ERROR_MSG:
      return PromptStyle::Error;
    default:
      return PromptStyle::Information;
  }
}

// Called by PAM (from within pam_authenticate and friends) with the module's messages.
int converse(int count, const pam_message** messages, pam_response** responses, void* data) {
  auto* conversation = static_cast<Conversation*>(data);
  if (conversation == nullptr || responses == nullptr || messages == nullptr || count <= 0 ||
      count > PAM_MAX_NUM_MSG) {
    return PAM_CONV_ERR;
  }
  *responses = nullptr;
  if (conversation->abort != Abort::None) return PAM_CONV_ERR;

  auto* replies = static_cast<pam_response*>(
      std::calloc(static_cast<std::size_t>(count), sizeof(pam_response)));
  if (replies == nullptr) return PAM_BUF_ERR;
  for (int i = 0; i < count; ++i) {
    const pam_message* message = messages[i];
    if (message == nullptr) {
      dropResponses(replies, count);
      return PAM_CONV_ERR;
    }
    Prompt prompt{styleOf(message->msg_style), message->msg != nullptr ? message->msg : ""};
    if (message->msg_style != PAM_PROMPT_ECHO_OFF && message->msg_style != PAM_PROMPT_ECHO_ON) {
      if (!conversation->channel->tell(prompt)) {
        conversation->abort = Abort::Disconnected;
        dropResponses(replies, count);
        return PAM_CONV_ERR;
      }
      continue;
    }
    std::optional<Answer> answer = conversation->channel->ask(prompt);
    Abort abort = Abort::None;
    if (!answer) {
      abort = Abort::Disconnected;
    } else if (answer->kind == AnswerKind::Cancel) {
      abort = Abort::Cancelled;
    } else if (answer->kind == AnswerKind::Unavailable) {
      abort = Abort::NoInteraction;
    } else if (answer->response.empty() && message->msg_style == PAM_PROMPT_ECHO_OFF) {
      abort = Abort::EmptyPassword;
    }
    if (abort != Abort::None) {
      conversation->abort = abort;
      dropResponses(replies, count);
      return PAM_CONV_ERR;
    }
    std::string_view text = answer->response.view();
    char* copy = static_cast<char*>(std::malloc(text.size() + 1));
    if (copy == nullptr) {
      dropResponses(replies, count);
      return PAM_BUF_ERR;
    }
    std::memcpy(copy, text.data(), text.size());
    copy[text.size()] = '\0';
    replies[i].resp = copy;
    replies[i].resp_retcode = 0;
  }
  *responses = replies;
  return PAM_SUCCESS;
}

// PAM or a module could not do its work (out of memory or descriptors, a source of account data
// unavailable): no verdict on the password or the account.
bool isFailureOfPam(int status) {
  return status == PAM_ABORT || status == PAM_BUF_ERR || status == PAM_SYSTEM_ERR ||
         status == PAM_AUTHINFO_UNAVAIL;
}

AuthenticationOutcome outcomeOfAbort(Abort abort) {
  switch (abort) {
    case Abort::EmptyPassword:
      return AuthenticationOutcome::Failed;
    case Abort::Cancelled:
      return AuthenticationOutcome::Cancelled;
    case Abort::NoInteraction:
      return AuthenticationOutcome::NoInteraction;
    case Abort::Disconnected:
    case Abort::None:
      break;
  }
  return AuthenticationOutcome::Disconnected;
}

// Ends the PAM transaction however the attempt ends.
class Transaction {
 public:
  explicit Transaction(pam_handle_t* handle) : m_handle(handle) {}
  ~Transaction() {
    if (m_handle != nullptr) ::pam_end(m_handle, m_status);
  }
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;

  pam_handle_t* handle() const { return m_handle; }
  int record(int status) {
    m_status = status;
    return status;
  }

 private:
  pam_handle_t* m_handle;
  int m_status = PAM_SUCCESS;
};

}  // namespace

PamAuthenticator::PamAuthenticator(std::string service) : m_service(std::move(service)) {}

AuthenticationResult PamAuthenticator::authenticate(const std::string& account,
                                                    const std::string& requester,
                                                    PromptChannel& channel) {
  AuthenticationResult result;
  Conversation conversation;
  conversation.channel = &channel;
  const pam_conv bridge{converse, &conversation};

  pam_handle_t* handle = nullptr;
  int status = ::pam_start(m_service.c_str(), account.c_str(), &bridge, &handle);
  Transaction transaction(handle);
  if (status != PAM_SUCCESS || handle == nullptr) return result;
  if (!requester.empty()) ::pam_set_item(handle, PAM_RUSER, requester.c_str());

  status = transaction.record(::pam_authenticate(handle, PAM_DISALLOW_NULL_AUTHTOK));
  if (conversation.abort != Abort::None) {
    result.outcome = outcomeOfAbort(conversation.abort);
    return result;
  }
  if (status != PAM_SUCCESS) {
    result.outcome =
        isFailureOfPam(status) ? AuthenticationOutcome::Error : AuthenticationOutcome::Failed;
    return result;
  }

  status = transaction.record(::pam_acct_mgmt(handle, PAM_DISALLOW_NULL_AUTHTOK));
  if (conversation.abort != Abort::None) {
    result.outcome = outcomeOfAbort(conversation.abort);
    return result;
  }
  if (status != PAM_SUCCESS) {
    result.outcome =
        isFailureOfPam(status) ? AuthenticationOutcome::Error : AuthenticationOutcome::Refused;
    return result;
  }

  // A module may change the user during the transaction; only the account asked for counts.
  const void* item = nullptr;
  if (::pam_get_item(handle, PAM_USER, &item) != PAM_SUCCESS || item == nullptr ||
      account != static_cast<const char*>(item)) {
    result.outcome = AuthenticationOutcome::Refused;
    return result;
  }
  result.outcome = AuthenticationOutcome::Authenticated;
  result.account = account;
  return result;
}

}  // namespace krv::auth
