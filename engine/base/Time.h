#pragma once

#include <cstdint>
#include <ctime>

namespace armengine {

/// A second in nanoseconds, in which the engine counts all times.
constexpr uint64_t SECOND = 1'000'000'000;

/// What a clock shows.
inline uint64_t readClock(clockid_t clock) {
  timespec now = {};
  (void)clock_gettime(clock, &now);
  return static_cast<uint64_t>(now.tv_sec) * SECOND + static_cast<uint64_t>(now.tv_nsec);
}

/// Since the machine was started.
inline uint64_t bootTime() {
  return readClock(CLOCK_BOOTTIME);
}

/// Since the epoch.
inline uint64_t wallTime() {
  return readClock(CLOCK_REALTIME);
}

}  // namespace armengine
