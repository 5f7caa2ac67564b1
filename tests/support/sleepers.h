#pragma once

#include "ipcobjects.h"
#include "process.h"

namespace armtest {

/// Waits until so many threads sleep until a semaphore can be lowered, or is zero.
inline bool sleeperComes(int set, int number, int count = 1) {
  return waitUntil([=] { return semaphoreWaiters(set, number) == count; });
}
inline bool sleeperForZeroComes(int set, int number) {
  return waitUntil([=] { return zeroWaiters(set, number) == 1; });
}

}  // namespace armtest
