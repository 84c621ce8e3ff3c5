#include "foundation/UniqueFd.h"

#include <unistd.h>

namespace krv {

void UniqueFd::reset(int fd) {
  if (m_fd >= 0) {
    // close() is not retried on EINTR: on Linux the descriptor is released even then.
    ::close(m_fd);
  }
  m_fd = fd;
}

}  // namespace krv
