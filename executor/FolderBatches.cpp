#include "executor/FolderBatches.h"

#include <system_error>
#include <utility>

#include "foundation/System.h"

namespace krv {

FolderBatches::FolderBatches(Function work, Function deliver)
    : m_work(std::move(work)), m_deliver(std::move(deliver)) {
  try {
    m_helper = std::thread([this] { helperLoop(); });
  } catch (const std::system_error&) {
    // No thread to be had: the walking thread works every batch itself.
  }
}

FolderBatches::~FolderBatches() { stopHelper(); }

void FolderBatches::add(int folderFd, std::string_view folderPath, std::string_view name) {
  if (m_collecting && folderPath != m_current.folderPath) close();
  if (!m_collecting) {
    Result<UniqueFd> folder = sys::duplicate(folderFd);
    if (!folder) {
      // Out of descriptors: this object is worked at once, on the walk's own descriptor.
      auto slot = std::make_unique<Slot>();
      slot->batch.folder = UniqueFd(folderFd);
      slot->batch.folderPath.assign(folderPath);
      slot->batch.names.assign(name).push_back('\0');
      m_work(slot->batch);
      (void)slot->batch.folder.release();
      slot->state = State::Done;
      push(std::move(slot));
      return;
    }
    m_current.folder = std::move(*folder);
    m_current.folderPath.assign(folderPath);
    m_collecting = true;
  }
  m_current.names.append(name).push_back('\0');
  m_currentPathBytes += folderPath.size() + name.size();
  if (m_current.names.size() >= kBatchBytes || m_currentPathBytes >= kBatchPathBytes) close();
}

void FolderBatches::mark(std::uint64_t number) {
  close();
  auto slot = std::make_unique<Slot>();
  slot->batch.isMark = true;
  slot->batch.mark = number;
  slot->state = State::Done;
  push(std::move(slot));
}

void FolderBatches::finish() {
  close();
  std::unique_lock<std::mutex> lock(m_mutex);
  while (!m_slots.empty()) {
    if (!workOne(lock)) {
      m_batchDone.wait(lock, [this] { return m_slots.front()->state == State::Done; });
    }
    deliverFinished(lock);
  }
}

void FolderBatches::close() {
  if (!m_collecting) return;
  m_collecting = false;
  m_currentPathBytes = 0;
  auto slot = std::make_unique<Slot>();
  slot->batch = std::exchange(m_current, Batch{});
  push(std::move(slot));
}

// Adds a batch to the list; keeps the number of batches bounded by working (or waiting for) the
// oldest ones, and delivers what is finished.
void FolderBatches::push(std::unique_ptr<Slot> slot) {
  std::unique_lock<std::mutex> lock(m_mutex);
  const bool waiting = slot->state == State::Waiting;
  m_slots.push_back(std::move(slot));
  if (waiting) m_helperWake.notify_one();
  while (m_slots.size() > kMaximumBatches) {
    if (!workOne(lock)) {
      m_batchDone.wait(lock, [this] { return m_slots.front()->state == State::Done; });
    }
    deliverFinished(lock);
  }
  deliverFinished(lock);
}

// Works the oldest waiting batch with the lock released; false when none is waiting.
bool FolderBatches::workOne(std::unique_lock<std::mutex>& lock) {
  for (const std::unique_ptr<Slot>& slot : m_slots) {
    if (slot->state != State::Waiting) continue;
    Slot* taken = slot.get();  // the slot stays in the list (and in place) until it is delivered
    taken->state = State::Taken;
    lock.unlock();
    m_work(taken->batch);
    lock.lock();
    taken->state = State::Done;
    m_batchDone.notify_all();
    return true;
  }
  return false;
}

// Delivers the finished batches at the front, in order, with the lock released.
void FolderBatches::deliverFinished(std::unique_lock<std::mutex>& lock) {
  while (!m_slots.empty() && m_slots.front()->state == State::Done) {
    std::unique_ptr<Slot> slot = std::move(m_slots.front());
    m_slots.pop_front();
    lock.unlock();
    m_deliver(slot->batch);
    slot.reset();
    lock.lock();
  }
}

bool FolderBatches::anyWaiting() const {
  for (const std::unique_ptr<Slot>& slot : m_slots) {
    if (slot->state == State::Waiting) return true;
  }
  return false;
}

void FolderBatches::helperLoop() {
  std::unique_lock<std::mutex> lock(m_mutex);
  for (;;) {
    m_helperWake.wait(lock, [this] { return m_stopping || anyWaiting(); });
    if (!workOne(lock) && m_stopping) return;
  }
}

void FolderBatches::stopHelper() {
  if (!m_helper.joinable()) return;
  {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_stopping = true;
  }
  m_helperWake.notify_one();
  m_helper.join();
}

}  // namespace krv
