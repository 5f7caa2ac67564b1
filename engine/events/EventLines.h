#pragma once

#include <cstdint>
#include <string>

#include "events/Event.h"

namespace armengine {

// The text form of events: one JSON object a line.  docs/engine.md describes the members.

/// Version of the form, in the first line of each file.
inline constexpr int EVENT_LINES_VERSION = 1;

/// Seconds since the epoch with nine decimals.
std::string timeText(uint64_t nanoseconds);

/// Appends the line that a file begins with.
///   engine  number of the engine's run, which its correlators carry
void appendFirstLine(std::string* text, uint64_t engine, uint64_t time);

/// Appends the line of an event.
void appendEventLine(std::string* text, const Event& event, const Payload& payload);

/// The name of an event's type; "unknown" for a message type that is none.
const char* nameOfEvent(int32_t type);

}  // namespace armengine
