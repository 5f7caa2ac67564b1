#pragma once

#include <string>

#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"
#include "tracefile.h"

namespace armtest {

/// Starts tracing, in the basic format.
inline void startTracing() {
  VDebugRun = 1;
  wcDebugSetLogFormat(0);
}

/// Tracing in the basic format while the object lives, and the texts that were traced.
class TraceLog {
 public:
  TraceLog() { startTracing(); }
  ~TraceLog() { VDebugRun = 0; }
  TraceLog(const TraceLog&) = delete;
  TraceLog& operator=(const TraceLog&) = delete;

  /// Only the lines with the given beginning.
  Lines lines(const std::string& beginning = "") const { return traceLines(beginning); }
};

}  // namespace armtest
