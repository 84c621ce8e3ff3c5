#include "foundation/Result.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>

namespace krv {
namespace {

// Reading the wrong alternative once went unchecked in release builds: it must end the process,
// naming the misuse, in every build type.
TEST(ResultDeathTest, ReadingTheWrongAlternativeEndsTheProcessInEveryBuild) {
  Result<std::string> failed = Error::posix(ENOENT, "open");
  EXPECT_DEATH((void)failed.value(), "value\\(\\) of a Result that holds an error.*open");
  EXPECT_DEATH((void)*failed, "value\\(\\) of a Result that holds an error");
  Result<std::string> succeeded = std::string("text");
  EXPECT_DEATH((void)succeeded.error(), "error\\(\\) of a Result that holds a value");
  Status fine;
  EXPECT_DEATH((void)fine.error(), "error\\(\\) of a Status that holds success");
}

}  // namespace
}  // namespace krv
