#pragma once
// The progress bar of securityagentctl, drawn on standard error over one line:
//
//   [################                        ]  40%
//
// Shown only to a person: when standard output and standard error are both terminals and the
// user asked for neither --json nor --quiet. Redirected into a file or a pipe, the client writes
// no progress at all. A command that cannot know its total reports a count instead of a fraction
// (values above 1): shown as that number. The bar is redrawn only when what it shows changes, so
// a command that reports thousands of times a second costs the terminal a hundred lines at most.

#include <string>

namespace krv::ctl {

class ProgressBar {
 public:
  // Whether a bar belongs on this process's output.
  static bool wanted(bool json, bool quiet);

  // Draws on `fd` when `enabled`; otherwise every call does nothing.
  ProgressBar(int fd, bool enabled) : m_fd(fd), m_enabled(enabled) {}

  bool enabled() const { return m_enabled; }
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
  bool m_enabled;
  bool m_shown = false;
  std::string m_last;
};

}  // namespace krv::ctl
