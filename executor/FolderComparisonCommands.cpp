// The folder comparison (52): two trees compared object by object, the differences streamed to
// the client with the progress reports (executor/FolderComparatorForAgent.h).

#include <sys/stat.h>

#include <cerrno>

#include "executor/FolderComparatorForAgent.h"
#include "executor/KRVCommandExecutor.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"

namespace krv {

namespace {

// A folder, or a link that leads to one.
bool isExistingFolder(const std::string& path) {
  if (!checkPath(path)) return false;
  Result<struct stat> status = sys::stat(path);
  return status && S_ISDIR(status->st_mode);
}

}  // namespace

CommandResult KRVCommandExecutor::compareFoldersAtPath(const std::string& firstPath,
                                                       const std::string& secondPath,
                                                       const std::string& abortMarkerPath,
                                                       std::uint64_t expectedCount,
                                                       std::uint64_t compareMode) {
  if (firstPath.empty() || secondPath.empty() || abortMarkerPath.empty() || expectedCount == 0) {
    return Error::posix(EINVAL);
  }
  if (!isExistingFolder(firstPath) || !isExistingFolder(secondPath)) return Error::posix(ENOTDIR);

  FolderComparatorForAgent comparator;
  comparator.setAgentExecutor(this, abortMarkerPath);
  Array mismatches;
  Error result =
      comparator.runComparison(firstPath, secondPath, expectedCount, compareMode, mismatches);
  if (comparator.isClientGone()) return std::nullopt;
  if (comparator.unsendableRecord()) return *comparator.unsendableRecord();
  if (result.code() != 0) return result;
  // The records all left with the progress reports; the result carries none.
  return commandSuccess();
}

}  // namespace krv
