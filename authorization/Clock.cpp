#include "authorization/Clock.h"

#include <time.h>

namespace krv::auth {

Instant BootClock::now() const {
  timespec time{};
  // CLOCK_BOOTTIME cannot fail on the kernels this runs on; a zero time would only make every
  // credential look fresh for one call, so there is nothing better to do with an error.
  ::clock_gettime(CLOCK_BOOTTIME, &time);
  return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
}

}  // namespace krv::auth
