// The record spool: whatever it keeps where, the client must see exactly the messages the executor
// sends for the same records given as one array.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "executor/ExecutorTestSupport.h"
#include "executor/ObjectRecords.h"
#include "filesystem/FileAttributes.h"

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
      {"memory", ObjectRecordSpool::kMemoryBudget, {"/var/tmp", "/tmp"}, false},
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
      ObjectRecordSpool spool(place.budget, place.folders);
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
  ObjectRecordSpool spool(1, {"/var/tmp", "/tmp"});
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

}  // namespace
}  // namespace krv
