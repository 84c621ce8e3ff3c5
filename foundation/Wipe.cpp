#include "foundation/Wipe.h"

#include <string.h>

namespace krv {

void wipe(void* bytes, std::size_t length) {
  if (bytes != nullptr && length > 0) ::explicit_bzero(bytes, length);
}

void wipe(Value& value) {
  if (std::string* text = value.asString()) {
    wipe(*text);
  } else if (Data* data = value.asData()) {
    wipe(std::span<std::uint8_t>(*data));
  } else if (Array* array = value.asArray()) {
    for (Value& element : *array) wipe(element);
  } else if (Dictionary* dictionary = value.asDictionary()) {
    wipe(*dictionary);
  }
}

void wipe(Dictionary& dictionary) {
  dictionary.forEachValue([](Value& value) { wipe(value); });
}

}  // namespace krv
