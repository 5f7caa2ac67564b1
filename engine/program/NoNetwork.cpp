#include "program/Network.h"

namespace armengine {

std::unique_ptr<Pages> servePages(const std::string&, int, const EngineView&, std::string* why) {
  *why =
      "this engine was built without its HTTP server: --listen needs one built with "
      "ARM_ENGINE_OUTPUTS";
  return nullptr;
}

std::unique_ptr<SpanExporter> sendTraces(const OtlpSettings&, EngineView*, std::string* why) {
  *why =
      "this engine was built without the sending of traces: --otlp needs one built with "
      "ARM_ENGINE_OUTPUTS";
  return nullptr;
}

bool hasNetwork() {
  return false;
}

}  // namespace armengine
