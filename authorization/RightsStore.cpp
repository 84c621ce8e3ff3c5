#include "authorization/RightsStore.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>
#include <vector>

#include "foundation/PropertyList.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"

namespace krv::auth {

namespace {

constexpr std::string_view kFileSuffix = ".plist";

bool isNameCharacter(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '.' ||
         c == '_' || c == '-';
}

bool isValidName(std::string_view name, std::size_t maximumLength) {
  if (name.empty() || name.size() > maximumLength || name.front() == '.') return false;
  for (char c : name) {
    if (!isNameCharacter(c)) return false;
  }
  return true;
}

std::string fileName(std::string_view name) {
  std::string file(name);
  file += kFileSuffix;
  return file;
}

bool isSafeFolder(const struct stat& status, bool isStore) {
  if (!S_ISDIR(status.st_mode) || status.st_uid != 0) return false;
  if ((status.st_mode & (S_IWGRP | S_IWOTH)) == 0) return true;
  // Others may create entries in a sticky folder but cannot replace root's.
  return !isStore && (status.st_mode & S_ISVTX) != 0;
}

// Walks from "/" to the folder without following symbolic links, checking every step; creates
// missing steps when asked to.
Result<UniqueFd> openStoreFolder(const std::string& path, bool create) {
  if (path.empty() || path.front() != '/') return Error::posix(EINVAL, "rights folder path");
  std::vector<std::string> components;
  std::size_t start = 1;
  while (start <= path.size()) {
    std::size_t slash = path.find('/', start);
    if (slash == std::string::npos) slash = path.size();
    std::string component = path.substr(start, slash - start);
    if (component == "." || component == "..") return Error::posix(EINVAL, "rights folder path");
    if (!component.empty()) components.push_back(std::move(component));
    start = slash + 1;
  }

  constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NOCTTY;
  KRV_TRY(UniqueFd folder, sys::open("/", kFolderFlags));
  KRV_TRY(struct stat rootStatus, sys::fstat(folder.get()));
  if (!isSafeFolder(rootStatus, components.empty())) return Error::posix(EPERM, "unsafe folder");
  for (std::size_t i = 0; i < components.size(); ++i) {
    const bool isStore = i + 1 == components.size();
    Result<UniqueFd> next = sys::openAt(folder.get(), components[i].c_str(), kFolderFlags);
    if (!next && next.error().code() == ENOENT && create) {
      Status made = sys::mkdirAt(folder.get(), components[i].c_str(), 0755);
      if (!made && made.error().code() != EEXIST) return std::move(made).error();
      next = sys::openAt(folder.get(), components[i].c_str(), kFolderFlags);
      // The mode given to mkdirat went through the umask; make it exactly 0755.
      if (next) KRV_TRY_VOID(sys::chmodDescriptor(next->get(), 0755));
    }
    if (!next) return std::move(next).error();
    KRV_TRY(struct stat status, sys::fstat(next->get()));
    if (!isSafeFolder(status, isStore)) return Error::posix(EPERM, "unsafe folder");
    folder = std::move(next).value();
  }
  return folder;
}

Result<std::string> temporaryName(std::string_view name) {
  std::uint8_t random[8];
  KRV_TRY_VOID(sys::getRandom(random));
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string temporary = "." + fileName(name) + ".";
  for (std::uint8_t byte : random) {
    temporary += kDigits[byte >> 4];
    temporary += kDigits[byte & 0xf];
  }
  return temporary;
}

}  // namespace

bool isValidRightName(std::string_view name) { return isValidName(name, kMaximumRightNameLength); }

Value definitionValue(const RightDefinition& definition) {
  if (definition.comment.empty()) return Value(definition.rule);
  Dictionary dictionary;
  dictionary.append("rule", Value(definition.rule));
  dictionary.append("comment", Value(definition.comment));
  return Value(std::move(dictionary));
}

Result<RightDefinition> definitionFromValue(const Value& value) {
  RightDefinition definition;
  if (const std::string* rule = value.asString()) {
    definition.rule = *rule;
  } else if (const Dictionary* dictionary = value.asDictionary()) {
    for (const auto& [key, item] : *dictionary) {
      if (key == "rule" && item.asString() != nullptr) {
        definition.rule = *item.asString();
      } else if (key == "comment" && item.asString() != nullptr) {
        definition.comment = *item.asString();
      } else {
        return Error::posix(EINVAL, "right definition key");
      }
    }
  } else {
    return Error::posix(EINVAL, "right definition type");
  }
  if (!isValidName(definition.rule, kMaximumRuleNameLength)) {
    return Error::posix(EINVAL, "right definition rule");
  }
  if (definition.comment.size() > kMaximumCommentLength) {
    return Error::posix(EINVAL, "right definition comment");
  }
  return definition;
}

RightsStore::RightsStore(std::string directory) : m_directory(std::move(directory)) {}

Result<bool> RightsStore::exists(std::string_view name) const {
  if (!isValidRightName(name)) return Error::posix(EINVAL, "right name");
  Result<UniqueFd> folder = openStoreFolder(m_directory, false);
  if (!folder) {
    if (folder.error().code() == ENOENT) return false;
    return std::move(folder).error();
  }
  Result<struct stat> status =
      sys::statAt(folder->get(), fileName(name).c_str(), AT_SYMLINK_NOFOLLOW);
  if (status) return true;
  if (status.error().code() == ENOENT) return false;
  return std::move(status).error();
}

RightsStore::Lookup RightsStore::lookup(std::string_view name) const {
  Lookup lookup;
  auto problem = [&lookup](State state, std::string text) {
    lookup.state = state;
    lookup.problem = std::move(text);
    return lookup;
  };
  if (!isValidRightName(name)) return problem(State::Missing, "invalid right name");
  // A failure of the system is no verdict on the definition.
  auto unavailable = [&problem](const char* what, const Error& error) {
    return problem(State::Unavailable,
                   std::string(what) + ": " + sys::errorText(static_cast<int>(error.code())));
  };
  Result<UniqueFd> folder = openStoreFolder(m_directory, false);
  if (!folder) {
    const int error = static_cast<int>(folder.error().code());
    if (error == ENOENT) return problem(State::Missing, "no rights folder");
    if (sys::isResourceExhaustion(error)) return unavailable("rights folder", folder.error());
    return problem(State::Unsafe, "rights folder: " + folder.error().description());
  }
  // O_NONBLOCK: a FIFO planted under the name must not hang the reader.
  Result<UniqueFd> file = sys::openAt(folder->get(), fileName(name).c_str(),
                                      O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
  if (!file) {
    const int error = static_cast<int>(file.error().code());
    if (error == ENOENT) return problem(State::Missing, "not defined");
    if (error == ELOOP) return problem(State::Unsafe, "definition is a symbolic link");
    if (sys::isResourceExhaustion(error))
      return unavailable("cannot open definition", file.error());
    return problem(State::Unsafe, "cannot open definition: " + sys::errorText(error));
  }
  Result<struct stat> status = sys::fstat(file->get());
  if (!status) {
    if (sys::isResourceExhaustion(static_cast<int>(status.error().code()))) {
      return unavailable("cannot examine definition", status.error());
    }
    return problem(State::Unsafe, "cannot examine definition");
  }
  if (!S_ISREG(status->st_mode)) return problem(State::Unsafe, "definition is not a regular file");
  if (status->st_uid != 0) return problem(State::Unsafe, "definition is not owned by root");
  if ((status->st_mode & (S_IWGRP | S_IWOTH)) != 0) {
    return problem(State::Unsafe, "definition is writable by group or others");
  }
  if (status->st_size > static_cast<off_t>(kMaximumDefinitionFileSize)) {
    return problem(State::Broken, "definition file is too large");
  }

  Data bytes;
  std::uint8_t buffer[4096];
  for (;;) {
    Result<std::size_t> count = sys::read(file->get(), buffer);
    if (!count) {
      if (sys::isResourceExhaustion(static_cast<int>(count.error().code()))) {
        return unavailable("cannot read definition", count.error());
      }
      return problem(State::Broken, "cannot read definition");
    }
    if (*count == 0) break;
    // The size may have grown since fstat; the bound holds whatever the file does.
    if (bytes.size() + *count > kMaximumDefinitionFileSize) {
      return problem(State::Broken, "definition file is too large");
    }
    bytes.insert(bytes.end(), buffer, buffer + *count);
  }
  Result<Value> value = plist::readXml(bytes);
  if (!value) {
    return problem(State::Broken,
                   "not an XML property list: " + plist::describeParseError(value.error()));
  }
  Result<RightDefinition> definition = definitionFromValue(*value);
  if (!definition) return problem(State::Broken, "not a right definition");
  lookup.state = State::Defined;
  lookup.definition = std::move(definition).value();
  return lookup;
}

Status RightsStore::set(std::string_view name, const RightDefinition& definition) const {
  if (!isValidRightName(name)) return Error::posix(EINVAL, "right name");
  KRV_TRY(RightDefinition checked, definitionFromValue(definitionValue(definition)));
  KRV_TRY(Data contents, plist::writeXml(definitionValue(checked)));
  KRV_TRY(UniqueFd folder, openStoreFolder(m_directory, true));
  KRV_TRY(std::string temporary, temporaryName(name));

  KRV_TRY(UniqueFd file, sys::openAt(folder.get(), temporary.c_str(),
                                     O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_NOCTTY, 0644));
  auto discard = [&](Error error) {
    (void)sys::unlinkAt(folder.get(), temporary.c_str(), 0);
    return error;
  };
  if (Status mode = sys::chmodDescriptor(file.get(), 0644); !mode) {
    return discard(std::move(mode).error());
  }
  if (Status written = sys::writeAll(file.get(), contents); !written) {
    return discard(std::move(written).error());
  }
  if (Status synced = sys::fsync(file.get()); !synced) return discard(std::move(synced).error());
  file.reset();
  if (Status renamed =
          sys::renameAt(folder.get(), temporary.c_str(), folder.get(), fileName(name).c_str());
      !renamed) {
    return discard(std::move(renamed).error());
  }
  // The rename is durable once the folder is.
  return sys::fsync(folder.get());
}

Status RightsStore::remove(std::string_view name) const {
  if (!isValidRightName(name)) return Error::posix(EINVAL, "right name");
  KRV_TRY(UniqueFd folder, openStoreFolder(m_directory, false));
  KRV_TRY_VOID(sys::unlinkAt(folder.get(), fileName(name).c_str(), 0));
  return sys::fsync(folder.get());
}

}  // namespace krv::auth
