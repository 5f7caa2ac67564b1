#pragma once

#include <cstdint>

#include "ipc/RequestQueueLayout.h"
#include "platform/CkesSharedMemory.h"
#include "platform/sharedword.h"

/// Writes the state of a queue under the lock of its segment; 1 and 2 also wake everybody who waits
/// on the queue, by a function that returns a code.  0, or the first code that is not, that of the
/// unlock before that of the waking.
template <typename Wake>
long setQueueState(CkesSharedMemory& memory, uint32_t& word, unsigned long state, Wake wake) {
  const long locked = memory.Lock();
  if (locked != 0) return locked;
  storeShared(word, static_cast<uint32_t>(state));
  long result = 0;
  if (state == QUEUE_STATE_STOPPED || state == QUEUE_STATE_CLOSED) result = wake();
  const long unlocked = memory.Unlock();
  return unlocked != 0 ? unlocked : result;
}
