// The record spool: whatever it keeps where, the client must see exactly the messages the executor
// sends for the same records given as one array.

#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "executor/ObjectRecords.h"
#include "filesystem/FileAttributes.h"
#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::ExecutorWithPipe;

const std::string_view kTypes[] = {kFileTypeRegular, kFileTypeDirectory, kFileTypeSymbolicLink,
                                   kFileTypeUnknown};

ObjectRecord recordNumber(std::size_t i) {
  // Some paths are long enough to straddle the spool's read batches.
  std::string path = "/data/" + std::string(i % 17 == 0 ? 5000 : i % 40, 'p') + std::to_string(i);
  return ObjectRecord{path, kTypes[i % 4], i * 7919, Date{1.5e9 + static_cast<double>(i) + 0.25},
                      static_cast<std::uint32_t>(i % 07777)};
}

TEST(ObjectRecordSpoolTest, SendsExactlyWhatTheArrayWouldWhereverItKeptTheRecords) {
  struct Where {
    const char* name;
    std::size_t budget;
    std::vector<std::string> folders;
    bool spills;
  };
  const Where places[] = {
      {"memory", ObjectRecordSpoolLimits{}.memoryBudget, {"/var/tmp", "/tmp"}, false},
      {"file after every record", 1, {"/var/tmp", "/tmp"}, true},
      {"file every few kilobytes", 9000, {"/var/tmp", "/tmp"}, true},
      {"no folder for a file", 1, {}, false},
      {"unusable folder", 1, {"/nonexistent-krv-folder"}, false},
  };
  for (std::size_t count : {0u, 1u, 100u, 101u, 250u, 1000u}) {
    Array reference;
    for (std::size_t i = 0; i < count; ++i) reference.push_back(objectRecordValue(recordNumber(i)));
    ExecutorWithPipe expected;
    ASSERT_TRUE(expected.executor().sendPayloadArray(reference, "FileSystemObjects", 100, 0.05));
    const std::vector<Error> wanted = expected.messages();

    for (const Where& place : places) {
      ObjectRecordSpool spool({.memoryBudget = place.budget, .spillFolders = place.folders});
      for (std::size_t i = 0; i < count; ++i) spool.append(recordNumber(i));
      EXPECT_EQ(spool.count(), count);
      if (!place.spills) {
        EXPECT_FALSE(spool.hasSpilled()) << place.name;
      } else if (count >= 100) {
        EXPECT_TRUE(spool.hasSpilled()) << place.name;
      }
      ExecutorWithPipe actual;
      ASSERT_TRUE(spool.sendPayload(actual.executor(), "FileSystemObjects", 100, 0.05));
      EXPECT_EQ(actual.messages(), wanted) << place.name << ", " << count << " records";
    }
  }
}

TEST(ObjectRecordSpoolTest, ClearForgetsEverythingIncludingTheFile) {
  ObjectRecordSpool spool({.memoryBudget = 1});
  for (std::size_t i = 0; i < 50; ++i) spool.append(recordNumber(i));
  spool.clear();
  EXPECT_EQ(spool.count(), 0u);
  EXPECT_FALSE(spool.hasSpilled());
  spool.append(recordNumber(7));

  ExecutorWithPipe client;
  ASSERT_TRUE(spool.sendPayload(client.executor(), "FileSystemObjects", 100, 0.0));
  std::vector<Error> sent = client.messages();
  ASSERT_EQ(sent.size(), 1u);
  const Array& records = *sent[0].userInfo().find("FileSystemObjects")->asArray();
  ASSERT_EQ(records.size(), 1u);
  EXPECT_EQ(records[0], objectRecordValue(recordNumber(7)));
}

// A tree anyone can fill must not fill the daemon's disk or memory: past its bounds the spool
// refuses, keeps refusing, and gives back what it held.
TEST(ObjectRecordSpoolTest, RefusesEverythingPastItsBounds) {
  struct Bound {
    const char* name;
    ObjectRecordSpoolLimits limits;
    std::uint64_t held;  // the bound on the encoded records
    int refusal;
  };
  const Bound bounds[] = {
      {"size", {.memoryBudget = 4096, .maximumSize = 50000}, 50000, EFBIG},
      {"memory without a file",
       {.memoryBudget = 4096, .memoryOnlyLimit = 50000, .spillFolders = {}},
       50000 + 5100,  // the record that passes the limit is the last one taken
       ENOSPC},
  };
  for (const Bound& bound : bounds) {
    SCOPED_TRACE(bound.name);
    ObjectRecordSpool spool(bound.limits);
    std::uint64_t held = 0;
    std::size_t i = 0;
    while (i < 1000 && spool.append(recordNumber(i))) held += 25 + recordNumber(i++).path.size();
    ASSERT_TRUE(spool.refusal());
    EXPECT_EQ(spool.refusal()->code(), bound.refusal);
    EXPECT_LE(held, bound.held);
    EXPECT_GT(held, bound.held / 2);
    EXPECT_FALSE(spool.append(recordNumber(0)));
    EXPECT_FALSE(spool.hasSpilled());

    spool.clear();
    EXPECT_FALSE(spool.refusal());
    EXPECT_TRUE(spool.append(recordNumber(0)));
  }
}

TEST(ObjectRecordSpoolTest, LeavesOrdinaryUsersTheirShareOfTheFileSystem) {
  test::TestFileTree tree;
  const std::string folder = tree.path("small");
  ASSERT_EQ(::mkdir(folder.c_str(), 0755), 0);
  constexpr std::uint64_t kFloor = 1 << 20;
  test::Facts facts = test::inPrivateMount(folder, "tmpfs", [&](test::Facts& seen) {
    if (::mount("tmpfs", folder.c_str(), "tmpfs", 0, "size=4m") != 0) {
      seen["child"] = "small tmpfs";
      return;
    }
    ObjectRecordSpool spool(
        {.memoryBudget = 8192, .minimumFreeSpace = kFloor, .spillFolders = {folder}});
    std::uint64_t leastFree = ~std::uint64_t{0};
    for (std::size_t i = 0; i < 100000 && spool.append(recordNumber(i)); ++i) {
      struct statvfs status {};
      if (::statvfs(folder.c_str(), &status) != 0) return;
      leastFree = std::min<std::uint64_t>(leastFree, status.f_bavail * status.f_frsize);
    }
    seen["refusal"] = spool.refusal() ? std::to_string(spool.refusal()->code()) : "none";
    seen["spill"] = spool.hasSpilled() ? "kept" : "freed";
    seen["floor"] = leastFree >= kFloor ? "held" : "broken: " + std::to_string(leastFree);
  });
  if (facts.contains("child")) GTEST_SKIP() << facts["child"];
  EXPECT_EQ(facts["refusal"], std::to_string(ENOSPC));
  EXPECT_EQ(facts["spill"], "freed");
  EXPECT_EQ(facts["floor"], "held");
}

}  // namespace
}  // namespace krv
