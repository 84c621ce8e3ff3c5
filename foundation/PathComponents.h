#pragma once
// The components of a path, as the kernel splits it: the texts between slashes, empty ones (from
// "//", a leading or a trailing "/") skipped; "." and ".." are handed on like any other name, for
// the caller to give them their meaning. Pure text, no allocation; thread-safe.
//
//   forEachPathComponent("/a//b/", [](std::string_view name) { ... });  // "a", then "b"

#include <cstddef>
#include <string_view>

namespace krv {

template <class Sink>
void forEachPathComponent(std::string_view path, Sink sink) {
  std::size_t start = 0;
  while (start < path.size()) {
    std::size_t stop = path.find('/', start);
    if (stop == std::string_view::npos) stop = path.size();
    if (stop > start) sink(path.substr(start, stop - start));
    start = stop + 1;
  }
}

}  // namespace krv
