#pragma once
// Clock: the time source of the authorization service. Credentials, tokens and back-off are
// measured on a clock that keeps running while the machine is suspended (CLOCK_BOOTTIME), so a
// credential obtained before a suspend does not outlive its timeout by the time spent asleep, and
// changes of the wall clock have no effect.
//
// Times are durations since an unspecified start (the boot, for BootClock). ManualClock is the
// clock of tests: it stands still until told to move. Both are thread-safe.

#include <atomic>
#include <chrono>

namespace krv::auth {

using Instant = std::chrono::nanoseconds;

class Clock {
 public:
  virtual ~Clock() = default;
  virtual Instant now() const = 0;
};

class BootClock final : public Clock {
 public:
  Instant now() const override;
};

class ManualClock final : public Clock {
 public:
  explicit ManualClock(Instant start = std::chrono::hours(1)) : m_now(start.count()) {}
  Instant now() const override { return Instant(m_now.load()); }
  void advance(Instant by) { m_now += by.count(); }
  void set(Instant to) { m_now = to.count(); }

 private:
  std::atomic<Instant::rep> m_now;
};

}  // namespace krv::auth
