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
  if (m_collecting && folder != m_current.folder) {
    close();
  }
  if (m_stopped) return;
  if (!m_collecting) {
    Result<UniqueFd> first = sys::duplicate(firstFolderFd);
    Result<UniqueFd> second =
        secondFolderFd >= 0 ? sys::duplicate(secondFolderFd) : Result<UniqueFd>(UniqueFd());
    if (!first || !second) {
      // Out of descriptors: this pair is worked at once, on the walk's own descriptors.
      Batch batch;
      batch.firstFolderFd = firstFolderFd;
      batch.secondFolderFd = secondFolderFd;
      batch.folder.assign(folder);
      batch.names.emplace_back(name);
      PairOutcome outcome = m_work(kWalkingThread, batch, 0);
      // Earlier batches first, to keep the order.
      std::unique_lock<std::mutex> lock(m_mutex);
      while (!m_slots.empty() && !m_stopped) {
        if (!workOne(lock, kWalkingThread)) {
          m_batchDone.wait(lock, [this] { return m_slots.front()->state == State::Done; });
        }
        deliverFinished(lock);
      }
      lock.unlock();
      if (!m_stopped && !m_deliver(std::move(outcome))) m_stopped = true;
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
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_slots.empty() && !m_stopped) {
    if (!workOne(lock, kWalkingThread)) {
      m_batchDone.wait(lock, [this] { return m_slots.front()->state == State::Done; });
    }
    deliverFinished(lock);
  }
}

void ComparisonBatches::close() {
  if (!m_collecting) return;
  m_collecting = false;
  auto slot = std::make_unique<Slot>();
  slot->batch = std::exchange(m_current, Batch{});
  push(std::move(slot));
}

// Adds a batch; keeps the number of batches bounded by working (or waiting for) the oldest ones,
// and delivers what is finished.
void ComparisonBatches::push(std::unique_ptr<Slot> slot) {
  std::unique_lock<std::mutex> lock(m_mutex);
  m_slots.push_back(std::move(slot));
  m_helperWake.notify_one();
  while (m_slots.size() > kMaximumBatches && !m_stopped) {
    if (!workOne(lock, kWalkingThread)) {
      m_batchDone.wait(lock, [this] { return m_slots.front()->state == State::Done; });
    }
    deliverFinished(lock);
  }
  deliverFinished(lock);
}

// The outcomes of the batch's first names, as far as the copies they keep stay within bounds.
void ComparisonBatches::workBatch(int worker, Batch& batch) {
  std::size_t kept = 0;
  for (std::size_t index = batch.outcomes.size(); index < batch.names.size(); ++index) {
    if (kept > kBatchRecordBytes) return;
    batch.outcomes.push_back(m_work(worker, batch, index));
    kept += footprint(batch.outcomes.back());
  }
}

// Works the oldest waiting batch with the lock released; false when none is waiting.
bool ComparisonBatches::workOne(std::unique_lock<std::mutex>& lock, int worker) {
  for (const std::unique_ptr<Slot>& slot : m_slots) {
    if (slot->state != State::Waiting) continue;
    Slot* taken = slot.get();  // the slot stays in the list (and in place) until it is delivered
    taken->state = State::Taken;
    lock.unlock();
    try {
      workBatch(worker, taken->batch);
    } catch (...) {
      // A batch left half worked (no memory for a copy, say) is finished on the walking thread
      // when it is delivered, where a failure reaches the command's own handling.
    }
    lock.lock();
    taken->state = State::Done;
    m_batchDone.notify_all();
    return true;
  }
  return false;
}

void ComparisonBatches::deliverBatch(Batch& batch) {
  for (std::size_t index = 0; index < batch.names.size() && !m_stopped; ++index) {
    // What the worker left for memory's sake is worked now, one pair at a time.
    PairOutcome outcome = index < batch.outcomes.size() ? std::move(batch.outcomes[index])
                                                        : m_work(kWalkingThread, batch, index);
    if (!m_deliver(std::move(outcome))) m_stopped = true;
  }
}

// Delivers the finished batches at the front, in order, with the lock released.
void ComparisonBatches::deliverFinished(std::unique_lock<std::mutex>& lock) {
  while (!m_slots.empty() && m_slots.front()->state == State::Done && !m_stopped) {
    std::unique_ptr<Slot> slot = std::move(m_slots.front());
    m_slots.pop_front();
    lock.unlock();
    deliverBatch(slot->batch);
    slot.reset();
    lock.lock();
  }
}

bool ComparisonBatches::anyWaiting() const {
  for (const std::unique_ptr<Slot>& slot : m_slots) {
    if (slot->state == State::Waiting) return true;
  }
  return false;
}

void ComparisonBatches::helperLoop(int worker) {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_helperWake.wait(lock, [this] { return m_stopping || anyWaiting(); });
    if (m_stopping) return;
    workOne(lock, worker);
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
