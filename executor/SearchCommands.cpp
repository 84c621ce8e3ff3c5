// Search and measurement commands: the age search (14), inspection (15), the prefix search (16),
// the storage size of a subtree (17), the multi-pattern search (46) and the object count (51).
//
// The walks are meant to be pointed at whole volumes. Per object they make one system call at
// most where the answer allows it (a status read relative to the open folder, never a path lookup
// from the root); the age search and the storage size share those reads with a helper thread
// (executor/FolderBatches.h). They keep nothing per object beyond the object: the age and prefix
// searches spool their records (executor/ObjectRecords.h, which bounds them: a search that finds
// more than a spool may hold ends with the spool's POSIX error, logged, and sends no records), the
// multi-pattern search holds the records of at most 100 objects, the measurements hold a number.
// Every walk is guarded against folders that reappear below themselves (filesystem/WalkGuard.h),
// so each ends on any tree. Depth: the age and multi-pattern searches and the count walk with the
// KRVDirectoryEnumerator (500 open levels; deeper folders are returned, not entered); the storage
// size with the file manager's enumerator (4,096 levels; deeper folders add only themselves); the
// prefix search lists one folder. The searches stop without a result once the client is gone: at a
// failed send, and, in walks that send nothing for a long time, when the response pipe shows that
// nobody reads it any more. The count alone never stops for that: only its abort marker stops it.

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>

#include <cerrno>
#include <ctime>
#include <memory>
#include <utility>
#include <vector>

#include "executor/FolderBatches.h"
#include "executor/KRVCommandExecutor.h"
#include "executor/NamePatterns.h"
#include "executor/ObjectRecords.h"
#include "filesystem/DirectoryReader.h"
#include "filesystem/FileManager.h"
#include "filesystem/KRVDirectoryEnumerator.h"
#include "filesystem/PathNames.h"
#include "foundation/Format.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"
#include "foundation/SystemLog.h"
#include "protocol/CommandTable.h"

namespace krv {

namespace {

constexpr std::size_t kPayloadGranularity = 100;
constexpr double kSearchStartProgress = 0.05;
constexpr double kPatternSearchStartProgress = 0.01;
constexpr double kSecondsPerDay = 86400.0;
constexpr std::uint64_t kCountReportInterval = 500;
// How many objects a walk that sends nothing handles between two looks at its client.
constexpr std::uint64_t kClientCheckInterval = 4096;

constexpr std::uint64_t kNothingThere = 0;
constexpr std::uint64_t kFolderThere = 1;
constexpr std::uint64_t kOtherThere = 2;

// The start shared by the searches and the storage size: a non-empty base path that, with its
// symbolic links resolved, names a folder. `resolved` receives that path.
std::optional<Error> resolveSearchBase(const std::string& path, std::string& resolved) {
  if (path.empty()) return commandError(kResultBadArgument);
  resolved = FileManager::resolvingSymlinksInPath(path);
  bool isDirectory = false;
  if (!FileManager::fileExists(resolved, isDirectory)) return Error::posix(ENOENT);
  if (!isDirectory) return Error::posix(ENOTDIR);
  return std::nullopt;
}

double secondsSince1970Now() {
  struct timespec now {};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return dateFromTimestamp(now.tv_sec, static_cast<std::uint32_t>(now.tv_nsec)).secondsSince1970;
}

// The age search's test of the objects of one batch; the records of those old enough go into the
// batch. An object is judged by its modification date, a symbolic link by that of the object it
// names (one level; a link to a link answers the second link), and the record describes the
// object itself. Statuses are read relative to the folder, which answers what the absolute path
// would; links, which are rare, take the file manager's route with the path.
void judgeAges(FolderBatches::Batch& batch, double threshold) {
  std::string path;
  batch.forEachName([&](const char* name) {
    Result<struct stat> status = sys::statAt(batch.folder.get(), name, AT_SYMLINK_NOFOLLOW);
    if (!status) return;
    path.assign(batch.folderPath).append(name);
    Date date = dateFromTimestamp(status->st_mtim.tv_sec,
                                  static_cast<std::uint32_t>(status->st_mtim.tv_nsec));
    if (S_ISLNK(status->st_mode)) {
      Result<FileAttributes> target = FileManager::attributesOfItem(path, LinkTraversal::OneLevel);
      if (!target) return;
      date = target->modificationDate;
    }
    // An age of exactly the threshold counts; a date in the future has a negative age.
    const double age = -(date.secondsSince1970 - secondsSince1970Now());
    if (!(age >= threshold)) return;
    if (std::optional<ObjectRecord> record = objectRecordFromStatus(path, *status)) {
      batch.records.push_back(std::move(*record));
    }
  });
}

// The records of the objects of one batch, from their statuses read relative to the folder;
// objects that vanished, and paths too long to name an object, give none.
void readRecords(FolderBatches::Batch& batch) {
  std::string path;
  batch.forEachName([&](const char* name) {
    Result<struct stat> status = sys::statAt(batch.folder.get(), name, AT_SYMLINK_NOFOLLOW);
    if (!status) return;
    path.assign(batch.folderPath).append(name);
    if (std::optional<ObjectRecord> record = objectRecordFromStatus(path, *status)) {
      batch.records.push_back(std::move(*record));
    }
  });
}

bool hasPrefix(std::string_view name, std::string_view prefix) {
  return !prefix.empty() && name.starts_with(prefix);
}

// The end of a search whose spool refused its records: nothing more is sent, the administrator
// learns of it (the client's path stays out of the log), and the client gets the spool's reason.
Error refusedSearch(KRVCommandExecutor& executor, const char* search,
                    const ObjectRecordSpool& spool) {
  const int code = static_cast<int>(spool.refusal()->code());
  if (SystemLog* log = executor.log()) {
    log->log(SystemLog::Level::Warning,
             format("%s stopped after %llu records: %s", search,
                    static_cast<unsigned long long>(spool.count()), sys::errorText(code).c_str()));
  }
  return Error::posix(code);
}

Error successWithSize(std::uint64_t size) {
  Dictionary userInfo;
  userInfo.set(key::kSize, Value::unsignedInteger(size));
  return commandError(kResultSuccess, std::move(userInfo));
}

}  // namespace

CommandResult KRVCommandExecutor::searchForFileSystemObjectsOlderThanDays(const std::string& path,
                                                                          std::uint64_t days,
                                                                          bool stayOnFileSystem) {
  std::string base;
  if (std::optional<Error> refused = resolveSearchBase(path, base)) return refused;
  if (!sendProgressMessageToClient(kSearchStartProgress)) return std::nullopt;

  const double threshold = static_cast<double>(days) * kSecondsPerDay;
  // All records go out in one payload whose chunk progress depends on their number, so they are
  // gathered first; the spool keeps that from growing the daemon's memory.
  ObjectRecordSpool found;
  // The statuses are read on two threads; the records still arrive in walk order.
  FolderBatches batches([threshold](FolderBatches::Batch& batch) { judgeAges(batch, threshold); },
                        [&found](FolderBatches::Batch& batch) {
                          for (const ObjectRecord& record : batch.records) found.append(record);
                        });
  std::unique_ptr<KRVDirectoryEnumerator> walk =
      KRVDirectoryEnumerator::enumeratorAtPath(base, stayOnFileSystem);
  std::uint64_t seen = 0;
  while (walk && walk->nextObject()) {
    if (++seen % kClientCheckInterval == 0 && isClientGone()) return std::nullopt;
    const std::string_view object = walk->currentAbsolutePath();
    const std::string_view name = walk->currentEntryName();
    batches.add(walk->currentEntryDirectoryFd(), object.substr(0, object.size() - name.size()),
                name);
    if (found.refusal()) return refusedSearch(*this, "Age search", found);
  }
  batches.finish();
  if (found.refusal()) return refusedSearch(*this, "Age search", found);
  if (!found.sendPayload(*this, key::kFileSystemObjects, kPayloadGranularity,
                         kSearchStartProgress)) {
    return std::nullopt;
  }
  return commandSuccess();
}

Error KRVCommandExecutor::inspectFileSystemObjectAtPath(const std::string& path) {
  if (path.empty()) return commandError(kResultBadArgument);
  bool isDirectory = false;
  std::uint64_t existence = kNothingThere;
  if (FileManager::fileExists(FileManager::resolvingSymlinksInPath(path), isDirectory)) {
    existence = isDirectory ? kFolderThere : kOtherThere;
  }
  Dictionary userInfo;
  userInfo.set(key::kExistenceInfo, Value::unsignedInteger(existence));
  return commandError(kResultSuccess, std::move(userInfo));
}

CommandResult KRVCommandExecutor::searchForFileSystemObjectsWithPrefix(const std::string& path,
                                                                       const std::string& prefix,
                                                                       const std::string& extension,
                                                                       bool matchFolders) {
  std::string base;
  if (std::optional<Error> refused = resolveSearchBase(path, base)) return refused;
  if (!sendProgressMessageToClient(kSearchStartProgress)) return std::nullopt;

  // The folder is read as the file manager lists it, one batch at a time, so that a folder of
  // millions of names needs no list of them; a listing that fails lists nothing.
  ObjectRecordSpool found;
  if (Result<DirectoryReader> reader = DirectoryReader::listing(base)) {
    std::string name;
    std::uint64_t seen = 0;
    while (std::optional<DirectoryReader::Entry> entry = reader->next()) {
      if (++seen % kClientCheckInterval == 0 && isClientGone()) return std::nullopt;
      if (!hasPrefix(entry->name, prefix)) continue;
      if (!extension.empty() && nameExtension(entry->name) != std::string_view(extension)) {
        continue;
      }
      // One status read relative to the folder answers for the object itself, and for the folder
      // test too unless the object is a symbolic link, which that test follows.
      name.assign(entry->name);
      Result<struct stat> status = sys::statAt(reader->fd(0), name.c_str(), AT_SYMLINK_NOFOLLOW);
      if (!status) continue;
      bool isDirectory = S_ISDIR(status->st_mode);
      if (S_ISLNK(status->st_mode)) {
        Result<struct stat> target = sys::statAt(reader->fd(0), name.c_str(), 0);
        if (!target) continue;
        isDirectory = S_ISDIR(target->st_mode);
      }
      if (isDirectory != matchFolders) continue;
      if (std::optional<ObjectRecord> record =
              objectRecordFromStatus(appendingPathComponent(base, name), *status)) {
        if (!found.append(*record)) return refusedSearch(*this, "Prefix search", found);
      }
    }
    if (reader->readError()) found.clear();
  }
  if (!found.sendPayload(*this, key::kFileSystemObjects, kPayloadGranularity,
                         kSearchStartProgress)) {
    return std::nullopt;
  }
  return commandSuccess();
}

Error KRVCommandExecutor::getStorageSizeOfSubtreeAtPath(const std::string& path) {
  std::string base;
  if (std::optional<Error> refused = resolveSearchBase(path, base)) return *refused;

  std::uint64_t total = 0;
  FolderBatches batches(
      [](FolderBatches::Batch& batch) {
        batch.forEachName([&batch](const char* name) {
          Result<struct stat> status = sys::statAt(batch.folder.get(), name, AT_SYMLINK_NOFOLLOW);
          if (status) batch.length += static_cast<std::uint64_t>(status->st_size);
        });
      },
      // The logical lengths, summed modulo 2^64: links with their own length, each hard link once.
      [&total](FolderBatches::Batch& batch) { total += batch.length; });
  Result<FileManagerEnumerator> walk = FileManager::enumerator(base);
  if (walk) {
    // The object's absolute path is the base joined with the relative path. A path the kernel
    // would refuse as too long cannot be measured and adds nothing; every other object is read
    // relative to its open folder, which answers what the path would.
    const std::size_t baseLength = pathPrefixBelow(base).size();
    std::uint64_t seen = 0;
    while (std::optional<std::string_view> relative = walk->nextRelativePath()) {
      // Nobody can receive the size any more: the walk ends early, and the final message fails.
      if (++seen % kClientCheckInterval == 0 && isClientGone()) break;
      if (baseLength + relative->size() >= PATH_MAX) continue;
      const std::string_view name = walk->currentName();
      batches.add(walk->currentDirectoryFd(), relative->substr(0, relative->size() - name.size()),
                  name);
    }
  }
  batches.finish();
  return successWithSize(total);
}

CommandResult KRVCommandExecutor::searchForFileSystemObjectsWithNamePatterns(
    const std::string& path, bool stayOnFileSystem, const Array& patterns) {
  std::string base;
  if (std::optional<Error> refused = resolveSearchBase(path, base)) return refused;
  std::optional<std::vector<NamePattern>> table = namePatterns(patterns);
  if (!table) return commandError(kResultBadArgument);
  if (!sendProgressMessageToClient(kPatternSearchStartProgress)) return std::nullopt;

  // The counting pass gives the total that the progress of the matching pass is measured by.
  std::uint64_t total = 0;
  std::unique_ptr<KRVDirectoryEnumerator> walk =
      KRVDirectoryEnumerator::enumeratorAtPath(base, stayOnFileSystem);
  while (walk && walk->nextObject()) {
    if (++total % kClientCheckInterval == 0 && isClientGone()) return std::nullopt;
  }
  if (total == 0) return Error::posix(ENOENT);

  // The matching pass reads the statuses of the matching objects on two threads; their records
  // and the sends after every 100th object still come in walk order (each send is a mark).
  PayloadChunk found(key::kFileSystemObjects);
  bool clientGone = false;
  FolderBatches batches(readRecords, [&](FolderBatches::Batch& batch) {
    if (clientGone) return;
    if (!batch.isMark) {
      for (const ObjectRecord& record : batch.records) {
        found.add([&record](CborWriter& writer) { writeObjectRecord(writer, record); });
      }
      return;
    }
    // A tree that grew since the count gives offsets beyond 1.0; they are sent as they are.
    const double progress = static_cast<double>(batch.mark) / static_cast<double>(total);
    clientGone = !sendPayloadChunk(found, progress);
  });
  walk = KRVDirectoryEnumerator::enumeratorAtPath(base, stayOnFileSystem);
  std::uint64_t index = 0;
  while (walk && walk->nextObject() && !clientGone) {
    ++index;
    const std::string_view name = walk->currentEntryName();
    if (matchesAny(*table, name)) {
      const std::string_view object = walk->currentAbsolutePath();
      batches.add(walk->currentEntryDirectoryFd(), object.substr(0, object.size() - name.size()),
                  name);
    }
    if (index % kPayloadGranularity == 0) batches.mark(index);
  }
  batches.finish();
  if (clientGone || !sendPayloadChunk(found, 1.0)) return std::nullopt;
  return commandSuccess();
}

Error KRVCommandExecutor::countFileSystemObjectsAtPath(const std::string& path,
                                                       const std::string& markerPath) {
  if (path.empty() || markerPath.empty()) return Error::posix(EINVAL);
  // The base is taken as given (not resolved); a missing base counts as no folder.
  bool isDirectory = false;
  if (!FileManager::fileExists(path, isDirectory) || !isDirectory) return Error::posix(ENOTDIR);

  std::uint64_t counter = 1;  // the base folder
  std::unique_ptr<KRVDirectoryEnumerator> walk =
      KRVDirectoryEnumerator::enumeratorAtPath(path, /*stayOnFileSystem=*/true);
  while (walk && walk->nextObject()) {
    if (++counter % kCountReportInterval != 0) continue;
    if (FileManager::fileExists(markerPath)) break;
    // A sign of life; a client that is gone does not stop the count, only the marker does.
    (void)sendProgressMessageToClient(0.0);
  }
  return successWithSize(counter);
}

}  // namespace krv
