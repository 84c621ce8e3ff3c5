#pragma once
// Secret: a small buffer for a password on its way between the user and PAM. Its storage is
// allocated once, at the first append, with a fixed capacity (it never reallocates, so no stray
// copies are left behind in freed memory) and wiped (foundation/Wipe.h, the erasure every other
// buffer that held a secret gets too) when the secret is cleared, moved from or destroyed. Movable,
// not copyable; not synchronised.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "foundation/Wipe.h"

namespace krv::auth {

class Secret {
 public:
  // PAM's own limit on a response.
  static constexpr std::size_t kCapacity = 512;

  Secret();
  ~Secret();
  Secret(Secret&& other) noexcept;
  Secret& operator=(Secret&& other) noexcept;
  Secret(const Secret&) = delete;
  Secret& operator=(const Secret&) = delete;

  // False when the secret would exceed kCapacity (nothing is appended then).
  bool append(std::string_view bytes);
  void clear();

  std::string_view view() const {
    return m_bytes ? std::string_view(m_bytes.get(), m_size) : std::string_view();
  }
  std::size_t size() const { return m_size; }
  bool empty() const { return m_size == 0; }

 private:
  std::unique_ptr<char[]> m_bytes;
  std::size_t m_size = 0;
};

}  // namespace krv::auth
