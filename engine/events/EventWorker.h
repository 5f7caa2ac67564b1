#pragma once

#include <thread>

#include "base/Ending.h"
#include "events/EventConsumer.h"
#include "events/EventRing.h"

namespace armengine {

/// A ring with a thread that hands its events to a consumer.  The thread looks into the ring every
/// few milliseconds, so that the pushing thread never has to wake it.
class EventWorker {
 public:
  EventWorker(EventConsumer& consumer, std::size_t events, std::size_t bytes);
  /// Hands over what is in the ring, and ends the thread.
  ~EventWorker();
  EventWorker(const EventWorker&) = delete;
  EventWorker& operator=(const EventWorker&) = delete;

  EventRing& ring() { return ring_; }

 private:
  void run();
  void drain();

  EventConsumer& consumer_;
  EventRing ring_;
  Ending ending_;
  std::thread thread_;
};

}  // namespace armengine
