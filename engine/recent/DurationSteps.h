#pragma once

#include <array>
#include <cstdint>

namespace armengine {

/// Steps of durations, for plots: four for each power of two from 1,024 ns to 2^37 ns (137 s), one
/// for what is shorter and one for what is longer.
struct DurationSteps {
  static constexpr unsigned COUNT = 110;
  using Counts = std::array<uint32_t, COUNT>;

  /// The step of a duration in nanoseconds.
  static unsigned stepOf(uint64_t duration);
  /// The smallest duration of a step.
  static uint64_t beginOf(unsigned step);
};

/// How many durations of each step there were.
struct DurationCounts {
  DurationSteps::Counts counts = {};
  uint64_t total = 0;
  uint64_t maximum = 0;
  uint64_t errors = 0;  ///< of failed or aborted instances

  void add(uint64_t duration, bool failed);
  void add(const DurationCounts& other);
  /// The duration that a share of all does not exceed (nearest rank), interpolated within its step:
  /// at most a quarter off.  0 without any.
  ///   percent  1 to 100
  uint64_t percentile(unsigned percent) const;
};

}  // namespace armengine
