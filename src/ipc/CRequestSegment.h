#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/RequestQueueLayout.h"
#include "platform/CkesSemaphore.h"
#include "platform/sharedword.h"

/// The request queue's segment, as both of its ends see it: a header and a ring of slots for
/// records of type T (RequestQueueLayout.h).  Where things lie is worked out here and nowhere else.
///
/// Every process of the machine may write to the segment: what is read there is an index only once
/// IsDamaged has found it possible.
template <typename T>
class CRequestSegment {
 public:
  /// No segment.
  CRequestSegment() = default;
  /// The segment of the given size at an address; none when it is smaller than its header.
  CRequestSegment(void* address, unsigned long size)
      : VStart(size >= sizeof(TRequestQueueHeader) ? static_cast<uint8_t*>(address) : nullptr),
        VCapacity(requestQueueCapacity(size, sizeof(T))) {}

  explicit operator bool() const { return VStart != nullptr; }
  uint16_t Capacity() const { return VCapacity; }
  TRequestQueueHeader* operator->() const { return reinterpret_cast<TRequestQueueHeader*>(VStart); }
  uint8_t* Slot(uint16_t number) const {
    return VStart + sizeof(TRequestQueueHeader) + number * sizeof(T);
  }

  TRingPosition Position() const {
    const TRequestQueueHeader& header = **this;
    return {loadShared(header.count), loadShared(header.head), loadShared(header.tail),
            loadShared(header.padding)};
  }
  /// Moves the position with one store: a writer that is killed leaves a record that counts, or
  /// none. A tail that has moved without the count would make the next writer's record one that
  /// nobody reads.  False, with nothing moved, when others keep changing it.
  [[nodiscard]] bool Move(TRingPosition to) const {
    return storeOnce(*reinterpret_cast<TRingPosition*>(VStart), to);
  }
  /// Whether a position is none for a writer, who needs a free slot too.
  bool IsDamaged(TRingPosition ring) const {
    return ring.count >= VCapacity || ring.head >= VCapacity || ring.tail >= VCapacity;
  }
  uint16_t After(uint16_t slot, unsigned by = 1) const {
    return static_cast<uint16_t>((slot + by) % VCapacity);
  }
  uint16_t Before(uint16_t slot) const {
    return static_cast<uint16_t>(slot == 0 ? VCapacity - 1U : slot - 1U);
  }

  /// Wakes everybody who waits on the queue, as often as the header says that somebody does.
  long WakeAll(CkesSemaphore& empty, CkesSemaphore& overflow) const {
    const long result = postTimes(empty, loadShared((*this)->empty_waiters));
    return result != 0 ? result : postTimes(overflow, loadShared((*this)->overflow_waiters));
  }

 private:
  const TRequestQueueHeader& operator*() const { return *operator->(); }

  static long postTimes(CkesSemaphore& semaphore, uint32_t times) {
    for (; times > 0; --times) {
      const long result = semaphore.Post(1);
      if (result != 0) return result;
    }
    return 0;
  }

  uint8_t* VStart = nullptr;
  uint16_t VCapacity = 0;
};
