#include "events/EventRing.h"

#include <algorithm>
#include <cstring>

namespace armengine {

void EventRing::push(const Event& event, const uint8_t* payload) {
  const std::size_t at = pushed_.load(std::memory_order_relaxed);
  const auto fits = [&] {
    return at - popped_seen_ < slots_.size() &&
           bytes_.size() - (bytes_pushed_ - bytes_popped_seen_) >= event.payload_size;
  };
  if (!fits()) {
    popped_seen_ = popped_.load(std::memory_order_acquire);
    bytes_popped_seen_ = bytes_popped_.load(std::memory_order_acquire);
  }
  if (!fits()) {
    dropped_.add();
    return;
  }
  slots_[at & (slots_.size() - 1)] = event;
  copyIn(bytes_pushed_, payload, event.payload_size);
  bytes_pushed_ += event.payload_size;
  pushed_.store(at + 1, std::memory_order_release);
}

bool EventRing::pop(Event* event, Payload* payload) {
  const std::size_t at = popped_.load(std::memory_order_relaxed);
  if (at == pushed_.load(std::memory_order_acquire)) return false;
  Event& slot = slots_[at & (slots_.size() - 1)];
  *event = std::move(slot);
  const std::size_t bytes_at = bytes_popped_.load(std::memory_order_relaxed);
  copyOut(bytes_at, event->payload_size, payload);
  bytes_popped_.store(bytes_at + event->payload_size, std::memory_order_release);
  popped_.store(at + 1, std::memory_order_release);
  return true;
}

std::size_t EventRing::depth() const {
  const std::size_t popped = popped_.load(std::memory_order_acquire);
  return pushed_.load(std::memory_order_acquire) - popped;
}

void EventRing::copyIn(std::size_t at, const uint8_t* payload, std::size_t size) {
  if (size == 0) return;
  const std::size_t start = at & (bytes_.size() - 1);
  const std::size_t before_end = std::min(size, bytes_.size() - start);
  std::memcpy(&bytes_[start], payload, before_end);
  std::memcpy(bytes_.data(), payload + before_end, size - before_end);
}

void EventRing::copyOut(std::size_t at, std::size_t size, Payload* payload) const {
  const std::size_t start = at & (bytes_.size() - 1);
  const std::size_t before_end = std::min(size, bytes_.size() - start);
  const auto first = bytes_.begin() + static_cast<std::ptrdiff_t>(start);
  payload->assign(first, first + static_cast<std::ptrdiff_t>(before_end));
  payload->insert(payload->end(), bytes_.begin(),
                  bytes_.begin() + static_cast<std::ptrdiff_t>(size - before_end));
}

}  // namespace armengine
