#pragma once

#include <memory>
#include <string>
#include <vector>

#include "events/EventConsumer.h"
#include "events/EventFile.h"
#include "events/EventPublisher.h"
#include "events/EventWorker.h"
#include "otlp/OtlpFile.h"
#include "otlp/SpanCollector.h"
#include "program/Network.h"
#include "program/Options.h"
#include "view/EngineView.h"

namespace armengine {

/// Everything that the engine tells, each on threads of its own.
class Outputs {
 public:
  /// Opens what the options name.  Null, with a sentence in why, when something cannot be opened.
  static std::unique_ptr<Outputs> open(const OutputOptions& options, const Registry& registry,
                                       std::string* why);
  /// Delivers what is left, within limits.
  ~Outputs();
  Outputs(const Outputs&) = delete;
  Outputs& operator=(const Outputs&) = delete;

  EventPublisher& events() { return publisher_; }
  /// Lets the outputs read the queues from now on; null before the queues go.
  void show(EngineQueues* queues) { view_.queues.show(queues); }
  /// Where the HTTP server is; empty without one.
  std::string url() const;
  /// Ends everything that uses events, and gives what is known of the last transactions; null when
  /// nobody has asked for it.
  std::unique_ptr<RecentTransactions> finish();
  /// Opens the files again.  Any thread.
  void reopen();

 private:
  explicit Outputs(const Registry& registry);
  bool openAll(const OutputOptions& options, std::string* why);
  bool openEvents(const OutputOptions& options, std::string* why);
  bool openTraces(const OutputOptions& options, std::string* why);
  bool openPages(const OutputOptions& options, std::string* why);
  void openInstances(const OutputOptions& options);
  EventRing& addWorker(const std::string& name, EventConsumer* consumer);

  EngineView view_;
  EventPublisher publisher_;
  // What a worker hands its events to outlives it.
  std::unique_ptr<EventFile> event_file_;
  std::unique_ptr<OtlpFile> trace_file_;
  std::unique_ptr<SpanExporter> sender_;
  SpanCollector spans_;
  std::unique_ptr<RecentTransactions> recent_;
  /// What is made of single instances: spans, and what the page shows.
  EventFanOut instances_;
  std::vector<std::unique_ptr<EventWorker>> workers_;
  std::unique_ptr<Pages> pages_;
};

}  // namespace armengine
