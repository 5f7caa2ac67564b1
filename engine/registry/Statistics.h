#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Counter.h"
#include "registry/ResponseTimes.h"
#include "registry/UserMetrics.h"

namespace armengine {

/// How an instance ended.
enum class Outcome : uint8_t { good, aborted, failed, unknown };

/// The outcome of a completion status word.
Outcome outcomeOf(int32_t completion_status);

/// "good", "aborted", "failed" or "unknown".
const char* nameOf(Outcome outcome);

/// Upper bounds of the response-time buckets, in nanoseconds, ascending.
using Buckets = std::vector<uint64_t>;

/// From 100 microseconds to 100 seconds.
Buckets standardBuckets();

/// A counter or gauge of a program's own, over all instances of a class.
struct UserMetric {
  UserMetric(std::string metric_name, bool counts)
      : name(std::move(metric_name)), counter(counts) {}

  const std::string name;
  const bool counter;
  RealGauge value;  ///< a counter's sum, a gauge's last value
};

/// What is known of all instances of the classes of one name in applications of one name.  One
/// thread changes it; any thread reads.
struct ClassStatistics {
  ClassStatistics(std::string application_name, std::string class_name, const Buckets& bounds)
      : application(std::move(application_name)),
        name(std::move(class_name)),
        bucket_bounds(bounds),
        buckets(bounds.size() + 1) {}
  ~ClassStatistics();
  ClassStatistics(const ClassStatistics&) = delete;
  ClassStatistics& operator=(const ClassStatistics&) = delete;

  const std::string application;  ///< UTF-8
  const std::string name;         ///< UTF-8
  Counter started;
  Gauge open;
  Counter good;
  Counter aborted;
  Counter failed;
  Counter unknown;
  Counter abandoned;  ///< open when their process ended; in none of the four above
  ResponseTimes times;
  const Buckets bucket_bounds;
  std::vector<Counter> buckets;  ///< one for each bound, and one for what exceeds them all

  /// Instances that have finished, abandoned ones not counted.
  uint64_t count() const { return good.get() + aborted.get() + failed.get() + unknown.get(); }
  void addFinished(Outcome outcome, uint64_t duration);

  static constexpr std::size_t MOST_USER_METRICS = 32;
  /// The metric of that name and kind, made when it is new; null when there are too many already.
  /// The changing thread only.
  UserMetric* userMetric(const std::string& name, bool counter);
  /// All of them, for any thread.
  std::vector<const UserMetric*> userMetrics() const;

  uint64_t last_used = 0;  ///< of the changing thread: seconds of its clock

 private:
  std::array<std::atomic<UserMetric*>, MOST_USER_METRICS> user_metrics_ = {};
};

/// The statistics of all classes.  Its lock is taken when an entry comes or goes, never for an
/// instance.
class StatisticsTable {
 public:
  using Key = std::pair<std::string_view, std::string_view>;

  explicit StatisticsTable(Buckets buckets) : buckets_(std::move(buckets)) {}

  /// The entry of a name, null when there is none.  The changing thread only.
  ClassStatistics* find(std::string_view application, std::string_view name);
  std::shared_ptr<ClassStatistics> share(const ClassStatistics& entry);
  std::shared_ptr<ClassStatistics> add(const std::string& application, const std::string& name);
  void remove(const ClassStatistics& entry);
  std::size_t size() const { return entries_.size(); }

  /// All entries, by application and class name.  Any thread.
  std::vector<std::shared_ptr<ClassStatistics>> all() const;

 private:
  const Buckets buckets_;
  mutable std::mutex mutex_;
  /// Keyed by the entries' own names.
  std::map<Key, std::shared_ptr<ClassStatistics>> entries_;
};

}  // namespace armengine
