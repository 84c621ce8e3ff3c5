// Feeds arbitrary texts to everything the setting commands accept from a client before they touch
// the system: the value conversions of the firmware variable command, the kernel setting names,
// the preference and configuration domain names, and the property-list value texts of the
// preference commands; every check sees every input. Properties: a conversion that never fails
// does not fail, Data never holds more than a third of the text's length,
// a setting name that is accepted has only non-empty components without "..", and a domain that is
// accepted can be one component of a path.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>

#include "foundation/PropertyList.h"
#include "platform/KernelValues.h"
#include "platform/PreferenceStore.h"
#include "platform/SettingValues.h"
#include "platform/SystemConfigurationStore.h"

namespace {

void check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);

  for (krv::SettingValueType type : {krv::SettingValueType::Boolean, krv::SettingValueType::Number,
                                     krv::SettingValueType::String, krv::SettingValueType::Data}) {
    std::optional<krv::Value> value = krv::convertSettingValue(type, text);
    if (type == krv::SettingValueType::Number || type == krv::SettingValueType::String) {
      check(value.has_value());
    }
    if (type == krv::SettingValueType::Boolean && value) check(text == "true" || text == "false");
  }
  if (std::optional<krv::Data> bytes = krv::percentHexBytes(text)) {
    check(size >= 3 && bytes->size() <= size / 3);
  }

  if (krv::Result<std::vector<std::string>> components =
          krv::KernelValues::pathComponentsOf(text)) {
    check(!components->empty());
    for (const std::string& component : *components) {
      check(!component.empty() && component != ".." && component.find('/') == std::string::npos &&
            component.find('.') == std::string::npos && component.find('\0') == std::string::npos);
    }
  }
  if (krv::PreferenceStore::isValidName(text)) {
    check(!text.empty() && text.find('/') == std::string::npos &&
          text.find('\0') == std::string::npos && text != "." && text != "..");
  }
  if (krv::SystemConfigurationStore::isValidDomain(text)) {
    check(krv::PreferenceStore::isValidName(text));
  }

  // A value text that parses is a value the stores can be asked to write: the XML form either
  // holds it or refuses it, never anything else.
  if (krv::Result<krv::Value> value = krv::plist::read(std::span(data, size))) {
    krv::Result<krv::Data> xml = krv::plist::writeXml(*value);
    if (xml) check(krv::plist::readXml(*xml).ok());
  }
  return 0;
}
