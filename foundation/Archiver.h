#pragma once
// Archivers: the payload of every data block is exactly one CBOR data item (RFC 8949), the root
// value, in the form fixed in docs/wire-format.md.
//
// Two forms of objects:
//   sequential  27([ClassName, item1, item2, ...])   on the request socket and response pipes
//   keyed       27([ClassName, {key1: item1, ...}])   in keyed archives (files clients save)
//
// Encoding never fails. Decoding is strict and bounded: malformed CBOR, trailing bytes, an
// indefinite length, a tag other than 1, 27 and 258, a non-text map key, a duplicate key, invalid
// UTF-8, nesting deeper than kMaximumArchiveDepth, an unknown class, an object with the wrong
// number or kinds of items, or a length running past the end of the payload reject the whole
// payload with archiveFault() (EIO); no allocation is larger than the bytes that remain.
//
// All functions are stateless and thread-safe; the registry is only read.

#include <cstddef>
#include <cstdint>
#include <span>

#include "foundation/Coding.h"
#include "foundation/Result.h"
#include "foundation/Value.h"

namespace krv {

inline constexpr int kMaximumArchiveDepth = 64;

Data archiveSequential(const Value& root);
Data archiveSequential(const Archivable& root);
Data archiveKeyed(const Value& root);
Data archiveKeyed(const Archivable& root);

// The size in bytes of archiveSequential(root), computed without building the archive.
std::size_t sequentialArchiveSize(const Archivable& root);
// Appends archiveSequential(root) to `output`, so that a data block can be built in one buffer
// (reserve the header plus sequentialArchiveSize(root) first).
void appendSequentialArchive(const Archivable& root, Data& output);

Result<Value> unarchiveSequential(std::span<const std::uint8_t> payload,
                                  const ClassRegistry& classes);
Result<Value> unarchiveKeyed(std::span<const std::uint8_t> payload, const ClassRegistry& classes);

}  // namespace krv
