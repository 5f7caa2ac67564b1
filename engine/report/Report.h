#pragma once

#include <cstdint>
#include <string>

#include "recent/RecentTransactions.h"
#include "registry/Registry.h"

namespace armengine {

/// A time in a unit in which it has three significant figures: "0 us", "812 us", "1.24 ms",
/// "93.1 ms", "2.05 s", "4 min 07 s".
std::string readableTime(uint64_t nanoseconds);

/// The table of transaction classes, and the largest parent drawn with its first children: among
/// the open transactions and those that have finished last.  Ends in a newline.
std::string makeReport(const Registry& registry, const RecentTransactions& recent);

}  // namespace armengine
