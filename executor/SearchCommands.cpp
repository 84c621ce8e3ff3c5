// Search and measurement commands: not built yet in this version.

#include "executor/KRVCommandExecutor.h"

namespace krv {

CommandResult KRVCommandExecutor::searchForFileSystemObjectsOlderThanDays(const std::string&,
                                                                          std::uint64_t, bool) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::inspectFileSystemObjectAtPath(const std::string&) {
  return commandNotAvailable();
}
CommandResult KRVCommandExecutor::searchForFileSystemObjectsWithPrefix(const std::string&,
                                                                       const std::string&,
                                                                       const std::string&, bool) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::getStorageSizeOfSubtreeAtPath(const std::string&) {
  return commandNotAvailable();
}
CommandResult KRVCommandExecutor::searchForFileSystemObjectsWithNamePatterns(const std::string&,
                                                                             bool, const Array&) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::countFileSystemObjectsAtPath(const std::string&, const std::string&) {
  return commandNotAvailable();
}

}  // namespace krv
