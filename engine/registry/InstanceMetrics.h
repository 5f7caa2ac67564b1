#pragma once

#include <array>
#include <cstdint>

#include "base/IdTable.h"
#include "registry/Statistics.h"
#include "registry/UserMetrics.h"

namespace armengine {

/// Where the slots of a class's data blocks are added up.
class MetricBinding {
 public:
  MetricBinding() = default;
  explicit MetricBinding(const MetricDescriptions& described);

  /// Binds the slots to the metrics of statistics.  Returns the slots that find no room there.
  unsigned bind(const MetricDescriptions& described, ClassStatistics* statistics);
  void unbind() { metrics_ = {}; }

  bool hasMetrics() const { return has_metrics_; }
  bool hasCounters() const { return has_counters_; }
  MetricType type(std::size_t slot) const { return types_[slot]; }
  /// Null for a slot that is not added up.
  UserMetric* metric(std::size_t slot) const { return metrics_[slot]; }

 private:
  std::array<UserMetric*, METRIC_SLOTS> metrics_ = {};
  std::array<MetricType, METRIC_SLOTS> types_ = {};
  bool has_metrics_ = false;
  bool has_counters_ = false;
};

/// The user metrics of open instances.  A gauge shows its last value; a counter has counted its
/// last value less the first.  One thread.  Blocks are format-1 blocks, null without one.
class InstanceMetrics {
 public:
  void start(int32_t handle, const MetricBinding& of, const uint8_t* block);
  void update(int32_t handle, const MetricBinding& of, const uint8_t* block);
  /// Takes the last values, and adds what was counted.
  void stop(int32_t handle, const MetricBinding& of, const uint8_t* block);
  /// Adds the values of an instance that is never open.
  static void report(const MetricBinding& of, const uint8_t* block);
  /// Drops what is known of an instance that nobody has stopped.
  void drop(int32_t handle) { counters_.erase(handle); }

 private:
  struct Counters {
    std::array<double, METRIC_SLOTS> first = {};
    std::array<double, METRIC_SLOTS> last = {};
  };

  static void read(const MetricBinding& of, const uint8_t* block, bool first, Counters* counters);
  static void add(const MetricBinding& of, const Counters& counters);

  /// Of the instances whose class has counters.
  IdTable<Counters> counters_;
};

}  // namespace armengine
