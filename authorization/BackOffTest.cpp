#include <gtest/gtest.h>

#include "authorization/BackOff.h"

namespace krv::auth {
namespace {

using std::chrono::minutes;
using std::chrono::seconds;

constexpr uid_t kAlice = 1001;
constexpr uid_t kBob = 1002;
constexpr uid_t kCarol = 1003;
constexpr uid_t kDave = 1004;

// Alice typing her own password; bob typing hers.
const AttemptKey kAliceHerself{"alice", true, true, kAlice};
const AttemptKey kBobAsAlice{"alice", true, false, kBob};

AttemptKey known(const std::string& account, uid_t requester) {
  return AttemptKey{account, true, false, requester};
}
AttemptKey madeUp(const std::string& account, uid_t requester) {
  return AttemptKey{account, false, false, requester};
}

// The wait of an attempt made now (its turn given back at once).
Instant waitNow(BackOff& backOff, const AttemptKey& attempt) {
  BackOff::Turn turn = backOff.reserve(attempt);
  EXPECT_FALSE(turn.refused());
  return turn.wait();
}

TEST(BackOffTest, DelaysGrowAfterTheThirdFailureUpToTheCap) {
  ManualClock clock;
  BackOff backOff(clock);
  const seconds expected[] = {seconds(0),  seconds(0),  seconds(2),  seconds(4), seconds(8),
                              seconds(16), seconds(32), seconds(60), seconds(60)};
  for (seconds delay : expected) {
    backOff.recordFailure(kBobAsAlice);
    EXPECT_EQ(waitNow(backOff, kAliceHerself), delay) << "the account counts, whoever failed";
    // The wait counts down from the last failure.
    clock.advance(delay / 2);
    EXPECT_EQ(waitNow(backOff, kBobAsAlice), delay - delay / 2);
    clock.advance(delay - delay / 2);
    EXPECT_EQ(waitNow(backOff, kBobAsAlice), seconds(0));
  }
  EXPECT_EQ(waitNow(backOff, known("bob", kBob)), seconds(0)) << "accounts are counted apart";
}

TEST(BackOffTest, ParallelAttemptsTakeTurnsThatEndWithThem) {
  ManualClock clock;
  BackOff backOff(clock);
  for (int i = 0; i < 3; ++i) backOff.recordFailure(kBobAsAlice);
  std::vector<BackOff::Turn> held;
  for (seconds expected : {seconds(2), seconds(4), seconds(6)}) {
    held.push_back(backOff.reserve(kBobAsAlice));
    EXPECT_EQ(held.back().wait(), expected);
  }
  EXPECT_EQ(waitNow(backOff, kAliceHerself), seconds(2)) << "her own line is not behind bob's";
  held.pop_back();
  held.pop_back();
  EXPECT_EQ(waitNow(backOff, kBobAsAlice), seconds(4)) << "abandoned turns are given back";

  // A turn further away than the largest delay is refused; nothing ever waits longer.
  for (int i = 0; i < 4; ++i) backOff.recordFailure(kBobAsAlice);  // the delay is now 32 s
  held.clear();
  held.push_back(backOff.reserve(kBobAsAlice));
  EXPECT_EQ(held.back().wait(), seconds(32));
  EXPECT_TRUE(backOff.reserve(kBobAsAlice).refused());
  EXPECT_EQ(waitNow(backOff, kAliceHerself), seconds(32));
  clock.advance(seconds(40));
  EXPECT_EQ(waitNow(backOff, kBobAsAlice), seconds(24)) << "one delay after the held turn";
}

TEST(BackOffTest, SuccessForgetsTheAccountAndTimeForgetsEverything) {
  ManualClock clock;
  BackOff backOff(clock);
  for (int i = 0; i < 3; ++i) backOff.recordFailure(kBobAsAlice);
  for (int i = 0; i < 3; ++i) backOff.recordFailure(madeUp("ghost", kCarol));
  backOff.recordSuccess(kAliceHerself);
  backOff.recordSuccess(known("carol", kCarol));
  EXPECT_EQ(waitNow(backOff, kBobAsAlice), seconds(0));
  EXPECT_EQ(waitNow(backOff, known("carol", kCarol)), seconds(2))
      << "carol's own success does not wipe what she failed to guess";

  clock.advance(minutes(15));
  EXPECT_EQ(waitNow(backOff, known("carol", kCarol)), seconds(0));
  backOff.recordFailure(madeUp("ghost", kCarol));
  EXPECT_EQ(waitNow(backOff, known("carol", kCarol)), seconds(0)) << "the count started again";
}

TEST(BackOffTest, NoFloodOfNamesForgetsACountOrEscapesTheWait) {
  ManualClock clock;
  BackOffLimits limits;
  limits.accountsPerRequester = 2;
  limits.capacity = 6;
  BackOff backOff(clock, limits);
  for (int i = 0; i < 3; ++i) backOff.recordFailure(kAliceHerself);

  // Made-up names cost their inventor, and only him, and take no room.
  for (int i = 0; i < 1000; ++i) backOff.recordFailure(madeUp("ghost" + std::to_string(i), kBob));
  EXPECT_EQ(waitNow(backOff, madeUp("anything", kBob)), seconds(60));
  EXPECT_EQ(waitNow(backOff, known("bob", kBob)), seconds(60)) << "his own account too";
  EXPECT_EQ(waitNow(backOff, known("someone", kCarol)), seconds(0));
  EXPECT_EQ(waitNow(backOff, kAliceHerself), seconds(2));

  // Carol opens two account counts; her failures for further accounts count against her.
  for (const char* account : {"dave", "erin", "frank"}) {
    for (int i = 0; i < 3; ++i) backOff.recordFailure(known(account, kCarol));
  }
  EXPECT_EQ(waitNow(backOff, known("dave", kCarol)), seconds(2));
  EXPECT_EQ(waitNow(backOff, known("frank", kDave)), seconds(0)) << "frank has no count";
  EXPECT_EQ(waitNow(backOff, known("frank", kCarol)), seconds(2)) << "carol's own count holds";

  // Grace's count fills the table (alice, dave, erin, grace, bob's and carol's own): whoever
  // finds no count of their own then shares the overflow count.
  backOff.recordFailure(known("grace", 1010));
  for (uid_t uid = 1011; uid < 1014; ++uid) backOff.recordFailure(known("heidi", uid));
  EXPECT_EQ(waitNow(backOff, known("heidi", 1020)), seconds(2));
  EXPECT_EQ(waitNow(backOff, kAliceHerself), seconds(2)) << "alice's count was never dropped";
}

}  // namespace
}  // namespace krv::auth
