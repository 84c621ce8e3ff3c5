#pragma once
// ComparisonBatches: shares the first pass of a folder comparison - the two snapshots of each pair
// of objects and the questions asked of them - between the walking thread and one helper thread,
// and hands the outcomes back on the walking thread in walk order, so that the comparator's hooks
// see exactly what a walk on one thread would show them.
//
// The walking thread adds the pairs it meets, each as a name in an open folder of the first tree
// and the matching folder of the second (see filesystem/FolderMirror.h). The names of one folder
// are gathered into batches of at most kBatchObjects, which carry descriptors of both folders of
// their own (the walk closes its descriptors when it leaves a folder). At most kMaximumBatches are
// under way; beyond that the walking thread delivers the oldest. Outcomes are delivered one pair
// at a time, strictly in the order the pairs were added; a delivery that answers false ends the
// pass: nothing more is delivered, and what was worked ahead is dropped (working changes nothing,
// so working ahead is harmless).
//
// Sharing: helper threads - one for each processor beyond the first, at least one and at most
// kMaximumHelpers - work pairs from the newest batch back, while the walking thread delivers from
// the oldest and works every pair it reaches that no helper has finished. It never waits for a
// helper: a pair a helper is still working on is worked again by the walking thread, and the
// helper's outcome is dropped. So a helper that gets no processor (a busy machine) costs the
// comparison nothing but its own share, and one that does takes work off the walking thread.
//
// Memory: a pair whose objects differ keeps copies of both snapshots until it is delivered. The
// helpers stop working a batch once the copies it keeps take kBatchRecordBytes; the walking thread
// works the rest when it delivers the batch. So memory is bounded by kMaximumBatches batches,
// however many attributes the objects carry. When no thread can be started, or no descriptor can
// be had for a batch, the walking thread works every pair itself.
//
// Threads: add() and finish() belong to the walking thread; the work function runs on any of the
// threads with the worker number of the thread (0 the walking thread, 1 .. kMaximumHelpers the
// helpers), the delivery function on the walking thread only.

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "filesystem/FolderComparator.h"
#include "foundation/UniqueFd.h"

namespace krv {

struct PairOutcome {
  FolderMismatches mismatches = 0;
  // Copies of the snapshots when the objects differ.
  std::shared_ptr<const KRVFileSystemObjectDescription> first;
  std::shared_ptr<const KRVFileSystemObjectDescription> second;
};

class ComparisonBatches {
 public:
  static constexpr std::size_t kBatchObjects = 64;
  static constexpr int kMaximumHelpers = 3;
  // Batches under way: two for each thread.
  static constexpr std::size_t kMaximumBatches = 2 * (kMaximumHelpers + 1);
  static constexpr std::size_t kBatchRecordBytes = 1024 * 1024;

  // Where a batch's pairs are: the folders (secondFolderFd -1 when that folder is not there,
  // AT_FDCWD when its objects are reached by path), the folder's path relative to the roots, the
  // names.
  struct Batch {
    int firstFolderFd = -1;
    int secondFolderFd = -1;
    UniqueFd ownedFirstFolder;  // the batch's own descriptors of the folders
    UniqueFd ownedSecondFolder;
    std::string folder;
    std::vector<std::string> names;
  };
  using Work = std::function<PairOutcome(int worker, const Batch& batch, std::size_t index)>;
  using Deliver = std::function<bool(PairOutcome outcome)>;

  ComparisonBatches(Work work, Deliver deliver);
  // Stops the helpers; pairs not yet delivered are dropped.
  ~ComparisonBatches();
  ComparisonBatches(const ComparisonBatches&) = delete;
  ComparisonBatches& operator=(const ComparisonBatches&) = delete;

  // The pair `name` of the folder open at firstFolderFd (the first tree) and at secondFolderFd (the
  // second: -1 when the folder is not there, AT_FDCWD when its objects are reached by path), whose
  // relative path is `folder`.
  void add(int firstFolderFd, int secondFolderFd, std::string_view folder, std::string_view name);
  // Works and delivers everything added so far.
  void finish();
  // Whether a delivery ended the pass.
  bool stopped() const { return m_stopped; }

 private:
  enum class PairState : unsigned char { Open, Working, Done, Dropped };
  // A batch under way; the states, outcomes and counters are guarded by m_mutex. Shared with the
  // helpers, since a helper may still be working on a pair of a batch already delivered.
  struct Slot {
    Batch batch;
    std::vector<PairState> states;
    std::vector<PairOutcome> outcomes;
    std::size_t nextOpen = 0;  // pairs below are taken, by a helper or the walking thread
    std::size_t keptBytes = 0;
  };

  void close();
  void push(std::shared_ptr<Slot> slot);
  void deliverOldest();
  // The newest batch that has a pair a helper may take.
  std::shared_ptr<Slot> slotForHelper() const;
  void helperLoop(int worker);
  void stopHelpers();

  Work m_work;
  Deliver m_deliver;
  Batch m_current;
  bool m_collecting = false;
  bool m_stopped = false;

  std::mutex m_mutex;
  std::condition_variable m_helperWake;
  std::deque<std::shared_ptr<Slot>> m_slots;  // in the order added; guarded by m_mutex
  bool m_stopping = false;                    // guarded by m_mutex
  std::vector<std::thread> m_helpers;
};

}  // namespace krv
