#include "registry/Tracer.h"

#include <algorithm>
#include <cmath>

namespace armengine {

namespace {

template <typename Bytes>
bool isZero(const Bytes& bytes) {
  return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

void putRandom(uint64_t value, uint8_t* bytes) {
  for (int i = 0; i < 8; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

/// Whether a trace is in the sample; every engine with the same rate decides alike.
bool isSampled(const TraceId& id, double rate) {
  if (rate >= 1) return true;
  uint64_t value = 0;
  for (std::size_t i = 8; i < id.size(); ++i) value = value << 8 | id[i];
  return static_cast<double>(value) < rate * std::ldexp(1.0, 64);
}

}  // namespace

std::optional<Correlator> Tracer::readParent(const CorrelatorBytes& bytes) {
  auto parent = decodeCorrelator(bytes);
  if (parent && (isZero(parent->trace_id) || isZero(parent->span_id))) parent.reset();
  return parent;
}

/// SplitMix64: from a random start, no value comes twice.
uint64_t Tracer::nextRandom() {
  random_ += 0x9E3779B97F4A7C15;
  uint64_t value = random_;
  value = (value ^ (value >> 30)) * 0xBF58476D1CE4E5B9;
  value = (value ^ (value >> 27)) * 0x94D049BB133111EB;
  return value ^ (value >> 31);
}

SpanId Tracer::newSpanId() {
  SpanId id = {};
  while (isZero(id)) putRandom(nextRandom(), id.data());
  return id;
}

TraceContext Tracer::contextFor(const std::optional<Correlator>& parent, bool asked, bool ignored) {
  TraceContext context;
  context.span_id = newSpanId();
  if (parent) {
    context.trace_id = parent->trace_id;
    context.parent_id = parent->span_id;
    context.traced = parent->traced && !ignored;
    return context;
  }
  putRandom(nextRandom(), context.trace_id.data());
  putRandom(nextRandom() | 1, context.trace_id.data() + 8);
  context.traced = !ignored && (asked || isSampled(context.trace_id, sample_));
  return context;
}

CorrelatorBytes Tracer::correlatorOf(const TraceContext& context, int32_t class_id, int32_t handle,
                                     bool asked) const {
  Correlator correlator;
  correlator.engine = engine_;
  correlator.class_id = class_id;
  correlator.handle = handle;
  correlator.trace_id = context.trace_id;
  correlator.span_id = context.span_id;
  correlator.traced = context.traced;
  correlator.trace = asked;
  return encodeCorrelator(correlator);
}

}  // namespace armengine
