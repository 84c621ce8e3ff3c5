#include "platform/FirmwareVariables.h"

#include <fcntl.h>
#include <linux/fs.h>

#include <cerrno>
#include <mutex>

#include "foundation/Sha256.h"
#include "foundation/System.h"
#include "platform/FileSystemCalls.h"
#include "platform/PropertyListFile.h"

namespace krv {

namespace {

// The firmware holds far less than this in all; a larger file is no variable of ours.
constexpr std::size_t kMaximumVariableSize = 65536;
constexpr std::size_t kMaximumRecordSize = 1 << 20;
constexpr std::size_t kAttributeSize = 4;

constexpr std::string_view kTypeKey = "Type";
constexpr std::string_view kDigestKey = "Digest";

std::mutex& recordLock() {
  static std::mutex lock;
  return lock;
}

Data digestOf(const Data& bytes) {
  Sha256::Digest digest = Sha256::digest(bytes);
  return Data(digest.begin(), digest.end());
}

Result<UniqueFd> openVariableFile(int folderFd, const std::string& fileName, int flags,
                                  mode_t mode = 0) {
  Result<UniqueFd> file =
      sys::openAt(folderFd, fileName.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
  // A link in a variable's place is not a variable.
  if (!file && file.error().code() == ELOOP) return Error::posix(EINVAL, "open");
  return file;
}

}  // namespace

FirmwareVariables::FirmwareVariables(HostRoot root) : m_root(std::move(root)) {}

bool FirmwareVariables::isAvailable() const {
  Result<struct stat> status = sys::stat(m_root.path(kVariableFolder));
  return status && S_ISDIR(status->st_mode);
}

Result<std::string> FirmwareVariables::fileNameOf(const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos || name.find('\0') != std::string::npos) {
    return Error::posix(EINVAL, "variable name");
  }
  return name + "-" + std::string(kVendorGuid);
}

Result<std::pair<Data, SettingValueType>> FirmwareVariables::encode(const Value& value) {
  if (const Data* data = value.asData()) return std::pair(*data, SettingValueType::Data);
  if (const std::string* text = value.asString()) {
    return std::pair(Data(text->begin(), text->end()), SettingValueType::String);
  }
  if (const Number* number = value.asNumber()) {
    if (number->isBoolean()) {
      return std::pair(Data{static_cast<std::uint8_t>(number->boolValue() ? 1 : 0)},
                       SettingValueType::Boolean);
    }
    if (number->isInteger()) {
      const auto bits = static_cast<std::uint64_t>(number->integerValue());
      Data bytes(8);
      for (std::size_t i = 0; i < 8; ++i) bytes[i] = static_cast<std::uint8_t>(bits >> (8 * i));
      return std::pair(std::move(bytes), SettingValueType::Number);
    }
  }
  return Error::posix(EINVAL, "variable value");
}

Result<std::optional<Data>> FirmwareVariables::readValueBytes(int folderFd,
                                                              const std::string& fileName) const {
  Result<UniqueFd> file = openVariableFile(folderFd, fileName, O_RDONLY);
  if (!file) {
    if (file.error().code() == ENOENT) return std::optional<Data>();
    return std::move(file).error();
  }
  KRV_TRY(struct stat status, sys::fstat(file->get()));
  if (!S_ISREG(status.st_mode)) return Error::posix(EINVAL, "open");
  Data bytes;
  std::uint8_t buffer[4096];
  for (;;) {
    KRV_TRY(std::size_t count, sys::read(file->get(), buffer));
    if (count == 0) break;
    if (bytes.size() + count > kMaximumVariableSize + kAttributeSize) {
      return Error::posix(EFBIG, "read");
    }
    bytes.insert(bytes.end(), buffer, buffer + count);
  }
  bytes.erase(bytes.begin(),
              bytes.begin() + static_cast<std::ptrdiff_t>(std::min(bytes.size(), kAttributeSize)));
  return std::optional<Data>(std::move(bytes));
}

Result<std::optional<SettingValueType>> FirmwareVariables::typeOfVariable(
    const std::string& name) const {
  Result<std::string> fileName = fileNameOf(name);
  if (!fileName) return std::optional<SettingValueType>();
  KRV_TRY(UniqueFd folder, sys::open(m_root.path(kVariableFolder), O_RDONLY | O_DIRECTORY));
  KRV_TRY(std::optional<Data> bytes, readValueBytes(folder.get(), *fileName));
  if (!bytes) return std::optional<SettingValueType>();

  std::optional<SettingValueType> type = SettingValueType::Data;
  Result<UniqueFd> recordFolder = sys::open(m_root.path(kRecordFolder), O_RDONLY | O_DIRECTORY);
  if (!recordFolder) return type;
  Result<std::optional<PropertyListFile>> record =
      readPropertyListFile(recordFolder->get(), kRecordName, kMaximumRecordSize);
  if (!record || !*record || (*record)->value.asDictionary() == nullptr) return type;
  const Value* entry = (*record)->value.asDictionary()->find(*fileName);
  const Dictionary* fields = entry != nullptr ? entry->asDictionary() : nullptr;
  if (fields == nullptr) return type;
  const Value* typeName = fields->find(kTypeKey);
  const Value* digest = fields->find(kDigestKey);
  if (typeName == nullptr || typeName->asString() == nullptr || digest == nullptr ||
      digest->asData() == nullptr || !digestsEqual(*digest->asData(), digestOf(*bytes))) {
    return type;
  }
  // A type name this version does not know leaves the bytes as Data.
  std::optional<SettingValueType> recorded = settingValueTypeNamed(*typeName->asString());
  return recorded ? recorded : type;
}

Status FirmwareVariables::setVariable(const std::string& name, const Value& value) const {
  KRV_TRY(std::string fileName, fileNameOf(name));
  KRV_TRY(auto encoded, encode(value));
  if (encoded.first.empty()) return Error::posix(EINVAL, "variable value");
  KRV_TRY(UniqueFd folder, sys::open(m_root.path(kVariableFolder), O_RDONLY | O_DIRECTORY));

  // An existing variable is usually immutable: lift the flag for the write, through a descriptor
  // of that very file, and put it back however the write ends.
  UniqueFd existing;
  int savedFlags = 0;
  bool lifted = false;
  if (Result<UniqueFd> file = openVariableFile(folder.get(), fileName, O_RDONLY); file) {
    KRV_TRY(struct stat status, sys::fstat(file->get()));
    if (!S_ISREG(status.st_mode)) return Error::posix(EINVAL, "open");
    existing = std::move(*file);
    if (Result<int> flags = sys::getInodeFlags(existing.get());
        flags && (*flags & FS_IMMUTABLE_FL) != 0) {
      savedFlags = *flags;
      KRV_TRY_VOID(sys::setInodeFlags(existing.get(), savedFlags & ~FS_IMMUTABLE_FL));
      lifted = true;
    }
  } else if (file.error().code() != ENOENT) {
    return std::move(file).error();
  }

  Status written = [&]() -> Status {
    Data contents(kAttributeSize + encoded.first.size());
    for (std::size_t i = 0; i < kAttributeSize; ++i) {
      contents[i] = static_cast<std::uint8_t>(kAttributes >> (8 * i));
    }
    std::copy(encoded.first.begin(), encoded.first.end(), contents.begin() + kAttributeSize);
    KRV_TRY(UniqueFd file, openVariableFile(folder.get(), fileName, O_WRONLY | O_CREAT, 0644));
    KRV_TRY(std::size_t count, sys::write(file.get(), contents));
    if (count != contents.size()) return Error::posix(EIO, "write");
    // efivarfs takes the write as the whole variable; an ordinary file (the stand-in of a test
    // tree) keeps a longer old value's tail unless it is cut.
    KRV_TRY(struct stat status, sys::fstat(file.get()));
    if (static_cast<std::size_t>(status.st_size) > contents.size()) {
      KRV_TRY_VOID(sys::truncate(file.get(), static_cast<off_t>(contents.size())));
    }
    return {};
  }();
  if (lifted) {
    Status restored = sys::setInodeFlags(existing.get(), savedFlags);
    if (written && !restored) return restored;
  }
  KRV_TRY_VOID(written);
  recordType(folder.get(), fileName, encoded.second, encoded.first);
  return {};
}

void FirmwareVariables::recordType(int variableFolderFd, const std::string& fileName,
                                   SettingValueType type, const Data& bytes) const {
  std::lock_guard<std::mutex> lock(recordLock());
  Result<UniqueFd> folder = openSystemFolder(m_root.path(kRecordFolder));
  if (!folder) return;
  Dictionary record;
  if (Result<std::optional<PropertyListFile>> file =
          readPropertyListFile(folder->get(), kRecordName, kMaximumRecordSize);
      file && *file && (*file)->value.asDictionary() != nullptr) {
    for (const auto& [variable, entry] : *(*file)->value.asDictionary()) {
      if (variable == fileName) continue;
      if (sys::statAt(variableFolderFd, variable.c_str(), AT_SYMLINK_NOFOLLOW)) {
        record.append(variable, entry);
      }
    }
  }
  Dictionary entry;
  entry.append(std::string(kTypeKey), Value(settingValueTypeName(type)));
  entry.append(std::string(kDigestKey), Value(digestOf(bytes)));
  record.append(fileName, Value(std::move(entry)));
  (void)writePropertyListFile(folder->get(), kRecordName, Value(std::move(record)),
                              FileOwnership{0644, 0, 0});
}

}  // namespace krv
