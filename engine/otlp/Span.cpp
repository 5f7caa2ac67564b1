#include "otlp/Span.h"

#include <map>

#include "events/JsonWriter.h"

namespace armengine {

void appendTextAttribute(JsonWriter* json, std::string_view key, std::string_view value) {
  json->openObject().key("key").text(key).key("value").openObject();
  json->key("stringValue").text(value).closeObject().closeObject();
}

std::string exportRequest(const std::vector<Span>& spans,
                          const std::vector<std::pair<std::string, std::string>>& resource) {
  std::map<std::string, std::vector<const Span*>> by_service;
  for (const Span& span : spans) by_service[span.service].push_back(&span);
  std::string text;
  JsonWriter json(&text);
  json.openObject().key("resourceSpans").openArray();
  for (const auto& [service, members] : by_service) {
    json.openObject().key("resource").openObject().key("attributes").openArray();
    appendTextAttribute(&json, "service.name", service.empty() ? "unknown_service" : service);
    for (const auto& [key, value] : resource) appendTextAttribute(&json, key, value);
    json.closeArray().closeObject();
    json.key("scopeSpans").openArray().openObject().key("scope").openObject();
    json.key("name").text("armengine").key("version").text(ARM_VERSION).closeObject();
    json.key("spans").openArray();
    for (const Span* span : members) json.raw(span->json);
    json.closeArray().closeObject().closeArray().closeObject();
  }
  json.closeArray().closeObject();
  return text;
}

}  // namespace armengine
