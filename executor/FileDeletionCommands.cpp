// File object commands that delete: single objects (also the hibernation file), whole trees and
// the contents of folders. The multi-path commands report progress i/n before each path and stop
// without a result as soon as the client can no longer be reached. Every path is resolved safely
// (platform/SafePathResolver.h): a user's symbolic link on the way leads only to her own objects.

#include <fcntl.h>

#include <cerrno>
#include <climits>

#include "executor/FileObjectPrimitives.h"
#include "executor/KRVCommandExecutor.h"
#include "filesystem/DirectoryReader.h"
#include "filesystem/FileManager.h"
#include "filesystem/PathNames.h"
#include "foundation/NameValue.h"
#include "foundation/System.h"

namespace krv {

namespace {

// The requests were validated, so every path came as text or as bytes; anything else counts as an
// empty path.
std::string pathAt(const Array& paths, std::size_t index) {
  return nameBytes(paths[index]).value_or(std::string());
}

double fractionDone(std::size_t index, std::size_t count) {
  return static_cast<double>(index) / static_cast<double>(count);
}

}  // namespace

CommandResult KRVCommandExecutor::deleteFileSystemObjectsAtPaths(const Array& paths,
                                                                 bool stopOnFirstError) {
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (!sendProgressMessageToClient(fractionDone(i, paths.size()))) return std::nullopt;
    Status deleted = enforcedDeleteOfFileSystemObjectAtPath(pathResolver(), pathAt(paths, i));
    // Without the stop flag a failure is dropped and the command still succeeds in the end.
    if (!deleted && stopOnFirstError) return std::move(deleted).error();
  }
  return commandSuccess();
}

CommandResult KRVCommandExecutor::deleteFileSystemObjectsRecursivelyAtPaths(const Array& paths) {
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (!sendProgressMessageToClient(fractionDone(i, paths.size()))) return std::nullopt;
    Status deleted =
        enforcedRecursiveDeleteOfFileSystemObjectAtPath(pathResolver(), pathAt(paths, i));
    if (!deleted) return std::move(deleted).error();
  }
  return commandSuccess();
}

CommandResult KRVCommandExecutor::deleteFileSystemFolderContentsAtPaths(const Array& paths) {
  for (std::size_t i = 0; i < paths.size(); ++i) {
    if (!sendProgressMessageToClient(fractionDone(i, paths.size()))) return std::nullopt;
    const std::string& folder = pathAt(paths, i);
    // The folder a final link leads to is emptied, when the rule lets the link lead there.
    Result<PathHandle> object = pathResolver().object(folder, LinkHandling::Follow);
    if (!object) {
      if (SafePathResolver::isRefusal(object.error())) return FileManager::error(EACCES, folder);
      continue;  // nothing there
    }
    if (!object->isDirectory()) return FileManager::error(ENOTDIR, folder);
    // Listed and emptied through one descriptor: a folder swapped for another (or for a link)
    // after the listing does not receive the deletions meant for this one.
    Result<UniqueFd> opened = object->reopen(O_RDONLY | O_DIRECTORY | O_NOCTTY | O_NONBLOCK);
    if (!opened) return FileManager::error(opened.error(), folder);
    Result<DirectoryReader> reader = DirectoryReader::listing(std::move(*opened));
    if (!reader) return FileManager::error(reader.error(), folder);
    std::vector<std::string> names;
    while (std::optional<DirectoryReader::Entry> entry = reader->next()) {
      names.emplace_back(entry->name);
    }
    if (std::optional<Error> failure = reader->readError()) {
      return FileManager::error(*failure, folder);
    }
    const int folderFd = reader->fd(0);
    for (const std::string& name : names) {
      const std::string entryPath = appendingPathComponent(folder, name);
      if (entryPath.size() >= PATH_MAX) return FileManager::error(ENAMETOOLONG, entryPath);
      Status deleted = enforcedRecursiveDeleteInFolder(folderFd, name, entryPath);
      if (!deleted) return std::move(deleted).error();
    }
  }
  return commandSuccess();
}

Error KRVCommandExecutor::deleteHibernationFileAtPath(const std::string& path) {
  // The path is the client's; it is not checked against where a hibernation file would be.
  Status deleted = enforcedDeleteOfFileSystemObjectAtPath(pathResolver(), path);
  if (!deleted) return std::move(deleted).error();
  return commandSuccess();
}

}  // namespace krv
