#include "tools/securityagentctl/ProgressBar.h"

#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <span>
#include <string_view>

#include "foundation/Format.h"
#include "foundation/System.h"

namespace krv::ctl {

namespace {

void writeText(int fd, std::string_view text) {
  (void)sys::writeAll(fd,
                      std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

}  // namespace

ProgressStyle ProgressBar::wanted(bool json, bool quiet, bool asked) {
  if (json || quiet) return ProgressStyle::None;
  if (sys::isTerminal(STDOUT_FILENO) && sys::isTerminal(STDERR_FILENO)) return ProgressStyle::Bar;
  return asked ? ProgressStyle::Lines : ProgressStyle::None;
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
  if (m_style == ProgressStyle::None) return;
  if (m_style == ProgressStyle::Lines) {
    // The percentage alone (or the count), without the bar's picture.
    std::string text = render(progress);
    if (text.front() == '[') text = text.substr(text.rfind(']') + 2);
    text.erase(0, text.find_first_not_of(' '));
    if (text == m_last) return;
    const std::string line = "progress: " + text + "\n";
    writeText(m_fd, line);
    m_last = std::move(text);
    return;
  }
  std::string text = render(progress);
  if (m_shown && text == m_last) return;
  // A shorter text (a count after a bar) clears what the longer one left.
  std::string line = "\r" + text;
  if (text.size() < m_last.size()) line += std::string(m_last.size() - text.size(), ' ');
  writeText(m_fd, line);
  m_last = std::move(text);
  m_shown = true;
}

void ProgressBar::end() {
  if (!m_shown) return;
  writeText(m_fd, "\n");
  m_shown = false;
  m_last.clear();
}

}  // namespace krv::ctl
