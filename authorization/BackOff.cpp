#include "authorization/BackOff.h"

#include <algorithm>
#include <utility>

namespace krv::auth {

BackOff::Turn::Turn(Turn&& other) noexcept
    : m_owner(std::exchange(other.m_owner, nullptr)),
      m_ticket(other.m_ticket),
      m_wait(other.m_wait),
      m_refused(other.m_refused) {}

BackOff::Turn::~Turn() {
  if (m_owner != nullptr) m_owner->release(m_ticket);
}

BackOff::BackOff(const Clock& clock, BackOffLimits limits) : m_clock(clock), m_limits(limits) {
  m_overflow.kind = Kind::Overflow;
}

Instant BackOff::delayAfter(unsigned failures) const {
  if (failures < m_limits.freeFailures) return Instant::zero();
  Instant delay = m_limits.initialDelay;
  for (unsigned extra = failures - m_limits.freeFailures; extra > 0; --extra) {
    if (delay >= m_limits.maximumDelay) break;
    delay *= 2;
  }
  return std::min(delay, m_limits.maximumDelay);
}

void BackOff::forgetLocked(Instant now) {
  std::erase_if(m_entries, [&](const Entry& entry) {
    return now - entry.lastFailure >= m_limits.forgetAfter;
  });
  if (now - m_overflow.lastFailure >= m_limits.forgetAfter) m_overflow.failures = 0;
}

BackOff::Entry* BackOff::accountEntryLocked(const AttemptKey& attempt) {
  if (!attempt.accountKnown) return nullptr;
  auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) {
    return entry.kind == Kind::Account && entry.account == attempt.account;
  });
  return found != m_entries.end() ? &*found : nullptr;
}

BackOff::Entry* BackOff::requesterEntryLocked(uid_t requester) {
  auto found = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& entry) {
    return entry.kind == Kind::Requester && entry.uid == requester;
  });
  return found != m_entries.end() ? &*found : nullptr;
}

BackOff::Turn BackOff::reserve(const AttemptKey& attempt) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const Instant now = m_clock.now();
  forgetLocked(now);
  Entry* concerned[2] = {accountEntryLocked(attempt), requesterEntryLocked(attempt.requester)};
  if (concerned[0] == nullptr && concerned[1] == nullptr) concerned[0] = &m_overflow;

  // Only an account's count keeps separate lines for its own user and for others.
  auto lineIn = [&](const Entry& entry) {
    return entry.kind == Kind::Account && attempt.ownAccount;
  };
  Instant start = now;
  for (const Entry* entry : concerned) {
    if (entry == nullptr) continue;
    const Instant step = delayAfter(entry->failures);
    if (step == Instant::zero()) continue;
    start = std::max(start, entry->lastFailure + step);
    for (const Slot& slot : entry->turns) {
      if (slot.ownLine == lineIn(*entry)) start = std::max(start, slot.start + step);
    }
  }
  if (start - now > m_limits.maximumDelay) return Turn(nullptr, 0, Instant::zero(), true);

  const std::uint64_t ticket = m_nextTicket++;
  for (Entry* entry : concerned) {
    if (entry == nullptr || delayAfter(entry->failures) == Instant::zero()) continue;
    entry->turns.push_back(Slot{ticket, lineIn(*entry), start});
  }
  return Turn(this, ticket, start - now, false);
}

void BackOff::recordFailure(const AttemptKey& attempt) {
  std::lock_guard<std::mutex> lock(m_mutex);
  const Instant now = m_clock.now();
  forgetLocked(now);
  auto count = [now](Entry& entry) {
    ++entry.failures;
    entry.lastFailure = now;
  };
  if (Entry* account = accountEntryLocked(attempt)) return count(*account);
  const bool room = m_entries.size() < m_limits.capacity;
  if (attempt.accountKnown && room) {
    const auto opened = std::count_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) {
      return e.kind == Kind::Account && e.uid == attempt.requester;
    });
    if (static_cast<std::size_t>(opened) < m_limits.accountsPerRequester) {
      m_entries.push_back(Entry{Kind::Account, attempt.account, attempt.requester, 1, now, {}});
      return;
    }
  }
  if (Entry* requester = requesterEntryLocked(attempt.requester)) return count(*requester);
  if (room) {
    m_entries.push_back(Entry{Kind::Requester, {}, attempt.requester, 1, now, {}});
    return;
  }
  count(m_overflow);
}

void BackOff::recordSuccess(const AttemptKey& attempt) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (!attempt.accountKnown) return;
  std::erase_if(m_entries, [&](const Entry& entry) {
    return entry.kind == Kind::Account && entry.account == attempt.account;
  });
}

void BackOff::release(std::uint64_t ticket) {
  std::lock_guard<std::mutex> lock(m_mutex);
  auto drop = [ticket](Entry& entry) {
    std::erase_if(entry.turns, [ticket](const Slot& slot) { return slot.ticket == ticket; });
  };
  for (Entry& entry : m_entries) drop(entry);
  drop(m_overflow);
}

}  // namespace krv::auth
