// Builds, from the input, the request a client could send for every command code, and takes each
// through what the daemon does with a request before a command touches the system: the request
// decoder with its validation against the command table, the readers the dispatch uses to unpack
// the arguments, and the checks each family makes of its argument values (the kernel setting
// names, the firmware variable names and value conversions, the preference and configuration
// domains and value texts, the deletion mode, the name patterns of the multi-pattern search).
// Commands that touch the host never run; the commands that touch nothing (the empty command,
// the version, the control commands an executor only sees in tests, the reserved code) run through
// the real dispatch.
//
// The input is a CBOR array of arguments; any other input is split at its zero bytes into string
// arguments (text, or bytes where they are not UTF-8), so plain text reaches the string checks.
//
// Properties: a request decodes exactly when it is valid and then carries its arguments
// unchanged; every argument the dispatch reads is of the kind it reads; a pattern table that is
// accepted matches its own patterns.

#include <sys/types.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "executor/KRVCommandExecutor.h"
#include "executor/NamePatterns.h"
#include "foundation/Archiver.h"
#include "foundation/NameValue.h"
#include "foundation/PropertyList.h"
#include "platform/FirmwareVariables.h"
#include "platform/KernelValues.h"
#include "platform/PreferenceStore.h"
#include "platform/SettingValues.h"
#include "platform/SystemConfigurationStore.h"
#include "protocol/CommandTable.h"
#include "protocol/KRVPrivilegedCommand.h"

namespace {

using krv::Array;
using krv::KRVPrivilegedCommand;
using krv::Value;

void check(bool condition) {
  if (!condition) std::abort();
}

Array argumentsFrom(std::span<const std::uint8_t> input) {
  static const krv::ClassRegistry noClasses;
  krv::Result<Value> decoded = krv::unarchiveSequential(input, noClasses);
  if (decoded && decoded->asArray() != nullptr) return *decoded->asArray();
  Array strings;
  std::string current;
  for (std::uint8_t byte : input) {
    if (byte == 0) {
      strings.push_back(krv::nameValue(std::move(current)));
      current.clear();
    } else {
      current.push_back(static_cast<char>(byte));
    }
  }
  strings.push_back(krv::nameValue(std::move(current)));
  return strings;
}

std::string stringAt(const Array& arguments, std::size_t index) {
  std::optional<std::string> bytes = krv::nameBytes(arguments[index]);
  check(bytes.has_value());  // validation promised a name
  return *bytes;
}

// The dispatch reads each argument as its signature letter says, with no check of its own: every
// accepted request must hold the kind it reads. The number conversions it makes must be defined
// for every number.
void checkArgumentKinds(const krv::CommandRecord& record, const Array& arguments) {
  for (std::size_t index = 0; index < arguments.size(); ++index) {
    const char letter = record.numberOfArguments == krv::kAnyNumberOfArguments
                            ? record.signature[0]
                            : record.signature[index];
    if (letter == 'S') {
      (void)stringAt(arguments, index);
    } else if (letter == 'D') {
      check(arguments[index].asData() != nullptr);
    } else {
      const krv::Number* number = arguments[index].asNumber();
      check(number != nullptr && letter == 'N');
      (void)number->boolValue();
      (void)number->integerValue();
      (void)number->intValue();
      (void)number->unsignedIntegerValue();
      (void)number->unsignedLongValue();
    }
  }
}

void checkKernelSettingName(const std::string& name) {
  krv::Result<std::vector<std::string>> components = krv::KernelValues::pathComponentsOf(name);
  if (!components) return;
  for (const std::string& component : *components) {
    check(!component.empty() && component != ".." && component.find('/') == std::string::npos);
  }
}

void checkFirmwareVariable(const std::string& name, const std::string& value) {
  if (krv::Result<std::string> file = krv::FirmwareVariables::fileNameOf(name)) {
    check(file->find('/') == std::string::npos && file->find('\0') == std::string::npos);
  }
  for (krv::SettingValueType type :
       {krv::SettingValueType::Data, krv::SettingValueType::String, krv::SettingValueType::Number,
        krv::SettingValueType::Boolean}) {
    if (std::optional<Value> converted = krv::convertSettingValue(type, value)) {
      check(krv::FirmwareVariables::encode(*converted).ok());
    }
  }
}

// A value text is a property list in any form, or empty for a removal.
void checkValueText(const std::string& text) {
  (void)krv::plist::read(
      std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()));
}

void checkDomainName(const std::string& name) {
  if (krv::PreferenceStore::isValidName(name)) {
    check(!name.empty() && name.find('/') == std::string::npos && name != "." && name != "..");
  }
}

void checkNamePatterns(const Array& arguments) {
  if (arguments.size() < 4 || arguments.size() % 2 != 0) return;
  const Array pairs(arguments.begin() + 2, arguments.end());
  std::optional<std::vector<krv::NamePattern>> table = krv::namePatterns(pairs);
  if (!table) return;
  check(table->size() == pairs.size() / 2);
  for (const krv::NamePattern& pattern : *table) {
    check(!pattern.text.empty());
    if (pattern.kind != krv::NamePattern::Kind::Extension) {
      check(pattern.matches(pattern.text));
      check(krv::matchesAny(*table, pattern.text));
    } else if (pattern.text.find('.') == std::string::npos) {
      check(krv::matchesAny(*table, "name." + pattern.text));
    } else {
      // An extension is what follows the last dot: a pattern holding a dot matches no name.
      check(!pattern.matches("name." + pattern.text));
    }
  }
}

void checkFamily(std::uint32_t code, const Array& a) {
  switch (code) {
    case krv::kCommandSetKernelValue:
      checkKernelSettingName(stringAt(a, 0));
      break;
    case krv::kCommandSetNvram:
      checkFirmwareVariable(stringAt(a, 0), stringAt(a, 1));
      break;
    case krv::kCommandSetSystemPreference:
      checkDomainName(stringAt(a, 1));
      checkDomainName(stringAt(a, 3));
      checkValueText(stringAt(a, 4));
      break;
    case krv::kCommandSetSystemConfig:
      if (krv::SystemConfigurationStore::isValidDomain(stringAt(a, 1))) {
        check(krv::PreferenceStore::isValidName(stringAt(a, 1)));
      }
      checkValueText(stringAt(a, 3));
      break;
    case krv::kCommandSearchNamePatterns:
      checkNamePatterns(a);
      break;
    default:
      break;
  }
}

// The codes whose commands touch nothing: they run through the real dispatch.
bool touchesNothing(std::uint32_t code) {
  return code == krv::kCommandNone || code == krv::kCommandGetVersion ||
         code == krv::kCommandShutdown || code == krv::kCommandReserved ||
         code == krv::kCommandPrepareUninstallation;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Array arguments = argumentsFrom(std::span(data, size));
  for (std::uint32_t code = 0; code < krv::kNumberOfCommandCodes; ++code) {
    std::shared_ptr<KRVPrivilegedCommand> command =
        KRVPrivilegedCommand::privilegedCommandWithCode(code, arguments);
    const bool valid = command->isValid();
    const krv::Data bytes = krv::archiveSequential(Value(krv::ObjectRef(command)));
    krv::Result<Value> decoded =
        krv::unarchiveSequential(bytes, KRVPrivilegedCommand::transportClasses());
    check(decoded.ok() == valid);
    if (!decoded) continue;
    const KRVPrivilegedCommand* received = decoded->objectAs<KRVPrivilegedCommand>();
    // Compared as archives: a NaN argument equals nothing, not even itself.
    check(received != nullptr && received->commandCode() == code &&
          krv::archiveSequential(Value(received->arguments())) ==
              krv::archiveSequential(Value(arguments)));

    const krv::CommandRecord* record = krv::commandRecord(code);
    check(record != nullptr);
    checkArgumentKinds(*record, received->arguments());
    checkFamily(code, received->arguments());
    if (touchesNothing(code)) {
      krv::KRVCommandExecutor executor;
      check(executor.executeCommand(*received).has_value());
    }
  }
  return 0;
}
