// Throughput of the archivers on a realistic payload chunk (an error object carrying 100 object
// records, as a search sends them) and of the data block checksum.

#include <benchmark/benchmark.h>

#include <string>

#include "foundation/Archiver.h"
#include "foundation/Crc16.h"
#include "foundation/Error.h"

namespace krv {
namespace {

constexpr int kRecords = 100;

Error payloadChunk() {
  Array records;
  records.reserve(kRecords);
  for (int i = 0; i < kRecords; ++i) {
    // About 60 bytes of path, as under a user's cache folder.
    std::string path = "/Users/someone/Library/Caches/com.example.viewer/item-";
    path += std::to_string(100000 + i);
    Dictionary record;
    record.append("Path", Value(std::move(path)));
    record.append("Type", Value("NSFileTypeRegular"));
    record.append("Size", Value::integer(4096 + 37 * i));
    record.append("ModificationDate", Value(Date{1700000000.0 + 61.5 * i}));
    record.append("POSIXMode", Value::integer(0644));
    records.emplace_back(std::move(record));
  }
  Dictionary userInfo;
  userInfo.append("CurrentProgress", Value::real(0.37));
  userInfo.append("FileSystemObjects", Value(std::move(records)));
  return Error("com.tavorin.securityagent", 1, std::move(userInfo));
}

void reportThroughput(benchmark::State& state, std::size_t bytes) {
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes));
  state.SetItemsProcessed(static_cast<std::int64_t>(state.iterations() * kRecords));
}

void archiveChunk(benchmark::State& state) {
  const Error chunk = payloadChunk();
  std::size_t size = 0;
  for (auto _ : state) {
    Data bytes = archiveSequential(chunk);
    size = bytes.size();
    benchmark::DoNotOptimize(bytes.data());
  }
  reportThroughput(state, size);
}
BENCHMARK(archiveChunk);

void measureChunk(benchmark::State& state) {
  const Error chunk = payloadChunk();
  for (auto _ : state) benchmark::DoNotOptimize(sequentialArchiveSize(chunk));
  reportThroughput(state, sequentialArchiveSize(chunk));
}
BENCHMARK(measureChunk);

void unarchiveChunk(benchmark::State& state) {
  const Data bytes = archiveSequential(payloadChunk());
  for (auto _ : state) {
    Result<Value> value = unarchiveSequential(bytes, ClassRegistry::errorObjects());
    if (!value) state.SkipWithError("the chunk did not decode");
    benchmark::DoNotOptimize(value);
  }
  reportThroughput(state, bytes.size());
}
BENCHMARK(unarchiveChunk);

void archiveChunkKeyed(benchmark::State& state) {
  const Error chunk = payloadChunk();
  std::size_t size = 0;
  for (auto _ : state) {
    Data bytes = archiveKeyed(chunk);
    size = bytes.size();
    benchmark::DoNotOptimize(bytes.data());
  }
  reportThroughput(state, size);
}
BENCHMARK(archiveChunkKeyed);

void unarchiveChunkKeyed(benchmark::State& state) {
  const Data bytes = archiveKeyed(payloadChunk());
  for (auto _ : state) {
    Result<Value> value = unarchiveKeyed(bytes, ClassRegistry::errorObjects());
    if (!value) state.SkipWithError("the chunk did not decode");
    benchmark::DoNotOptimize(value);
  }
  reportThroughput(state, bytes.size());
}
BENCHMARK(unarchiveChunkKeyed);

void checksumMebibyte(benchmark::State& state) {
  Data bytes(1 << 20);
  for (std::size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<std::uint8_t>(i * 131 + 7);
  for (auto _ : state) benchmark::DoNotOptimize(crc16(bytes));
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * bytes.size()));
}
BENCHMARK(checksumMebibyte);

}  // namespace
}  // namespace krv

BENCHMARK_MAIN();
