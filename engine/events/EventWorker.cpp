#include "events/EventWorker.h"

#include <sys/resource.h>

#include <chrono>

namespace armengine {

namespace {

constexpr std::chrono::milliseconds POLL_INTERVAL{20};
constexpr int NICENESS = 15;

}  // namespace

EventWorker::EventWorker(EventConsumer& consumer, std::size_t events, std::size_t bytes)
    : consumer_(consumer), ring_(events, bytes), thread_([this] { run(); }) {}

EventWorker::~EventWorker() {
  ending_.announce();
  thread_.join();
}

void EventWorker::run() {
  // Of this thread alone: whoever waits for an answer goes first.
  (void)setpriority(PRIO_PROCESS, 0, NICENESS);
  bool more = true;
  while (more) {
    more = ending_.pause(POLL_INTERVAL);
    drain();
    consumer_.flush();
  }
}

void EventWorker::drain() {
  Event event;
  Payload payload;
  while (ring_.pop(&event, &payload)) consumer_.consume(event, payload);
}

}  // namespace armengine
