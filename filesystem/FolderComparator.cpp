#include "filesystem/FolderComparator.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <utility>

#include "filesystem/ComparisonBatches.h"
#include "filesystem/FolderMirror.h"
#include "filesystem/KRVDirectoryEnumerator.h"
#include "filesystem/PathNames.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"
#include "protocol/CommandTable.h"

namespace krv {

namespace {

constexpr std::uint64_t kProgressInterval = 100;

bool isFolder(const std::string& path) {
  if (!checkPath(path)) return false;
  Result<struct stat> status = sys::stat(path);
  return status && S_ISDIR(status->st_mode);
}

// The folder part of a relative path ("" at the top).
std::string_view folderOf(std::string_view relative) {
  const std::size_t slash = relative.rfind('/');
  return slash == std::string_view::npos ? std::string_view() : relative.substr(0, slash);
}

bool exists(ObjectAt object) {
  return object.folderFd != -1 &&
         sys::statxAt(object.folderFd, object.name, AT_SYMLINK_NOFOLLOW | AT_NO_AUTOMOUNT, 0).ok();
}

}  // namespace

Set mismatchCodes(FolderMismatches mismatches) {
  Set codes;
  for (unsigned code = 0; code <= static_cast<unsigned>(FolderMismatch::MissingInSecond); ++code) {
    if ((mismatches & (1u << code)) != 0) codes.elements.push_back(Value::integer(code));
  }
  return codes;
}

Value mismatchRecord(FolderMismatches mismatches,
                     std::shared_ptr<const KRVFileSystemObjectDescription> first,
                     std::shared_ptr<const KRVFileSystemObjectDescription> second) {
  Dictionary record;
  record.append(std::string(key::kMismatches), Value(mismatchCodes(mismatches)));
  record.append(std::string(key::kDescription1), Value(ObjectRef(std::move(first))));
  record.append(std::string(key::kDescription2), Value(ObjectRef(std::move(second))));
  return Value(std::move(record));
}

bool FolderComparator::canReadAndTraverseObjectAtPath(const std::string& path) {
  if (path.empty() || !checkPath(path)) return false;
  Result<struct stat> status = sys::lstat(path);
  if (!status) return false;
  if (S_ISREG(status->st_mode)) {
    return sys::open(path, O_RDONLY | O_NONBLOCK | O_NOFOLLOW).ok();
  }
  if (S_ISDIR(status->st_mode)) return sys::openDirectory(path).ok();
  return true;
}

void FolderComparator::reportProgressPercentage(double) {}

bool FolderComparator::shouldContinueComparisonAccordingToUser() { return true; }

bool FolderComparator::shouldContinueComparisonAccordingToCollectedDifferences(const Array&) {
  return true;
}

void FolderComparator::didCollectDifference(Array&) {}

bool FolderComparator::shouldContinueComparisonWithDifferences(const Array& differences) {
  return shouldContinueComparisonAccordingToUser() &&
         shouldContinueComparisonAccordingToCollectedDifferences(differences);
}

Error FolderComparator::stopped() {
  return Error::posix(shouldContinueComparisonAccordingToUser() ? EOVERFLOW : ECANCELED);
}

FolderMismatches FolderComparator::compare(ContentComparer& contents,
                                           const KRVFileSystemObjectDescription& first,
                                           ObjectAt firstObject,
                                           const KRVFileSystemObjectDescription& second,
                                           ObjectAt secondObject, std::uint64_t mode,
                                           const Worker* openedFiles) {
  const bool firstValid = first.isValid();
  const bool secondValid = second.isValid();
  if (firstValid && secondValid) {
    const std::uint64_t bothAppleDouble =
        kFolderCompareModeIgnoreAppleDoubleInFirst | kFolderCompareModeIgnoreAppleDoubleInSecond;
    if ((mode & bothAppleDouble) == bothAppleDouble && first.isAppleDoubleFile() &&
        second.isAppleDoubleFile()) {
      return 0;
    }
    FolderMismatches found = 0;
    if ((mode & kFolderCompareModeIgnoreCompression) == 0 &&
        first.usesFileSystemCompression() != second.usesFileSystemCompression()) {
      found |= mismatchBit(FolderMismatch::Compression);
    }
    if ((mode & kFolderCompareModeIgnoreStatusChangeTime) == 0 &&
        !first.hasStatusChangeTimeEqualTo(&second)) {
      found |= mismatchBit(FolderMismatch::StatusChangeTime);
    }
    if ((mode & kFolderCompareModeIgnoreAccessControlList) == 0 &&
        !first.hasAccessControlListEqualTo(&second)) {
      found |= mismatchBit(FolderMismatch::AccessControlList);
    }
    if (!first.hasPOSIXPermissionsEqualTo(&second)) {
      found |= mismatchBit(FolderMismatch::PosixPermissions);
    }
    if (!first.hasExtendedAttributesEqualTo(&second,
                                            (mode & kFolderCompareModeIgnoreTimeMachine) != 0)) {
      found |= mismatchBit(FolderMismatch::ExtendedAttributes);
    }
    if (!first.hasAttributesEqualTo(&second)) found |= mismatchBit(FolderMismatch::Attributes);
    if (!contents.contentsEqual(first, firstObject, second, secondObject,
                                (mode & kFolderCompareModeCompareBytes) != 0,
                                openedFiles != nullptr ? &openedFiles->firstFile : nullptr,
                                openedFiles != nullptr ? &openedFiles->secondFile : nullptr)) {
      found |= mismatchBit(FolderMismatch::Contents);
    }
    return found;
  }
  if (firstValid) {
    if ((mode & kFolderCompareModeIgnoreAppleDoubleInFirst) != 0 && first.isAppleDoubleFile()) {
      return 0;
    }
    return mismatchBit(FolderMismatch::MissingInSecond);
  }
  if (secondValid) {
    if ((mode & kFolderCompareModeIgnoreAppleDoubleInSecond) != 0 && second.isAppleDoubleFile()) {
      return 0;
    }
    return mismatchBit(FolderMismatch::MissingInFirst);
  }
  return 0;
}

FolderMismatches FolderComparator::mismatchesBetween(const KRVFileSystemObjectDescription* first,
                                                     const KRVFileSystemObjectDescription* second,
                                                     std::uint64_t mode) {
  const KRVFileSystemObjectDescription invalid;
  const KRVFileSystemObjectDescription& one = first != nullptr ? *first : invalid;
  const KRVFileSystemObjectDescription& other = second != nullptr ? *second : invalid;
  return compare(m_workers[0].contents, one, {AT_FDCWD, one.path().c_str()}, other,
                 {AT_FDCWD, other.path().c_str()}, mode);
}

Error FolderComparator::runComparison(const std::string& firstRoot, const std::string& secondRoot,
                                      std::uint64_t expectedObjectCount, std::uint64_t mode,
                                      Array& collectedDifferences) {
  if (firstRoot.empty() || secondRoot.empty() || expectedObjectCount == 0) {
    return Error::posix(EINVAL);
  }
  if (!isFolder(firstRoot) || !isFolder(secondRoot)) return Error::posix(EINVAL);

  reportProgressPercentage(0.0);
  const double denominator = 2.0 * static_cast<double>(expectedObjectCount);
  std::uint64_t counter = 0;
  auto count = [&] {
    if (++counter % kProgressInterval == 0) {
      reportProgressPercentage(static_cast<double>(counter) / denominator);
    }
  };
  auto collect = [&](FolderMismatches mismatches,
                     std::shared_ptr<const KRVFileSystemObjectDescription> first,
                     std::shared_ptr<const KRVFileSystemObjectDescription> second) {
    collectedDifferences.push_back(mismatchRecord(mismatches, std::move(first), std::move(second)));
    didCollectDifference(collectedDifferences);
  };
  const std::string firstPrefix = pathPrefixBelow(firstRoot);
  const std::string secondPrefix = pathPrefixBelow(secondRoot);

  // First pass: every object of the first tree against its counterpart, worked on several threads.
  static_assert(kWorkers == ComparisonBatches::kMaximumHelpers + 1);
  auto comparePair = [&](int worker, const ComparisonBatches::Batch& batch, std::size_t index) {
    Worker& work = m_workers[worker];
    const std::string& name = batch.names[index];
    for (auto [path, prefix] :
         {std::pair(&work.firstPath, &firstPrefix), std::pair(&work.secondPath, &secondPrefix)}) {
      path->assign(*prefix).append(batch.folder);
      if (!batch.folder.empty()) *path += '/';
      path->append(name);
    }
    const ObjectAt firstObject{batch.firstFolderFd, name.c_str()};
    const ObjectAt secondObject = batch.secondFolderFd == AT_FDCWD
                                      ? ObjectAt{AT_FDCWD, work.secondPath.c_str()}
                                      : ObjectAt{batch.secondFolderFd, name.c_str()};
    const bool bytes = (mode & kFolderCompareModeCompareBytes) != 0;
    work.first.describeObject(firstObject, work.firstPath, bytes ? &work.firstFile : nullptr);
    work.secondFile.reset();
    if (secondObject.folderFd != -1) {
      work.second.describeObject(secondObject, work.secondPath, bytes ? &work.secondFile : nullptr);
    } else {
      work.second.describeMissingObject(work.secondPath);
    }
    PairOutcome outcome;
    outcome.mismatches = compare(work.contents, work.first, firstObject, work.second, secondObject,
                                 mode, bytes ? &work : nullptr);
    work.firstFile.reset();
    work.secondFile.reset();
    if (outcome.mismatches != 0) {
      outcome.first = std::make_shared<KRVFileSystemObjectDescription>(work.first);
      outcome.second = std::make_shared<KRVFileSystemObjectDescription>(work.second);
    }
    return outcome;
  };
  auto takeOutcome = [&](PairOutcome outcome) {
    if (!shouldContinueComparisonWithDifferences(collectedDifferences)) return false;
    if (outcome.mismatches != 0) {
      collect(outcome.mismatches, std::move(outcome.first), std::move(outcome.second));
    }
    count();
    return true;
  };
  if (std::unique_ptr<KRVDirectoryEnumerator> walk =
          KRVDirectoryEnumerator::enumeratorAtPath(firstRoot, true)) {
    FolderMirror second(secondRoot);
    ComparisonBatches pairs(comparePair, takeOutcome);
    while (!pairs.stopped()) {
      const std::optional<std::string_view> relative = walk->nextObject();
      if (!relative) break;
      const std::string_view folder = folderOf(*relative);
      pairs.add(walk->currentEntryDirectoryFd(), second.folderFd(folder), folder,
                walk->currentEntryName());
    }
    pairs.finish();
  }
  if (!shouldContinueComparisonWithDifferences(collectedDifferences)) return stopped();

  // Second pass: what only the second tree holds. An object present in both was compared above,
  // so the first tree is only asked whether it has the object.
  if (std::unique_ptr<KRVDirectoryEnumerator> walk =
          KRVDirectoryEnumerator::enumeratorAtPath(secondRoot, true)) {
    FolderMirror first(firstRoot);
    Worker& work = m_workers[0];
    while (std::optional<std::string_view> relative = walk->nextObject()) {
      if (!shouldContinueComparisonWithDifferences(collectedDifferences)) break;
      const std::string_view folder = folderOf(*relative);
      const std::string_view name = walk->currentEntryName();
      const std::optional<bool> listed = first.holds(folder, name);
      if (!(listed ? *listed : exists(first.objectAt(folder, name)))) {
        work.firstPath.assign(firstPrefix).append(*relative);
        work.secondPath.assign(secondPrefix).append(*relative);
        const ObjectAt secondObject{walk->currentEntryDirectoryFd(), name.data()};
        work.first.describeMissingObject(work.firstPath);
        work.second.describeObject(secondObject, work.secondPath);
        if (FolderMismatches found = compare(work.contents, work.first, {-1, nullptr}, work.second,
                                             secondObject, mode)) {
          collect(found, std::make_shared<KRVFileSystemObjectDescription>(work.first),
                  std::make_shared<KRVFileSystemObjectDescription>(work.second));
        }
      }
      count();
    }
  }
  if (!shouldContinueComparisonWithDifferences(collectedDifferences)) return stopped();
  reportProgressPercentage(1.0);
  return Error(std::string(kPosixErrorDomain), 0);
}

}  // namespace krv
