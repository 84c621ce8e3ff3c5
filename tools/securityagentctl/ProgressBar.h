#pragma once
// The progress bar of securityagentctl, drawn on standard error over one line:
//
//   [################                        ]  40%
//
// Shown only to a person: when standard output and standard error are both terminals and the
// user asked for neither --json nor --quiet. Redirected into a file or a pipe, the client writes
// no progress at all, unless asked with --progress: then each change is a line of its own,
// "progress: 40%", which a log keeps readably. A command that cannot know its total reports a count
// instead of a fraction (values above 1): shown as that number. The bar is redrawn only when what
// it shows changes, so a command that reports thousands of times a second costs the terminal a
// hundred lines at most.

#include <cstdint>
#include <string>

namespace krv::ctl {

enum class ProgressStyle : std::uint8_t {
  None,   // nothing is written
  Bar,    // a bar redrawn over one line of a terminal
  Lines,  // one line per change
};

class ProgressBar {
 public:
  // How progress belongs on this process's output; `asked`: --progress was given.
  static ProgressStyle wanted(bool json, bool quiet, bool asked = false);

  // Draws on `fd` in `style`.
  ProgressBar(int fd, ProgressStyle style) : m_fd(fd), m_style(style) {}

  bool enabled() const { return m_style != ProgressStyle::None; }
  // Whether a bar is on the line now (end() ends it).
  bool shown() const { return m_shown; }
  // Shows `progress`: a fraction from 0 to 1, or a count above 1.
  void draw(double progress);
  // Ends the bar's line, so that other output starts on a line of its own.
  void end();

  // The text of the bar for `progress`, as draw() writes it after a carriage return.
  static std::string render(double progress);

 private:
  int m_fd;
  ProgressStyle m_style;
  bool m_shown = false;
  std::string m_last;
};

}  // namespace krv::ctl
