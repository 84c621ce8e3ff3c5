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
// compact form, at most a fixed budget in memory; beyond that it moves them to an unnamed
// temporary file (O_TMPFILE, so no other process can reach it by name and it vanishes with the
// spool). Only when no such file can be had do the records stay in memory. The memory of a search
// therefore stays flat however many objects match; the disk holds about the length of a path plus
// 21 bytes per record until the search ends.
//
// Errors: none are reported. A file that cannot be written is given up (the records that reached
// it are kept, the rest stay in memory). Not synchronised: one spool, one thread.

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

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
// Appends the record of the object at `path` when there is one; answers whether it did.
bool addFileSystemObjectInfoToArray(Array& array, const std::string& path);

class ObjectRecordSpool {
 public:
  static constexpr std::size_t kMemoryBudget = 1024 * 1024;
  // Where the temporary file is made, in this order: on disk first (a tmpfs would hold the
  // records in memory after all).
  static constexpr const char* kSpillFolders[] = {"/var/tmp", "/tmp"};

  ObjectRecordSpool() = default;
  // For tests: a smaller budget, other folders (an empty list keeps everything in memory).
  ObjectRecordSpool(std::size_t memoryBudget, std::vector<std::string> spillFolders);
  ObjectRecordSpool(const ObjectRecordSpool&) = delete;
  ObjectRecordSpool& operator=(const ObjectRecordSpool&) = delete;

  void append(const ObjectRecord& record);
  std::uint64_t count() const { return m_count; }
  // Forgets every record and the temporary file.
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

  std::size_t m_memoryBudget = kMemoryBudget;
  std::vector<std::string> m_spillFolders{kSpillFolders[0], kSpillFolders[1]};
  std::vector<char> m_memory;      // encoded records not in the file, the newest ones
  UniqueFd m_file;                 // the temporary file once made
  std::uint64_t m_fileLength = 0;  // bytes of whole records in the file
  bool m_fileUnavailable = false;  // no file could be made or written: memory only from now
  std::uint64_t m_count = 0;
};

}  // namespace krv
