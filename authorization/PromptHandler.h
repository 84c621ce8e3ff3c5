#pragma once
// PromptHandler: how the client library asks its user what the authorization service needs
// (a password, mostly) while a right is being obtained.
//
// The process has one current handler, used by every copyRights() with interaction allowed. By
// default it is a TerminalPromptHandler on /dev/tty; a GUI application installs a
// CallbackPromptHandler that shows its own dialog, and a command-line client may install any
// handler of its own. With no way to ask (no terminal, canAsk() false) the right is copied without
// interaction and the call ends with kStatusInteractionNotAllowed when a password is needed.
//
// TerminalPromptHandler reads from the controlling terminal, never from standard input, with
// echo turned off for secret prompts. The terminal's settings are restored on every path: a
// signal that ends the prompt (SIGINT, SIGQUIT, SIGTSTP, SIGHUP, SIGTERM, SIGALRM, SIGTTIN,
// SIGTTOU) is held while the settings are put back and then delivered again, and the prompt counts
// as cancelled. A line longer than Secret::kCapacity is refused (cancelled) rather than cut.
// Prompt texts are shown with control characters neutralised. One terminal prompt runs at a time
// in a process (a process-wide lock); the signal handlers it installs are process-wide for the
// duration of the prompt.
//
// Thread-safety: setPromptHandler() and currentPromptHandler() are synchronised; a handler is
// called on the thread that called copyRights().

#include <functional>
#include <memory>
#include <string>

#include "authorization/AuthorityProtocol.h"

namespace krv::auth {

class PromptHandler {
 public:
  virtual ~PromptHandler() = default;
  // Whether the handler can ask anything at all right now.
  virtual bool canAsk() = 0;
  // Asks one question; the answer, cancelled, or unavailable (no way to ask after all).
  virtual Answer ask(const Prompt& prompt) = 0;
  // Shows an error or information message.
  virtual void show(const Prompt& prompt) = 0;
};

class TerminalPromptHandler final : public PromptHandler {
 public:
  explicit TerminalPromptHandler(std::string terminalPath = "/dev/tty");
  bool canAsk() override;
  Answer ask(const Prompt& prompt) override;
  void show(const Prompt& prompt) override;

 private:
  std::string m_terminalPath;
};

class CallbackPromptHandler final : public PromptHandler {
 public:
  using AskFunction = std::function<Answer(const Prompt&)>;
  using ShowFunction = std::function<void(const Prompt&)>;

  explicit CallbackPromptHandler(AskFunction ask, ShowFunction show = nullptr)
      : m_ask(std::move(ask)), m_show(std::move(show)) {}
  bool canAsk() override { return static_cast<bool>(m_ask); }
  Answer ask(const Prompt& prompt) override;
  void show(const Prompt& prompt) override {
    if (m_show) m_show(prompt);
  }

 private:
  AskFunction m_ask;
  ShowFunction m_show;
};

// Installs the process's handler; null restores the terminal handler.
void setPromptHandler(std::shared_ptr<PromptHandler> handler);
std::shared_ptr<PromptHandler> currentPromptHandler();

}  // namespace krv::auth
