#pragma once
// ContentComparer: tells whether two objects hold the same thing - two regular files the same
// bytes, two symbolic links the same destination. The comparison's answer is only equal or not
// equal, so it reads in large blocks (kBlockSize from each file at a time) and stops at the first
// difference.
//
// Regular files: each is opened read-only without following a final link, without waiting on a
// FIFO or becoming a controlling terminal, and without updating its access time (where the caller
// may do that), so a comparison leaves no trace on the files it reads. Both are read block by
// block up to the length their snapshots gave (the answer is about the objects as they were
// described); reads that return different counts, or different bytes, make them unequal. A file
// that cannot be opened or read on one side only makes the pair unequal; on both sides, equal -
// there is nothing to tell them apart by.
//
// Links: equal when both destinations can be read and are the same bytes (no length limit below
// the kernel's own). A destination that cannot be read makes the pair unequal.
//
// The two block buffers are allocated at the first file comparison and kept; one comparer belongs
// to one thread.

#include <cstddef>
#include <cstdint>
#include <memory>

#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/UniqueFd.h"

namespace krv {

// Opens a regular file for a comparison as described above; invalid when it cannot be opened.
UniqueFd openForComparison(ObjectAt object);

class ContentComparer {
 public:
  static constexpr std::size_t kBlockSize = 128 * 1024;

  ContentComparer() = default;
  ContentComparer(const ContentComparer&) = delete;
  ContentComparer& operator=(const ContentComparer&) = delete;

  // Two regular files open at the descriptors (-1: could not be opened), each read up to `length`
  // bytes from where it stands.
  bool regularFilesEqual(int firstFd, int secondFd, std::uint64_t length);
  bool linkDestinationsEqual(ObjectAt first, ObjectAt second);

  // hasContentsEqualTo of two snapshots, the objects being at the two places. Regular files are
  // read through the given descriptors when the snapshots opened them (describeObject), else
  // opened here.
  bool contentsEqual(const KRVFileSystemObjectDescription& first, ObjectAt firstObject,
                     const KRVFileSystemObjectDescription& second, ObjectAt secondObject,
                     bool compareBytes, const UniqueFd* firstFile = nullptr,
                     const UniqueFd* secondFile = nullptr);

 private:
  std::unique_ptr<std::uint8_t[]> m_blocks;  // two blocks, first and second
};

}  // namespace krv
