#include <gtest/gtest.h>

#include "authorization/BackOff.h"

namespace krv::auth {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

TEST(BackOffTest, DelaysGrowAfterTheThirdFailureUpToTheCap) {
  ManualClock clock;
  BackOff backOff(clock);
  const seconds expected[] = {seconds(0),  seconds(0),  seconds(2),  seconds(4), seconds(8),
                              seconds(16), seconds(32), seconds(60), seconds(60)};
  for (seconds delay : expected) {
    backOff.recordFailure("alice");
    EXPECT_EQ(backOff.delayBefore("alice"), delay);
    // The wait counts down from the last failure.
    clock.advance(delay / 2);
    EXPECT_EQ(backOff.delayBefore("alice"), delay - delay / 2);
    clock.advance(delay - delay / 2);
    EXPECT_EQ(backOff.delayBefore("alice"), seconds(0));
  }
  EXPECT_EQ(backOff.delayBefore("bob"), seconds(0)) << "accounts are counted separately";
}

TEST(BackOffTest, ParallelAttemptsWaitTheirTurnsOneAfterTheOther) {
  ManualClock clock;
  BackOff backOff(clock);
  for (int i = 0; i < 3; ++i) backOff.recordFailure("alice");
  EXPECT_EQ(backOff.reserveAttempt("alice"), seconds(2));
  EXPECT_EQ(backOff.reserveAttempt("alice"), seconds(4));
  EXPECT_EQ(backOff.reserveAttempt("alice"), seconds(6));
  EXPECT_EQ(backOff.reserveAttempt("bob"), seconds(0));
  clock.advance(seconds(2));
  backOff.recordFailure("alice");  // the first attempt failed: the next waits 4 s from now
  EXPECT_EQ(backOff.reserveAttempt("alice"), seconds(6));
}

TEST(BackOffTest, SuccessOrTimeForgetsFailures) {
  ManualClock clock;
  BackOff backOff(clock);
  for (int i = 0; i < 3; ++i) backOff.recordFailure("alice");
  backOff.recordSuccess("alice");
  EXPECT_EQ(backOff.delayBefore("alice"), seconds(0));
  backOff.recordFailure("alice");
  EXPECT_EQ(backOff.delayBefore("alice"), seconds(0)) << "the count started again";

  for (int i = 0; i < 5; ++i) backOff.recordFailure("bob");
  clock.advance(minutes(15));
  EXPECT_EQ(backOff.delayBefore("bob"), seconds(0));
  backOff.recordFailure("bob");
  EXPECT_EQ(backOff.delayBefore("bob"), seconds(0)) << "the old failures were forgotten";
}

TEST(BackOffTest, RemembersABoundedNumberOfAccounts) {
  ManualClock clock;
  BackOffLimits limits;
  limits.capacity = 4;
  BackOff backOff(clock, limits);
  for (int i = 0; i < 3; ++i) backOff.recordFailure("target");
  clock.advance(seconds(1));
  for (int account = 0; account < 3; ++account) {
    for (int i = 0; i < 3; ++i) backOff.recordFailure("other" + std::to_string(account));
  }
  EXPECT_GT(backOff.delayBefore("target"), seconds(0));
  // A fifth account pushes out the one whose last failure is oldest.
  backOff.recordFailure("newcomer");
  EXPECT_EQ(backOff.delayBefore("target"), seconds(0));
  EXPECT_GT(backOff.delayBefore("other0"), seconds(0));
}

}  // namespace
}  // namespace krv::auth
