#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "registry/Correlator.h"
#include "registry/Statistics.h"
#include "registry/UserMetrics.h"

namespace armengine {

/// What a program has told about itself; never changed, shared by whoever needs it.
struct ApplicationInfo {
  int32_t id = 0;
  std::string name;  ///< UTF-8
  std::string user;  ///< UTF-8
  std::string raw;   ///< the name's bytes when they were not UTF-8
};

/// What a program has told about a transaction class; never changed, shared by whoever needs it.
struct ClassInfo {
  int32_t id = 0;
  std::shared_ptr<const ApplicationInfo> application;
  std::string name;    ///< UTF-8
  std::string detail;  ///< UTF-8
  std::string raw;     ///< the name's bytes when they were not UTF-8
  MetricDescriptions metrics;
};

/// A transaction's place among others.
struct TraceContext {
  TraceId trace_id = {};
  SpanId span_id = {};
  SpanId parent_id = {};  ///< zeros without a parent
  bool traced = false;    ///< false: counted, but shown in no trace
};

/// What an operation of the registry was about; empty where it was about nothing of the kind.
struct Applied {
  std::shared_ptr<const ApplicationInfo> application;
  std::shared_ptr<const ClassInfo> tran_class;
  int32_t handle = 0;
  uint64_t start = 0;     ///< nanoseconds since the epoch
  uint64_t duration = 0;  ///< of a finished instance, nanoseconds
  Outcome outcome = Outcome::unknown;
  TraceContext context;
};

}  // namespace armengine
