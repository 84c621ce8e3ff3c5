#pragma once
// HostRoot: where a layer that touches the host finds the host's files. The daemon uses the real
// root "/"; tests give a temporary folder, below which the layer then finds (and changes) its
// fake system files instead. Only the prefix changes: every rule of the layer stays the same.
// A plain value; thread-safe as a const object.

#include <string>
#include <string_view>
#include <utility>

namespace krv {

class HostRoot {
 public:
  // An empty root is the real root.
  explicit HostRoot(std::string root = "/") : m_root(std::move(root)) {
    while (m_root.size() > 1 && m_root.back() == '/') m_root.pop_back();
    // (Assigning "/" here trips a false -Wrestrict of g++ 12 at -O2.)
    if (m_root.empty()) m_root.push_back('/');
  }

  // The path of a host file, given by its absolute path on the real system.
  std::string path(std::string_view absolutePath) const {
    if (m_root == "/") return std::string(absolutePath);
    return m_root + std::string(absolutePath);
  }
  const std::string& root() const { return m_root; }

 private:
  std::string m_root;
};

}  // namespace krv
