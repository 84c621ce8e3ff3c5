#include "filesystem/ComparisonBatches.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <future>
#include <string>
#include <vector>

namespace krv {
namespace {

// Pairs numbered by their names, in folders of 150 (three batches each); the outcome of a pair
// carries its number, so the order of delivery shows.
struct Pairs {
  static constexpr int kCount = 1000;
  int folder = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  ~Pairs() { ::close(folder); }

  void addAll(ComparisonBatches& batches) const {
    for (int pair = 0; pair < kCount && !batches.stopped(); ++pair) {
      batches.add(folder, folder, "folder" + std::to_string(pair / 150), std::to_string(pair));
    }
    batches.finish();
  }
};

PairOutcome numbered(const ComparisonBatches::Batch& batch, std::size_t index) {
  PairOutcome outcome;
  outcome.mismatches = static_cast<FolderMismatches>(std::stoi(batch.names[index]));
  return outcome;
}

TEST(ComparisonBatchesTest, DeliversInTheOrderAddedUntilADeliveryStops) {
  Pairs pairs;
  std::vector<int> delivered;
  ComparisonBatches batches(
      [](int, const auto& batch, std::size_t index) { return numbered(batch, index); },
      [&](PairOutcome outcome) {
        delivered.push_back(outcome.mismatches);
        return delivered.size() < 700;
      });
  pairs.addAll(batches);
  EXPECT_TRUE(batches.stopped());
  ASSERT_EQ(delivered.size(), 700u);
  for (int pair = 0; pair < 700; ++pair) ASSERT_EQ(delivered[pair], pair);
}

// A helper that never gets to finish must not hold the walk up: the walking thread works what the
// helper took. (Were it to wait, this test would not end.)
TEST(ComparisonBatchesTest, NeverWaitsForAHelper) {
  Pairs pairs;
  std::promise<void> released;
  std::shared_future<void> release = released.get_future().share();
  std::vector<int> delivered;
  {
    ComparisonBatches batches(
        [&](int worker, const auto& batch, std::size_t index) {
          if (worker != 0) release.wait();
          return numbered(batch, index);
        },
        [&](PairOutcome outcome) {
          delivered.push_back(outcome.mismatches);
          return true;
        });
    pairs.addAll(batches);
    released.set_value();
  }
  ASSERT_EQ(delivered.size(), static_cast<std::size_t>(Pairs::kCount));
  for (int pair = 0; pair < Pairs::kCount; ++pair) ASSERT_EQ(delivered[pair], pair);
}

}  // namespace
}  // namespace krv
