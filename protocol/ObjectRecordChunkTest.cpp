#include "protocol/ObjectRecordChunk.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "foundation/Archiver.h"
#include "foundation/NameValue.h"
#include "foundation/UserInformationKeys.h"
#include "protocol/KRVPrivilegedCommand.h"
#include "protocol/KRVSecurityAgent.h"

namespace krv {
namespace {

struct Record {
  std::string path;
  std::string type;
  std::uint64_t size;
  double date;
  std::uint64_t mode;
};

// Records whose items take every width of head and both forms of a name.
const std::vector<Record> kRecords = {
    {"/a", "NSFileTypeRegular", 0, 0.0, 0644},
    {"/b/\xff\xfe-not-text", "NSFileTypeDirectory", 23, -1.5, 0755},
    {"/c/" + std::string(300, 'x'), "NSFileTypeSymbolicLink", 24, 1706702400.25, 07777},
    {"", "", 65536, 253402300800.0, 0},
    {"/d/\xc3\xa9\t\n", "NSFileTypeUnknown", UINT64_MAX, NAN, 4294967296ull},
};

Dictionary chunkInfo(const std::vector<Record>& records, double progress) {
  Array array;
  for (const Record& record : records) {
    Dictionary dictionary;
    dictionary.append(std::string(key::kPath), nameValue(record.path));
    dictionary.append(std::string(key::kType), Value(record.type));
    dictionary.append(std::string(key::kSize), Value::unsignedInteger(record.size));
    dictionary.append(std::string(key::kModificationDate), Value(Date{record.date}));
    dictionary.append(std::string(key::kPOSIXMode), Value::unsignedInteger(record.mode));
    array.push_back(Value(std::move(dictionary)));
  }
  Dictionary info;
  info.append(std::string(key::kCurrentProgress), Value(Number::real(progress)));
  info.append(std::string(key::kFileSystemObjects), Value(std::move(array)));
  return info;
}

Data chunkPayload(const std::vector<Record>& records, double progress = 0.25) {
  return archiveSequential(Error(std::string(kTransportErrorDomain), kTransportIntermediateReport,
                                 chunkInfo(records, progress)));
}

// The records the generic reader finds in a payload, as views of its own values; nothing when it
// refuses the payload or finds no chunk of records in it.
struct Generic {
  double progress = 0;
  std::vector<ObjectRecordView> records;
  Value root;
};
std::optional<Generic> readGenerically(const Data& payload) {
  Result<Value> root = unarchiveSequential(payload, KRVPrivilegedCommand::transportClasses());
  if (!root || root->objectAs<Error>() == nullptr) return std::nullopt;
  Generic generic{0, {}, std::move(*root)};
  const Error& error = *generic.root.objectAs<Error>();
  const Value* progress = error.userInfo().find(key::kCurrentProgress);
  const Value* list = error.userInfo().find(key::kFileSystemObjects);
  if (!error.is(kTransportErrorDomain, kTransportIntermediateReport) || progress == nullptr ||
      progress->asNumber() == nullptr || list == nullptr || list->asArray() == nullptr) {
    return std::nullopt;
  }
  generic.progress = progress->asNumber()->doubleValue();
  for (const Value& element : *list->asArray()) {
    const Dictionary& record = *element.asDictionary();
    ObjectRecordView view;
    const Value& path = *record.find(key::kPath);
    view.path = path.asString()
                    ? std::string_view(*path.asString())
                    : std::string_view(reinterpret_cast<const char*>(path.asData()->data()),
                                       path.asData()->size());
    view.type = *record.find(key::kType)->asString();
    view.size = record.find(key::kSize)->asNumber()->unsignedIntegerValue();
    view.modificationDate = record.find(key::kModificationDate)->asDate()->secondsSince1970;
    view.posixMode = record.find(key::kPOSIXMode)->asNumber()->unsignedIntegerValue();
    generic.records.push_back(view);
  }
  return generic;
}

void expectSameRecords(std::span<const ObjectRecordView> fast,
                       std::span<const ObjectRecordView> generic) {
  ASSERT_EQ(fast.size(), generic.size());
  for (std::size_t i = 0; i < fast.size(); ++i) {
    EXPECT_EQ(fast[i].path, generic[i].path) << i;
    EXPECT_EQ(fast[i].type, generic[i].type) << i;
    EXPECT_EQ(fast[i].size, generic[i].size) << i;
    EXPECT_EQ(std::isnan(fast[i].modificationDate), std::isnan(generic[i].modificationDate));
    if (!std::isnan(fast[i].modificationDate)) {
      EXPECT_EQ(fast[i].modificationDate, generic[i].modificationDate) << i;
    }
    EXPECT_EQ(fast[i].posixMode, generic[i].posixMode) << i;
  }
}

TEST(ObjectRecordChunkTest, ReadsTheDaemonsChunksAsTheGenericReaderDoes) {
  std::vector<ObjectRecordView> records;
  double progress = 0;
  for (const std::vector<Record>& list : {std::vector<Record>{}, kRecords}) {
    const Data payload = chunkPayload(list);
    ASSERT_TRUE(readObjectRecordChunk(payload, progress, records));
    EXPECT_EQ(progress, 0.25);
    std::optional<Generic> generic = readGenerically(payload);
    ASSERT_TRUE(generic);
    expectSameRecords(records, generic->records);
  }
}

// Every payload cut short, and every payload with one byte changed: the fast reader never reads
// past the end, and what it takes the generic reader takes too, with the same records.
TEST(ObjectRecordChunkTest, TakesNothingTheGenericReaderRefuses) {
  const Data payload = chunkPayload(kRecords);
  std::vector<ObjectRecordView> records;
  double progress = 0;
  for (std::size_t length = 0; length < payload.size(); ++length) {
    const Data cut(payload.begin(), payload.begin() + static_cast<std::ptrdiff_t>(length));
    EXPECT_FALSE(readObjectRecordChunk(cut, progress, records)) << length;
    EXPECT_TRUE(records.empty());
  }
  Data longer = payload;
  longer.push_back(0x00);
  EXPECT_FALSE(readObjectRecordChunk(longer, progress, records));

  int taken = 0;
  for (std::size_t at = 0; at < payload.size(); ++at) {
    for (const std::uint8_t change : {0x01, 0x20, 0x40, 0x80, 0xFF}) {
      Data changed = payload;
      changed[at] ^= change;
      if (!readObjectRecordChunk(changed, progress, records)) continue;
      ++taken;
      std::optional<Generic> generic = readGenerically(changed);
      ASSERT_TRUE(generic) << "byte " << at << " changed by " << int{change};
      expectSameRecords(records, generic->records);
    }
  }
  EXPECT_GT(taken, 0);  // changed names, sizes and dates are still chunks
}

// Forms the generic reader takes but the daemon does not write are left to it.
TEST(ObjectRecordChunkTest, LeavesOtherMessagesToTheGenericReader) {
  std::vector<ObjectRecordView> records;
  double progress = 0;
  // A final result holding records.
  EXPECT_FALSE(readObjectRecordChunk(
      archiveSequential(Error(std::string(kCommandErrorDomain), 0, chunkInfo(kRecords, 1.0))),
      progress, records));
  // The items in another order.
  Dictionary reordered;
  const Dictionary info = chunkInfo(kRecords, 0.5);
  reordered.append(std::string(key::kFileSystemObjects), *info.find(key::kFileSystemObjects));
  reordered.append(std::string(key::kCurrentProgress), *info.find(key::kCurrentProgress));
  EXPECT_FALSE(readObjectRecordChunk(
      archiveSequential(Error(std::string(kTransportErrorDomain), kTransportIntermediateReport,
                              std::move(reordered))),
      progress, records));
  // A count that the payload cannot hold.
  Data payload = chunkPayload({});
  ASSERT_EQ(payload.back(), 0x80);  // the empty array
  payload.back() = 0x9B;            // a 64-bit count, cut short
  EXPECT_FALSE(readObjectRecordChunk(payload, progress, records));
  payload.insert(payload.end(), {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_FALSE(readObjectRecordChunk(payload, progress, records));
}

}  // namespace
}  // namespace krv
