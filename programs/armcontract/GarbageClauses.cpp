// What an engine must bear: everybody may write into the shared memory.

#include <algorithm>
#include <string>

#include "armcontract/Clauses.h"

namespace armcontract {

namespace {

constexpr uint32_t BAD_OFFSET = 0x7FFFFFF1;
constexpr uint16_t BAD_INDEX = 0xFFFF;
constexpr uint8_t BAD_STATUS = 200;

/// Posts a request that may be lost, and gives the engine time to stumble.
void provoke(Bench& bench, Identity who) {
  try {
    bench.post(makePing(who));
  } catch (const Unchecked&) {
    bench.requests().wake();
  }
  bench.settle();
}

/// Puts a value back if it is still the bad one: an engine may have repaired it.
template <typename T>
void restore(T bad, T good, T now, const std::function<void(T)>& put) {
  if (now == bad) put(good);
}

void checkBadRing(Bench& bench) {
  RequestQueue& requests = bench.requests();
  Segment& memory = requests.memory;
  {
    const RequestQueue::Guard guard(requests);
    for (const std::size_t offset : {wire::RING_COUNT, wire::RING_HEAD, wire::RING_TAIL}) {
      memory.put16(offset, BAD_INDEX);
    }
  }
  requests.wake();
  bench.settle();
  {
    const RequestQueue::Guard guard(requests);
    for (const std::size_t offset : {wire::RING_COUNT, wire::RING_HEAD, wire::RING_TAIL}) {
      restore<uint16_t>(BAD_INDEX, 0, memory.u16(offset),
                        [&](uint16_t value) { memory.put16(offset, value); });
    }
  }
  bench.needService("the engine does not serve on");
}

/// Spoils a word of the reply queue for the time of a request.
void spoilWord(Bench& bench, std::size_t offset, uint32_t bad) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  uint32_t good = 0;
  {
    const ReplyQueue::Guard guard(replies);
    good = replies.memory.u32(offset);
    replies.memory.put32(offset, bad);
  }
  provoke(bench, requester.identity());
  const ReplyQueue::Guard guard(replies);
  restore<uint32_t>(bad, good, replies.memory.u32(offset),
                    [&](uint32_t value) { replies.memory.put32(offset, value); });
}

void checkFreeList(Bench& bench) {
  spoilWord(bench, wire::REPLY_FREE, BAD_OFFSET);
  bench.needService("the engine does not serve on");
}

void checkList(Bench& bench) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  const std::size_t first =
      ReplyQueue::headAt(bench.headFor(requester.identity())) + wire::HEAD_FIRST;
  {
    const ReplyQueue::Guard guard(replies);
    replies.memory.put32(first, BAD_OFFSET);
  }
  provoke(bench, requester.identity());
  {
    const ReplyQueue::Guard guard(replies);
    restore<uint32_t>(BAD_OFFSET, 0, replies.memory.u32(first),
                      [&](uint32_t value) { replies.memory.put32(first, value); });
  }
  bench.needService("the engine does not serve on");
}

/// Links a free item to a requester and to itself.
void checkCycle(Bench& bench) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  const unsigned head = bench.headFor(requester.identity());
  {
    const ReplyQueue::Guard guard(replies);
    const uint32_t item = replies.freeList();
    if (!replies.isItem(item)) throw Unchecked("no item is free");
    replies.memory.put32(wire::REPLY_FREE, replies.next(item));
    replies.memory.put32(item + wire::ITEM_NEXT, item);
    replies.memory.put32(ReplyQueue::headAt(head) + wire::HEAD_FIRST, item);
    replies.memory.put16(wire::REPLY_USED, static_cast<uint16_t>(replies.usedItems() + 1));
  }
  provoke(bench, requester.identity());
  bench.needService("the engine does not serve on");
}

void checkHead(Bench& bench) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  const unsigned head = bench.headFor(requester.identity());
  const uint16_t good = replies.semaphore(head);
  const std::size_t number = ReplyQueue::headAt(head) + wire::HEAD_SEMAPHORE;
  {
    const ReplyQueue::Guard guard(replies);
    replies.memory.put16(number, BAD_INDEX);
    replies.setStatus(head, BAD_STATUS);
  }
  provoke(bench, requester.identity());
  {
    const ReplyQueue::Guard guard(replies);
    restore<uint16_t>(BAD_INDEX, good, replies.memory.u16(number),
                      [&](uint16_t value) { replies.memory.put16(number, value); });
    replies.setStatus(head, wire::IDLE);
  }
  bench.needService("the engine does not serve on");
}

/// Requests whose texts do not end and whose sizes cannot be.
void checkRecords(Bench& bench) {
  constexpr int32_t TYPES[] = {wire::INIT,
                               wire::GETID,
                               wire::START,
                               wire::UPDATE,
                               wire::STOP,
                               wire::END,
                               wire::COMPLETE,
                               wire::REPORT,
                               wire::INSTANCE_REPORT,
                               wire::COMPLETE_INSTANCE,
                               wire::METRIC_DATA,
                               -1};
  for (const int32_t type : TYPES) {
    for (const uint8_t pattern : {uint8_t{0xFF}, uint8_t{0x7F}, uint8_t{0x80}}) {
      const Requester requester;
      wire::Request request = makeRequest(type, requester.identity());
      std::fill(request.begin() + wire::BODY, request.end(), pattern);
      need(bench.call(request).has_value(), "a request of type " + std::to_string(type) +
                                                " filled with " + std::to_string(pattern) +
                                                " is not answered");
    }
  }
}

}  // namespace

std::vector<Clause> garbageClauses() {
  return {
      {"bad-records", "A request with impossible texts and sizes is answered too.", 8, Engine::own,
       checkRecords},
      {"bad-ring", "Impossible ring indexes do not stop the engine.", 8, Engine::spent,
       checkBadRing},
      {"bad-free-list", "An impossible free list does not stop the engine.", 8, Engine::spent,
       checkFreeList},
      {"bad-list", "An impossible list of replies does not stop the engine.", 8, Engine::spent,
       checkList},
      {"bad-cycle", "A list of replies without an end does not stop the engine.", 8, Engine::spent,
       checkCycle},
      {"bad-head", "An impossible semaphore number does not stop the engine.", 8, Engine::spent,
       checkHead},
  };
}

}  // namespace armcontract
