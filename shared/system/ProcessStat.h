#pragma once

#include <cstdint>
#include <optional>

namespace armengine {

/// Whether there is a process with that number; one that has ended and waits for its parent is one.
bool processExists(int32_t process);

/// What /proc tells of a process.
struct ProcessStat {
  char state = 0;            ///< 'R', 'S', 'T' ...
  bool ended = false;        ///< it waits for its parent, and none of its threads goes on
  uint64_t start_ticks = 0;  ///< when it was started, in the kernel's ticks since the machine was
};

/// Nothing when there is no such process or it cannot be seen.
std::optional<ProcessStat> processStat(int32_t process);

}  // namespace armengine
