#pragma once
// The password prompt of securityagentctl: says what the password is for and whose it is, then
// asks on the terminal like the system's own tools do:
//
//   Authentication is needed to delete file objects as the administrator. Password for alice:
//
// The authorization service relays PAM's questions; the account PAM asks about is the caller's
// own (the client sends no other name), so the client names the user it runs as. PAM's plain
// password question ("Password: ") is replaced by "Password for USER: "; any other question (a
// one-time code, say) is shown as PAM wrote it, after the first line. The actual asking, without
// echo and on the controlling terminal only, is the TerminalPromptHandler's.

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "authorization/PromptHandler.h"

namespace krv::ctl {

class CommandPromptHandler final : public auth::PromptHandler {
 public:
  // `action`: what the password allows ("delete file objects"); `user`: the account's name.
  CommandPromptHandler(std::string action, std::string user,
                       std::shared_ptr<auth::PromptHandler> terminal);
  // The same, with the user's name looked up at the first question.
  CommandPromptHandler(std::string action, std::function<std::string()> userName,
                       std::shared_ptr<auth::PromptHandler> terminal);
  bool canAsk() override;
  auth::Answer ask(const auth::Prompt& prompt) override;
  void show(const auth::Prompt& prompt) override;

  // The text asked for `prompt` (the first question names the action).
  std::string promptText(const auth::Prompt& prompt);

 private:
  std::string m_action;
  std::string m_user;
  std::function<std::string()> m_userName;
  std::shared_ptr<auth::PromptHandler> m_terminal;
  bool m_introduced = false;
};

// Installs the handler for command `code`, run by the user `uid`, as the process's prompt handler.
void installCommandPrompt(std::uint32_t code, unsigned uid);

}  // namespace krv::ctl
