#include "authorization/TokenStore.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "authorization/Secret.h"
#include "foundation/System.h"

namespace krv::auth {

namespace {

Instant longestSharedTimeout() {
  Instant longest{};
  for (const Rule& rule : builtInRules()) {
    if (rule.shared) longest = std::max<Instant>(longest, rule.timeout);
  }
  return longest;
}

template <class T, class Key>
void eraseOldest(std::vector<T>& items, Key obtainedOf) {
  auto oldest = std::min_element(items.begin(), items.end(), [&](const T& a, const T& b) {
    return obtainedOf(a) < obtainedOf(b);
  });
  if (oldest != items.end()) items.erase(oldest);
}

}  // namespace

bool processHasExited(int pidfd) {
  pollfd entry{pidfd, POLLIN, 0};
  for (;;) {
    Result<std::size_t> ready = sys::poll({&entry, 1}, 0);
    // Readable, or the descriptor is unusable (POLLNVAL): either way the creator is gone for us.
    if (ready) return *ready > 0;
    // Out of memory for the poll itself says nothing about the process: the idle limit still ends
    // the token, a shortage must not.
    if (ready.error().code() != EINTR) return false;
  }
}

TokenStore::TokenStore(const Clock& clock, TokenLimits limits) : m_clock(clock), m_limits(limits) {}

std::int32_t TokenStore::create(Creator creator, ExternalForm& token) {
  std::lock_guard<std::mutex> lock(m_mutex);
  expireLocked(m_clock.now());
  if (m_records.size() >= m_limits.total) return kStatusInternal;
  std::size_t ofUser = 0;
  for (const Record& record : m_records) ofUser += record.creatorUid == creator.uid ? 1 : 0;
  if (ofUser >= m_limits.perUser) return kStatusInternal;

  ExternalForm minted{};
  do {
    if (!sys::getRandom(minted)) return kStatusInternal;
  } while (std::all_of(minted.begin(), minted.end(), [](std::uint8_t b) { return b == 0; }));

  Record record;
  record.id = m_nextId++;
  record.tokenHash = Sha256::digest(minted);
  record.creatorUid = creator.uid;
  record.session = creator.session;
  record.process = std::move(creator.process);
  record.lastUsed = m_clock.now();
  m_records.push_back(std::move(record));
  token = minted;
  wipe(minted.data(), minted.size());
  return kStatusSuccess;
}

std::optional<TokenStore::Entry> TokenStore::find(const ExternalForm& token) {
  const Sha256::Digest hash = Sha256::digest(token);
  std::lock_guard<std::mutex> lock(m_mutex);
  // Every record is compared, match or not, so the time taken says nothing about the tokens held.
  std::size_t match = m_records.size();
  for (std::size_t i = 0; i < m_records.size(); ++i) {
    bool equal = digestsEqual(hash, m_records[i].tokenHash);
    match = equal ? i : match;
  }
  if (match == m_records.size()) return std::nullopt;
  Record& record = m_records[match];
  const Instant now = m_clock.now();
  if ((record.process.valid() && processHasExited(record.process.get())) ||
      now - record.lastUsed >= m_limits.idleLifetime) {
    eraseLocked(record.id, false);
    return std::nullopt;
  }
  record.lastUsed = now;
  return Entry{record.id, record.creatorUid, record.session};
}

Verdict TokenStore::evaluate(std::uint64_t id, std::string_view right, const Rule* rule,
                             const Subject& subject, Use use) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Record* record = recordLocked(id);
  if (record == nullptr) return Verdict::Gone;
  if (rule == nullptr) return Verdict::Denied;
  switch (rule->ruleClass) {
    case RuleClass::Allow:
      return Verdict::Granted;
    case RuleClass::Deny:
      return Verdict::Denied;
    case RuleClass::IsRoot:
      return subject.uid == 0 ? Verdict::Granted : Verdict::Denied;
    case RuleClass::IsAdministrator:
      return subject.uid == 0 || subject.administrator ? Verdict::Granted : Verdict::Denied;
    case RuleClass::AuthenticateAdministrator:
    case RuleClass::AuthenticateSessionOwnerOrAdministrator:
      break;
  }
  if (subject.uid == 0) return Verdict::Granted;

  const Instant now = m_clock.now();
  for (const Credential& credential : record->credentials) {
    if (credentialSatisfies(*rule, credential, subject.uid, now)) return Verdict::Granted;
  }
  if (rule->shared) {
    for (const SharedCredential& shared : m_shared) {
      if (shared.creatorUid == record->creatorUid && shared.session == record->session &&
          credentialSatisfies(*rule, shared.credential, subject.uid, now)) {
        return Verdict::Granted;
      }
    }
  }
  if (use == Use::Validation && rule->timeout.count() == 0) {
    auto& pending = record->preAuthorizations;
    for (auto it = pending.begin(); it != pending.end(); ++it) {
      const Instant obtained = it->credential.obtained;
      if (it->right == right && credentialQualifies(*rule, it->credential, subject.uid) &&
          now >= obtained && now - obtained < m_limits.preAuthorizationLifetime) {
        pending.erase(it);
        return Verdict::Granted;
      }
    }
  }
  return Verdict::NeedsAuthentication;
}

bool TokenStore::addCredential(std::uint64_t id, std::string_view right, const Rule& rule,
                               const Credential& credential, bool preAuthorize) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Record* record = recordLocked(id);
  if (record == nullptr) return false;
  Credential owned = credential;
  owned.origin = id;

  auto obtainedOfCredential = [](const Credential& c) { return c.obtained; };
  if (record->credentials.size() >= m_limits.credentialsPerAuthorization) {
    eraseOldest(record->credentials, obtainedOfCredential);
  }
  record->credentials.push_back(owned);

  if (rule.shared) {
    auto obtainedOfShared = [](const SharedCredential& s) { return s.credential.obtained; };
    std::size_t inSession = 0;
    auto oldestInSession = m_shared.end();
    for (auto it = m_shared.begin(); it != m_shared.end(); ++it) {
      if (it->creatorUid != record->creatorUid || it->session != record->session) continue;
      ++inSession;
      if (oldestInSession == m_shared.end() ||
          it->credential.obtained < oldestInSession->credential.obtained) {
        oldestInSession = it;
      }
    }
    if (inSession >= m_limits.sharedPerSession) {
      m_shared.erase(oldestInSession);
    } else if (m_shared.size() >= m_limits.sharedTotal) {
      eraseOldest(m_shared, obtainedOfShared);
    }
    m_shared.push_back(SharedCredential{record->creatorUid, record->session, owned});
  }

  if (preAuthorize && rule.timeout.count() == 0) {
    auto obtainedOfPending = [](const PreAuthorization& p) { return p.credential.obtained; };
    if (record->preAuthorizations.size() >= m_limits.preAuthorizationsPerAuthorization) {
      eraseOldest(record->preAuthorizations, obtainedOfPending);
    }
    record->preAuthorizations.push_back(PreAuthorization{std::string(right), owned});
  }
  return true;
}

bool TokenStore::free(std::uint64_t id, bool destroyRights) {
  std::lock_guard<std::mutex> lock(m_mutex);
  if (recordLocked(id) == nullptr) return false;
  eraseLocked(id, destroyRights);
  return true;
}

bool TokenStore::destroyRights(std::uint64_t id) {
  std::lock_guard<std::mutex> lock(m_mutex);
  Record* record = recordLocked(id);
  if (record == nullptr) return false;
  record->credentials.clear();
  record->preAuthorizations.clear();
  dropSharedLocked(id);
  return true;
}

void TokenStore::sweep() {
  std::lock_guard<std::mutex> lock(m_mutex);
  std::vector<pollfd> processes;
  std::vector<std::uint64_t> ids;
  for (const Record& record : m_records) {
    if (!record.process.valid()) continue;
    processes.push_back(pollfd{record.process.get(), POLLIN, 0});
    ids.push_back(record.id);
  }
  if (Result<std::size_t> ready = sys::poll(processes, 0); ready && *ready > 0) {
    for (std::size_t i = 0; i < processes.size(); ++i) {
      if (processes[i].revents != 0) eraseLocked(ids[i], false);
    }
  }
  expireLocked(m_clock.now());
}

std::size_t TokenStore::liveCount() const {
  std::lock_guard<std::mutex> lock(m_mutex);
  return m_records.size();
}

TokenStore::Record* TokenStore::recordLocked(std::uint64_t id) {
  for (Record& record : m_records) {
    if (record.id == id) return &record;
  }
  return nullptr;
}

void TokenStore::eraseLocked(std::uint64_t id, bool destroyRights) {
  if (destroyRights) dropSharedLocked(id);
  std::erase_if(m_records, [id](const Record& record) { return record.id == id; });
}

void TokenStore::dropSharedLocked(std::uint64_t origin) {
  std::erase_if(m_shared, [origin](const SharedCredential& shared) {
    return shared.credential.origin == origin;
  });
}

void TokenStore::expireLocked(Instant now) {
  std::erase_if(m_records, [&](const Record& record) {
    return now - record.lastUsed >= m_limits.idleLifetime;
  });
  static const Instant kLongestShared = longestSharedTimeout();
  std::erase_if(m_shared, [&](const SharedCredential& shared) {
    return now - shared.credential.obtained >= kLongestShared;
  });
  for (Record& record : m_records) {
    std::erase_if(record.preAuthorizations, [&](const PreAuthorization& pending) {
      return now - pending.credential.obtained >= m_limits.preAuthorizationLifetime;
    });
  }
}

}  // namespace krv::auth
