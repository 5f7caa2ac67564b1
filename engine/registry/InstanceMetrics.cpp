#include "registry/InstanceMetrics.h"

#include <algorithm>

namespace armengine {

MetricBinding::MetricBinding(const MetricDescriptions& described) {
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    types_[slot] = described[slot].type;
    has_counters_ = has_counters_ || isCounter(types_[slot]);
    has_metrics_ = has_metrics_ || isCounter(types_[slot]) || isGauge(types_[slot]);
  }
}

unsigned MetricBinding::bind(const MetricDescriptions& described, ClassStatistics* statistics) {
  unsigned without_room = 0;
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    const bool counter = isCounter(types_[slot]);
    if (!counter && !isGauge(types_[slot])) continue;
    metrics_[slot] = statistics->userMetric(described[slot].name, counter);
    if (metrics_[slot] == nullptr) ++without_room;
  }
  return without_room;
}

void InstanceMetrics::start(int32_t handle, const MetricBinding& of, const uint8_t* block) {
  if (of.hasCounters()) {
    read(of, block, true, &(counters_[handle] = Counters()));
  } else {
    report(of, block);
  }
}

void InstanceMetrics::update(int32_t handle, const MetricBinding& of, const uint8_t* block) {
  if (of.hasCounters()) {
    read(of, block, false, counters_.find(handle));
  } else {
    report(of, block);
  }
}

void InstanceMetrics::stop(int32_t handle, const MetricBinding& of, const uint8_t* block) {
  update(handle, of, block);
  if (!of.hasCounters()) return;
  add(of, *counters_.find(handle));
  drop(handle);
}

void InstanceMetrics::report(const MetricBinding& of, const uint8_t* block) {
  if (block == nullptr || !of.hasMetrics()) return;
  Counters counters;
  read(of, block, false, &counters);
  add(of, counters);
}

/// What a counter has before it is first given is 0, except at the start, where its value is what
/// the instance begins with.
void InstanceMetrics::read(const MetricBinding& of, const uint8_t* block, bool first,
                           Counters* counters) {
  if (block == nullptr) return;
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    UserMetric* metric = of.metric(slot);
    if (metric == nullptr) continue;
    const MetricValue value = readMetric(block, slot, of.type(slot));
    if (value.kind == MetricValue::Kind::none) continue;
    if (!metric->counter) metric->value.set(value.number());
    counters->last[slot] = value.number();
    if (first) counters->first[slot] = value.number();
  }
}

void InstanceMetrics::add(const MetricBinding& of, const Counters& counters) {
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    UserMetric* metric = of.metric(slot);
    if (metric == nullptr || !metric->counter) continue;
    metric->value.add(std::max(0.0, counters.last[slot] - counters.first[slot]));
  }
}

}  // namespace armengine
