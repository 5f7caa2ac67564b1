#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "events/EventRing.h"

namespace armengine {

/// Somebody who does something with events.
class EventTaker {
 public:
  EventTaker() = default;
  virtual ~EventTaker() = default;
  EventTaker(const EventTaker&) = delete;
  EventTaker& operator=(const EventTaker&) = delete;

  virtual void take(const Event& event, const Payload& payload) = 0;
  /// There is nothing more for the moment.  Comes every few milliseconds.
  virtual void rest() {}
};

/// Hands every event to some takers, one after the other.
class EventFork : public EventTaker {
 public:
  /// Before the first event.
  void add(EventTaker& taker) { takers_.push_back(&taker); }
  bool isUsed() const { return !takers_.empty(); }

  void take(const Event& event, const Payload& payload) override {
    for (EventTaker* taker : takers_) taker->take(event, payload);
  }
  void rest() override {
    for (EventTaker* taker : takers_) taker->rest();
  }

 private:
  std::vector<EventTaker*> takers_;
};

/// A ring with a thread that hands its events to a taker.  The thread looks into the ring every few
/// milliseconds, so that the pushing thread never has to wake it.
class EventOutlet {
 public:
  EventOutlet(EventTaker& taker, std::size_t events, std::size_t bytes);
  /// Hands over what is in the ring, and ends the thread.
  ~EventOutlet();
  EventOutlet(const EventOutlet&) = delete;
  EventOutlet& operator=(const EventOutlet&) = delete;

  EventRing& ring() { return ring_; }

 private:
  void run();
  void drain();
  bool pause();

  EventTaker& taker_;
  EventRing ring_;
  std::mutex mutex_;
  std::condition_variable over_;
  bool ending_ = false;
  std::thread thread_;
};

/// Numbers the events and pushes them into every ring.  The request road.
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
