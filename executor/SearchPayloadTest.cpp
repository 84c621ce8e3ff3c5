// The bytes the searches write to the response pipe, compared byte for byte with what the generic
// encoder makes of the same records: each record as its dictionary (objectRecordValue, kept as the
// reference), each chunk as an error object archived and framed as any other message. The tree
// holds what changes an encoding: names that are not UTF-8 or not ASCII, control characters,
// lengths at every width of a CBOR head, dates before 1970 and with nanoseconds, every file type
// and the mode bits above 0777, and more objects than one chunk holds.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "executor/ObjectRecords.h"
#include "filesystem/DirectoryReader.h"
#include "filesystem/KRVDirectoryEnumerator.h"
#include "filesystem/PathNames.h"
#include "foundation/Archiver.h"
#include "foundation/DataBlock.h"
#include "protocol/CommandCodes.h"
#include "tests/support/ExecutorTestSupport.h"

namespace krv {
namespace {

using test::number;
using test::text;

constexpr std::size_t kChunk = 100;

class SearchPayloadTest : public test::FileCommandTest {
 protected:
  void SetUp() override {
    m_base = m_tree.makeFolder("base");
    // Lengths at the edges of the head widths, one past 2^32 (sparse).
    const off_t lengths[] = {0, 23, 24, 255, 256, 65535, 65536, off_t{5} << 30};
    for (std::size_t i = 0; i < std::size(lengths); ++i) {
      const std::string file = m_tree.makeFile("base/length-" + std::to_string(i) + ".dat");
      ASSERT_EQ(::truncate(file.c_str(), lengths[i]), 0);
    }
    m_tree.makeFile("base/caf\xc3\xa9.dat", "x", 04755);
    m_tree.makeFile("base/bad\xffname.dat", "", 0600);
    m_tree.makeFile("base/line\nfeed\ttab.dat");
    m_tree.makeFolder("base/sticky", 01777);
    make({"base/link.dat -> length-1.dat", "base/fifo.dat|", "base/no-extension"});
    // Paths around the size up to which a record is put together on the stack (about 1 KiB).
    std::string deep = "base";
    for (int level = 0; level < 5; ++level) {
      deep += "/" + std::string(200, static_cast<char>('k' + level));
      m_tree.makeFolder(deep);
      m_tree.makeFile(deep + "/f.dat");
    }
    // Enough objects for several chunks of every search, in three folders.
    for (int folder = 0; folder < 3; ++folder) {
      const std::string name = "base/folder-" + std::to_string(folder);
      m_tree.makeFolder(name);
      for (int file = 0; file < 90; ++file) {
        m_tree.makeFile(name + "/file-" + std::to_string(file) + (file % 3 == 0 ? ".txt" : ".dat"),
                        std::string(static_cast<std::size_t>(file), 'a'), 0640);
      }
    }
    m_flat = m_tree.makeFolder("flat");
    for (int entry = 0; entry < 230; ++entry)
      m_tree.makeFile("flat/entry-" + std::to_string(entry));
    m_tree.makeFolder("flat/entry-folder");
    // Fixed dates in the past, set last (adding entries dates a folder anew): one before 1970, and
    // nanoseconds that a double cannot hold exactly.
    std::int64_t seconds = -86400 * 400;
    for (const std::string& object : walkOrder(m_base)) {
      const struct timespec times[2] = {{seconds, 123456789}, {seconds, 987654321}};
      ASSERT_EQ(::utimensat(AT_FDCWD, object.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << object;
      seconds += 86400 * 7 + 1;
    }
  }

  // The absolute paths of the objects below `base` in the order the searches walk them.
  static std::vector<std::string> walkOrder(const std::string& base) {
    std::vector<std::string> paths;
    std::unique_ptr<KRVDirectoryEnumerator> walk = KRVDirectoryEnumerator::enumeratorAtPath(base);
    while (walk && walk->nextObject()) paths.emplace_back(walk->currentAbsolutePath());
    return paths;
  }

  static void appendMessage(Data& out, Dictionary userInfo) {
    const Data block = encodeDataBlock(archiveSequential(
        KRVSecurityAgent::transportError(kTransportIntermediateReport, std::move(userInfo))));
    out.insert(out.end(), block.begin(), block.end());
  }
  static void appendProgress(Data& out, double progress) {
    Dictionary userInfo;
    userInfo.append("CurrentProgress", Value::real(progress));
    appendMessage(out, std::move(userInfo));
  }
  static void appendChunk(Data& out, Array records, double progress) {
    Dictionary userInfo;
    userInfo.append("CurrentProgress", Value::real(progress));
    userInfo.append("FileSystemObjects", Value(std::move(records)));
    appendMessage(out, std::move(userInfo));
  }
  // All records as one payload in chunks, with the progress values every client relies on.
  static void appendPayload(Data& out, const Array& records, double offset) {
    const std::size_t count = records.size();
    auto slice = [&records](std::size_t begin, std::size_t end) {
      return Array(records.begin() + static_cast<std::ptrdiff_t>(begin),
                   records.begin() + static_cast<std::ptrdiff_t>(end));
    };
    if (count <= kChunk) return appendChunk(out, records, offset);
    const std::size_t full = count / kChunk;
    for (std::size_t i = 0; i < full; ++i) {
      const double progress =
          static_cast<double>(i) / static_cast<double>(full + 1) * (1.0 - offset) + offset;
      appendChunk(out, slice(i * kChunk, i * kChunk + kChunk), progress);
    }
    if (full * kChunk < count) appendChunk(out, slice(full * kChunk, count), offset);
  }

  static Value recordOf(const std::string& path) {
    std::optional<ObjectRecord> record = objectRecordForPath(path);
    EXPECT_TRUE(record.has_value()) << path;
    return record ? objectRecordValue(std::move(*record)) : Value(Dictionary());
  }

  // The bytes the executor wrote, as they arrived.
  Data rawPipeBytes() { return m_client.bytes(); }

  static void expectSameBytes(const Data& sent, const Data& expected) {
    ASSERT_EQ(sent.size(), expected.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
      ASSERT_EQ(sent[i], expected[i]) << "first difference at byte " << i;
    }
  }

  std::string m_base;
  std::string m_flat;
};

TEST_F(SearchPayloadTest, AgeSearchSendsWhatTheGenericEncoderMakesOfEveryRecord) {
  Array records;
  for (const std::string& object : walkOrder(m_base)) records.push_back(recordOf(object));
  ASSERT_GT(records.size(), 2 * kChunk + kChunk / 2);
  Data expected;
  appendProgress(expected, 0.05);
  appendPayload(expected, records, 0.05);

  test::expectResult(run(kCommandSearchAgedFiles, {text(m_base), number(0), number(0)}),
                     kCommandErrorDomain, kResultSuccess);
  expectSameBytes(rawPipeBytes(), expected);
}

TEST_F(SearchPayloadTest, PatternSearchSendsWhatTheGenericEncoderMakesOfEveryRecord) {
  // Pairs: names beginning with "bad", then the extension "dat".
  const std::vector<std::string> objects = walkOrder(m_base);
  Data expected;
  appendProgress(expected, 0.01);
  Array records;
  for (std::size_t i = 1; i <= objects.size(); ++i) {
    const std::string name = lastPathComponent(objects[i - 1]);
    if (name.starts_with("bad") || name.ends_with(".dat"))
      records.push_back(recordOf(objects[i - 1]));
    if (i % kChunk != 0) continue;
    appendChunk(expected, std::move(records),
                static_cast<double>(i) / static_cast<double>(objects.size()));
    records.clear();
  }
  appendChunk(expected, std::move(records), 1.0);

  test::expectResult(run(kCommandSearchNamePatterns,
                         {text(m_base), text("0"), text("1"), text("bad"), text("2"), text("dat")}),
                     kCommandErrorDomain, kResultSuccess);
  expectSameBytes(rawPipeBytes(), expected);
}

TEST_F(SearchPayloadTest, PrefixSearchSendsWhatTheGenericEncoderMakesOfEveryRecord) {
  Array records;
  Result<DirectoryReader> listing = DirectoryReader::listing(m_flat);
  ASSERT_TRUE(listing);
  while (std::optional<DirectoryReader::Entry> entry = listing->next()) {
    const std::string name(entry->name);
    if (name.starts_with("entry-") && name != "entry-folder") {
      records.push_back(recordOf(appendingPathComponent(m_flat, name)));
    }
  }
  ASSERT_GT(records.size(), 2 * kChunk);
  Data expected;
  appendProgress(expected, 0.05);
  appendPayload(expected, records, 0.05);

  test::expectResult(
      run(kCommandSearchFilenamePattern, {text(m_flat), text("entry-"), text(""), number(0)}),
      kCommandErrorDomain, kResultSuccess);
  expectSameBytes(rawPipeBytes(), expected);
}

}  // namespace
}  // namespace krv
