#pragma once

#include <cstdint>
#include <istream>
#include <memory>
#include <string>

#include "recent/RecentTransactions.h"
#include "registry/Registry.h"

namespace armengine {

/// What came of reading events.
struct Replayed {
  std::unique_ptr<Registry> registry;
  std::unique_ptr<RecentTransactions> recent;
  uint64_t events = 0;
  uint64_t missing = 0;     ///< numbers that were left out: dropped while they were recorded
  uint64_t unreadable = 0;  ///< lines that are no events, a last one that was cut among them
  uint64_t different = 0;   ///< answers unlike the recorded ones
};

/// Rebuilds the tables of an engine from the lines that it has written, by applying the requests
/// again with the numbers that were given then.  Null registry when there is not one event.
///   settings  as the engine had them
Replayed replayEvents(std::istream& lines, const RegistrySettings& settings);

}  // namespace armengine
