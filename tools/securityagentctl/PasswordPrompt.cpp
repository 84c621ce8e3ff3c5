#include "tools/securityagentctl/PasswordPrompt.h"

#include <cctype>
#include <cstdint>

#include "authorization/UserDirectory.h"
#include "tools/securityagentctl/HelpTable.h"

namespace krv::ctl {

namespace {

// PAM's plain question for the password: "Password:" in any case, with or without spaces.
bool isPlainPasswordQuestion(const std::string& message) {
  std::string trimmed;
  for (char c : message) {
    if (c != ' ' && c != '\t' && c != '\n') {
      trimmed += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
  }
  return trimmed == "password:" || trimmed == "password";
}

}  // namespace

CommandPromptHandler::CommandPromptHandler(std::string action, std::string user,
                                           std::shared_ptr<auth::PromptHandler> terminal)
    : m_action(std::move(action)), m_user(std::move(user)), m_terminal(std::move(terminal)) {}

CommandPromptHandler::CommandPromptHandler(std::string action,
                                           std::function<std::string()> userName,
                                           std::shared_ptr<auth::PromptHandler> terminal)
    : m_action(std::move(action)),
      m_userName(std::move(userName)),
      m_terminal(std::move(terminal)) {}

bool CommandPromptHandler::canAsk() { return m_terminal->canAsk(); }

std::string CommandPromptHandler::promptText(const auth::Prompt& prompt) {
  if (m_userName) {
    m_user = m_userName();
    m_userName = nullptr;
  }
  std::string text;
  if (!m_introduced) {
    text = "Authentication is needed to " + m_action + " as the administrator.";
    m_introduced = true;
  }
  if (isPlainPasswordQuestion(prompt.message) && !m_user.empty()) {
    return text + (text.empty() ? "" : " ") + "Password for " + m_user + ": ";
  }
  return text + (text.empty() ? "" : "\n") + prompt.message;
}

auth::Answer CommandPromptHandler::ask(const auth::Prompt& prompt) {
  if (prompt.style != auth::PromptStyle::Secret) return m_terminal->ask(prompt);
  return m_terminal->ask(auth::Prompt{prompt.style, promptText(prompt)});
}

void CommandPromptHandler::show(const auth::Prompt& prompt) { m_terminal->show(prompt); }

void installCommandPrompt(std::uint32_t code, unsigned uid) {
  const CommandHelp* help = commandHelp(code);
  if (help == nullptr) return;
  // The name is looked up when a question comes, so that a command that needs no password costs
  // no lookup.
  auto userName = [uid] {
    Result<std::optional<auth::UserAccount>> account =
        auth::SystemUserDirectory().accountOf(static_cast<uid_t>(uid));
    return account && *account ? (*account)->name : std::string();
  };
  auth::setPromptHandler(std::make_shared<CommandPromptHandler>(
      help->action, std::move(userName), std::make_shared<auth::TerminalPromptHandler>()));
}

}  // namespace krv::ctl
