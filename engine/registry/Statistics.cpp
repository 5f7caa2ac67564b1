#include "registry/Statistics.h"

#include <algorithm>

#include "arm.h"

namespace armengine {

Outcome outcomeOf(int32_t completion_status) {
  switch (completion_status) {
    case ARM_GOOD:
      return Outcome::good;
    case ARM_ABORT:
      return Outcome::aborted;
    case ARM_FAILED:
      return Outcome::failed;
    default:
      return Outcome::unknown;
  }
}

const char* nameOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::good:
      return "good";
    case Outcome::aborted:
      return "aborted";
    case Outcome::failed:
      return "failed";
    case Outcome::unknown:
      break;
  }
  return "unknown";
}

Buckets standardBuckets() {
  constexpr uint64_t US = 1000;
  constexpr uint64_t MS = 1000 * US;
  constexpr uint64_t S = 1000 * MS;
  return {100 * US, 250 * US, 500 * US, 1 * MS,   2500 * US, 5 * MS, 10 * MS,
          25 * MS,  50 * MS,  100 * MS, 250 * MS, 500 * MS,  1 * S,  2500 * MS,
          5 * S,    10 * S,   25 * S,   50 * S,   100 * S};
}

ClassStatistics::~ClassStatistics() {
  for (const auto& metric : user_metrics_) delete metric.load();
}

void ClassStatistics::addFinished(Outcome outcome, uint64_t duration) {
  switch (outcome) {
    case Outcome::good:
      good.add();
      break;
    case Outcome::aborted:
      aborted.add();
      break;
    case Outcome::failed:
      failed.add();
      break;
    case Outcome::unknown:
      unknown.add();
      break;
  }
  times.add(duration);
  const auto bound = std::lower_bound(bucket_bounds.begin(), bucket_bounds.end(), duration);
  buckets[static_cast<std::size_t>(bound - bucket_bounds.begin())].add();
}

UserMetric* ClassStatistics::userMetric(const std::string& metric_name, bool counter) {
  for (auto& place : user_metrics_) {
    UserMetric* metric = place.load(std::memory_order_relaxed);
    if (metric == nullptr) {
      metric = std::make_unique<UserMetric>(metric_name, counter).release();
      // Readers see the name before they see the metric.
      place.store(metric, std::memory_order_release);
      return metric;
    }
    if (metric->name == metric_name && metric->counter == counter) return metric;
  }
  return nullptr;
}

std::vector<const UserMetric*> ClassStatistics::userMetrics() const {
  std::vector<const UserMetric*> metrics;
  for (const auto& place : user_metrics_) {
    const UserMetric* metric = place.load(std::memory_order_acquire);
    if (metric == nullptr) break;
    metrics.push_back(metric);
  }
  return metrics;
}

ClassStatistics* StatisticsTable::find(std::string_view application, std::string_view name) {
  const auto found = entries_.find({application, name});
  return found != entries_.end() ? found->second.get() : nullptr;
}

std::shared_ptr<ClassStatistics> StatisticsTable::share(const ClassStatistics& entry) {
  return entries_.at({entry.application, entry.name});
}

std::shared_ptr<ClassStatistics> StatisticsTable::add(const std::string& application,
                                                      const std::string& name) {
  auto entry = std::make_shared<ClassStatistics>(application, name, buckets_);
  const std::lock_guard<std::mutex> lock(mutex_);
  entries_[{entry->application, entry->name}] = entry;
  return entry;
}

void StatisticsTable::remove(const ClassStatistics& entry) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const auto found = entries_.find({entry.application, entry.name});
  // A node's key lives in its value, so that it must go first.
  if (found != entries_.end()) entries_.erase(found);
}

std::vector<std::shared_ptr<ClassStatistics>> StatisticsTable::all() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::shared_ptr<ClassStatistics>> entries;
  entries.reserve(entries_.size());
  for (const auto& [key, entry] : entries_) entries.push_back(entry);
  return entries;
}

}  // namespace armengine
