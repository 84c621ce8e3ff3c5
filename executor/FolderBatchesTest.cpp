// The two-thread batches: whoever works a batch, results come back in the order added, and only
// a bounded number of batches exists at any time.

#include "executor/FolderBatches.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "foundation/System.h"

namespace krv {
namespace {

// The helper holds the first batch it takes until the walking thread has worked a later one
// itself: the later batch is done first and must still be delivered after the earlier one.
class HelperHold {
 public:
  // Called by the work function; holds the helper's first batch.
  void worked(std::thread::id walker) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (std::this_thread::get_id() == walker) {
      m_walkerWorked = true;
      m_changed.notify_all();
    } else if (!m_helperHeld) {
      m_helperHeld = true;
      m_changed.notify_all();
      m_changed.wait(lock, [this] { return m_walkerWorked; });
    }
  }
  // Called by the walking thread: waits until the helper holds a batch.
  bool helperHolds() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(10), [this] { return m_helperHeld; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_changed;
  bool m_helperHeld = false;
  bool m_walkerWorked = false;
};

TEST(FolderBatchesTest, DeliversInTheOrderAddedWhoeverWorkedTheBatch) {
  Result<UniqueFd> folder = sys::open("/", O_RDONLY | O_DIRECTORY);
  ASSERT_TRUE(folder);
  const std::thread::id walker = std::this_thread::get_id();
  HelperHold hold;
  std::vector<std::string> added;
  std::vector<std::string> delivered;
  std::size_t mostPending = 0;
  std::atomic<int> workedByWalker{0};
  {
    FolderBatches batches(
        [&](FolderBatches::Batch& batch) {
          hold.worked(walker);
          if (std::this_thread::get_id() == walker) ++workedByWalker;
          batch.forEachName([&batch](const char* name) {
            batch.records.push_back(ObjectRecord{batch.folderPath + name, {}, 0, {}, 0});
          });
        },
        [&](FolderBatches::Batch& batch) {
          for (const ObjectRecord& record : batch.records) delivered.push_back(record.path);
          mostPending = std::max(mostPending, added.size() - delivered.size());
        });
    auto add = [&](int i) {
      // New folders now and then, and long runs that fill several batches.
      std::string folderPath = "folder" + std::to_string(i / (i < 10000 ? 7 : 3000)) + "/";
      std::string name = "name-" + std::to_string(i);
      added.push_back(folderPath + name);
      batches.add(folder->get(), folderPath, name);
    };
    // The first folder's batch ends with the first name of the next one.
    for (int i = 0; i < 8; ++i) add(i);
    ASSERT_TRUE(hold.helperHolds()) << "no helper thread took a batch";
    for (int i = 8; i < 20000; ++i) add(i);
    batches.finish();
    EXPECT_EQ(delivered, added);
  }
  EXPECT_GT(workedByWalker.load(), 0);
  // At most the bounded number of batches (of about 4 KiB of names each) is ever pending.
  const std::size_t namesPerBatch = FolderBatches::kBatchBytes / 10 + 1;
  EXPECT_LE(mostPending, (FolderBatches::kMaximumBatches + 1) * namesPerBatch);
}

// Short names in a deep folder: the records of a batch hold whole paths, so a batch ends by the
// bytes of its paths too, not only by those of its names.
TEST(FolderBatchesTest, ABatchHoldsBoundedPathsHoweverShortItsNames) {
  Result<UniqueFd> folder = sys::open("/", O_RDONLY | O_DIRECTORY);
  ASSERT_TRUE(folder);
  const std::string deep = std::string(4000, 'd') + "/";
  std::size_t largest = 0;
  std::size_t total = 0;
  FolderBatches batches(
      [](FolderBatches::Batch& batch) {  // the path bytes its records would hold
        batch.forEachName([&batch](const char* name) {
          batch.length += batch.folderPath.size() + std::strlen(name);
        });
      },
      [&](FolderBatches::Batch& batch) {
        largest = std::max<std::size_t>(largest, batch.length);
        total += batch.length;
      });
  for (int i = 0; i < 2000; ++i) batches.add(folder->get(), deep, std::to_string(i % 10));
  batches.finish();
  EXPECT_EQ(total, 2000u * (deep.size() + 1));
  EXPECT_LE(largest, FolderBatches::kBatchPathBytes + deep.size() + 1);
}

TEST(FolderBatchesTest, DroppingUnfinishedBatchesStopsTheHelper) {
  Result<UniqueFd> folder = sys::open("/", O_RDONLY | O_DIRECTORY);
  ASSERT_TRUE(folder);
  std::mutex mutex;
  std::condition_variable released;
  bool release = false;
  int delivered = 0;
  {
    // The helper's work waits for the end of the scope, so the first batch is never done while
    // batches are added, and nothing behind it can be delivered.
    FolderBatches batches(
        [&](FolderBatches::Batch&) {
          std::unique_lock<std::mutex> lock(mutex);
          released.wait(lock, [&] { return release; });
        },
        [&delivered](FolderBatches::Batch&) { ++delivered; });
    // Fewer batches than the bound: the walking thread never works one itself.
    for (std::size_t i = 0; i < FolderBatches::kMaximumBatches; ++i) {
      batches.add(folder->get(), "f" + std::to_string(i) + "/", "x");
    }
    {
      std::lock_guard<std::mutex> lock(mutex);
      release = true;
    }
    released.notify_all();
    // No finish(): the destructor must stop the helper without delivering the rest.
  }
  EXPECT_EQ(delivered, 0);
}

}  // namespace
}  // namespace krv
