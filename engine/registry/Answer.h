#pragma once

#include <cstdint>
#include <memory>

#include "registry/Correlator.h"
#include "registry/Registrations.h"
#include "registry/Statistics.h"
#include "registry/Tracer.h"

namespace armengine {

/// Statuses that the engine answers: 0, or one of these.  They stay clear of the library's own.
inline constexpr int32_t STATUS_OK = 0;
inline constexpr int32_t STATUS_UNKNOWN_APPLICATION = -101;  ///< never given, or ended
inline constexpr int32_t STATUS_UNKNOWN_CLASS = -102;        ///< never given, or of an ended one
inline constexpr int32_t STATUS_UNKNOWN_HANDLE = -103;       ///< never given, or stopped already
inline constexpr int32_t STATUS_UNKNOWN_MESSAGE = -104;
inline constexpr int32_t STATUS_BAD_LENGTH = -105;
inline constexpr int32_t STATUS_TOO_MANY = -106;  ///< a start beyond the limit of open instances

/// What an operation of the registry was about; empty where it was about nothing of the kind.
struct Subject {
  std::shared_ptr<const ApplicationInfo> application;
  std::shared_ptr<const ClassInfo> tran_class;
  int32_t handle = 0;
  uint64_t start = 0;     ///< nanoseconds since the epoch
  uint64_t duration = 0;  ///< of a finished instance, nanoseconds
  Outcome outcome = Outcome::unknown;
  TraceContext context;
};

/// What an operation of the registry did.
struct Answer {
  int32_t result = STATUS_OK;  ///< an id or a handle, STATUS_OK, or a negative status
  Subject subject = {};
};

/// The answer to a start or a report.
struct Started : Answer {
  CorrelatorBytes correlator = {};
};

}  // namespace armengine
