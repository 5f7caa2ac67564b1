#include "registry/ResponseTimes.h"

#include <algorithm>
#include <memory>

namespace armengine {

namespace {

/// How far a time must be shifted to the right to fall below the given number of bits.
unsigned excessBits(uint64_t time, unsigned bits) {
  const uint64_t excess = time >> bits;
  return excess == 0 ? 0 : 64U - static_cast<unsigned>(__builtin_clzll(excess));
}

}  // namespace

ResponseTimes::~ResponseTimes() {
  for (const auto& steps : ranges_) delete steps.load();
}

ResponseTimes::Steps& ResponseTimes::stepsOf(unsigned range) {
  Steps* steps = ranges_[range].load(std::memory_order_relaxed);
  if (steps == nullptr) {
    steps = std::make_unique<Steps>().release();
    // Readers see the zeros before they see the steps.
    ranges_[range].store(steps, std::memory_order_release);
  }
  return *steps;
}

void ResponseTimes::add(uint64_t nanoseconds) {
  // The leading bit of a time is implied by its range; the STEP_BITS after it choose the step.
  const unsigned range = excessBits(nanoseconds, STEP_BITS);
  const unsigned shift = range > 0 ? range - 1 : 0;
  stepsOf(range)[(nanoseconds >> shift) % STEPS].add();
  count_.add();
  sum_.add(nanoseconds);
  if (nanoseconds > maximum_.get()) maximum_.set(nanoseconds);
}

void ResponseTimes::merge(const ResponseTimes& other) {
  for (unsigned range = 0; range < RANGES; ++range) {
    const Steps* steps = other.ranges_[range].load(std::memory_order_acquire);
    if (steps == nullptr) continue;
    for (unsigned step = 0; step < STEPS; ++step) {
      const uint64_t count = (*steps)[step].get();
      if (count == 0) continue;
      stepsOf(range)[step].add(count);
      count_.add(count);
    }
  }
  sum_.add(other.sum());
  maximum_.set(std::max(maximum(), other.maximum()));
}

uint64_t ResponseTimes::largestOf(unsigned range, unsigned step) {
  if (range == 0) return step;
  const unsigned shift = range - 1;
  const uint64_t first = (uint64_t{STEPS} + step) << shift;
  return first + ((uint64_t{1} << shift) - 1);
}

uint64_t ResponseTimes::percentile(unsigned percent) const {
  // Rounded up, and written so that no count overflows.
  const uint64_t all = count();
  const uint64_t rank = all / 100 * percent + (all % 100 * percent + 99) / 100;
  uint64_t seen = 0;
  for (unsigned range = 0; range < RANGES; ++range) {
    const Steps* steps = ranges_[range].load(std::memory_order_acquire);
    for (unsigned step = 0; steps != nullptr && step < STEPS; ++step) {
      seen += (*steps)[step].get();
      if (rank > 0 && seen >= rank) return std::min(largestOf(range, step), maximum());
    }
  }
  return maximum();
}

}  // namespace armengine
