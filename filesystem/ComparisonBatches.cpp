#include "filesystem/ComparisonBatches.h"

#include <algorithm>
#include <system_error>
#include <utility>

#include "foundation/System.h"

namespace krv {

namespace {

constexpr int kWalkingThread = 0;

std::size_t footprint(const PairOutcome& outcome) {
  std::size_t bytes = sizeof outcome;
  if (outcome.first) bytes += outcome.first->memoryFootprint();
  if (outcome.second) bytes += outcome.second->memoryFootprint();
  return bytes;
}

}  // namespace

ComparisonBatches::ComparisonBatches(Work work, Deliver deliver)
    : m_work(std::move(work)), m_deliver(std::move(deliver)) {
  const int processors = static_cast<int>(std::thread::hardware_concurrency());
  const int helpers = std::clamp(processors - 1, 1, kMaximumHelpers);
  try {
    for (int worker = 1; worker <= helpers; ++worker) {
      m_helpers.emplace_back([this, worker] { helperLoop(worker); });
    }
  } catch (const std::system_error&) {
    // Fewer threads to be had: those that started (or the walking thread alone) do the work.
  }
}

ComparisonBatches::~ComparisonBatches() { stopHelpers(); }

void ComparisonBatches::add(int firstFolderFd, int secondFolderFd, std::string_view folder,
                            std::string_view name) {
  if (m_stopped) return;
  if (m_collecting && folder != m_current.folder) close();
  if (m_stopped) return;
  if (!m_collecting) {
    Result<UniqueFd> first = sys::duplicate(firstFolderFd);
    Result<UniqueFd> second =
        secondFolderFd >= 0 ? sys::duplicate(secondFolderFd) : Result<UniqueFd>(UniqueFd());
    if (!first || !second) {
      // Out of descriptors: this pair is worked at once, on the walk's own descriptors, after
      // everything added before it.
      while (!m_slots.empty() && !m_stopped) deliverOldest();
      if (m_stopped) return;
      Batch batch;
      batch.firstFolderFd = firstFolderFd;
      batch.secondFolderFd = secondFolderFd;
      batch.folder.assign(folder);
      batch.names.emplace_back(name);
      if (!m_deliver(m_work(kWalkingThread, batch, 0))) m_stopped = true;
      return;
    }
    m_current.ownedFirstFolder = std::move(*first);
    m_current.ownedSecondFolder = std::move(*second);
    m_current.firstFolderFd = m_current.ownedFirstFolder.get();
    // A folder reached by path (AT_FDCWD) or missing (-1) is passed on as it is.
    m_current.secondFolderFd =
        secondFolderFd >= 0 ? m_current.ownedSecondFolder.get() : secondFolderFd;
    m_current.folder.assign(folder);
    m_collecting = true;
  }
  m_current.names.emplace_back(name);
  if (m_current.names.size() >= kBatchObjects) close();
}

void ComparisonBatches::finish() {
  close();
  while (!m_slots.empty() && !m_stopped) deliverOldest();
}

void ComparisonBatches::close() {
  if (!m_collecting) return;
  m_collecting = false;
  auto slot = std::make_shared<Slot>();
  slot->batch = std::exchange(m_current, Batch{});
  slot->states.assign(slot->batch.names.size(), PairState::Open);
  slot->outcomes.resize(slot->batch.names.size());
  push(std::move(slot));
}

void ComparisonBatches::push(std::shared_ptr<Slot> slot) {
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_slots.push_back(std::move(slot));
  }
  m_helperWake.notify_one();
  while (m_slots.size() > kMaximumBatches && !m_stopped) deliverOldest();
}

void ComparisonBatches::deliverOldest() {
  std::shared_ptr<Slot> slot;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    slot = std::move(m_slots.front());
    m_slots.pop_front();
  }
  for (std::size_t index = 0; index < slot->batch.names.size() && !m_stopped; ++index) {
    PairOutcome outcome;
    bool done = false;
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      if (slot->states[index] == PairState::Done) {
        outcome = std::move(slot->outcomes[index]);
        done = true;
      } else {
        // Not finished by a helper (perhaps one without a processor just now): worked here, and
        // whatever the helper comes back with is dropped.
        slot->states[index] = PairState::Dropped;
        slot->nextOpen = std::max(slot->nextOpen, index + 1);
      }
    }
    if (!done) outcome = m_work(kWalkingThread, slot->batch, index);
    if (!m_deliver(std::move(outcome))) m_stopped = true;
  }
}

std::shared_ptr<ComparisonBatches::Slot> ComparisonBatches::slotForHelper() const {
  for (auto slot = m_slots.rbegin(); slot != m_slots.rend(); ++slot) {
    if ((*slot)->nextOpen < (*slot)->batch.names.size() &&
        (*slot)->keptBytes <= kBatchRecordBytes) {
      return *slot;
    }
  }
  return nullptr;
}

void ComparisonBatches::helperLoop(int worker) {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    std::shared_ptr<Slot> slot;
    m_helperWake.wait(lock, [&] { return m_stopping || (slot = slotForHelper()) != nullptr; });
    if (m_stopping) return;
    const std::size_t index = slot->nextOpen++;
    slot->states[index] = PairState::Working;
    lock.unlock();
    PairOutcome outcome;
    bool worked = true;
    try {
      outcome = m_work(worker, slot->batch, index);
    } catch (...) {
      // No memory for a copy, say: the walking thread works the pair again when it gets there,
      // where a failure reaches the command's own handling.
      worked = false;
    }
    lock.lock();
    if (slot->states[index] == PairState::Working) {
      if (worked) {
        slot->keptBytes += footprint(outcome);
        slot->outcomes[index] = std::move(outcome);
      }
      slot->states[index] = worked ? PairState::Done : PairState::Open;
    }
  }
}

void ComparisonBatches::stopHelpers() {
  if (m_helpers.empty()) return;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_helperWake.notify_all();
  for (std::thread& helper : m_helpers) helper.join();
}

}  // namespace krv
