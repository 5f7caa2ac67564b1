#include "events/EventRing.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>

#include "events/EventPublisher.h"
#include "events/EventWorker.h"

namespace {

using armengine::Event;
using armengine::EventConsumer;
using armengine::EventPublisher;
using armengine::EventRing;
using armengine::EventWorker;
using armengine::Payload;

/// An event whose payload can be checked.
Event numbered(uint64_t number, uint32_t size, Payload* payload) {
  Event event;
  event.number = number;
  event.payload_size = size;
  payload->assign(size, static_cast<uint8_t>(number));
  return event;
}

bool isIntact(const Event& event, const Payload& payload) {
  return payload == Payload(event.payload_size, static_cast<uint8_t>(event.number));
}

TEST(EventRing, WhatIsPushedIsPoppedInOrder) {
  EventRing ring(8, 1024);
  Payload payload;
  Event event;
  EXPECT_FALSE(ring.pop(&event, &payload));
  for (uint64_t round = 0; round < 100; ++round) {
    for (uint64_t i = 0; i < 5; ++i) {
      const Event pushed = numbered(round * 5 + i, static_cast<uint32_t>(round + i), &payload);
      ring.push(pushed, payload.data());
    }
    for (uint64_t i = 0; i < 5; ++i) {
      ASSERT_TRUE(ring.pop(&event, &payload));
      EXPECT_EQ(round * 5 + i, event.number);
      EXPECT_TRUE(isIntact(event, payload));
    }
  }
  EXPECT_EQ(0U, ring.dropped());
}

TEST(EventRing, WhatFindsNoRoomIsDroppedAndCounted) {
  EventRing ring(4, 16);
  Payload payload;
  for (uint64_t i = 0; i < 10; ++i) {
    const Event event = numbered(i, 1, &payload);
    ring.push(event, payload.data());
  }
  EXPECT_EQ(6U, ring.dropped());
  EXPECT_EQ(4U, ring.depth());
  Event event;
  while (ring.pop(&event, &payload)) EXPECT_LT(event.number, 4U);
  const Event large = numbered(11, 17, &payload);
  ring.push(large, payload.data());
  EXPECT_EQ(7U, ring.dropped()) << "its payload has no room at all";
  const Event fits = numbered(12, 16, &payload);
  ring.push(fits, payload.data());
  ASSERT_TRUE(ring.pop(&event, &payload));
  EXPECT_EQ(12U, event.number);
  EXPECT_TRUE(isIntact(event, payload));
}

TEST(EventRing, TwoThreadsLoseAndDamageNothingThatIsNotCounted) {
  constexpr uint64_t EVENTS = 100000;
  EventRing ring(64, 4096);
  std::thread pusher([&ring] {
    std::mt19937 random(1);
    Payload payload;
    for (uint64_t i = 1; i <= EVENTS; ++i) {
      const Event event = numbered(i, static_cast<uint32_t>(random() % 200), &payload);
      ring.push(event, payload.data());
    }
    while (ring.depth() == ring.capacity()) std::this_thread::yield();
    Event last;
    last.number = EVENTS + 1;
    ring.push(last, nullptr);
  });
  uint64_t popped = 0;
  uint64_t last = 0;
  Event event;
  Payload payload;
  while (last != EVENTS + 1) {
    if (!ring.pop(&event, &payload)) {
      std::this_thread::yield();
      continue;
    }
    ASSERT_GT(event.number, last);
    ASSERT_TRUE(isIntact(event, payload));
    last = event.number;
    ++popped;
  }
  pusher.join();
  EXPECT_EQ(EVENTS + 1, popped + ring.dropped());
}

class Counter : public EventConsumer {
 public:
  void consume(const Event& event, const Payload&) override { sum += event.number; }
  uint64_t sum = 0;
};

TEST(EventRing, WorkerThatEndsHandsOverWhatItHas) {
  Counter counter;
  {
    EventWorker worker(counter, 1024, 1024);
    EventPublisher publisher;
    publisher.add(worker.ring());
    Event event;
    for (int i = 0; i < 1000; ++i) publisher.publish(&event, nullptr);
  }
  EXPECT_EQ(500500U, counter.sum);
}

}  // namespace
