#include "recent/DurationSteps.h"

#include <algorithm>

namespace armengine {

namespace {

constexpr unsigned FIRST_POWER = 10;
constexpr unsigned LAST = DurationSteps::COUNT - 1;
constexpr unsigned PER_POWER = 4;

}  // namespace

unsigned DurationSteps::stepOf(uint64_t duration) {
  if (duration >> FIRST_POWER == 0) return 0;
  const unsigned power = 63U - static_cast<unsigned>(__builtin_clzll(duration));
  const auto quarter = static_cast<unsigned>(duration >> (power - 2)) % PER_POWER;
  return std::min(1 + (power - FIRST_POWER) * PER_POWER + quarter, LAST);
}

uint64_t DurationSteps::beginOf(unsigned step) {
  if (step == 0) return 0;
  const uint64_t power = uint64_t{1} << (FIRST_POWER + (step - 1) / PER_POWER);
  return power + power / PER_POWER * ((step - 1) % PER_POWER);
}

void DurationCounts::add(uint64_t duration, bool failed) {
  ++counts[DurationSteps::stepOf(duration)];
  ++total;
  maximum = std::max(maximum, duration);
  if (failed) ++errors;
}

void DurationCounts::add(const DurationCounts& other) {
  for (unsigned step = 0; step < DurationSteps::COUNT; ++step) counts[step] += other.counts[step];
  total += other.total;
  maximum = std::max(maximum, other.maximum);
  errors += other.errors;
}

uint64_t DurationCounts::percentile(unsigned percent) const {
  const uint64_t rank = total / 100 * percent + (total % 100 * percent + 99) / 100;
  uint64_t seen = 0;
  for (unsigned step = 0; step < DurationSteps::COUNT && rank > 0; ++step) {
    if (seen + counts[step] < rank) {
      seen += counts[step];
      continue;
    }
    const uint64_t begin = DurationSteps::beginOf(step);
    const uint64_t end = step == LAST ? maximum : DurationSteps::beginOf(step + 1);
    const double part = static_cast<double>(rank - seen) / counts[step];
    const double inside = static_cast<double>(std::max(begin, end) - begin) * part;
    return std::min(begin + static_cast<uint64_t>(inside), maximum);
  }
  return maximum;
}

}  // namespace armengine
