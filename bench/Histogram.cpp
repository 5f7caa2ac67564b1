#include "Histogram.h"

#include <algorithm>
#include <numeric>

namespace bench {

/// Each power of two has FINE slots of equal width; below 2 * FINE a slot is one nanosecond.
unsigned Histogram::slotOf(uint64_t nanoseconds) {
  if (nanoseconds < FINE) return static_cast<unsigned>(nanoseconds);
  const unsigned exponent = 63U - static_cast<unsigned>(__builtin_clzll(nanoseconds)) - FINE_BITS;
  const unsigned fine = static_cast<unsigned>(nanoseconds >> exponent) - FINE;
  return std::min((exponent + 1) * FINE + fine, SLOTS - 1);
}

uint64_t Histogram::upperEnd(unsigned slot) {
  if (slot < FINE) return slot;
  const unsigned exponent = slot / FINE - 1;
  return ((uint64_t{FINE} + slot % FINE + 1) << exponent) - 1;
}

void Histogram::add(const Histogram& other) {
  std::transform(counts_, counts_ + SLOTS, other.counts_, counts_, std::plus<>());
}

uint64_t Histogram::total() const {
  return std::accumulate(counts_, counts_ + SLOTS, uint64_t{0});
}

uint64_t Histogram::percentile(double share) const {
  const double wanted = share * static_cast<double>(total());
  double seen = 0;
  for (unsigned slot = 0; slot < SLOTS; ++slot) {
    seen += counts_[slot];
    if (counts_[slot] > 0 && seen >= wanted) return upperEnd(slot);
  }
  return 0;
}

}  // namespace bench
