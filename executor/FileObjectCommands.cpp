// File object commands: not built yet in this version.

#include "executor/KRVCommandExecutor.h"

namespace krv {

Error KRVCommandExecutor::overwriteSystemFileAtPath(const std::string&, const Data&, bool) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::createFileSystemObjectAtPath(const std::string&, const std::string&) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::renameFileSystemObjectAtPath(const std::string&, const std::string&) {
  return commandNotAvailable();
}
CommandResult KRVCommandExecutor::deleteFileSystemObjectsAtPaths(const Array&, bool) {
  return commandNotAvailable();
}
CommandResult KRVCommandExecutor::deleteFileSystemObjectsRecursivelyAtPaths(const Array&) {
  return commandNotAvailable();
}
CommandResult KRVCommandExecutor::deleteFileSystemFolderContentsAtPaths(const Array&) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::deleteHibernationFileAtPath(const std::string&) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::changeProtectionAttributeAtPath(const std::string&, bool, bool, bool) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::removeSystemProtectionForFileSystemObjectAtPath(const std::string&) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::setAtPath(const std::string&, std::uint64_t, std::uint64_t, bool) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::createLinkAtPath(const std::string&, const std::string&, bool) {
  return commandNotAvailable();
}
Error KRVCommandExecutor::touchFileSystemObjectAtPath(const std::string&) {
  return commandNotAvailable();
}

}  // namespace krv
