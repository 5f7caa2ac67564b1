#include "armcontract/Queues.h"

#include <algorithm>
#include <cstring>

namespace armcontract {

// ---- request queue ------------------------------------------------------------------------------

unsigned RequestQueue::capacity() const {
  const std::size_t size = memory.size();
  return size < wire::RING_SLOTS
             ? 0
             : static_cast<uint16_t>((size - wire::RING_SLOTS) / wire::REQUEST_SIZE);
}

bool RequestQueue::isReady() const {
  return memory.u32(wire::RING_STATE) == wire::RUNNING && creatorLives() &&
         memory.u32(wire::RING_READY) != 0;
}

void RequestQueue::put(const std::vector<wire::Request>& requests) {
  const Guard guard(*this);
  const auto slots = capacity();
  for (const wire::Request& request : requests) {
    if (memory.u32(wire::RING_STATE) != wire::RUNNING)
      throw Unchecked("the request queue has stopped");
    if (slots == 0 || count() >= slots) throw Unchecked("the request queue stays full");
    if (tail() >= slots) throw Unchecked("the ring's tail points outside the ring");
    std::memcpy(memory.at(wire::RING_SLOTS + tail() * wire::REQUEST_SIZE), request.data(),
                request.size());
    memory.put16(wire::RING_TAIL, static_cast<uint16_t>((tail() + 1) % slots));
    memory.put16(wire::RING_COUNT, static_cast<uint16_t>(count() + 1));
    if (count() == 1) wake();
  }
}

void RequestQueue::wake() const {
  if (empty.lock(wire::PRIVATE_LOCK, Duration(1000)) != Waited::done) {
    throw Unchecked("the private lock of the semaphore _emp is not given back");
  }
  if (empty.value(wire::COUNT) + 1 <= empty.value(wire::MAXIMUM)) (void)empty.add(wire::COUNT, 1);
  (void)empty.unlock(wire::PRIVATE_LOCK);
}

// ---- reply queue --------------------------------------------------------------------------------

unsigned ReplyQueue::capacity() const {
  const std::size_t size = memory.size();
  return size < wire::REPLY_RECORDS ? 0
                                    : static_cast<uint16_t>((size - wire::REPLY_RECORDS) /
                                                            (wire::HEAD_SIZE + wire::ITEM_SIZE));
}

bool ReplyQueue::isFree(unsigned head) const {
  return isOf(head, {wire::NOBODY, wire::NOBODY});
}

bool ReplyQueue::isOf(unsigned head, Identity who) const {
  return process(head) == who.process && memory.u32(headAt(head) + wire::HEAD_THREAD) == who.thread;
}

bool ReplyQueue::isItem(uint32_t offset) const {
  const std::size_t begin = itemAt(0);
  return offset >= begin && (offset - begin) % wire::ITEM_SIZE == 0 &&
         (offset - begin) / wire::ITEM_SIZE < capacity();
}

std::optional<unsigned> ReplyQueue::headOf(Identity who) const {
  for (unsigned i = 0; i < capacity(); ++i) {
    if (isOf(i, who)) return i;
  }
  return {};
}

std::optional<unsigned> ReplyQueue::freeHead() const {
  return headOf({wire::NOBODY, wire::NOBODY});
}

std::optional<unsigned> ReplyQueue::lastFreeHead() const {
  for (unsigned i = capacity(); i-- > 0;) {
    if (isFree(i)) return i;
  }
  return {};
}

std::optional<unsigned> ReplyQueue::idleHead() const {
  for (unsigned i = 0; i < capacity(); ++i) {
    if (status(i) == wire::IDLE && first(i) == 0 && wake.waiters(semaphore(i)) == 0) return i;
  }
  return {};
}

std::optional<unsigned> ReplyQueue::headFor(Identity who) {
  std::optional<unsigned> head = headOf(who);
  if (head) return head;
  if (headsInUse() < capacity()) {
    head = freeHead();
    if (head) memory.put16(wire::REPLY_HEADS, static_cast<uint16_t>(headsInUse() + 1));
  } else {
    head = idleHead();
  }
  if (head) claim(*head, who);
  return head;
}

void ReplyQueue::claim(unsigned head, Identity who) {
  memory.put32(headAt(head) + wire::HEAD_FIRST, 0);
  setStatus(head, wire::IDLE);
  memory.put32(headAt(head) + wire::HEAD_PROCESS, who.process);
  memory.put32(headAt(head) + wire::HEAD_THREAD, who.thread);
}

unsigned ReplyQueue::headsOf(Identity who) const {
  unsigned count = 0;
  for (unsigned i = 0; i < capacity(); ++i) count += isOf(i, who) ? 1U : 0U;
  return count;
}

unsigned ReplyQueue::headsOfProcess(uint32_t process) const {
  unsigned count = 0;
  for (unsigned i = 0; i < capacity(); ++i) count += this->process(i) == process ? 1U : 0U;
  return count;
}

unsigned ReplyQueue::linkedItems() const {
  unsigned count = 0;
  for (unsigned i = 0; i < capacity(); ++i) count += first(i) != 0 ? 1U : 0U;
  return count;
}

std::string ReplyQueue::walk(uint32_t first, const char* list, std::vector<bool>* seen) const {
  for (uint32_t item = first; item != 0; item = next(item)) {
    if (!isItem(item)) return std::string(list) + " leads to offset " + std::to_string(item);
    const std::size_t index = (item - itemAt(0)) / wire::ITEM_SIZE;
    if ((*seen)[index]) return "item " + std::to_string(index) + " is in two places";
    (*seen)[index] = true;
  }
  return "";
}

std::string ReplyQueue::listDisorder() const {
  std::vector<bool> seen(capacity(), false);
  for (unsigned i = 0; i < capacity(); ++i) {
    std::string wrong = walk(first(i), "a head record's list", &seen);
    if (!wrong.empty()) return wrong;
  }
  std::string wrong = walk(freeList(), "the free list", &seen);
  if (!wrong.empty()) return wrong;
  const auto lost = std::count(seen.begin(), seen.end(), false);
  return lost == 0 ? "" : std::to_string(lost) + " items are in no list";
}

std::string ReplyQueue::countDisorder() const {
  std::vector<bool> seen(capacity(), false);
  unsigned owned = 0;
  for (unsigned i = 0; i < capacity(); ++i) {
    if (!isFree(i)) ++owned;
    std::string wrong = walk(first(i), "a head record's list", &seen);
    if (!wrong.empty()) return wrong;
  }
  const auto linked = std::count(seen.begin(), seen.end(), true);
  if (linked != static_cast<long>(usedItems())) {
    return std::to_string(linked) + " items hold a reply, but the count says " +
           std::to_string(usedItems());
  }
  if (owned != headsInUse()) {
    return std::to_string(owned) + " head records have an owner, but the count says " +
           std::to_string(headsInUse());
  }
  return "";
}

wire::Reply ReplyQueue::unlink(unsigned head) {
  const uint32_t item = first(head);
  if (!isItem(item)) throw Broken("a head record's first reply is at " + std::to_string(item));
  wire::Reply reply;
  std::memcpy(reply.data(), memory.at(item), reply.size());
  memory.put32(headAt(head) + wire::HEAD_FIRST, next(item));
  memory.put32(item + wire::ITEM_NEXT, freeList());
  memory.put32(wire::REPLY_FREE, item);
  memory.put16(wire::REPLY_USED, static_cast<uint16_t>(usedItems() - 1));
  if (wake.waiters(semaphore(head)) == 0) setStatus(head, wire::IDLE);
  if (usedItems() + 1U == capacity()) (void)wake.add(wire::WAKE_ROOM, 1);
  return reply;
}

/// What a woken reader finds, under the lock; nothing when it waits again.
std::optional<ReplyQueue::Taken> ReplyQueue::tryTake(unsigned head) {
  if (first(head) == 0 && state() != wire::RUNNING) return Taken{End::stopped, {}};
  if (status(head) == wire::CANCELLED) {
    setStatus(head, wire::IDLE);
    return Taken{End::cancelled, {}};
  }
  if (first(head) == 0) return {};
  return Taken{End::reply, unlink(head)};
}

ReplyQueue::Taken ReplyQueue::take(Identity who, Duration limit) {
  const auto end = Clock::now() + limit;
  for (;;) {
    unsigned head = 0;
    {
      const Guard guard(*this);
      const auto found = headFor(who);
      if (!found) return {End::no_head, {}};
      head = *found;
      if (first(head) == 0 && state() != wire::RUNNING) return {End::stopped, {}};
      setStatus(head, wire::WAITING);
    }
    const auto left = std::chrono::duration_cast<Duration>(end - Clock::now());
    const Waited waited = wake.lower(semaphore(head), std::max(left, Duration(0)));
    if (waited == Waited::gone) return {End::gone, {}};
    if (state() == wire::STOPPED) return {End::stopped, {}};
    const Guard guard(*this);
    if (waited == Waited::timed_out) {
      if (isOf(head, who)) setStatus(head, wire::IDLE);
      return {End::nothing, {}};
    }
    const auto taken = tryTake(head);
    if (taken) return *taken;
  }
}

// ---- both ---------------------------------------------------------------------------------------

std::optional<Channel> Channel::open(const Names& names, Duration patience, std::string* why) {
  const auto missing = [why](const char* what) {
    *why = std::string(what) + " cannot be opened";
    return std::nullopt;
  };
  const auto overflow = SemaphoreSet::find(names.overflow, wire::LOCK_PROJECT);
  if (!overflow) return missing("the semaphore _ovr");
  const auto empty = SemaphoreSet::find(names.empty, wire::LOCK_PROJECT);
  if (!empty) return missing("the semaphore _emp");
  const auto request_lock = SemaphoreSet::find(names.requests, wire::LOCK_PROJECT);
  if (!request_lock) return missing("the request queue's lock set");
  auto request_memory = Segment::find(names.requests);
  if (!request_memory) return missing("the request queue's segment");
  const auto reply_lock = SemaphoreSet::find(names.replies, wire::LOCK_PROJECT);
  if (!reply_lock) return missing("the reply queue's lock set");
  auto reply_memory = Segment::find(names.replies);
  if (!reply_memory) return missing("the reply queue's segment");
  const auto wake = SemaphoreSet::find(names.replies, wire::WAKE_PROJECT);
  if (!wake) return missing("the wake-up set");
  Channel channel = {
      RequestQueue({std::move(*request_memory), *request_lock, patience}, *empty, *overflow),
      ReplyQueue({std::move(*reply_memory), *reply_lock, patience}, *wake)};
  channel.requests.memory.put32(wire::RING_VERSION, wire::VERSION);
  return channel;
}

}  // namespace armcontract
