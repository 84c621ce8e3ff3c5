#include "authorization/BackOff.h"

#include <algorithm>

namespace krv::auth {

BackOff::BackOff(const Clock& clock, BackOffLimits limits) : m_clock(clock), m_limits(limits) {}

Instant BackOff::delayAfter(unsigned failures) const {
  if (failures < m_limits.freeFailures) return Instant::zero();
  Instant delay = m_limits.initialDelay;
  for (unsigned extra = failures - m_limits.freeFailures; extra > 0; --extra) {
    if (delay >= m_limits.maximumDelay) break;
    delay *= 2;
  }
  return std::min(delay, m_limits.maximumDelay);
}

Instant BackOff::delayBefore(const std::string& account) const {
  std::lock_guard<std::mutex> lock(m_mutex);
  const Instant now = m_clock.now();
  for (const Entry& entry : m_entries) {
    if (entry.account != account) continue;
    if (now - entry.lastFailure >= m_limits.forgetAfter) return Instant::zero();
    const Instant until = entry.lastFailure + delayAfter(entry.failures);
    return until > now ? until - now : Instant::zero();
  }
  return Instant::zero();
}

Instant BackOff::reserveAttempt(const std::string& account) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const Instant now = m_clock.now();
  for (Entry& entry : m_entries) {
    if (entry.account != account) continue;
    if (now - entry.lastFailure >= m_limits.forgetAfter) return Instant::zero();
    const Instant step = delayAfter(entry.failures);
    if (step == Instant::zero()) return Instant::zero();
    const Instant start = std::max({now, entry.lastFailure + step, entry.reservedUntil});
    entry.reservedUntil = start + step;
    return start - now;
  }
  return Instant::zero();
}

void BackOff::recordFailure(const std::string& account) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const Instant now = m_clock.now();
  std::erase_if(m_entries, [&](const Entry& entry) {
    return now - entry.lastFailure >= m_limits.forgetAfter;
  });
  for (Entry& entry : m_entries) {
    if (entry.account != account) continue;
    ++entry.failures;
    entry.lastFailure = now;
    return;
  }
  if (m_entries.size() >= m_limits.capacity && !m_entries.empty()) {
    auto oldest = std::min_element(
        m_entries.begin(), m_entries.end(),
        [](const Entry& a, const Entry& b) { return a.lastFailure < b.lastFailure; });
    m_entries.erase(oldest);
  }
  m_entries.push_back(Entry{account, 1, now});
}

void BackOff::recordSuccess(const std::string& account) {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::erase_if(m_entries, [&](const Entry& entry) { return entry.account == account; });
}

}  // namespace krv::auth
