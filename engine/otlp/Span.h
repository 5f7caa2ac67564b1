#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace armengine {

class JsonWriter;

/// A finished transaction in the JSON form of the OpenTelemetry protocol.
struct Span {
  std::string service;  ///< application name
  std::string json;     ///< one element of scopeSpans[].spans
};

/// Somebody who does something with spans.
class SpanExporter {
 public:
  SpanExporter() = default;
  virtual ~SpanExporter() = default;
  SpanExporter(const SpanExporter&) = delete;
  SpanExporter& operator=(const SpanExporter&) = delete;

  virtual void consume(const Span& span) = 0;
  /// There is nothing more for the moment.
  virtual void flush() {}
};

/// Appends an attribute with a text as its value, as an element of an array of attributes.
void appendTextAttribute(JsonWriter* json, std::string_view key, std::string_view value);

/// The body of one export request for some spans: one resource for each service.
///   resource  further attributes of every resource, as key and value
std::string exportRequest(const std::vector<Span>& spans,
                          const std::vector<std::pair<std::string, std::string>>& resource);

}  // namespace armengine
