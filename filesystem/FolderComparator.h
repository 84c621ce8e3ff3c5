#pragma once
// FolderComparator: walks two folder trees and reports, for every relative path, in which
// respects the objects at that path differ. The walk and the comparison rules are here, with
// neutral hooks; executor/FolderComparatorForAgent.h fills the hooks for the daemon (progress
// reports that carry the differences, an abort marker).
//
// The walk (runComparison):
//   1. An empty root or an expected count of 0 is POSIX EINVAL; so is a root that is not a folder
//      (a link to a folder is followed, first root checked first).
//   2. Progress 0.0. One object counter runs through both passes; at every multiple of 100 the
//      progress is counter / (2 x expected count) - above 1.0 when the trees hold more than
//      expected.
//   3. First pass: every object below the first root (filesystem/KRVDirectoryEnumerator.h, staying
//      on the root's file system) against the object at the same relative path below the second
//      root. Before each object the walk asks shouldContinueComparisonWithDifferences and ends the
//      pass on false; a pair with mismatches adds a record to the collection.
//   4. The question again: on false the result is EOVERFLOW when the user hook now says true (the
//      differences stopped it), ECANCELED when it says false (the user did).
//   5. Second pass over the second root likewise, reporting only objects missing in the first
//      tree: objects present in both are not compared again.
//   6. The question again (as in 4); on true progress 1.0 and POSIX 0.
// The second tree is looked up without following links inside it (filesystem/FolderMirror.h), so
// each tree is seen as its own walk sees it, and the two passes agree.
//
// Mismatches of a pair (mismatchesBetween), in code order, both snapshots valid:
//   0 Compression         the compressed flag differs (not with
//   kFolderCompareModeIgnoreCompression) 1 StatusChangeTime    (not with
//   kFolderCompareModeIgnoreStatusChangeTime) 2 AccessControlList   (not with
//   kFolderCompareModeIgnoreAccessControlList) 3 PosixPermissions    owner, group, the nine
//   permission bits 4 ExtendedAttributes  (Time Machine names ignored with
//   kFolderCompareModeIgnoreTimeMachine) 5 Attributes          flags but the compressed one,
//   modification time 6 Contents            type or size; with kFolderCompareModeCompareBytes bytes
//   and link targets
// With both AppleDouble bits set, two AppleDouble files ("._" names) are not compared at all. Only
// the first snapshot valid: 8 (MissingInSecond), unless it is an AppleDouble file and the
// first-tree AppleDouble bit is set; only the second valid: 7 (MissingInFirst), likewise; neither:
// nothing.
//
// Record: {"Mismatches": set of the codes, "Description1": first snapshot, "Description2": second
// snapshot}, snapshots being KRVFileSystemObjectDescription objects (possibly invalid ones).
//
// Speed: every snapshot is taken relative to the open folder that holds the object (one statx and
// one attribute listing, more only for objects that have attributes); the snapshot objects are
// reused, and only those of a record are copied; contents are compared in large blocks. The pairs
// of the first pass are worked by the calling thread and one helper thread
// (filesystem/ComparisonBatches.h), their outcomes taken in walk order. The second pass asks the
// first tree for each name from a listing of the folder (filesystem/FolderMirror.h), not object
// by object. Memory is what the collection holds and a few batches of pairs; a caller that empties
// the collection at each report keeps memory flat.
//
// A comparator serves one run; the hooks are called on the thread that runs it.

#include <cstdint>
#include <string>

#include "filesystem/ContentComparer.h"
#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/Error.h"
#include "foundation/Value.h"

namespace krv {

inline constexpr std::uint64_t kFolderCompareModeCompareBytes = 0x01;
inline constexpr std::uint64_t kFolderCompareModeIgnoreStatusChangeTime = 0x02;
inline constexpr std::uint64_t kFolderCompareModeIgnoreCompression = 0x04;
inline constexpr std::uint64_t kFolderCompareModeIgnoreAccessControlList = 0x08;
inline constexpr std::uint64_t kFolderCompareModeIgnoreTimeMachine = 0x10;
inline constexpr std::uint64_t kFolderCompareModeIgnoreAppleDoubleInFirst = 0x20;
inline constexpr std::uint64_t kFolderCompareModeIgnoreAppleDoubleInSecond = 0x40;

enum class FolderMismatch : std::uint8_t {
  Compression = 0,
  StatusChangeTime = 1,
  AccessControlList = 2,
  PosixPermissions = 3,
  ExtendedAttributes = 4,
  Attributes = 5,
  Contents = 6,
  MissingInFirst = 7,
  MissingInSecond = 8,
};

// A set of mismatch codes: bit n stands for code n.
using FolderMismatches = std::uint16_t;

inline constexpr FolderMismatches mismatchBit(FolderMismatch mismatch) {
  return static_cast<FolderMismatches>(1u << static_cast<unsigned>(mismatch));
}

// The codes as they travel: a set of integer numbers, ascending.
Set mismatchCodes(FolderMismatches mismatches);
// The record of one pair.
Value mismatchRecord(FolderMismatches mismatches,
                     std::shared_ptr<const KRVFileSystemObjectDescription> first,
                     std::shared_ptr<const KRVFileSystemObjectDescription> second);

class FolderComparator {
 public:
  FolderComparator() = default;
  virtual ~FolderComparator() = default;
  FolderComparator(const FolderComparator&) = delete;
  FolderComparator& operator=(const FolderComparator&) = delete;

  // False for an empty path or one without status; for a regular file whether it can be opened for
  // reading (without following a link or waiting), for a folder whether it can be listed; true for
  // anything else. For clients; the walk does not use it.
  static bool canReadAndTraverseObjectAtPath(const std::string& path);

  virtual Error runComparison(const std::string& firstRoot, const std::string& secondRoot,
                              std::uint64_t expectedObjectCount, std::uint64_t mode,
                              Array& collectedDifferences);

  // The mismatches of two snapshots (either may be absent, as an invalid one), the objects being
  // at their snapshots' paths.
  FolderMismatches mismatchesBetween(const KRVFileSystemObjectDescription* first,
                                     const KRVFileSystemObjectDescription* second,
                                     std::uint64_t mode);

  // True only when the user hook says true and then the differences hook does too.
  bool shouldContinueComparisonWithDifferences(const Array& differences);

 protected:
  // Hooks; the base class reports nothing and never stops.
  virtual void reportProgressPercentage(double progress);
  virtual bool shouldContinueComparisonAccordingToUser();
  virtual bool shouldContinueComparisonAccordingToCollectedDifferences(const Array& differences);
  // Called after a record was added to the collection.
  virtual void didCollectDifference(Array& differences);

 private:
  // What one thread of the first pass works with; the snapshots and paths are refilled per pair.
  // With bytes compared, regular files are opened as they are described and read through those
  // descriptors.
  struct Worker {
    ContentComparer contents;
    KRVFileSystemObjectDescription first;
    KRVFileSystemObjectDescription second;
    std::string firstPath;
    std::string secondPath;
    UniqueFd firstFile;
    UniqueFd secondFile;
  };

  static FolderMismatches compare(ContentComparer& contents,
                                  const KRVFileSystemObjectDescription& first, ObjectAt firstObject,
                                  const KRVFileSystemObjectDescription& second,
                                  ObjectAt secondObject, std::uint64_t mode,
                                  const Worker* openedFiles = nullptr);
  Error stopped();

  // The walking thread's first, then the helpers' (filesystem/ComparisonBatches.h).
  static constexpr int kWorkers = 4;
  Worker m_workers[kWorkers];
};

}  // namespace krv
