#include "otlp/OtlpSettings.h"

#include <charconv>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace armengine {

namespace {

constexpr std::string_view PATH = "/v1/traces";

using Warnings = std::vector<std::string>;
using Pairs = std::vector<std::pair<std::string, std::string>>;

std::string variable(const std::string& name) {
  const char* value = std::getenv(name.c_str());
  return value != nullptr ? value : "";
}

/// The variable for traces, else the one for everything.
std::string exporterVariable(const std::string& name) {
  const std::string own = variable("OTEL_EXPORTER_OTLP_TRACES_" + name);
  return own.empty() ? variable("OTEL_EXPORTER_OTLP_" + name) : own;
}

bool endsWith(const std::string& text, std::string_view end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

std::string withPath(std::string base) {
  while (endsWith(base, "/")) base.pop_back();
  return base.empty() || endsWith(base, PATH) ? base : base + std::string(PATH);
}

std::string urlFor(const std::string& given) {
  if (!given.empty()) return withPath(given);
  const bool off =
      variable("OTEL_SDK_DISABLED") == "true" || variable("OTEL_TRACES_EXPORTER") == "none";
  if (off) return {};
  const std::string complete = variable("OTEL_EXPORTER_OTLP_TRACES_ENDPOINT");
  return complete.empty() ? withPath(variable("OTEL_EXPORTER_OTLP_ENDPOINT")) : complete;
}

std::string trimmed(std::string_view text) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  return std::string(text);
}

/// "%20" and the like.
std::string decoded(const std::string& text) {
  std::string plain;
  for (std::size_t i = 0; i < text.size(); ++i) {
    unsigned value = 0;
    const char* digits = text.data() + i + 1;
    const bool escaped = text[i] == '%' && i + 2 < text.size() &&
                         std::from_chars(digits, digits + 2, value, 16).ptr == digits + 2;
    plain += escaped ? static_cast<char>(value) : text[i];
    if (escaped) i += 2;
  }
  return plain;
}

/// "key=value,key=value"
Pairs pairsOf(const std::string& name, const std::string& text, Warnings* warnings) {
  Pairs pairs;
  std::size_t begin = 0;
  while (begin < text.size()) {
    const std::size_t end = std::min(text.find(',', begin), text.size());
    const std::string part = text.substr(begin, end - begin);
    const std::size_t equals = part.find('=');
    const bool clean = part.find_first_of("\r\n") == std::string::npos;
    if (equals == std::string::npos || equals == 0 || !clean) {
      warnings->push_back(name + " has a part that is not KEY=VALUE, which is left out");
    } else {
      pairs.emplace_back(trimmed(part.substr(0, equals)),
                         decoded(trimmed(part.substr(equals + 1))));
    }
    begin = end + 1;
  }
  return pairs;
}

template <typename T>
void readNumber(const std::string& name, const std::string& text, T smallest, T* number,
                Warnings* warnings) {
  if (text.empty()) return;
  T value = 0;
  const char* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (error == std::errc() && stop == end && value >= smallest) {
    *number = value;
  } else {
    warnings->push_back(name + " is no number, which is left out");
  }
}

void readMilliseconds(const std::string& name, const std::string& text,
                      std::chrono::milliseconds* time, Warnings* warnings) {
  long long count = time->count();
  readNumber<long long>(name, text, 1, &count, warnings);
  *time = std::chrono::milliseconds(count);
}

}  // namespace

OtlpSettings otlpSettings(const std::string& url, Warnings* warnings) {
  OtlpSettings settings;
  settings.url = urlFor(url);
  settings.headers = pairsOf("OTEL_EXPORTER_OTLP_HEADERS", exporterVariable("HEADERS"), warnings);
  settings.resource =
      pairsOf("OTEL_RESOURCE_ATTRIBUTES", variable("OTEL_RESOURCE_ATTRIBUTES"), warnings);
  settings.certificate = exporterVariable("CERTIFICATE");
  settings.gzip = exporterVariable("COMPRESSION") != "none";
  readMilliseconds("OTEL_EXPORTER_OTLP_TIMEOUT", exporterVariable("TIMEOUT"), &settings.timeout,
                   warnings);
  readMilliseconds("OTEL_BSP_SCHEDULE_DELAY", variable("OTEL_BSP_SCHEDULE_DELAY"), &settings.delay,
                   warnings);
  readNumber<std::size_t>("OTEL_BSP_MAX_EXPORT_BATCH_SIZE",
                          variable("OTEL_BSP_MAX_EXPORT_BATCH_SIZE"), 1, &settings.batch, warnings);
  readNumber<std::size_t>("OTEL_BSP_MAX_QUEUE_SIZE", variable("OTEL_BSP_MAX_QUEUE_SIZE"), 1,
                          &settings.most_waiting, warnings);
  const std::string protocol = exporterVariable("PROTOCOL");
  if (!protocol.empty() && protocol != "http/json") {
    warnings->push_back("OTEL_EXPORTER_OTLP_PROTOCOL is '" + protocol +
                        "', but this engine speaks http/json");
  }
  const auto is_service = [](const auto& pair) { return pair.first == "service.name"; };
  for (auto at = settings.resource.begin(); at != settings.resource.end();) {
    at = is_service(*at) ? settings.resource.erase(at) : std::next(at);
  }
  return settings;
}

}  // namespace armengine
