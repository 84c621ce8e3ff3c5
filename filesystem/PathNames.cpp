#include "filesystem/PathNames.h"

#include <fcntl.h>

#include <cerrno>
#include <deque>
#include <vector>

#include "foundation/PathComponents.h"
#include "platform/FileSystemCalls.h"

namespace krv {
namespace {

// The kernel's own bound on links followed in one lookup.
constexpr int kMaximumLinks = 40;

std::string joined(const std::vector<std::string>& components, bool absolute) {
  std::string path;
  for (const std::string& component : components) {
    if (absolute || !path.empty()) path += '/';
    path += component;
  }
  if (absolute && path.empty()) path = "/";
  return path;
}

}  // namespace

std::string_view withoutTrailingSlashes(std::string_view path) {
  while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
  return path;
}

std::string standardizedPath(std::string_view path) {
  if (path.empty()) return std::string();
  bool absolute = path.front() == '/';
  std::vector<std::string> components;
  forEachPathComponent(path, [&](std::string_view component) {
    if (component == ".") return;
    // A relative path is not looked at, so ".." cannot be reduced: its predecessor may be a link.
    if (component == ".." && absolute) {
      if (!components.empty()) components.pop_back();
      return;
    }
    components.emplace_back(component);
  });
  std::string result = joined(components, absolute);
  if (result.empty() && !absolute) result = ".";
  return result;
}

std::string deletingLastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return "/";
  std::size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return std::string();
  path = withoutTrailingSlashes(path.substr(0, slash == 0 ? 1 : slash));
  return std::string(path);
}

std::string pathPrefixBelow(std::string_view base) {
  if (base.empty()) return std::string();
  base = withoutTrailingSlashes(base);
  std::string prefix(base);
  if (prefix != "/") prefix += '/';
  return prefix;
}

std::string appendingPathComponent(std::string_view base, std::string_view component) {
  std::string path = pathPrefixBelow(base);
  path += component;
  return path;
}

void appendPathComponent(std::string& path, std::string_view component) {
  if (!path.empty()) {
    path.resize(withoutTrailingSlashes(path).size());
    if (path != "/") path += '/';
  }
  path += component;
}

std::string lastPathComponent(std::string_view path) {
  path = withoutTrailingSlashes(path);
  if (path == "/") return "/";
  std::size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string resolvingSymlinksInPath(std::string_view path) {
  if (path.empty() || path.front() != '/' || path.find('\0') != std::string_view::npos) {
    return standardizedPath(path);
  }
  std::deque<std::string> pending;
  forEachPathComponent(path, [&](std::string_view component) { pending.emplace_back(component); });

  std::vector<std::string> resolved;
  std::size_t existingDepth = 0;  // resolved[0 .. existingDepth) are known to exist
  int linksFollowed = 0;
  while (!pending.empty()) {
    std::string component = std::move(pending.front());
    pending.pop_front();
    if (component == ".") continue;
    if (component == "..") {
      if (!resolved.empty()) resolved.pop_back();
      if (existingDepth > resolved.size()) existingDepth = resolved.size();
      continue;
    }
    resolved.push_back(std::move(component));
    if (existingDepth + 1 != resolved.size()) continue;  // below a missing component

    std::string current = joined(resolved, true);
    Result<std::string> destination = sys::readLinkAt(AT_FDCWD, current.c_str());
    if (!destination) {
      std::int64_t code = destination.error().code();
      if (code == EINVAL) {
        existingDepth = resolved.size();  // there, and not a link
      } else if (code == ENAMETOOLONG || code == ELOOP) {
        return standardizedPath(path);
      }
      // Anything else (ENOENT, ENOTDIR, EACCES, ...): kept as written from here on.
      continue;
    }
    if (++linksFollowed > kMaximumLinks || destination->empty()) return standardizedPath(path);
    resolved.pop_back();
    if (destination->front() == '/') {
      resolved.clear();
      existingDepth = 0;
    }
    std::vector<std::string> expansion;
    forEachPathComponent(*destination,
                         [&](std::string_view part) { expansion.emplace_back(part); });
    pending.insert(pending.begin(), std::make_move_iterator(expansion.begin()),
                   std::make_move_iterator(expansion.end()));
  }
  return joined(resolved, true);
}

}  // namespace krv
