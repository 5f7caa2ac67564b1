#pragma once

#include <array>
#include <map>
#include <string>
#include <vector>

#include "base/Counter.h"
#include "events/EventConsumer.h"
#include "events/JsonWriter.h"
#include "otlp/Span.h"

namespace armengine {

/// Makes a span of each finished instance that is traced: what came with its start and updates is
/// kept until it ends.
class SpanCollector : public EventConsumer {
 public:
  /// Adds somebody who gets the spans; before the first event.
  void add(SpanExporter& exporter) { exporters_.push_back(&exporter); }

  void consume(const Event& event, const Payload& payload) override;
  void flush() override;

  /// Open instances of which updates or metrics were given up to bound the memory.
  uint64_t lost() const { return lost_.get(); }

 private:
  static constexpr std::size_t MOST_KEPT = 65536;
  static constexpr std::size_t MOST_UPDATES = 128;
  /// What an open instance has told beyond its start.
  struct Kept {
    std::array<std::string, METRIC_SLOTS> metrics;  ///< JSON values, empty where none was given
    std::vector<std::string> updates;               ///< JSON events
    uint64_t updates_left_out = 0;
  };

  Kept& keptOf(int32_t handle);
  void keepMetrics(const Event& event, const Payload& payload);
  void keepUpdate(const Event& event, const Payload& payload);
  void finish(const Event& event, const Payload& payload);
  void emit(const Event& event, const Kept& kept);

  std::vector<SpanExporter*> exporters_;
  std::map<int32_t, Kept> kept_;
  Counter lost_;
};

}  // namespace armengine
