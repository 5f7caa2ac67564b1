#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "base/Counter.h"

namespace armengine {

/// The response times of one transaction class: a histogram in bounded memory.
///
/// Every power of two is divided into 128 equal steps, so that a percentile is never below the true
/// value and at most 1/128 above it; times below 128 ns, and the maximum, are exact.  A class takes
/// 1 KiB for each power of two that has occurred, 58 KiB at most.
///
/// One thread adds; any thread may read meanwhile.
class ResponseTimes {
 public:
  ResponseTimes() = default;
  ~ResponseTimes();
  ResponseTimes(const ResponseTimes& other) { merge(other); }
  ResponseTimes& operator=(const ResponseTimes&) = delete;

  void add(uint64_t nanoseconds);
  /// Adds all times of another one, as if each had been added here.
  void merge(const ResponseTimes& other);

  uint64_t count() const { return count_.get(); }
  uint64_t maximum() const { return maximum_.get(); }
  /// Nanoseconds of all times together.
  uint64_t sum() const { return sum_.get(); }
  /// The smallest time that at least this share of all times does not exceed (nearest rank); 0
  /// without any times.
  ///   percent  1 to 100
  uint64_t percentile(unsigned percent) const;

 private:
  static constexpr unsigned STEP_BITS = 7;
  static constexpr unsigned STEPS = 1U << STEP_BITS;
  /// The times below STEPS, then one range for each further power of two of 64 bits.
  static constexpr unsigned RANGES = 64 - STEP_BITS + 1;
  using Steps = std::array<Counter, STEPS>;

  static uint64_t largestOf(unsigned range, unsigned step);
  Steps& stepsOf(unsigned range);

  /// Made when the first time of a range occurs, and kept.
  std::array<std::atomic<Steps*>, RANGES> ranges_ = {};
  Counter count_;
  Gauge maximum_;
  Counter sum_;
};

}  // namespace armengine
