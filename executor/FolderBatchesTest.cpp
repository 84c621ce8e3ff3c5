// The two-thread batches: whoever works a batch, results come back in the order added, and only
// a bounded number of batches exists at any time.

#include "executor/FolderBatches.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "foundation/System.h"

namespace krv {
namespace {

TEST(FolderBatchesTest, DeliversInTheOrderAddedWhoeverWorkedTheBatch) {
  Result<UniqueFd> folder = sys::open("/", O_RDONLY | O_DIRECTORY);
  ASSERT_TRUE(folder);
  std::vector<std::string> added;
  std::vector<std::string> delivered;
  std::size_t mostPending = 0;
  std::atomic<int> worked{0};
  {
    FolderBatches batches(
        [&worked](FolderBatches::Batch& batch) {
          // Uneven work, so that the two threads overtake each other.
          if (++worked % 3 == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
          batch.forEachName([&batch](const char* name) {
            batch.records.push_back(ObjectRecord{batch.folderPath + name, {}, 0, {}, 0});
          });
        },
        [&](FolderBatches::Batch& batch) {
          for (const ObjectRecord& record : batch.records) delivered.push_back(record.path);
          mostPending = std::max(mostPending, added.size() - delivered.size());
        });
    for (int i = 0; i < 20000; ++i) {
      // New folders now and then, and long runs that fill several batches.
      std::string folderPath = "folder" + std::to_string(i / (i < 10000 ? 7 : 3000)) + "/";
      std::string name = "name-" + std::to_string(i);
      added.push_back(folderPath + name);
      batches.add(folder->get(), folderPath, name);
    }
    batches.finish();
    EXPECT_EQ(delivered, added);
  }
  EXPECT_GT(worked.load(), 50);
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
  int delivered = 0;
  {
    FolderBatches batches(
        [](FolderBatches::Batch&) { std::this_thread::sleep_for(std::chrono::milliseconds(1)); },
        [&delivered](FolderBatches::Batch&) { ++delivered; });
    for (int i = 0; i < 500; ++i) {
      batches.add(folder->get(), "f" + std::to_string(i) + "/", "x");
    }
    // No finish(): the destructor must stop the helper without delivering the rest.
  }
  EXPECT_LT(delivered, 500);
}

}  // namespace
}  // namespace krv
