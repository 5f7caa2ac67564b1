// What an engine does with requests: the ring, and an answer to every record.

#include <algorithm>
#include <string>

#include "armcontract/Clauses.h"

namespace armcontract {

namespace {

constexpr unsigned LONGEST_ROUND = 8192;
/// Seconds since the epoch.
constexpr int32_t SOME_TIME = 1'700'000'000;

// ---- records ------------------------------------------------------------------------------------

wire::Request makeInit(Identity from, const char* name) {
  wire::Request request = makeRequest(wire::INIT, from);
  request.putText(wire::INIT_NAME, name);
  request.putText(wire::INIT_USER, "nobody");
  return request;
}

wire::Request makeGetid(Identity from, int32_t application, const char* name) {
  wire::Request request = makeRequest(wire::GETID, from);
  request.put32(wire::ID, application);
  request.putText(wire::GETID_NAME, name);
  return request;
}

/// A start; flags are those of the block's first flag byte, 0 for no block at all.
wire::Request makeStart(Identity from, int32_t tran_class, uint8_t flags) {
  wire::Request request = makeRequest(wire::START, from);
  request.put32(wire::ID, tran_class);
  if (flags != 0) {
    request.put32(wire::START_BLOCK + wire::BLOCK_FORMAT, wire::FORMAT);
    request[wire::START_BLOCK + wire::BLOCK_FLAGS] = flags;
    request.put32(wire::START_BLOCK_SIZE, wire::BLOCK_SIZE);
  }
  request.put32(wire::START_TIME, SOME_TIME);
  return request;
}

/// A request of a type with what its body must have; ids are those that engines give first.
wire::Request makeOfType(int32_t type, Identity from) {
  if (type == wire::INIT) return makeInit(from, "armcontract");
  if (type == wire::GETID) return makeGetid(from, 1, "check");
  wire::Request request = type == wire::START ? makeStart(from, 1, 0) : makeRequest(type, from);
  request.put32(wire::ID, 1);
  if (type == wire::METRIC_DATA) {
    request.put32(wire::METRIC_LENGTH, 5);
    request.putText(wire::METRIC_BYTES, "bytes");
  }
  return type == wire::END ? makePing(from) : request;
}

// ---- answers ------------------------------------------------------------------------------------

void needNothingMore(Bench& bench, Identity who) {
  const Requester other;
  (void)bench.call(makePing(other.identity()));
  bench.settle();
  const ReplyQueue::Guard guard(bench.replies());
  const auto head = bench.replies().headOf(who);
  need(!head || bench.replies().first(*head) == 0, "there is a second reply");
}

template <int32_t Type>
void checkAnswer(Bench& bench) {
  const Requester requester;
  const auto reply = bench.call(makeOfType(Type, requester.identity()));
  need(reply.has_value(), "there is no reply");
  needNothingMore(bench, requester.identity());
}

void checkSender(Bench& bench) {
  const Requester bystander;
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  {
    const ReplyQueue::Guard guard(replies);
    const auto claimed = replies.headFor(bystander.identity());
    if (!claimed) throw Unchecked("no head record is to be had");
    // As one that waits: an idle record might be given to somebody else.
    replies.setStatus(*claimed, wire::WAITING);
  }
  (void)bench.callOrSkip(makePing(requester.identity()));
  bench.settle();
  const ReplyQueue::Guard guard(replies);
  const auto head = replies.headOf(bystander.identity());
  need(head.has_value(), "the head record of another requester is gone");
  replies.setStatus(*head, wire::IDLE);
  need(replies.first(*head) == 0, "another requester has been given a reply");
}

struct Registered {
  int32_t application;
  int32_t tran_class;
};

int32_t resultOf(Bench& bench, const wire::Request& request) {
  return bench.callOrSkip(request).word(wire::RESULT);
}

Registered registerClass(Bench& bench, Identity who) {
  const int32_t application = resultOf(bench, makeInit(who, "armcontract"));
  return {application, resultOf(bench, makeGetid(who, application, "check"))};
}

void needId(int32_t id, const char* what) {
  need(id > 0 && id != wire::IGNORED, std::string(what) + " is " + std::to_string(id));
}

void checkIds(Bench& bench) {
  const Requester requester;
  const Registered ids = registerClass(bench, requester.identity());
  needId(ids.application, "an application id");
  needId(ids.tran_class, "a class id");
  const wire::Request start =
      makeStart(requester.identity(), ids.tran_class, wire::WANTS_CORRELATOR);
  needId(resultOf(bench, start), "a start handle");
}

void checkEqualClasses(Bench& bench) {
  const Requester requester;
  const Identity who = requester.identity();
  const Registered ids = registerClass(bench, who);
  wire::Request again = makeGetid(who, ids.application, "check");
  again.putText(wire::GETID_DETAIL, "another detail");
  const int32_t same = resultOf(bench, again);
  need(same == ids.tran_class,
       "the same class has got " + std::to_string(ids.tran_class) + " and " + std::to_string(same));
  const int32_t other = resultOf(bench, makeGetid(who, ids.application, "check too"));
  need(other != ids.tran_class, "two classes have got the same id");
}

// ---- correlators --------------------------------------------------------------------------------

using Correlator = std::array<uint8_t, wire::CORRELATOR_SIZE>;

/// The correlator of a new transaction; Unchecked when the engine gives none.
Correlator startWithCorrelator(Bench& bench, Identity who) {
  const Registered ids = registerClass(bench, who);
  const wire::Reply reply =
      bench.callOrSkip(makeStart(who, ids.tran_class, wire::WANTS_CORRELATOR));
  if (reply[wire::REPLY_FLAG] == 0) throw Unchecked("the engine gives no correlators");
  Correlator correlator;
  std::copy_n(reply.begin() + wire::REPLY_CORRELATOR, correlator.size(), correlator.begin());
  return correlator;
}

void checkCorrelator(Bench& bench) {
  const Requester requester;
  const Correlator first = startWithCorrelator(bench, requester.identity());
  need(first[0] != 0 || first[1] != 0, "its length word is 0");
  need(first != startWithCorrelator(bench, requester.identity()), "two transactions have the same");
}

/// Fills what the free items hold: an engine that writes less than a whole reply leaves it there.
void poisonFreeItems(ReplyQueue& replies) {
  constexpr uint8_t POISON = 0xEF;
  const ReplyQueue::Guard guard(replies);
  unsigned steps = 0;
  for (uint32_t item = replies.freeList(); item != 0; item = replies.next(item)) {
    if (!replies.isItem(item) || ++steps > replies.capacity()) throw Unchecked("bad free list");
    std::fill_n(replies.memory.at(item), wire::REPLY_SIZE, POISON);
  }
}

void checkIgnoreByte(Bench& bench) {
  const Requester requester;
  poisonFreeItems(bench.replies());
  const Correlator correlator = startWithCorrelator(bench, requester.identity());
  const unsigned byte = correlator[wire::IGNORE_BYTE];
  need((byte & 1U) == 0, "it is " + std::to_string(byte) + ": children would not be measured");
}

void checkWithoutCorrelator(Bench& bench) {
  const Requester requester;
  const Registered ids = registerClass(bench, requester.identity());
  needId(resultOf(bench, makeStart(requester.identity(), ids.tran_class, 0)), "its handle");
}

void needStrangersChild(Bench& bench, Identity who, int32_t tran_class, uint8_t pattern) {
  wire::Request request = makeStart(who, tran_class, wire::HAS_PARENT | wire::WANTS_CORRELATOR);
  std::fill_n(request.begin() + wire::START_BLOCK + wire::BLOCK_CORRELATOR, wire::CORRELATOR_SIZE,
              pattern);
  needId(resultOf(bench, request), "the child's handle");
}

void checkForeignParent(Bench& bench) {
  const Requester requester;
  const Registered ids = registerClass(bench, requester.identity());
  for (const uint8_t pattern : {uint8_t{0}, uint8_t{0x02}, uint8_t{0xFE}}) {
    needStrangersChild(bench, requester.identity(), ids.tran_class, pattern);
  }
}

// ---- the ring -----------------------------------------------------------------------------------

/// Puts one request of each requester behind one wake-up.  Returns how many are answered.
unsigned answersTo(Bench& bench, unsigned count) {
  const Requesters requesters = makeRequesters(count);
  std::vector<wire::Request> requests;
  for (const auto& one : requesters) requests.push_back(makePing(one->identity()));
  bench.requests().put(requests);
  unsigned answered = 0;
  for (const auto& one : requesters) {
    if (bench.take(one->identity()).end != ReplyQueue::End::reply) break;
    ++answered;
  }
  return answered;
}

/// Some requests, fewer than the ring holds.
unsigned fewRequests(Bench& bench) {
  const unsigned room = std::min(bench.requests().capacity(), bench.replies().capacity());
  if (room < 3) throw Unchecked("the queues have room for fewer than 3 requests");
  return std::min(room - 1, 6U);
}

void needAll(unsigned answered, unsigned count) {
  need(answered == count, "of " + std::to_string(count) + " only the first " +
                              std::to_string(answered) + " were answered");
}

void checkDrain(Bench& bench) {
  const unsigned count = fewRequests(bench);
  needAll(answersTo(bench, count), count);
}

void checkFull(Bench& bench) {
  const unsigned capacity = bench.requests().capacity();
  if (capacity > MOST_REQUESTERS || capacity > bench.replies().capacity()) {
    throw Unchecked("start the engine with at most " + std::to_string(MOST_REQUESTERS) +
                    " slots, and as many head records");
  }
  const unsigned few = fewRequests(bench);
  if (answersTo(bench, few) != few) throw Unchecked("not even a few requests are answered");
  needAll(answersTo(bench, capacity), capacity);
}

void checkFalseWakeUp(Bench& bench) {
  bench.requireService();
  for (int i = 0; i < 3; ++i) bench.requests().wake();
  bench.settle();
  bench.needService("requests are no longer answered");
}

void checkRing(Bench& bench) {
  const Requester requester;
  const RequestQueue& requests = bench.requests();
  const unsigned head = requests.head();
  const unsigned tail = requests.tail();
  for (int i = 0; i < 3; ++i) (void)bench.callOrSkip(makePing(requester.identity()));
  const unsigned capacity = requests.capacity();
  need(requests.count() == 0, "the count is not 0");
  need(requests.tail() == (tail + 3) % capacity, "the tail has been changed");
  need(requests.head() == (head + 3) % capacity, "the head has not moved on by one each");
}

void checkRound(Bench& bench) {
  const unsigned capacity = bench.requests().capacity();
  if (capacity > LONGEST_ROUND) {
    throw Unchecked("start the engine with at most " + std::to_string(LONGEST_ROUND) + " slots");
  }
  const Requester requester;
  for (unsigned i = 0; i <= capacity; ++i) {
    need(bench.call(makePing(requester.identity())).has_value(),
         "the request in slot " + std::to_string(bench.requests().tail()) + " is not answered");
  }
}

void checkWaitingWriter(Bench& bench) {
  const Requester requester;
  RequestQueue& requests = bench.requests();
  // The unit that wakes a waiting writer is one that was not there before.
  while (requests.overflow.lower(wire::COUNT, Duration(0)) == Waited::done) continue;
  requests.memory.put32(wire::RING_WRITERS, 1);
  (void)bench.callOrSkip(makePing(requester.identity()));
  const Waited waited = requests.overflow.lower(wire::COUNT, bench.patience());
  requests.memory.put32(wire::RING_WRITERS, 0);
  need(waited == Waited::done, "the semaphore _ovr is not raised");
}

void checkLocksAreFree(Bench& bench) {
  const auto is_free = [&bench](const LockedSegment& queue) {
    return comesTrue(bench.patience(), [&] { return queue.lock_set.value(wire::LOCK) == 0; });
  };
  need(is_free(bench.requests()), "the request queue's stays taken");
  need(is_free(bench.replies()), "the reply queue's stays taken");
}

}  // namespace

std::vector<Clause> requestClauses() {
  return {
      {"locks", "An engine that waits holds no lock.", 2, Engine::any, checkLocksAreFree},
      {"ring", "The engine takes from the head, and leaves the tail to the writers.", 4,
       Engine::own, checkRing},
      {"drain", "All requests behind one wake-up are answered.", 4, Engine::any, checkDrain},
      {"false-wake-up", "A wake-up that finds nothing is borne.", 4, Engine::any, checkFalseWakeUp},
      {"round", "The ring goes round.", 4, Engine::any, checkRound},
      {"full", "A full ring is emptied, and all its requests are answered.", 4, Engine::own,
       checkFull},
      {"waiting-writer", "The semaphore _ovr is raised when a writer waits for room.", 4,
       Engine::own, checkWaitingWriter},
      {"answer-init", "A request of type 1 gets exactly one reply.", 6, Engine::any,
       checkAnswer<wire::INIT>},
      {"answer-getid", "A request of type 2 gets exactly one reply.", 6, Engine::any,
       checkAnswer<wire::GETID>},
      {"answer-start", "A request of type 3 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::START>},
      {"answer-update", "A request of type 4 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::UPDATE>},
      {"answer-stop", "A request of type 5 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::STOP>},
      {"answer-end", "A request of type 6 gets exactly one reply.", 6, Engine::any,
       checkAnswer<wire::END>},
      {"answer-complete", "A request of type 15 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::COMPLETE>},
      {"answer-report", "A request of type 16 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::REPORT>},
      {"answer-instance-report", "A request of type 17 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::INSTANCE_REPORT>},
      {"answer-complete-instance", "A request of type 18 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::COMPLETE_INSTANCE>},
      {"answer-metric-data", "A request of type 19 gets exactly one reply.", 6, Engine::own,
       checkAnswer<wire::METRIC_DATA>},
      {"answer-unknown", "A request of a type that does not exist gets exactly one reply.", 6,
       Engine::own, checkAnswer<wire::UNKNOWN>},
      {"sender", "A reply goes to the sender of its request and to nobody else.", 6, Engine::any,
       checkSender},
      {"ids", "Ids and handles are positive, and not 2147483647.", 6, Engine::any, checkIds},
      {"equal-classes", "Equal classes get equal ids, and different ones different ids.", 6,
       Engine::any, checkEqualClasses},
      {"correlator", "A correlator that is given is no other transaction's, and not empty.", 6,
       Engine::any, checkCorrelator},
      {"ignore-byte", "Byte 109 of a correlator is written, its bit 0x01 clear.", 6, Engine::own,
       checkIgnoreByte},
      {"no-correlator", "A start that asks for no correlator is started like any other.", 6,
       Engine::any, checkWithoutCorrelator},
      {"foreign-parent", "The correlator of a strange parent is no hindrance.", 6, Engine::any,
       checkForeignParent},
  };
}

}  // namespace armcontract
