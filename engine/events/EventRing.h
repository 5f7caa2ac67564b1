#pragma once

#include <atomic>
#include <cstddef>
#include <vector>

#include "base/Counter.h"
#include "events/Event.h"

namespace armengine {

/// A bounded queue of events from one thread to another.  Pushing neither waits nor allocates: what
/// finds no room is dropped and counted.
class EventRing {
 public:
  ///   events  room for events, a power of two
  ///   bytes   room for their payloads, a power of two
  EventRing(std::size_t events, std::size_t bytes) : slots_(events), bytes_(bytes) {}

  /// The pushing thread.
  void push(const Event& event, const uint8_t* payload);
  /// The popping thread; false when there is nothing.
  bool pop(Event* event, Payload* payload);

  uint64_t dropped() const { return dropped_.get(); }
  /// Events in the queue now.
  std::size_t depth() const;
  std::size_t capacity() const { return slots_.size(); }

 private:
  void copyIn(std::size_t at, const uint8_t* payload, std::size_t size);
  void copyOut(std::size_t at, std::size_t size, Payload* payload) const;

  // Positions count up for ever; only their differences and remainders mean something.
  static constexpr std::size_t CACHE_LINE = 64;
  std::vector<Event> slots_;
  std::vector<uint8_t> bytes_;
  alignas(CACHE_LINE) std::atomic<std::size_t> pushed_{0};
  std::size_t bytes_pushed_ = 0;
  std::size_t popped_seen_ = 0;
  std::size_t bytes_popped_seen_ = 0;
  Counter dropped_;
  alignas(CACHE_LINE) std::atomic<std::size_t> popped_{0};
  std::atomic<std::size_t> bytes_popped_{0};
};

}  // namespace armengine
