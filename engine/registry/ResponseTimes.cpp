#include "registry/ResponseTimes.h"

#include <algorithm>

namespace armengine {

namespace {

/// How far a time must be shifted to the right to fall below the given number of bits.
unsigned excessBits(uint64_t time, unsigned bits) {
  unsigned excess = 0;
  while ((time >> excess) >> bits != 0) ++excess;
  return excess;
}

}  // namespace

void ResponseTimes::add(uint64_t nanoseconds) {
  // The leading bit of a time is implied by its range; the STEP_BITS after it choose the step.
  const unsigned range = excessBits(nanoseconds, STEP_BITS);
  const unsigned shift = range > 0 ? range - 1 : 0;
  std::vector<uint64_t>& steps = ranges_[range];
  if (steps.empty()) steps.resize(STEPS, 0);
  ++steps[(nanoseconds >> shift) % STEPS];
  ++count_;
  maximum_ = std::max(maximum_, nanoseconds);
}

uint64_t ResponseTimes::largestOf(unsigned range, unsigned step) {
  if (range == 0) return step;
  const unsigned shift = range - 1;
  const uint64_t first = (uint64_t{STEPS} + step) << shift;
  return first + ((uint64_t{1} << shift) - 1);
}

uint64_t ResponseTimes::percentile(unsigned percent) const {
  // Rounded up, and written so that no count overflows.
  const uint64_t rank = count_ / 100 * percent + (count_ % 100 * percent + 99) / 100;
  uint64_t seen = 0;
  for (unsigned range = 0; range < RANGES; ++range) {
    for (unsigned step = 0; step < ranges_[range].size(); ++step) {
      seen += ranges_[range][step];
      if (rank > 0 && seen >= rank) return std::min(largestOf(range, step), maximum_);
    }
  }
  return maximum_;
}

}  // namespace armengine
