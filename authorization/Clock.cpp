#include "authorization/Clock.h"

#include <time.h>

namespace krv::auth {

Instant BootClock::now() const {
  timespec time{};
  // With a valid clock id and pointer clock_gettime cannot fail; CLOCK_BOOTTIME exists on every
  // kernel this runs on.
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace krv::auth
