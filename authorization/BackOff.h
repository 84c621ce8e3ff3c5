#pragma once
// BackOff: the delay imposed on password attempts for an account after repeated failures.
//
// Failures are counted per account name (the account being authenticated, whoever asks). The
// first `freeFailures` failures cost nothing beyond what PAM itself imposes; from then on every
// new attempt waits first: `initialDelay` after the third failure, doubling with each further one,
// at most `maximumDelay`. A success forgets the account's failures, and so does `forgetAfter`
// without a failure. At most `capacity` accounts are remembered; when full, the account whose last
// failure is oldest is forgotten first.
//
// Attempts made side by side (one user may hold several connections) do not share one wait: each
// attempt reserves its turn, and the next one in the same back-off goes one delay later, so that
// parallel connections gain no more guesses than one connection would.
//
// Time is the service's Clock. Thread-safe.

#include <chrono>
#include <cstddef>
#include <mutex>
#include <string>
#include <vector>

#include "authorization/Clock.h"

namespace krv::auth {

struct BackOffLimits {
  unsigned freeFailures = 3;
  Instant initialDelay = std::chrono::seconds(2);
  Instant maximumDelay = std::chrono::seconds(60);
  Instant forgetAfter = std::chrono::minutes(15);
  std::size_t capacity = 1024;
};

class BackOff {
 public:
  explicit BackOff(const Clock& clock, BackOffLimits limits = {});

  // How long an attempt for the account must still wait (zero when it may go ahead now).
  Instant delayBefore(const std::string& account) const;
  // As delayBefore, for an attempt about to be made: while the account is in back-off the attempt
  // takes its turn, and a concurrent attempt's turn comes one delay later.
  Instant reserveAttempt(const std::string& account);
  void recordFailure(const std::string& account);
  void recordSuccess(const std::string& account);

 private:
  struct Entry {
    std::string account;
    unsigned failures = 0;
    Instant lastFailure{};
    Instant reservedUntil{};  // the earliest time at which the next attempt may start
  };

  Instant delayAfter(unsigned failures) const;

  const Clock& m_clock;
  const BackOffLimits m_limits;
  mutable std::mutex m_mutex;
  std::vector<Entry> m_entries;
};

}  // namespace krv::auth
