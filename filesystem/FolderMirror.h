#pragma once
// FolderMirror: follows a walk of one tree in a second tree. For the folder that holds the walk's
// current entry (its path relative to the walk's base) it answers where the object of the same
// name lies in the second tree: in which open folder, so that the object is reached with *at()
// calls relative to it - or nowhere, because a folder on the way is missing, is not a folder or
// is a symbolic link. Links inside a tree are never followed, so the second tree is seen as a walk
// of it would see it.
//
// It keeps the second tree's folders that match the walk's open folders open (O_PATH, no contents
// read) and opens each folder once, when the walk first asks below it: a pre-order walk costs one
// open per folder and nothing per object. Where no descriptor can be had, objects below are reached
// by their absolute paths instead (AT_FDCWD), which follows links on the way.
//
// holds() answers whether an object is there from a listing of its folder, read once per folder,
// which is cheaper than asking for each object's status. The listings of the open levels take at
// most kListingBudget bytes of names together; a folder beyond that is not listed, and the caller
// asks the kernel instead.
//
// Resources: one descriptor per open level, as many as the walk keeps open, and the listings.
// One thread.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "filesystem/KRVFileSystemObjectDescription.h"
#include "foundation/UniqueFd.h"

namespace krv {

class FolderMirror {
 public:
  // The second tree's base folder (a link there is followed, as a walk's base is).
  explicit FolderMirror(const std::string& root);
  FolderMirror(const FolderMirror&) = delete;
  FolderMirror& operator=(const FolderMirror&) = delete;

  // Where `name` (NUL-terminated) of the folder `folderPath` ("" for the base, "a/b" below it)
  // lies in the second tree: {folder, name}, {AT_FDCWD, absolute path}, or {-1, nullptr} when
  // nothing can be there. Valid until the next call.
  ObjectAt objectAt(std::string_view folderPath, std::string_view name);
  // The folder `folderPath` of the second tree: its descriptor, AT_FDCWD when its objects are
  // reached by path, -1 when it is not there. Valid until the next call.
  int folderFd(std::string_view folderPath);
  // Whether the folder `folderPath` of the second tree has an entry `name`: false when the folder
  // is not there; nothing when it cannot be told from a listing (ask objectAt's place instead).
  std::optional<bool> holds(std::string_view folderPath, std::string_view name);

  static constexpr std::size_t kListingBudget = 1024 * 1024;

 private:
  enum class Reach : unsigned char { Open, Missing, ByPath };
  enum class Listing : unsigned char { NotRead, Read, Unlisted };
  struct Level {
    std::size_t end = 0;  // of its path in m_folderPath
    UniqueFd fd;
    Reach reach = Reach::Missing;
    Listing listing = Listing::NotRead;
    std::string names;                  // each followed by a NUL
    std::vector<std::uint32_t> sorted;  // where each name begins in `names`, by name
  };

  void moveTo(std::string_view folderPath);
  void enter(std::string_view name, std::size_t end);
  void list(Level& level);

  std::string m_prefix;      // what every path below the base begins with
  std::string m_folderPath;  // of the innermost level
  std::vector<Level> m_levels;
  std::string m_absolutePath;
  std::size_t m_listedBytes = 0;
};

}  // namespace krv
