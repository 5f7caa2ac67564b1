#pragma once

#include <cstdint>
#include <string>

#include "registry/Registry.h"

namespace armengine {

/// A time in a unit in which it has three significant figures: "0 us", "812 us", "1.24 ms",
/// "93.1 ms", "2.05 s", "4 min 07 s".
std::string readableTime(uint64_t nanoseconds);

/// A name for a terminal: control characters, which any program may have put there, become '?', and
/// what passes the limit (in characters, at least 4) is cut to end in "...".
std::string readableName(const std::string& utf8, std::size_t limit);

/// The table of transaction classes, and the largest parent drawn with its children.  Ends in a
/// newline.
std::string makeReport(const Registry& registry);

}  // namespace armengine
