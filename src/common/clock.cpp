#include "common/clock.h"

#include <ctime>

namespace {

timespec raw_monotonic() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC_RAW, &now);
  return now;
}

}  // namespace

int64_t global_pts() {
  static const int64_t addsec = static_cast<int64_t>(time(nullptr)) - raw_monotonic().tv_sec;
  const timespec now = raw_monotonic();
  return (addsec + now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}
