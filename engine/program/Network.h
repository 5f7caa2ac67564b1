#pragma once

#include <memory>
#include <string>

#include "otlp/OtlpSettings.h"
#include "otlp/Span.h"
#include "view/EngineView.h"

namespace armengine {

// What reaches beyond this machine's files.  An engine that was built without it refuses.

/// The engine's HTTP pages.
class Pages {
 public:
  Pages() = default;
  virtual ~Pages() = default;
  Pages(const Pages&) = delete;
  Pages& operator=(const Pages&) = delete;

  virtual std::string url() const = 0;
};

/// Serves the pages at an address.  Null, with a sentence in why, when that cannot be.
std::unique_ptr<Pages> servePages(const std::string& address, int port, const EngineView& view,
                                  std::string* why);

/// Sends traces.  Adds its own counters to the view.  Null, with a sentence in why, when that
/// cannot be.
std::unique_ptr<SpanExporter> sendTraces(const OtlpSettings& settings, EngineView* view,
                                         std::string* why);

/// Whether this engine can do either.
bool hasNetwork();

}  // namespace armengine
