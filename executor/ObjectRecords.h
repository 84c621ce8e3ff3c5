#pragma once
// Object records, the dictionaries the searches send for every object they find:
//   {"Path", "Type", "Size", "ModificationDate", "POSIXMode"}, in that order,
// read from the object itself (a final symbolic link is not followed): the file manager's type
// name, the logical length, the modification date and the permission bits (mode & 07777), all of
// them from the object's status. An object whose status cannot be read gets no record, and so
// does one whose absolute path is longer than the kernel accepts (PATH_MAX), even when a walk
// could read it relative to its folder: the record's path would name nothing. Every attribute of
// a record is known on this system, so a record that exists always holds all five keys.
//
// ObjectRecordSpool collects the records of a search that must know how many it found before it
// sends the first one (the progress values of the chunks depend on the total). It keeps them in a
// compact form (the path plus 25 bytes each), at most a fixed budget in memory; beyond that it
// moves them to an unnamed temporary file (O_TMPFILE, so no other process can reach it by name and
// it vanishes with the spool). The memory of a search therefore stays flat however many objects
// match.
//
// Bounds: the trees a search walks may be built by any user, so what one search may hold is
// capped, not merely spread between memory and disk (docs/search-commands.md says why these
// values):
//   - at most maximumSize bytes of records in all (1 GiB, some ten million records): beyond that
//     the spool refuses with POSIX EFBIG;
//   - the file is made in the first spill folder whose file system has room, and written only
//     while that file system keeps, after the write, at least minimumFreeSpace bytes (256 MiB) or
//     a twentieth of its size, whichever is more, free for ordinary users; otherwise, and when a
//     write fails, the spool refuses with POSIX ENOSPC (or the write's error);
//   - without any file (no spill folder can make one) at most memoryOnlyLimit bytes (16 MiB) stay
//     in memory; beyond that the spool refuses with POSIX ENOSPC.
// Once it has refused a record the spool refuses every later one and keeps why (refusal()); the
// caller is expected to end its search with that error rather than send an incomplete result.
//
// Errors: only the refusal above. Not synchronised: one spool, one thread.

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "foundation/CborWriter.h"
#include "foundation/Error.h"
#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"

namespace krv {

class KRVCommandExecutor;

struct ObjectRecord {
  std::string path;
  std::string_view type;  // one of the file type names of filesystem/FileAttributes.h
  std::uint64_t size = 0;
  Date modificationDate;
  std::uint32_t posixMode = 0;

  bool operator==(const ObjectRecord& other) const = default;
};

// The record of the object at the absolute `path`; nothing when its status cannot be read.
std::optional<ObjectRecord> objectRecordForPath(const std::string& path);
// The record of the object at `path` from a status already read (lstat-like, for example relative
// to the object's folder); nothing when the path is too long to name the object.
std::optional<ObjectRecord> objectRecordFromStatus(std::string_view path,
                                                   const struct stat& status);
// The dictionary form clients receive.
Value objectRecordValue(ObjectRecord record);
// Writes the archive of that dictionary, byte for byte, without building it: what the searches
// send (objectRecordValue is the reference that the tests compare it with).
void writeObjectRecord(CborWriter& writer, const ObjectRecord& record);
// Appends the record of the object at `path` when there is one; answers whether it did.
bool addFileSystemObjectInfoToArray(Array& array, const std::string& path);

// The bounds of a spool; the defaults are the daemon's, tests make them small.
struct ObjectRecordSpoolLimits {
  std::size_t memoryBudget = 1024 * 1024;
  std::uint64_t maximumSize = std::uint64_t{1} << 30;
  std::size_t memoryOnlyLimit = 16 * 1024 * 1024;
  std::uint64_t minimumFreeSpace = std::uint64_t{256} << 20;
  // Where the temporary file is made, in this order: on disk first (a tmpfs would hold the
  // records in memory after all). An empty list keeps everything in memory.
  std::vector<std::string> spillFolders{"/var/tmp", "/tmp"};
};

class ObjectRecordSpool {
 public:
  ObjectRecordSpool() = default;
  explicit ObjectRecordSpool(ObjectRecordSpoolLimits limits) : m_limits(std::move(limits)) {}
  ObjectRecordSpool(const ObjectRecordSpool&) = delete;
  ObjectRecordSpool& operator=(const ObjectRecordSpool&) = delete;

  // Takes the record; false when the spool refuses it (see refusal()).
  bool append(const ObjectRecord& record);
  std::uint64_t count() const { return m_count; }
  // Why the spool stopped taking records; nothing while it takes them.
  const std::optional<Error>& refusal() const { return m_refusal; }
  // Forgets every record, the temporary file and a refusal.
  void clear();
  // Whether records went to the temporary file (for tests and diagnostics).
  bool hasSpilled() const { return m_fileLength > 0; }

  // Sends all records as one payload under `key`: chunks of `granularity` records with the
  // progress values of KRVCommandExecutor::sendPayloadArray, as if the whole array had been given
  // to it, without ever holding more than one chunk as values. False when a send failed (the
  // client is gone); the remaining chunks are not sent.
  bool sendPayload(KRVCommandExecutor& executor, std::string_view key, std::size_t granularity,
                   double progressOffset);

 private:
  class Reader;

  void spill();
  Status checkRoom(int fileFd, std::uint64_t length) const;
  void refuse(Error reason);

  ObjectRecordSpoolLimits m_limits;
  std::vector<char> m_memory;      // encoded records not in the file, the newest ones
  UniqueFd m_file;                 // the temporary file once made
  std::uint64_t m_fileLength = 0;  // bytes of whole records in the file
  bool m_fileUnavailable = false;  // no file could be made: memory only from now
  std::uint64_t m_count = 0;
  std::optional<Error> m_refusal;
};

}  // namespace krv
