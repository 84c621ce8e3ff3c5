#include "authorization/PromptHandler.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <mutex>
#include <optional>

#include "foundation/System.h"

namespace krv::auth {

namespace {

std::mutex g_handlerMutex;
std::shared_ptr<PromptHandler> g_handler;

}  // namespace

Answer CallbackPromptHandler::ask(const Prompt& prompt) {
  if (!m_ask) {
    Answer unavailable;
    unavailable.kind = AnswerKind::Unavailable;
    return unavailable;
  }
  return m_ask(prompt);
}

void setPromptHandler(std::shared_ptr<PromptHandler> handler) {
  std::lock_guard<std::mutex> lock(g_handlerMutex);
  g_handler = std::move(handler);
}

std::shared_ptr<PromptHandler> currentPromptHandler() {
  std::lock_guard<std::mutex> lock(g_handlerMutex);
  if (!g_handler) g_handler = std::make_shared<TerminalPromptHandler>();
  return g_handler;
}

namespace {

constexpr int kEndingSignals[] = {SIGINT,  SIGQUIT, SIGTSTP, SIGHUP,
                                  SIGTERM, SIGALRM, SIGTTIN, SIGTTOU};
constexpr int kSignalCount = sizeof kEndingSignals / sizeof kEndingSignals[0];

// One terminal prompt at a time per process: the signal handlers below are process-wide.
std::mutex g_terminalMutex;
volatile sig_atomic_t g_caught[kSignalCount];
std::atomic<int> g_wakeFd{-1};

extern "C" void noteSignal(int signal) {
  for (int i = 0; i < kSignalCount; ++i) {
    if (kEndingSignals[i] == signal) g_caught[i] = 1;
  }
  // Wakes the reading loop even when the signal went to another thread.
  const int fd = g_wakeFd.load();
  if (fd >= 0) sys::writeFromSignalHandler(fd, 0);
}

// Catches the ending signals for its lifetime, then restores the old dispositions and delivers
// what was caught.
class SignalGuard {
 public:
  explicit SignalGuard(int wakeFd) {
    for (int i = 0; i < kSignalCount; ++i) g_caught[i] = 0;
    g_wakeFd = wakeFd;
    // No SA_RESTART: a blocked call returns EINTR.
    for (int i = 0; i < kSignalCount; ++i) {
      Result<struct sigaction> previous = sys::setSignalHandler(kEndingSignals[i], noteSignal);
      if (previous) m_saved[i] = *previous;
    }
  }
  ~SignalGuard() {
    for (int i = 0; i < kSignalCount; ++i) {
      if (m_saved[i]) (void)sys::restoreSignalAction(kEndingSignals[i], *m_saved[i]);
    }
    g_wakeFd = -1;
    for (int i = 0; i < kSignalCount; ++i) {
      if (g_caught[i] != 0) (void)sys::kill(::getpid(), kEndingSignals[i]);
    }
  }
  SignalGuard(const SignalGuard&) = delete;
  SignalGuard& operator=(const SignalGuard&) = delete;

  static bool caughtAny() {
    for (int i = 0; i < kSignalCount; ++i) {
      if (g_caught[i] != 0) return true;
    }
    return false;
  }

 private:
  std::optional<struct sigaction> m_saved[kSignalCount];
};

void writeText(int fd, std::string_view text) {
  (void)sys::writeAll(fd, {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()});
}

Result<UniqueFd> openTerminal(const std::string& path) {
  KRV_TRY(UniqueFd terminal, sys::open(path, O_RDWR | O_NOCTTY));
  if (!sys::isTerminal(terminal.get())) return Error::posix(ENOTTY, "isatty");
  return terminal;
}

}  // namespace

TerminalPromptHandler::TerminalPromptHandler(std::string terminalPath)
    : m_terminalPath(std::move(terminalPath)) {}

bool TerminalPromptHandler::canAsk() { return openTerminal(m_terminalPath).ok(); }

void TerminalPromptHandler::show(const Prompt& prompt) {
  Result<UniqueFd> terminal = openTerminal(m_terminalPath);
  if (!terminal) return;
  std::string text = sanitizeMessage(prompt.message);
  if (text.empty() || text.back() != '\n') text += '\n';
  writeText(terminal->get(), text);
}

Answer TerminalPromptHandler::ask(const Prompt& prompt) {
  Answer answer;
  answer.kind = AnswerKind::Unavailable;
  std::lock_guard<std::mutex> lock(g_terminalMutex);
  Result<UniqueFd> terminal = openTerminal(m_terminalPath);
  if (!terminal) return answer;
  const int fd = terminal->get();
  Result<sys::PipeEnds> wake = sys::pipe(O_NONBLOCK);
  if (!wake) return answer;

  enum class End { Line, EndOfFile, Signal, TooLong, Failure } end = End::Failure;
  {
    SignalGuard guard(wake->writeEnd.get());
    termios saved{};
    bool echoChanged = false;
    if (prompt.style == PromptStyle::Secret) {
      Result<termios> current = sys::terminalAttributes(fd);
      if (!current) return answer;
      saved = *current;
      termios quiet = saved;
      quiet.c_lflag &= ~static_cast<tcflag_t>(ECHO | ECHOE | ECHOK | ECHONL);
      quiet.c_lflag |= ICANON;
      echoChanged = sys::setTerminalAttributes(fd, quiet).ok();
      if (!echoChanged) {
        // Never read a password that would be shown on the screen.
        return answer;
      }
    }
    writeText(fd, sanitizeMessage(prompt.message));

    bool tooLong = false;
    for (;;) {
      if (SignalGuard::caughtAny()) {
        end = End::Signal;
        break;
      }
      pollfd entries[2] = {{fd, POLLIN, 0}, {wake->readEnd.get(), POLLIN, 0}};
      if (Result<std::size_t> ready = sys::poll(entries, -1); !ready) {
        if (ready.error().code() == EINTR) continue;
        break;
      }
      if (entries[1].revents != 0) continue;  // a signal: checked at the top
      char byte = 0;
      Result<std::size_t> count = sys::read(fd, {reinterpret_cast<std::uint8_t*>(&byte), 1});
      if (!count) {
        if (count.error().code() == EAGAIN) continue;
        break;
      }
      if (*count == 0) {
        end = answer.response.empty() ? End::EndOfFile : End::Line;
        break;
      }
      if (byte == '\n' || byte == '\r') {
        end = tooLong ? End::TooLong : End::Line;
        break;
      }
      if (!tooLong && !answer.response.append(std::string_view(&byte, 1))) tooLong = true;
      byte = 0;
    }
    if (echoChanged) {
      (void)sys::setTerminalAttributes(fd, saved);
      // The user's Return was not echoed.
      writeText(fd, "\n");
    }
  }  // the guard restores the signal dispositions and delivers what was caught

  switch (end) {
    case End::Line:
      answer.kind = AnswerKind::Response;
      break;
    case End::EndOfFile:
    case End::Signal:
    case End::TooLong:
      answer.response.clear();
      answer.kind = AnswerKind::Cancel;
      break;
    case End::Failure:
      answer.response.clear();
      answer.kind = AnswerKind::Unavailable;
      break;
  }
  return answer;
}

}  // namespace krv::auth
