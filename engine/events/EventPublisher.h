#pragma once

#include <vector>

#include "events/EventRing.h"

namespace armengine {

/// Numbers the events and pushes them into every ring.  The hot path.
class EventPublisher {
 public:
  /// Before the first event.
  void add(EventRing& ring) { rings_.push_back(&ring); }
  bool isUsed() const { return !rings_.empty(); }

  void publish(Event* event, const uint8_t* payload) {
    event->number = ++number_;
    for (EventRing* ring : rings_) ring->push(*event, payload);
  }

 private:
  std::vector<EventRing*> rings_;
  uint64_t number_ = 0;
};

}  // namespace armengine
