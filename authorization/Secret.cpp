#include "authorization/Secret.h"

#include <cstring>
#include <utility>

namespace krv::auth {

Secret::Secret() = default;

Secret::~Secret() { clear(); }

Secret::Secret(Secret&& other) noexcept
    : m_bytes(std::move(other.m_bytes)), m_size(std::exchange(other.m_size, 0)) {}

Secret& Secret::operator=(Secret&& other) noexcept {
  if (this != &other) {
    clear();
    std::swap(m_bytes, other.m_bytes);
    m_size = std::exchange(other.m_size, 0);
  }
  return *this;
}

bool Secret::append(std::string_view bytes) {
  if (bytes.size() > kCapacity - m_size) return false;
  if (!m_bytes) m_bytes.reset(new char[kCapacity]);
  std::memcpy(m_bytes.get() + m_size, bytes.data(), bytes.size());
  m_size += bytes.size();
  return true;
}

void Secret::clear() {
  if (m_bytes) wipe(m_bytes.get(), kCapacity);
  m_size = 0;
}

}  // namespace krv::auth
