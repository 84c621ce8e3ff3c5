#include "tools/securityagentctl/ProgressBar.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>

#include "foundation/System.h"

namespace krv::ctl {
namespace {

// Everything written to the pipe so far.
std::string drain(int fd) {
  std::string text;
  char buffer[4096];
  ssize_t count = 0;
  while ((count = ::read(fd, buffer, sizeof buffer)) > 0) {
    text.append(buffer, static_cast<std::size_t>(count));
  }
  return text;
}

TEST(ProgressBarTest, DrawsOnlyWhatChangesAndEndsItsLine) {
  Result<sys::PipeEnds> pipe = sys::pipe();
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(sys::setNonBlocking(pipe->readEnd.get(), true));
  ProgressBar bar(pipe->writeEnd.get(), ProgressStyle::Bar);
  bar.draw(0.5);
  bar.draw(0.501);  // the same picture: not drawn again
  bar.draw(1234);   // a count
  bar.draw(0.25);   // a bar again, longer than the count
  bar.end();
  bar.end();  // nothing more to end
  const std::string half = "[" + std::string(20, '#') + std::string(20, ' ') + "]  50%";
  const std::string quarter = "[" + std::string(10, '#') + std::string(30, ' ') + "]  25%";
  EXPECT_EQ(drain(pipe->readEnd.get()),
            "\r" + half + "\r1234" + std::string(half.size() - 4, ' ') + "\r" + quarter + "\n");
}

TEST(ProgressBarTest, OddValuesStayOnOneLine) {
  EXPECT_EQ(ProgressBar::render(NAN), ProgressBar::render(0.0));
  EXPECT_EQ(ProgressBar::render(-3.0), ProgressBar::render(0.0));
  EXPECT_EQ(ProgressBar::render(INFINITY), ProgressBar::render(1.0));
  EXPECT_EQ(ProgressBar::render(1e300), "many");
  EXPECT_EQ(ProgressBar::render(1.0).substr(42), " 100%");
}

TEST(ProgressBarTest, NothingWithoutATerminalOrWhenDisabled) {
  Result<sys::PipeEnds> pipe = sys::pipe();
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(sys::setNonBlocking(pipe->readEnd.get(), true));
  ProgressBar bar(pipe->writeEnd.get(), ProgressStyle::None);
  bar.draw(0.5);
  bar.end();
  EXPECT_FALSE(bar.shown());
  EXPECT_EQ(drain(pipe->readEnd.get()), "");
  // The test's output is no person's terminal under ctest; --json and --quiet never want one.
  EXPECT_EQ(ProgressBar::wanted(false, false), ProgressStyle::None);
  EXPECT_EQ(ProgressBar::wanted(true, false, true), ProgressStyle::None);
  EXPECT_EQ(ProgressBar::wanted(false, true, true), ProgressStyle::None);
  // Asked for: lines, one per change.
  EXPECT_EQ(ProgressBar::wanted(false, false, true), ProgressStyle::Lines);
}

TEST(ProgressBarTest, AskedForWithoutATerminalEachChangeIsALine) {
  Result<sys::PipeEnds> pipe = sys::pipe();
  ASSERT_TRUE(pipe);
  ASSERT_TRUE(sys::setNonBlocking(pipe->readEnd.get(), true));
  ProgressBar lines(pipe->writeEnd.get(), ProgressStyle::Lines);
  lines.draw(0.0);
  lines.draw(0.001);
  lines.draw(0.5);
  lines.draw(300);
  lines.end();
  EXPECT_FALSE(lines.shown());
  EXPECT_EQ(drain(pipe->readEnd.get()), "progress: 0%\nprogress: 50%\nprogress: 300\n");
}

}  // namespace
}  // namespace krv::ctl
