#pragma once
// UniqueFd: the only owner of a file descriptor. Closes it on destruction; movable, not copyable.
// A default UniqueFd holds no descriptor (-1). Not synchronised: one owner, one thread at a time.

#include <utility>

namespace krv {

class UniqueFd {
 public:
  UniqueFd() = default;
  explicit UniqueFd(int fd) : m_fd(fd) {}
  ~UniqueFd() { reset(); }

  UniqueFd(UniqueFd&& other) noexcept : m_fd(other.release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;

  int get() const { return m_fd; }
  bool valid() const { return m_fd >= 0; }
  explicit operator bool() const { return valid(); }

  // Gives up ownership without closing.
  int release() { return std::exchange(m_fd, -1); }
  // Closes the held descriptor (errors of close are ignored: the descriptor is gone either way)
  // and takes ownership of fd.
  void reset(int fd = -1);

 private:
  int m_fd = -1;
};

}  // namespace krv
