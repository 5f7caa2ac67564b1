#pragma once

#include <cstdint>

namespace bench {

/// Counts of durations in nanoseconds, exact to one part in 32. Plain memory, so that it can lie in
/// a mapping that processes share; one writer.
class Histogram {
 public:
  void add(uint64_t nanoseconds) { ++counts_[slotOf(nanoseconds)]; }
  void add(const Histogram& other);
  uint64_t total() const;
  /// The duration that a share of all (0 to 1) does not exceed; 0 when there are none.
  uint64_t percentile(double share) const;

 private:
  static constexpr unsigned FINE_BITS = 5;
  static constexpr unsigned FINE = 1U << FINE_BITS;
  static constexpr unsigned SLOTS = (40 - FINE_BITS) * FINE;

  static unsigned slotOf(uint64_t nanoseconds);
  static uint64_t upperEnd(unsigned slot);

  uint32_t counts_[SLOTS];
};

}  // namespace bench
