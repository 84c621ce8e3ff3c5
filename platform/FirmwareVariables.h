#pragma once
// FirmwareVariables: the machine's firmware (NVRAM) variables of this system's vendor, through
// the kernel's efivarfs at "/sys/firmware/efi/efivars".
//
// A variable "name" is the file "name-7c436110-ab2a-4bbb-a880-fe41995c9f82"; its contents are
// the 4-byte attributes (0x7: non-volatile, boot service and runtime access, little-endian)
// followed by the value's bytes, written in one write (the kernel takes each write as the whole
// variable). The kernel marks most existing variables immutable: the flag is cleared before the
// write and set again after it.
//
// Value bytes: Data as they are, a String as its bytes, a Number as its 64-bit two's complement
// little-endian, a Boolean as one byte 1 or 0. The bytes carry no type, so the type of each value
// this system writes is kept in a record beside the daemon's state,
// "/var/lib/com.tavorin.system.securityagent3/FirmwareVariableTypes.plist" (variable file name
// -> {Type, Digest: SHA-256 of the value bytes}). An existing variable has its recorded type as
// long as its bytes are still the ones recorded; a variable the firmware or another program wrote
// (or changed since) holds Data. Entries of variables that are gone are dropped at each write.
//
// Without efivarfs (a machine not started through EFI, or the file system not mounted) there are
// no variables: isAvailable() is false.
//
// Errors: POSIX errors of the failed call; EINVAL for a name that cannot name a variable file
// (empty, "/" or NUL in it) and for an empty value, which the kernel would take as a deletion.
// A record that cannot be read or written only costs the type: the variable is written anyway.
// Stateless apart from the files; writers of the record are serialised within the process.

#include <optional>
#include <string>
#include <string_view>

#include "foundation/Result.h"
#include "foundation/Value.h"
#include "platform/HostRoot.h"
#include "platform/SettingValues.h"

namespace krv {

class FirmwareVariables {
 public:
  static constexpr std::string_view kVendorGuid = "7c436110-ab2a-4bbb-a880-fe41995c9f82";
  static constexpr std::uint32_t kAttributes = 0x7;
  static constexpr const char* kVariableFolder = "/sys/firmware/efi/efivars";
  static constexpr const char* kRecordFolder = "/var/lib/com.tavorin.system.securityagent3";
  static constexpr const char* kRecordName = "FirmwareVariableTypes.plist";

  explicit FirmwareVariables(HostRoot root = HostRoot());

  bool isAvailable() const;
  // The type of the variable's value; nothing when there is no such variable.
  Result<std::optional<SettingValueType>> typeOfVariable(const std::string& name) const;
  // Writes the value (of one of the four setting types) and records its type.
  Status setVariable(const std::string& name, const Value& value) const;

  // The file name of a variable, or EINVAL.
  static Result<std::string> fileNameOf(const std::string& name);
  // The value's bytes and type, or EINVAL for a value of another kind.
  static Result<std::pair<Data, SettingValueType>> encode(const Value& value);

 private:
  Result<std::optional<Data>> readValueBytes(int folderFd, const std::string& fileName) const;
  void recordType(int variableFolderFd, const std::string& fileName, SettingValueType type,
                  const Data& bytes) const;

  HostRoot m_root;
};

}  // namespace krv
