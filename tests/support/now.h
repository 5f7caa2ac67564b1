#pragma once

#include <chrono>
#include <ctime>

namespace armtest {

/// The second that has begun.  time() reads a clock that lags behind the stamps by up to a tick.
inline std::time_t now() {
  return std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
}

}  // namespace armtest
