#include "program/Outputs.h"

#include "base/Time.h"
#include "program/Log.h"

namespace armengine {

namespace {

/// Room for what comes while an output is busy: a tenth of a second or more at full speed.
constexpr std::size_t RING_EVENTS = 32768;
constexpr std::size_t RING_BYTES = 8U * 1024 * 1024;

}  // namespace

Outputs::Outputs(const Registry& registry) : view_(registry) {
  view_.started = wallTime();
}

std::unique_ptr<Outputs> Outputs::open(const OutputOptions& options, const Registry& registry,
                                       std::string* why) {
  std::unique_ptr<Outputs> outputs(new Outputs(registry));
  if (!outputs->openAll(options, why)) return nullptr;
  return outputs;
}

bool Outputs::openAll(const OutputOptions& options, std::string* why) {
  if (!openEvents(options, why) || !openTraces(options, why)) return false;
  openInstances(options);
  return openPages(options, why);
}

Outputs::~Outputs() {
  (void)finish();
}

std::unique_ptr<RecentTransactions> Outputs::finish() {
  pages_.reset();
  workers_.clear();
  return std::move(recent_);
}

bool Outputs::openEvents(const OutputOptions& options, std::string* why) {
  if (options.events.empty()) return true;
  event_file_ = EventFile::open(options.events, view_.registry.engine(), why);
  if (event_file_ == nullptr) return false;
  addWorker("events", event_file_.get());
  const EventFile* file = event_file_.get();
  view_.drops.push_back({"events", "write_failed", [file] { return file->lost(); }});
  return true;
}

bool Outputs::openTraces(const OutputOptions& options, std::string* why) {
  std::vector<std::string> warnings;
  OtlpSettings settings = otlpSettings(options.otlp, &warnings);
  // The environment speaks to every program; only what was asked for here is refused.
  if (!hasNetwork() && options.otlp.empty()) settings.url.clear();
  if (settings.url.empty() && options.otlp_file.empty()) return true;
  for (const std::string& warning : warnings) writeLog(Urgency::warning, warning);
  if (!options.otlp_file.empty()) {
    trace_file_ = OtlpFile::open(options.otlp_file, settings, why);
    if (trace_file_ == nullptr) return false;
    spans_.add(*trace_file_);
    const OtlpFile* file = trace_file_.get();
    view_.drops.push_back({"otlp_file", "write_failed", [file] { return file->lost(); }});
    view_.sent.push_back({"otlp_file", "spans", [file] { return file->written(); }});
  }
  if (!settings.url.empty()) {
    sender_ = sendTraces(settings, &view_, why);
    if (sender_ == nullptr) return false;
    spans_.add(*sender_);
  }
  view_.drops.push_back({"spans", "details_left_out", [this] { return spans_.lost(); }});
  instances_.add(spans_);
  return true;
}

/// One ring for all: each more would cost time on the hot path.
void Outputs::openInstances(const OutputOptions& options) {
  const bool page = !options.listen_address.empty() && hasNetwork();
  const std::string name = instances_.isUsed() ? "spans" : page ? "page" : "report";
  if (page || options.report) {
    recent_ = std::make_unique<RecentTransactions>(wallTime);
    view_.recent = recent_.get();
    view_.recent_output = name;
    instances_.add(*recent_);
  }
  if (instances_.isUsed()) addWorker(name, &instances_);
}

EventRing& Outputs::addWorker(const std::string& name, EventConsumer* consumer) {
  workers_.push_back(std::make_unique<EventWorker>(*consumer, RING_EVENTS, RING_BYTES));
  EventRing& ring = workers_.back()->ring();
  publisher_.add(ring);
  view_.drops.push_back({name, "ring_full", [&ring] { return ring.dropped(); }});
  return ring;
}

bool Outputs::openPages(const OutputOptions& options, std::string* why) {
  if (options.listen_address.empty()) return true;
  pages_ = servePages(options.listen_address, options.listen_port, view_, why);
  return pages_ != nullptr;
}

std::string Outputs::url() const {
  return pages_ != nullptr ? pages_->url() : "";
}

void Outputs::reopen() {
  if (event_file_ != nullptr) event_file_->reopen();
  if (trace_file_ != nullptr) trace_file_->reopen();
}

}  // namespace armengine
