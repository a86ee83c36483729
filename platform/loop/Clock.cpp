#include "platform/loop/Clock.h"

#include <time.h>

namespace Platform {

namespace {

double readClock(clockid_t id) {
   timespec ts{};
   // Cannot fail for the two clock ids used here on any supported kernel.
   clock_gettime(id, &ts);
   return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

}  // namespace

double MonotonicClock::now() const {
   return readClock(CLOCK_MONOTONIC);
}

double UtcClock::now() const {
   return readClock(CLOCK_REALTIME);
}

}  // namespace Platform
