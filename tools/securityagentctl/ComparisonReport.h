#pragma once
// A folder comparison (compare-folders, code 52) for people and for later: one readable line per
// record, a summary, and the saved result - a keyed archive that a later run (--show) or another
// program reads back. docs/securityagentctl.md describes both forms.
//
// A line is a seven-character change string, two spaces and the object's path relative to the
// compared folders (escaped as all text output is; a folder ends with "/"). Each position stands
// for one kind of difference, "." where there is none:
//   z compression   c status change time   a access control list   p owner, group or permissions
//   x extended attributes   t flags or modification time   s contents: type, size, bytes, target
// An object only in the first folder shows "-------", one only in the second "+++++++".
//
// Saved file: one CBOR item, a map (in this order) {"FirstFolder": name, "SecondFolder": name,
// "CompareMode": integer, "Date": date, "MismatchList": [records], "Result": error object}, every
// object in the keyed form. The list is written as the records arrive, so its length is an 8-byte
// head filled in at the end.
//
// Used by the client's one thread; errors are POSIX errors of the file calls (EIO for a file that
// is not such an archive).

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "foundation/Error.h"
#include "foundation/Result.h"
#include "foundation/UniqueFd.h"
#include "foundation/Value.h"

namespace krv::ctl {

// The change string of a record's "Mismatches".
std::string itemizedChanges(const Set& codes);

class ComparisonLines {
 public:
  ComparisonLines(std::string_view firstFolder, std::string_view secondFolder);

  // The line of one record (without a line feed), counted for the summary.
  std::string line(const Value& record);
  // "no differences", or "N differences: a only in the first folder, b only in the second, c
  // changed".
  std::string summary() const;

 private:
  std::string m_firstPrefix;
  std::string m_secondPrefix;
  std::uint64_t m_onlyInFirst = 0;
  std::uint64_t m_onlyInSecond = 0;
  std::uint64_t m_changed = 0;
};

class ComparisonArchiveWriter {
 public:
  // Starts "<path>.partial-<pid>", which finish() renames to `path`.
  static Result<ComparisonArchiveWriter> create(const std::string& path,
                                                const std::string& firstFolder,
                                                const std::string& secondFolder,
                                                std::uint64_t compareMode);
  ComparisonArchiveWriter(ComparisonArchiveWriter&&) noexcept = default;
  ComparisonArchiveWriter& operator=(ComparisonArchiveWriter&&) noexcept = default;
  ComparisonArchiveWriter(const ComparisonArchiveWriter&) = delete;
  ComparisonArchiveWriter& operator=(const ComparisonArchiveWriter&) = delete;
  // Removes the partial file unless finish() succeeded.
  ~ComparisonArchiveWriter();

  Status addRecords(const Array& records);
  Status finish(const Error& result);

 private:
  ComparisonArchiveWriter(std::string path, UniqueFd file, std::size_t countOffset);

  std::string m_path;
  std::string m_partialPath;
  UniqueFd m_file;
  std::size_t m_countOffset = 0;
  std::uint64_t m_records = 0;
};

struct SavedComparison {
  std::string firstFolder;
  std::string secondFolder;
  std::uint64_t compareMode = 0;
  std::optional<Date> date;
  Array records;
  Error result{std::string(), 0};
};

Result<SavedComparison> readSavedComparison(const std::string& path);

}  // namespace krv::ctl
