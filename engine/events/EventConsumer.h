#pragma once

#include <vector>

#include "events/Event.h"

namespace armengine {

/// Somebody who does something with events.
class EventConsumer {
 public:
  EventConsumer() = default;
  virtual ~EventConsumer() = default;
  EventConsumer(const EventConsumer&) = delete;
  EventConsumer& operator=(const EventConsumer&) = delete;

  virtual void consume(const Event& event, const Payload& payload) = 0;
  /// There is nothing more for the moment.  Comes every few milliseconds.
  virtual void flush() {}
};

/// Hands every event to some consumers, one after the other.
class EventFanOut : public EventConsumer {
 public:
  /// Before the first event.
  void add(EventConsumer& consumer) { consumers_.push_back(&consumer); }
  bool isUsed() const { return !consumers_.empty(); }

  void consume(const Event& event, const Payload& payload) override {
    for (EventConsumer* consumer : consumers_) consumer->consume(event, payload);
  }
  void flush() override {
    for (EventConsumer* consumer : consumers_) consumer->flush();
  }

 private:
  std::vector<EventConsumer*> consumers_;
};

}  // namespace armengine
