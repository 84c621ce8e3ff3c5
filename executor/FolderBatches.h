#pragma once
// FolderBatches: shares the per-object work of a walk (reading statuses, mostly) between the
// walking thread and one helper thread, and hands the results back in walk order.
//
// The walking thread adds the objects it meets, each as the name in an open folder; the names of
// one folder are gathered into batches that carry a descriptor of that folder of their own (the
// walk closes its descriptor when it leaves the folder). A batch is worked on by whichever thread
// is free: the helper takes the oldest waiting batch, and when too many batches are waiting the
// walking thread works one itself. Finished batches are delivered on the walking thread, strictly
// in the order they were added, so a result that depends on order (the records of a search) comes
// out as a one-threaded walk would produce it.
//
// Memory and descriptors: at most kMaximumBatches batches exist at once, each with about
// kBatchBytes of names, its results and one descriptor. A batch also ends once the paths of its
// objects (folder path and name, which is what a record of it would hold) reach kBatchPathBytes,
// so that short names in a deep folder cannot make a batch's results large. When no thread can
// be started, or no descriptor can be had for a batch, the walking thread does the work itself.
//
// It does not walk: depth, re-entry and the end of a walk are the feeding walk's (see
// filesystem/KRVDirectoryEnumerator.h, filesystem/FileManagerEnumerator.h).
//
// Threads: add() and finish() belong to the walking thread; the work function runs on either
// thread (it must be thread-safe with respect to itself), the delivery function on the walking
// thread only. No error is reported.

#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "executor/ObjectRecords.h"
#include "foundation/UniqueFd.h"

namespace krv {

class FolderBatches {
 public:
  static constexpr std::size_t kBatchBytes = 4096;
  static constexpr std::size_t kBatchPathBytes = 64 * 1024;
  static constexpr std::size_t kMaximumBatches = 6;

  struct Batch {
    UniqueFd folder;         // the folder holding the names
    std::string folderPath;  // as the walk gave it (also how a new folder is recognised)
    std::string names;       // each name followed by a NUL
    // Results, for the work function to fill.
    std::uint64_t length = 0;
    std::vector<ObjectRecord> records;
    // A mark (see mark()) holds no folder and no names, only the caller's number.
    bool isMark = false;
    std::uint64_t mark = 0;

    // Calls f(const char* name) for each name, in order.
    template <class F>
    void forEachName(F&& f) const {
      for (std::size_t at = 0; at < names.size(); at = names.find('\0', at) + 1) {
        f(names.c_str() + at);
      }
    }
  };
  using Function = std::function<void(Batch&)>;

  FolderBatches(Function work, Function deliver);
  // Stops the helper; batches not yet delivered are dropped.
  ~FolderBatches();
  FolderBatches(const FolderBatches&) = delete;
  FolderBatches& operator=(const FolderBatches&) = delete;

  // The object `name` in the open folder `folderFd`, whose path is `folderPath`.
  void add(int folderFd, std::string_view folderPath, std::string_view name);
  // A point in the walk: `number` is delivered, as a batch with isMark set, after every object
  // added before and before every object added after. (The multi-pattern search sends what it
  // found every 100 objects of its walk, so each such point is a mark.)
  void mark(std::uint64_t number);
  // Works and delivers everything added so far.
  void finish();

 private:
  enum class State : std::uint8_t { Waiting, Taken, Done };
  struct Slot {
    Batch batch;
    State state = State::Waiting;
  };

  void close();
  void push(std::unique_ptr<Slot> slot);
  bool workOne(std::unique_lock<std::mutex>& lock);
  void deliverFinished(std::unique_lock<std::mutex>& lock);
  bool anyWaiting() const;
  void helperLoop();
  void stopHelper();

  Function m_work;
  Function m_deliver;
  Batch m_current;
  std::size_t m_currentPathBytes = 0;
  bool m_collecting = false;

  std::mutex m_mutex;
  std::condition_variable m_helperWake;
  std::condition_variable m_batchDone;
  std::deque<std::unique_ptr<Slot>> m_slots;  // in the order added; guarded by m_mutex
  bool m_stopping = false;                    // guarded by m_mutex
  std::thread m_helper;
};

}  // namespace krv
