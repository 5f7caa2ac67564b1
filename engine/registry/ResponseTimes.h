#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace armengine {

/// The response times of one transaction class: a histogram in bounded memory.
///
/// Every power of two is divided into 128 equal steps, so that a percentile is never below the true
/// value and at most 1/128 above it; times below 128 ns, and the maximum, are exact.  A class takes
/// 1 KiB for each power of two that has occurred, 58 KiB at most.
class ResponseTimes {
 public:
  void add(uint64_t nanoseconds);

  uint64_t count() const { return count_; }
  uint64_t maximum() const { return maximum_; }
  /// The smallest time that at least this share of all times does not exceed (nearest rank); 0
  /// without any times.
  ///   percent  1 to 100
  uint64_t percentile(unsigned percent) const;

 private:
  static constexpr unsigned STEP_BITS = 7;
  static constexpr unsigned STEPS = 1U << STEP_BITS;
  /// The times below STEPS, then one range for each further power of two of 64 bits.
  static constexpr unsigned RANGES = 64 - STEP_BITS + 1;

  static uint64_t largestOf(unsigned range, unsigned step);

  std::array<std::vector<uint64_t>, RANGES> ranges_;
  uint64_t count_ = 0;
  uint64_t maximum_ = 0;
};

}  // namespace armengine
