#pragma once

#include "events/Event.h"

namespace armengine {

/// Whether an event is a report, on an open instance or of a finished one.
bool isReport(const Event& event);

/// Whether an event ends an instance: a stop, a completion, the end of its process, or a report of
/// one that has finished already.
bool endsInstance(const Event& event);

/// When the instance that an event ends was started: nanoseconds since the epoch.
uint64_t startOf(const Event& event);

}  // namespace armengine
