#include "executor/NamePatterns.h"

#include "foundation/NameValue.h"

namespace krv {

std::optional<std::string_view> nameExtension(std::string_view name) {
  std::size_t dot = name.rfind('.');
  if (dot == std::string_view::npos) return std::nullopt;
  return name.substr(dot + 1);
}

bool NamePattern::matches(std::string_view name) const {
  switch (kind) {
    case Kind::Equals:
      return name == text;
    case Kind::BeginsWith:
      return name.starts_with(text);
    case Kind::Extension: {
      std::optional<std::string_view> extension = nameExtension(name);
      return extension && *extension == text;
    }
  }
  return false;
}

std::optional<std::vector<NamePattern>> namePatterns(const Array& strings) {
  if (strings.empty() || strings.size() % 2 != 0) return std::nullopt;
  std::vector<NamePattern> patterns;
  patterns.reserve(strings.size() / 2);
  for (std::size_t i = 0; i < strings.size(); i += 2) {
    const std::optional<std::string> kind = nameBytes(strings[i]);
    const std::optional<std::string> text = nameBytes(strings[i + 1]);
    if (!kind || !text || kind->size() != 1 || text->empty()) return std::nullopt;
    switch ((*kind)[0]) {
      case '0':
        patterns.push_back({NamePattern::Kind::Equals, *text});
        break;
      case '1':
        patterns.push_back({NamePattern::Kind::BeginsWith, *text});
        break;
      case '2':
        patterns.push_back({NamePattern::Kind::Extension, *text});
        break;
      default:
        return std::nullopt;
    }
  }
  return patterns;
}

bool matchesAny(const std::vector<NamePattern>& patterns, std::string_view name) {
  for (const NamePattern& pattern : patterns) {
    if (pattern.matches(name)) return true;
  }
  return false;
}

}  // namespace krv
