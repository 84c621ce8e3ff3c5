#pragma once
// The client's fast reading of the messages that make up almost all the bytes of a large search:
// the payload chunks of object records (docs/wire-format.md, executor/ObjectRecords.h),
//
//   27(["NSError", "com.tavorin.securityagent", 1,
//       {"CurrentProgress": float64, "FileSystemObjects": [{"Path": ..., "Type": ..., "Size": ...,
//                                                          "ModificationDate": 1(float64),
//                                                          "POSIXMode": ...}, ...]}])
//
// read in place, with one view per record into the payload and no value, dictionary or copy.
//
// It takes exactly the form the daemon writes (shortest heads for the fixed items, the keys in
// that order, dates as float64) and nothing else: a payload of any other form, including forms the
// generic reader (foundation/Archiver.h) accepts, is declined, and the caller decodes it
// generically. Whatever it accepts, the generic reader accepts too, with the same values: every
// text string is checked to be UTF-8, every length against the bytes that remain, and no byte may
// follow the root item. The payload is hostile: no read past its end, and the record list grows
// only with records actually read.
//
// Pure and thread-safe.

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace krv {

// One record as it arrived. A path that was sent as a byte string (a name that is not UTF-8) and
// one that was sent as text both give their bytes.
struct ObjectRecordView {
  std::string_view path;
  std::string_view type;
  std::uint64_t size = 0;
  double modificationDate = 0;  // seconds since 1970
  std::uint64_t posixMode = 0;
};

// Reads `payload` as an intermediate report holding a chunk of object records: true with the
// chunk's progress and its records (which point into `payload`) in `records`, false when the
// payload has any other form. `records` is emptied first either way.
bool readObjectRecordChunk(std::span<const std::uint8_t> payload, double& progress,
                           std::vector<ObjectRecordView>& records);

}  // namespace krv
