#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "arm/TArmMessage.h"
#include "ipc/CRequestSegment.h"
#include "platform/CkesSemaphore.h"
#include "platform/CkesSharedMemory.h"

namespace armengine {

/// What became of a wait for a request.
enum class Taken {
  request,      ///< one was taken
  nothing,      ///< none came in time
  interrupted,  ///< interrupt was called
  stopped       ///< the state is not 0, or the queue's objects are gone
};

/// The reader's end of the request queue, and its creator: it owns the segment and both semaphores
/// and removes them when it goes.  One thread takes; any thread may call the rest.
class RequestReader {
 public:
  /// Creates the queue with room for the given number of requests, not ready for I/O yet.
  explicit RequestReader(uint16_t capacity);

  bool isInitialized() const { return static_cast<bool>(segment_); }

  /// Tells openers that requests are read from now on, or no longer.
  void setReady(bool ready);
  /// Writes the state; 1 and 2 also wake every waiter.
  void setState(uint32_t state);

  /// Takes the oldest requests, as many as there are and as room allows, under one lock, waiting
  /// for the first for the given time.  Stores their number, 0 when the result is not request.
  Taken take(TArmMessage* messages, std::size_t room, std::size_t* count,
             std::chrono::milliseconds limit);
  /// Ends the current or the next wait of take.
  void interrupt();

  /// The semaphore set whose semaphore 0 is the segment's lock.
  int lockSet() const { return memory_.GetSetId(); }
  /// Requests in the queue now.
  unsigned depth() const;
  uint16_t capacity() const { return segment_.Capacity(); }
  /// Times that the ring was found with impossible values and repaired.
  unsigned long repairs() const { return repairs_; }

 private:
  Taken peek();
  Taken waitForRequest(std::chrono::steady_clock::time_point end);
  bool waitForWriter(std::chrono::nanoseconds limit) const;
  void takeLocked(TArmMessage& message);
  void repairRing();

  CkesSemaphore overflow_;
  CkesSemaphore empty_;
  CkesSharedMemory memory_;
  int empty_set_ = -1;  ///< the set behind empty_, whose own wait has no time limit
  CRequestSegment<TArmMessage> segment_;
  std::atomic<bool> interrupted_{false};
  unsigned long repairs_ = 0;
};

}  // namespace armengine
