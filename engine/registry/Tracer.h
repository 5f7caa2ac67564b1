#pragma once

#include <cstdint>
#include <optional>

#include "registry/Correlator.h"

namespace armengine {

/// A transaction's place among others.
struct TraceContext {
  TraceId trace_id = {};
  SpanId span_id = {};
  SpanId parent_id = {};  ///< zeros without a parent
  bool traced = false;    ///< false: counted, but shown in no trace
};

/// Gives instances their places in traces, and decides which traces are shown.  One thread.
class Tracer {
 public:
  ///   engine  the number that this run writes into its correlators
  ///   sample  share of the new traces that are shown
  Tracer(uint64_t engine, double sample) : engine_(engine), sample_(sample), random_(engine) {}

  /// The parent that a correlator names; nothing when no engine of this kind has given it.
  static std::optional<Correlator> readParent(const CorrelatorBytes& bytes);
  ///   asked    the application asks for a trace
  ///   ignored  the class is never shown
  TraceContext contextFor(const std::optional<Correlator>& parent, bool asked, bool ignored);
  CorrelatorBytes correlatorOf(const TraceContext& context, int32_t class_id, int32_t handle,
                               bool asked) const;

  uint64_t engine() const { return engine_; }

 private:
  uint64_t nextRandom();
  SpanId newSpanId();

  const uint64_t engine_;
  const double sample_;
  uint64_t random_;
};

}  // namespace armengine
