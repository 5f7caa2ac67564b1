#include "armtop/Figures.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "armtop/Metrics.h"

namespace armtop {

namespace {

std::string labelOf(const Sample& sample, const char* name) {
  const auto found = sample.labels.find(name);
  return found != sample.labels.end() ? found->second : "";
}

void addOutcome(const Sample& sample, ClassFigures* figures) {
  const std::string status = labelOf(sample, "status");
  double& place = status == "good"      ? figures->good
                  : status == "aborted" ? figures->aborted
                  : status == "failed"  ? figures->failed
                                        : figures->unknown;
  place += sample.value;
}

/// Takes a figure of a class; false when the sample is none.
bool addOfClass(const Sample& sample, Figures* figures) {
  if (sample.name.rfind("arm_transaction", 0) != 0 || !std::isfinite(sample.value)) return false;
  ClassFigures& one =
      figures->classes[{labelOf(sample, "application"), labelOf(sample, "transaction")}];
  if (sample.name == "arm_transactions_total") addOutcome(sample, &one);
  if (sample.name == "arm_transactions_started_total") one.started = sample.value;
  if (sample.name == "arm_transactions_abandoned_total") one.abandoned = sample.value;
  if (sample.name == "arm_transactions_in_flight") one.in_flight = sample.value;
  if (sample.name == "arm_transaction_duration_seconds_bucket") {
    const std::string bound = labelOf(sample, "le");
    char* end = nullptr;
    const double seconds = std::strtod(bound.c_str(), &end);
    if (!bound.empty() && *end == '\0' && !std::isnan(seconds)) one.buckets[seconds] = sample.value;
  }
  return true;
}

bool addOfEngine(const Sample& sample, Figures* figures) {
  if (sample.name.rfind("arm_engine_", 0) != 0) return false;
  const bool requests = labelOf(sample, "queue") == "requests";
  if (sample.name == "arm_engine_build_info") figures->version = labelOf(sample, "version");
  if (sample.name == "arm_engine_queue_length" && requests) figures->requests = sample.value;
  if (sample.name == "arm_engine_queue_capacity") {
    (requests ? figures->request_capacity : figures->reply_capacity) = sample.value;
  }
  if (sample.name == "arm_engine_requesters") figures->requesters = sample.value;
  if (sample.name == "arm_engine_dropped_total") figures->dropped += sample.value;
  return true;
}

bool hasShrunk(const ClassFigures& before, const ClassFigures& now) {
  return now.finished() < before.finished() || now.started < before.started;
}

/// What was added to figures that only grow.
ClassFigures difference(const ClassFigures& before, const ClassFigures& now) {
  ClassFigures added = now;
  added.good -= before.good;
  added.aborted -= before.aborted;
  added.failed -= before.failed;
  added.unknown -= before.unknown;
  for (auto& [bound, count] : added.buckets) {
    const auto earlier = before.buckets.find(bound);
    if (earlier != before.buckets.end()) count -= earlier->second;
  }
  return added;
}

Row makeRow(const ClassName& name, const ClassFigures& added, double seconds) {
  Row row;
  row.name = name;
  row.count = added.finished();
  row.in_flight = added.in_flight;
  if (seconds > 0) row.rate = row.count / seconds;
  if (row.count > 0) row.errors = (added.aborted + added.failed) / row.count;
  row.p50 = quantile(added.buckets, 0.50);
  row.p95 = quantile(added.buckets, 0.95);
  row.p99 = quantile(added.buckets, 0.99);
  return row;
}

}  // namespace

std::optional<Figures> readFigures(const std::string& text, Clock::time_point time) {
  Figures figures;
  figures.time = time;
  unsigned broken = 0;
  bool any = false;
  for (const Sample& sample : parseMetrics(text, &broken)) {
    if (addOfClass(sample, &figures) || addOfEngine(sample, &figures)) any = true;
  }
  if (!any) return std::nullopt;
  return figures;
}

std::optional<Quantile> quantile(const Buckets& buckets, double share) {
  if (buckets.empty()) return std::nullopt;
  const double total = buckets.rbegin()->second;
  if (!(total > 0)) return std::nullopt;
  const double rank = share * total;
  double lower_bound = 0;
  double lower_count = 0;
  for (const auto& [bound, count] : buckets) {
    if (count >= rank && count > lower_count) {
      if (std::isinf(bound)) break;
      const double part = (rank - lower_count) / (count - lower_count);
      return Quantile{lower_bound + (bound - lower_bound) * std::max(part, 0.0), false};
    }
    if (!std::isinf(bound)) lower_bound = bound;
    lower_count = std::max(lower_count, count);
  }
  return Quantile{lower_bound, true};
}

std::vector<Row> makeRows(const Figures* before, const Figures& now) {
  const ClassFigures nothing;
  double seconds = 0;
  if (before != nullptr) {
    seconds = std::chrono::duration<double>(now.time - before->time).count();
  }
  std::vector<Row> rows;
  for (const auto& [name, figures] : now.classes) {
    const ClassFigures* earlier = &nothing;
    if (before != nullptr) {
      const auto found = before->classes.find(name);
      if (found != before->classes.end() && !hasShrunk(found->second, figures)) {
        earlier = &found->second;
      }
    }
    rows.push_back(makeRow(name, difference(*earlier, figures), seconds));
  }
  return rows;
}

}  // namespace armtop
