#include "otlp/SpanCollector.h"

#include <algorithm>

#include "arm/TArmMessage.h"
#include "events/EventLines.h"
#include "events/Finished.h"
#include "text/Hex.h"
#include "text/Utf8.h"

namespace armengine {

namespace {

constexpr int KIND_INTERNAL = 1;
constexpr int STATUS_ERROR = 2;
constexpr std::size_t FORMAT2_TEXT_AT = 4;

void openAttribute(JsonWriter* json, std::string_view key) {
  json->openObject().key("key").text(key).key("value");
}

void appendNumber(JsonWriter* json, std::string_view key, int64_t value) {
  openAttribute(json, key);
  json->openObject().key("intValue").digits(value).closeObject().closeObject();
}

/// A value of the protocol; numbers of 64 bits are strings there.
std::string valueText(const MetricValue& value) {
  std::string text;
  JsonWriter json(&text);
  json.openObject();
  switch (value.kind) {
    case MetricValue::Kind::whole:
      json.key("intValue").digits(value.whole);
      break;
    case MetricValue::Kind::unsigned_whole:
      if (value.unsigned_whole <= INT64_MAX) {
        json.key("intValue").digits(value.unsigned_whole);
      } else {
        json.key("doubleValue").real(value.number());
      }
      break;
    case MetricValue::Kind::real:
      json.key("doubleValue").real(value.real);
      break;
    case MetricValue::Kind::text:
    case MetricValue::Kind::none:
      json.key("stringValue").text(value.text);
      break;
  }
  json.closeObject();
  return text;
}

void appendMetrics(JsonWriter* json, const ClassInfo& of,
                   const std::array<std::string, METRIC_SLOTS>& values) {
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    if (values[slot].empty()) continue;
    // Keys must differ; of two slots with one name the first counts.
    const auto& name = of.metrics[slot].name;
    const bool again =
        std::any_of(of.metrics.begin(), of.metrics.begin() + static_cast<std::ptrdiff_t>(slot),
                    [&name](const MetricDescription& other) { return other.name == name; });
    if (again) continue;
    openAttribute(json, name);
    json->raw(values[slot]).closeObject();
  }
}

/// The valid described slots of a block; false when there are none.
bool readMetrics(const Event& event, const Payload& payload,
                 std::array<std::string, METRIC_SLOTS>* values) {
  if (payload.size() < ARM_FORMAT1_SIZE || event.subject.tran_class == nullptr) return false;
  bool any = false;
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    const MetricType type = event.subject.tran_class->metrics[slot].type;
    if (type == MetricType::none) continue;
    const MetricValue value = readMetric(payload.data(), slot, type);
    if (value.kind == MetricValue::Kind::none) continue;
    (*values)[slot] = valueText(value);
    any = true;
  }
  return any;
}

/// Opaque bytes: as text when they are one, else as hexadecimal digits.
void appendData(JsonWriter* json, std::string_view data) {
  while (!data.empty() && data.back() == '\0') data.remove_suffix(1);
  if (data.empty()) return;
  if (data.find('\0') == std::string_view::npos && armtext::validUtf8(data) == data) {
    appendTextAttribute(json, "arm.data", data);
  } else {
    appendTextAttribute(
        json, "arm.data_hex",
        armtext::hexText(reinterpret_cast<const uint8_t*>(data.data()), data.size()));
  }
}

std::string_view viewOf(const Payload& payload, std::size_t from) {
  if (payload.size() <= from) return {};
  return {reinterpret_cast<const char*>(payload.data()) + from, payload.size() - from};
}

std::string updateText(const Event& event, const Payload& payload) {
  std::string text;
  JsonWriter json(&text);
  json.openObject().key("timeUnixNano").digits(event.time);
  json.key("name").text(nameOfEvent(event.type)).key("attributes").openArray();
  std::array<std::string, METRIC_SLOTS> values;
  if (readMetrics(event, payload, &values)) {
    appendMetrics(&json, *event.subject.tran_class, values);
  } else if (event.type == ARM_MSG_ASSOCIATE_METRIC_DATA) {
    appendData(&json, viewOf(payload, 0));
  } else if (payload.size() == ARM_FORMAT2_SIZE) {
    appendData(&json, viewOf(payload, FORMAT2_TEXT_AT));
  }
  if (isReport(event)) {
    for (std::size_t i = 0; i < event.values.size(); ++i) {
      appendNumber(&json, "arm.value" + std::to_string(i + 1), event.values[i]);
    }
  }
  json.closeArray().closeObject();
  return text;
}

void appendStatus(JsonWriter* json, const Event& event) {
  const char* message = nullptr;
  if (event.type == EVENT_ABANDONED) {
    message = "abandoned";
  } else if (event.subject.outcome == Outcome::failed ||
             event.subject.outcome == Outcome::aborted) {
    message = nameOf(event.subject.outcome);
  }
  if (message == nullptr) return;
  json->key("status").openObject().key("code").number(STATUS_ERROR);
  json->key("message").text(message).closeObject();
}

void appendAttributes(JsonWriter* json, const Event& event,
                      const std::array<std::string, METRIC_SLOTS>& metrics) {
  const ClassInfo& of = *event.subject.tran_class;
  json->key("attributes").openArray();
  appendTextAttribute(json, "arm.outcome",
                      event.type == EVENT_ABANDONED ? "abandoned" : nameOf(event.subject.outcome));
  if (event.type != EVENT_ABANDONED) {
    appendNumber(json, "arm.status", event.values[0]);
    appendNumber(json, "process.pid", event.process);
    appendNumber(json, "thread.id", event.thread);
  }
  if (!of.detail.empty()) appendTextAttribute(json, "arm.detail", of.detail);
  if (!of.application->user.empty()) appendTextAttribute(json, "enduser.id", of.application->user);
  appendMetrics(json, of, metrics);
  json->closeArray();
}

}  // namespace

void SpanCollector::consume(const Event& event, const Payload& payload) {
  if (event.result < 0 || !event.subject.context.traced || event.subject.tran_class == nullptr) {
    return;
  }
  if (endsInstance(event)) return finish(event, payload);
  // What names a class changes nothing.
  const bool of_instance = event.id == event.subject.handle;
  switch (event.type) {
    case ARM_MSG_START:
      return keepMetrics(event, payload);
    case ARM_MSG_UPDATE:
      keepMetrics(event, payload);
      return keepUpdate(event, payload);
    case ARM_MSG_ASSOCIATE_METRIC_DATA:
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT:
      return of_instance ? keepUpdate(event, payload) : void();
    default:
      return;
  }
}

void SpanCollector::flush() {
  for (SpanExporter* exporter : exporters_) exporter->flush();
}

SpanCollector::Kept& SpanCollector::keptOf(int32_t handle) {
  const auto found = kept_.find(handle);
  if (found != kept_.end()) return found->second;
  if (kept_.size() >= MOST_KEPT) {
    // The lowest number is the oldest, whose end may have been dropped.
    kept_.erase(kept_.begin());
    lost_.add();
  }
  return kept_[handle];
}

void SpanCollector::keepMetrics(const Event& event, const Payload& payload) {
  std::array<std::string, METRIC_SLOTS> values;
  if (!readMetrics(event, payload, &values)) return;
  Kept& kept = keptOf(event.subject.handle);
  for (std::size_t slot = 0; slot < METRIC_SLOTS; ++slot) {
    if (!values[slot].empty()) kept.metrics[slot] = std::move(values[slot]);
  }
}

void SpanCollector::keepUpdate(const Event& event, const Payload& payload) {
  Kept& kept = keptOf(event.subject.handle);
  if (kept.updates.size() >= MOST_UPDATES) {
    ++kept.updates_left_out;
  } else {
    kept.updates.push_back(updateText(event, payload));
  }
}

void SpanCollector::finish(const Event& event, const Payload& payload) {
  Kept kept;
  if (const auto found = kept_.find(event.subject.handle); found != kept_.end()) {
    kept = std::move(found->second);
    kept_.erase(found);
  }
  (void)readMetrics(event, payload, &kept.metrics);
  emit(event, kept);
}

void SpanCollector::emit(const Event& event, const Kept& kept) {
  const Subject& subject = event.subject;
  const uint64_t start = startOf(event);
  Span span;
  span.service = subject.application->name;
  JsonWriter json(&span.json);
  const TraceContext& context = subject.context;
  json.openObject().key("traceId").hex(context.trace_id.data(), context.trace_id.size());
  json.key("spanId").hex(context.span_id.data(), context.span_id.size());
  if (context.parent_id != SpanId()) {
    json.key("parentSpanId").hex(context.parent_id.data(), context.parent_id.size());
  }
  json.key("name").text(subject.tran_class->name).key("kind").number(KIND_INTERNAL);
  json.key("startTimeUnixNano").digits(start);
  json.key("endTimeUnixNano").digits(start + subject.duration);
  appendAttributes(&json, event, kept.metrics);
  if (!kept.updates.empty()) {
    json.key("events").openArray();
    for (const std::string& update : kept.updates) json.raw(update);
    json.closeArray();
  }
  if (kept.updates_left_out > 0) json.key("droppedEventsCount").number(kept.updates_left_out);
  appendStatus(&json, event);
  json.closeObject();
  for (SpanExporter* exporter : exporters_) exporter->consume(span);
}

}  // namespace armengine
