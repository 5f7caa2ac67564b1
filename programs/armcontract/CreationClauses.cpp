// What an engine must have made: files, keys, sizes, values.

#include <unistd.h>

#include <set>
#include <string>

#include "armcontract/Clauses.h"

namespace armcontract {

namespace {

void checkKeys(Bench& bench) {
  for (const std::string& name : bench.names().all()) {
    need(access(name.c_str(), F_OK) == 0, "the name file " + name + " is missing");
  }
  std::string why;
  need(Channel::open(bench.names(), bench.patience(), &why).has_value(), why);
}

void checkRequestSize(Bench& bench) {
  const std::size_t size = bench.requests().memory.size();
  need(size >= wire::RING_SLOTS + wire::REQUEST_SIZE, "it has " + std::to_string(size) + " bytes");
}

void checkReplySize(Bench& bench) {
  const std::size_t size = bench.replies().memory.size();
  need(size >= wire::REPLY_RECORDS + wire::HEAD_SIZE + wire::ITEM_SIZE,
       "it has " + std::to_string(size) + " bytes");
}

void needCount(const SemaphoreSet& set, int expected, const char* which) {
  need(set.count() == expected, std::string(which) + " has " + std::to_string(set.count()) +
                                    " semaphores, not " + std::to_string(expected));
}

void checkLockSets(Bench& bench) {
  needCount(bench.requests().lock_set, wire::LOCK_SET_SIZE, "the request queue's");
  needCount(bench.replies().lock_set, wire::LOCK_SET_SIZE, "the reply queue's");
}

void needCounting(const SemaphoreSet& set, const char* which) {
  needCount(set, wire::COUNTING_SET_SIZE, which);
  const int maximum = set.value(wire::MAXIMUM);
  need(maximum >= 1 && maximum <= wire::LARGEST_MAXIMUM,
       std::string(which) + " has a maximum of " + std::to_string(maximum));
}

void checkCountingSemaphores(Bench& bench) {
  needCounting(bench.requests().empty, "_emp");
  needCounting(bench.requests().overflow, "_ovr");
}

void checkWakeUpSet(Bench& bench) {
  const ReplyQueue& replies = bench.replies();
  needCount(replies.wake, static_cast<int>(replies.capacity()) + wire::WAKE_FIRST_HEAD, "it");
  const int value = replies.wake.value(wire::WAKE_INITIALIZED);
  need(value == 1, "semaphore 0 is " + std::to_string(value));
}

void needMode(unsigned mode, const std::string& which) {
  need((mode & wire::EVERYBODY) == wire::EVERYBODY,
       which + " cannot be read and written by everybody");
}

void checkPermissions(Bench& bench) {
  const RequestQueue& requests = bench.requests();
  const ReplyQueue& replies = bench.replies();
  needMode(requests.memory.mode(), "the request queue's segment");
  needMode(requests.lock_set.mode(), "the request queue's lock set");
  needMode(requests.empty.mode(), "the semaphore _emp");
  needMode(requests.overflow.mode(), "the semaphore _ovr");
  needMode(replies.memory.mode(), "the reply queue's segment");
  needMode(replies.lock_set.mode(), "the reply queue's lock set");
  needMode(replies.wake.mode(), "the wake-up set");
}

void needCreator(const LockedSegment& queue, const char* which) {
  const int value = queue.lock_set.value(wire::CREATOR);
  need(value == wire::CREATOR_LIVES, std::string(which) + " has " + std::to_string(value));
}

void checkCreator(Bench& bench) {
  needCreator(bench.requests(), "the request queue's");
  needCreator(bench.replies(), "the reply queue's");
}

void checkRunning(Bench& bench) {
  const RequestQueue& requests = bench.requests();
  need(requests.memory.u32(wire::RING_STATE) == wire::RUNNING,
       "the request queue's state is not 0");
  need(bench.replies().state() == wire::RUNNING, "the reply queue's state is not 0");
  need(requests.memory.u32(wire::RING_READY) != 0, "the ready word is 0");
}

void checkVersion(Bench& bench) {
  const Requester requester;
  Segment& memory = bench.requests().memory;
  (void)bench.callOrSkip(makePing(requester.identity()));
  need(memory.u32(wire::RING_VERSION) == wire::VERSION,
       "it has become " + std::to_string(memory.u32(wire::RING_VERSION)));
}

void checkHeadSemaphores(Bench& bench) {
  const ReplyQueue& replies = bench.replies();
  std::set<unsigned> seen;
  for (unsigned i = 0; i < replies.capacity(); ++i) {
    const unsigned number = replies.semaphore(i);
    const std::string which = "head record " + std::to_string(i) + " has " + std::to_string(number);
    need(number >= wire::WAKE_FIRST_HEAD && number < replies.capacity() + wire::WAKE_FIRST_HEAD,
         which);
    need(seen.insert(number).second, which + ", as another one has");
  }
}

void checkLists(Bench& bench) {
  ReplyQueue& replies = bench.replies();
  const ReplyQueue::Guard guard(replies);
  const std::string wrong = replies.listDisorder();
  need(wrong.empty(), wrong);
}

}  // namespace

std::vector<Clause> creationClauses() {
  return {
      {"keys", "Every segment and semaphore set is at the key of its name file.", 1, Engine::any,
       checkKeys},
      {"lock-sets", "The lock set of each segment has two semaphores.", 2, Engine::any,
       checkLockSets},
      {"creator", "Semaphore 1 of both lock sets is 2 while the engine lives.", 2, Engine::any,
       checkCreator},
      {"permissions", "Everybody may read and write the segments and sets.", 2, Engine::any,
       checkPermissions},
      {"counting-semaphores", "The semaphores _emp and _ovr are sets of three, with a maximum.", 3,
       Engine::any, checkCountingSemaphores},
      {"request-size", "The request segment has room for its header and a slot.", 4, Engine::any,
       checkRequestSize},
      {"running", "A serving engine has both states 0 and the ready word set.", 4, Engine::any,
       checkRunning},
      {"version", "The engine leaves the version word alone.", 4, Engine::any, checkVersion},
      {"reply-size", "The reply segment has room for its header, a head record and an item.", 5,
       Engine::any, checkReplySize},
      {"wake-up-set", "The wake-up set has n + 2 semaphores, the first of them 1.", 5, Engine::any,
       checkWakeUpSet},
      {"head-semaphores", "Each head record has a semaphore of its own, from 2 to n + 1.", 5,
       Engine::any, checkHeadSemaphores},
      {"lists", "Each item is either free or in the list of one head record.", 5, Engine::any,
       checkLists},
  };
}

}  // namespace armcontract
