#include "events/EventLines.h"

#include <algorithm>
#include <cstdio>

#include "arm/TArmMessage.h"
#include "base/MessageNames.h"
#include "base/Time.h"
#include "events/JsonWriter.h"

namespace armengine {

namespace {

template <typename Id>
void appendId(JsonWriter* json, const char* key, const Id& id) {
  if (std::all_of(id.begin(), id.end(), [](uint8_t byte) { return byte == 0; })) return;
  json->key(key).hex(id.data(), id.size());
}

/// Names as text and, where they were not UTF-8, as the bytes that they were.
void appendName(JsonWriter* json, const char* key, const std::string& name, const char* raw_key,
                const std::string& raw) {
  json->key(key).text(name);
  if (raw.empty()) return;
  json->key(raw_key).hex(reinterpret_cast<const uint8_t*>(raw.data()), raw.size());
}

/// The zeros at a block's end are left out.
void appendBlock(JsonWriter* json, const Event& event, const Payload& payload) {
  if (event.data_size == 0) return;
  std::size_t size = payload.size();
  while (size > 0 && payload[size - 1] == 0) --size;
  json->key("size").number(event.data_size);
  json->key("block").hex(payload.data(), size);
}

void appendTrace(JsonWriter* json, const Event& event) {
  const TraceContext& context = event.subject.context;
  appendId(json, "trace", context.trace_id);
  appendId(json, "span", context.span_id);
  appendId(json, "parent", context.parent_id);
  json->key("traced").boolean(context.traced);
}

void appendOutcome(JsonWriter* json, const Event& event) {
  if (event.result < 0) return;
  json->key("outcome").text(nameOf(event.subject.outcome));
  json->key("duration_ns").number(event.subject.duration);
}

void appendInit(JsonWriter* json, const Event& event) {
  if (const auto& application = event.subject.application; application != nullptr) {
    appendName(json, "application", application->name, "application_bytes", application->raw);
    json->key("user").text(application->user);
  }
  json->key("flags").number(event.values[0]);
}

void appendGetid(JsonWriter* json, const Event& event) {
  json->key("id").number(event.id);
  if (const auto& of = event.subject.tran_class; of != nullptr) {
    appendName(json, "transaction", of->name, "transaction_bytes", of->raw);
    json->key("detail").text(of->detail);
  }
}

void appendValues(JsonWriter* json, const Event& event) {
  json->key("id").number(event.id);
  json->key("values").openArray();
  for (const int32_t value : event.values) json->number(value);
  json->closeArray();
}

void appendClass(JsonWriter* json, const Event& event) {
  if (event.subject.tran_class != nullptr) {
    json->key("class").number(event.subject.tran_class->id);
  }
}

void appendExpired(JsonWriter* json, const Event& event) {
  json->key("application").text(event.subject.application->name);
  json->key("transaction").text(event.subject.tran_class->name);
}

void appendBody(JsonWriter* json, const Event& event) {
  switch (event.type) {
    case ARM_MSG_INIT:
      return appendInit(json, event);
    case ARM_MSG_GETID:
      return appendGetid(json, event);
    case ARM_MSG_START:
      json->key("id").number(event.id);
      return event.result > 0 ? appendTrace(json, event) : void();
    case ARM_MSG_STOP:
      json->key("id").number(event.id).key("status").number(event.values[0]);
      json->key("flags").number(event.values[1]);
      appendClass(json, event);
      return appendOutcome(json, event);
    case ARM_MSG_TRANS_REPORT:
    case ARM_MSG_TRANS_INSTANCE_REPORT:
    case ARM_MSG_COMPLETE_TRANS:
    case ARM_MSG_COMPLETE_TRANS_INSTANCE:
      appendValues(json, event);
      return appendClass(json, event);
    case EVENT_ABANDONED:
      json->key("id").number(event.id).key("duration_ns").number(event.subject.duration);
      return appendClass(json, event);
    case EVENT_EXPIRED:
      return appendExpired(json, event);
    default:
      json->key("id").number(event.id);
  }
}

}  // namespace

const char* nameOfEvent(int32_t type) {
  switch (type) {
    case EVENT_ABANDONED:
      return "abandoned";
    case EVENT_FORGOTTEN:
      return "forgotten";
    case EVENT_EXPIRED:
      return "expired";
    default:
      return nameOfMessage(type);
  }
}

std::string timeText(uint64_t nanoseconds) {
  char text[40];
  (void)std::snprintf(text, sizeof text, "%llu.%09llu",
                      static_cast<unsigned long long>(nanoseconds / SECOND),
                      static_cast<unsigned long long>(nanoseconds % SECOND));
  return text;
}

void appendFirstLine(std::string* text, uint64_t engine, uint64_t time) {
  JsonWriter json(text);
  json.openObject().key("event").text("engine").key("version").number(EVENT_LINES_VERSION);
  // In a string: not every reader keeps 64 bits of a number.
  json.key("engine").digits(engine).key("time").text(timeText(time)).closeObject();
  *text += '\n';
}

void appendEventLine(std::string* text, const Event& event, const Payload& payload) {
  JsonWriter json(text);
  json.openObject().key("n").number(event.number).key("event").text(nameOfEvent(event.type));
  if (nameOfEvent(event.type) == UNKNOWN_MESSAGE) json.key("type").number(event.type);
  json.key("time").text(timeText(event.time));
  if (event.type < EVENT_ABANDONED) {
    json.key("process").number(event.process).key("thread").number(event.thread);
    json.key("result").number(event.result);
  }
  appendBody(&json, event);
  if (event.type == ARM_MSG_UPDATE) json.key("flags").number(event.values[0]);
  appendBlock(&json, event, payload);
  json.closeObject();
  *text += '\n';
}

}  // namespace armengine
