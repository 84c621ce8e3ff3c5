#pragma once
// BackOff: the delay imposed on password attempts after repeated failures.
//
// Counting. Failures are counted per account being authenticated, whoever asks. A failure for an
// account the system does not know is counted against the uid that asks (the requester, from
// SO_PEERCRED): made-up names cost their inventor and take no room. The first `freeFailures`
// failures of a count cost nothing beyond what PAM imposes; from then on every attempt the count
// concerns waits first: `initialDelay` after the third failure, doubling with each further one, at
// most `maximumDelay`. A success forgets the account's count (never the requester's); so does
// `forgetAfter` without a failure, for any count.
//
// Bounds. Nothing counted is forgotten early: the table is bounded by what may enter it instead.
// One requester's failures open at most `accountsPerRequester` account counts; beyond, its
// failures for accounts without a count of their own go to the requester's count. At most
// `capacity` counts exist in all; beyond, a failure that finds no count of its own goes to one
// shared overflow count, which every attempt without a count of its own then obeys. So no flood of
// names, however large, frees a guesser from the wait.
//
// Turns. An attempt obeys the account's count and the requester's (the overflow count when it has
// neither), and reserves a Turn in them: one delay after the last failure and one delay after the
// turn before it, so parallel connections gain no more guesses than one connection would. Attempts
// of the account's own user and attempts of others take turns in separate lines, so that nobody
// else can make a user wait for her own account longer than one delay. A Turn ends with its
// attempt, made or abandoned, and no longer holds anybody back. A turn further away than
// `maximumDelay` is not given: such an attempt is refused at once, and no attempt ever waits
// longer than `maximumDelay`.
//
// Time is the service's Clock. Thread-safe; a Turn must not outlive its BackOff.

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
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
  std::size_t accountsPerRequester = 16;
  std::size_t capacity = 4096;
};

// One attempt to authenticate, as the back-off sees it.
struct AttemptKey {
  std::string account;        // the account being authenticated
  bool accountKnown = false;  // the system knows the account
  bool ownAccount = false;    // the requester is the account's own user
  uid_t requester = 0;        // who asks
};

class BackOff {
 public:
  // A reserved turn: the wait before the attempt, or a refusal. Releases its place when destroyed.
  class Turn {
   public:
    Turn(Turn&& other) noexcept;
    Turn& operator=(Turn&&) = delete;
    Turn(const Turn&) = delete;
    Turn& operator=(const Turn&) = delete;
    ~Turn();

    bool refused() const { return m_refused; }
    Instant wait() const { return m_wait; }

   private:
    friend class BackOff;
    Turn(BackOff* owner, std::uint64_t ticket, Instant wait, bool refused)
        : m_owner(owner), m_ticket(ticket), m_wait(wait), m_refused(refused) {}

    BackOff* m_owner;
    std::uint64_t m_ticket;
    Instant m_wait;
    bool m_refused;
  };

  explicit BackOff(const Clock& clock, BackOffLimits limits = {});

  Turn reserve(const AttemptKey& attempt);
  void recordFailure(const AttemptKey& attempt);
  void recordSuccess(const AttemptKey& attempt);

 private:
  enum class Kind : std::uint8_t { Account, Requester, Overflow };
  struct Slot {
    std::uint64_t ticket = 0;
    bool ownLine = false;
    Instant start{};
  };
  struct Entry {
    Kind kind = Kind::Account;
    std::string account;  // Account
    uid_t uid = 0;        // Account: the requester who opened it; Requester: the requester
    unsigned failures = 0;
    Instant lastFailure{};
    std::vector<Slot> turns;
  };

  Instant delayAfter(unsigned failures) const;
  void forgetLocked(Instant now);
  Entry* accountEntryLocked(const AttemptKey& attempt);
  Entry* requesterEntryLocked(uid_t requester);
  void release(std::uint64_t ticket);

  const Clock& m_clock;
  const BackOffLimits m_limits;
  std::mutex m_mutex;
  std::vector<Entry> m_entries;
  Entry m_overflow;
  std::uint64_t m_nextTicket = 1;
};

}  // namespace krv::auth
