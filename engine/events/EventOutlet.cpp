#include "events/EventOutlet.h"

#include <sys/resource.h>

#include <chrono>

namespace armengine {

namespace {

constexpr std::chrono::milliseconds BETWEEN_LOOKS{20};
constexpr int NICENESS = 15;

}  // namespace

EventOutlet::EventOutlet(EventTaker& taker, std::size_t events, std::size_t bytes)
    : taker_(taker), ring_(events, bytes), thread_([this] { run(); }) {}

EventOutlet::~EventOutlet() {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    ending_ = true;
  }
  over_.notify_one();
  thread_.join();
}

void EventOutlet::run() {
  // Of this thread alone: whoever waits for an answer goes first.
  (void)setpriority(PRIO_PROCESS, 0, NICENESS);
  bool more = true;
  while (more) {
    more = pause();
    drain();
    taker_.rest();
  }
}

void EventOutlet::drain() {
  Event event;
  Payload payload;
  while (ring_.pop(&event, &payload)) taker_.take(event, payload);
}

/// False when the outlet ends.
bool EventOutlet::pause() {
  std::unique_lock<std::mutex> lock(mutex_);
  return !over_.wait_for(lock, BETWEEN_LOOKS, [this] { return ending_; });
}

}  // namespace armengine
