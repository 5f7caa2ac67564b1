#include "metrics/Prometheus.h"

#include <prometheus/metric_family.h>
#include <prometheus/text_serializer.h>

#include <deque>
#include <limits>
#include <memory>
#include <set>
#include <utility>

#include "base/MessageNames.h"

namespace armengine {

namespace {

using prometheus::ClientMetric;
using prometheus::MetricFamily;
using prometheus::MetricType;
using Entries = std::vector<std::shared_ptr<ClassStatistics>>;
using Labels = std::vector<ClientMetric::Label>;

constexpr double NANOSECONDS_PER_SECOND = 1e9;

/// Collects the families of one page.
class Page {
 public:
  MetricFamily& family(const char* name, const char* help, MetricType type) {
    families_.push_back({name, help, type, {}});
    return families_.back();
  }
  MetricFamily& counters(const char* name, const char* help) {
    return family(name, help, MetricType::Counter);
  }
  MetricFamily& gauges(const char* name, const char* help) {
    return family(name, help, MetricType::Gauge);
  }

  std::string text() const {
    std::vector<MetricFamily> filled;
    for (const MetricFamily& each : families_) {
      if (!each.metric.empty()) filled.push_back(each);
    }
    return prometheus::TextSerializer().Serialize(filled);
  }

 private:
  std::deque<MetricFamily> families_;  ///< adding one moves no other
};

void add(MetricFamily* family, Labels labels, double value) {
  ClientMetric metric;
  metric.label = std::move(labels);
  if (family->type == MetricType::Counter) {
    metric.counter.value = value;
  } else {
    metric.gauge.value = value;
  }
  family->metric.push_back(std::move(metric));
}

template <typename Number>
auto add(MetricFamily* family, Labels labels, const Number& number)
    -> decltype(number.get(), void()) {
  add(family, std::move(labels), static_cast<double>(number.get()));
}

Labels labelsOf(const ClassStatistics& entry) {
  return {{"application", entry.application}, {"transaction", entry.name}};
}

Labels labelsOf(const ClassStatistics& entry, const char* name, const std::string& value) {
  Labels labels = labelsOf(entry);
  labels.push_back({name, value});
  return labels;
}

void addOutcomes(Page* page, const Entries& entries) {
  MetricFamily& family =
      page->counters("arm_transactions_total", "Finished transactions by completion status.");
  for (const auto& entry : entries) {
    add(&family, labelsOf(*entry, "status", "good"), entry->good);
    add(&family, labelsOf(*entry, "status", "aborted"), entry->aborted);
    add(&family, labelsOf(*entry, "status", "failed"), entry->failed);
    add(&family, labelsOf(*entry, "status", "unknown"), entry->unknown);
  }
}

ClientMetric::Histogram histogramOf(const ClassStatistics& entry) {
  ClientMetric::Histogram histogram;
  uint64_t count = 0;
  for (std::size_t i = 0; i < entry.buckets.size(); ++i) {
    count += entry.buckets[i].get();
    const bool last = i == entry.bucket_bounds.size();
    const double bound = last
                             ? std::numeric_limits<double>::infinity()
                             : static_cast<double>(entry.bucket_bounds[i]) / NANOSECONDS_PER_SECOND;
    histogram.bucket.push_back({count, bound});
  }
  histogram.sample_count = count;
  histogram.sample_sum = static_cast<double>(entry.times.sum()) / NANOSECONDS_PER_SECOND;
  return histogram;
}

void addDurations(Page* page, const Entries& entries) {
  MetricFamily& family =
      page->family("arm_transaction_duration_seconds", "Response times of finished transactions.",
                   MetricType::Histogram);
  for (const auto& entry : entries) {
    ClientMetric metric;
    metric.label = labelsOf(*entry);
    metric.histogram = histogramOf(*entry);
    family.metric.push_back(std::move(metric));
  }
}

void addCounts(Page* page, const Entries& entries) {
  MetricFamily& started =
      page->counters("arm_transactions_started_total", "Transactions that were started.");
  for (const auto& entry : entries) add(&started, labelsOf(*entry), entry->started);
  MetricFamily& open =
      page->gauges("arm_transactions_in_flight", "Transactions that are open now.");
  for (const auto& entry : entries) add(&open, labelsOf(*entry), entry->open);
  MetricFamily& abandoned = page->counters("arm_transactions_abandoned_total",
                                           "Transactions that were open when their process ended.");
  for (const auto& entry : entries) add(&abandoned, labelsOf(*entry), entry->abandoned);
}

void addUserMetrics(Page* page, const Entries& entries, bool counters) {
  MetricFamily& family =
      counters ? page->counters("arm_user_metric_total", "Counters of the programs' own.")
               : page->gauges("arm_user_metric_value", "Last values of the programs' own gauges.");
  for (const auto& entry : entries) {
    for (const UserMetric* metric : entry->userMetrics()) {
      if (metric->counter != counters) continue;
      add(&family, labelsOf(*entry, "metric", metric->name), metric->value.get());
    }
  }
}

void addRequests(Page* page, const EngineCounters& counters) {
  MetricFamily& requests =
      page->counters("arm_engine_requests_total", "Requests that were answered, by type.");
  for (int32_t type = 1; type < MESSAGE_TYPES; ++type) {
    if (!isMessageType(type)) continue;
    add(&requests, {{"type", nameOfMessage(type)}}, counters.requestsOf(type));
  }
  add(&requests, {{"type", UNKNOWN_MESSAGE}}, counters.requestsOf(0));
  MetricFamily& refused = page->counters("arm_engine_requests_refused_total",
                                         "Requests that were answered with a negative status.");
  add(&refused, {{"reason", "unknown_application"}}, counters.unknown_applications);
  add(&refused, {{"reason", "unknown_class"}}, counters.unknown_classes);
  add(&refused, {{"reason", "unknown_handle"}}, counters.unknown_handles);
  add(&refused, {{"reason", "unknown_type"}}, counters.unknown_messages);
  add(&refused, {{"reason", "bad_length"}}, counters.bad_lengths);
  add(&refused, {{"reason", "too_many_open"}}, counters.instances_over_limit);
}

void addOddities(Page* page, const EngineCounters& counters) {
  MetricFamily& limits = page->counters("arm_engine_over_limit_total",
                                        "What went to \"other\", or was left out, for a limit.");
  add(&limits, {{"kind", "applications"}}, counters.applications_over_limit);
  add(&limits, {{"kind", "classes"}}, counters.classes_over_limit);
  add(&limits, {{"kind", "instances"}}, counters.instances_over_limit);
  add(&limits, {{"kind", "user_metrics"}}, counters.metrics_over_limit);
  add(&page->counters("arm_engine_clock_steps_total",
                      "Transactions that seemed to end before they began."),
      {}, counters.clocks_stepped_back);
  add(&page->counters("arm_engine_unknown_parents_total",
                      "Correlators that could not be read; each started a new trace."),
      {}, counters.parents_not_known);
  add(&page->counters("arm_engine_departed_processes_total", "Measured processes that have ended."),
      {}, counters.departed_processes);
  add(&page->counters("arm_engine_expired_classes_total",
                      "Classes whose figures were forgotten because nobody used them."),
      {}, counters.expired_classes);
}

void addQueues(Page* page, const QueueView& view) {
  const auto gauges = view.read();
  if (!gauges) return;
  MetricFamily& length =
      page->gauges("arm_engine_queue_length", "Records that are in a queue now.");
  add(&length, {{"queue", "requests"}}, gauges->requests);
  add(&length, {{"queue", "replies"}}, gauges->replies);
  MetricFamily& capacity = page->gauges("arm_engine_queue_capacity", "Records that a queue holds.");
  add(&capacity, {{"queue", "requests"}}, gauges->request_capacity);
  add(&capacity, {{"queue", "replies"}}, gauges->reply_capacity);
  add(&page->gauges("arm_engine_requesters", "Threads that have a place in the reply queue."), {},
      gauges->requesters);
}

void addOutputs(Page* page, const EngineView& view) {
  MetricFamily& drops =
      page->counters("arm_engine_dropped_total", "What an output has lost, by reason.");
  for (const OutputCounter& one : view.drops) {
    add(&drops, {{"output", one.output}, {"reason", one.name}}, static_cast<double>(one.value()));
  }
  MetricFamily& sent = page->counters("arm_engine_sent_total", "What an output has handed on.");
  for (const OutputCounter& one : view.sent) {
    add(&sent, {{"output", one.output}, {"what", one.name}}, static_cast<double>(one.value()));
  }
}

}  // namespace

std::string prometheusText(const EngineView& view) {
  const Entries entries = view.registry.statistics();
  const EngineCounters& counters = view.registry.counters();
  Page page;
  addOutcomes(&page, entries);
  addCounts(&page, entries);
  addDurations(&page, entries);
  addUserMetrics(&page, entries, true);
  addUserMetrics(&page, entries, false);
  addRequests(&page, counters);
  addOddities(&page, counters);
  addQueues(&page, view.queues);
  addOutputs(&page, view);
  add(&page.gauges("arm_engine_build_info", "1, with the version of the engine."),
      {{"version", ARM_VERSION}}, 1);
  return page.text();
}

}  // namespace armengine
