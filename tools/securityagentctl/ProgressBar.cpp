#include "tools/securityagentctl/ProgressBar.h"

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <span>

#include "foundation/Format.h"
#include "foundation/System.h"

namespace krv::ctl {

bool ProgressBar::wanted(bool json, bool quiet) {
  return !json && !quiet && sys::isTerminal(STDOUT_FILENO) && sys::isTerminal(STDERR_FILENO);
}

std::string ProgressBar::render(double progress) {
  if (!(progress >= 0.0)) progress = 0.0;  // NaN and negative values as nothing done
  if (progress > 1.0 && std::isfinite(progress)) {
    return progress < 1e18 ? format("%.0f", progress) : std::string("many");
  }
  if (progress > 1.0) progress = 1.0;
  constexpr int kWidth = 40;
  const int filled = static_cast<int>(progress * kWidth);
  return "[" + std::string(static_cast<std::size_t>(filled), '#') +
         std::string(static_cast<std::size_t>(kWidth - filled), ' ') +
         format("] %3d%%", static_cast<int>(progress * 100.0));
}

void ProgressBar::draw(double progress) {
  if (!m_enabled) return;
  std::string text = render(progress);
  if (m_shown && text == m_last) return;
  // A shorter text (a count after a bar) clears what the longer one left.
  std::string line = "\r" + text;
  if (text.size() < m_last.size()) line += std::string(m_last.size() - text.size(), ' ');
  (void)sys::writeAll(m_fd,
                      std::span(reinterpret_cast<const std::uint8_t*>(line.data()), line.size()));
  m_last = std::move(text);
  m_shown = true;
}

void ProgressBar::end() {
  if (!m_shown) return;
  (void)sys::writeAll(m_fd, std::span(reinterpret_cast<const std::uint8_t*>("\n"), 1));
  m_shown = false;
  m_last.clear();
}

}  // namespace krv::ctl
