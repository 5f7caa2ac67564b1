// How an engine begins and ends.

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <thread>

#include "armcontract/Clauses.h"

namespace armcontract {

namespace {

Channel openChannel(const Bench& bench) {
  std::string why;
  auto channel = Channel::open(bench.names(), bench.patience(), &why);
  if (!channel) throw Unchecked(why);
  return std::move(*channel);
}

/// A client that waits for a reply in a thread of its own, on queues that it has opened itself:
/// they stay as they are when the bench opens those of the next engine.
class Waiter {
 public:
  explicit Waiter(const Bench& bench)
      : replies_(openChannel(bench).replies), thread_([this] { wait(); }) {
    const bool waits = comesTrue(bench.patience(), [this] {
      const ReplyQueue::Guard guard(replies_);
      const auto found = replies_.headOf(requester_.identity());
      head_ = found.value_or(0);
      return found && replies_.wake.waiters(replies_.semaphore(head_)) > 0;
    });
    if (waits) return;
    giveUp();
    throw Unchecked("a client cannot wait");
  }
  ~Waiter() {
    if (thread_.joinable()) giveUp();
  }
  Waiter(const Waiter&) = delete;
  Waiter& operator=(const Waiter&) = delete;

  /// Whether its wait ends within the limit.
  bool ends(Duration limit) {
    return comesTrue(limit, [this] { return over_.load(); });
  }

 private:
  void wait() {
    try {
      (void)replies_.take(requester_.identity(), FOR_EVER);
    } catch (const std::exception&) {
      // A queue in disorder ends a wait too.
    }
    over_ = true;
  }
  /// Ends the wait as an engine would that cancels it.
  void giveUp() {
    replies_.setStatus(head_, wire::CANCELLED);
    (void)replies_.wake.add(replies_.semaphore(head_), 1);
    thread_.join();
  }

  Requester requester_;
  ReplyQueue replies_;
  unsigned head_ = 0;
  std::atomic<bool> over_{false};
  std::thread thread_;
};

void stop(Bench& bench) {
  bench.engine().signal(SIGTERM);
  if (!bench.engine().ends(bench.patience())) {
    throw Unchecked("SIGTERM does not end the engine");
  }
}

// ---- stop ---------------------------------------------------------------------------------------

void checkStates(Bench& bench) {
  const RequestQueue& requests = bench.requests();
  stop(bench);
  need(requests.memory.u32(wire::RING_STATE) == wire::STOPPED, "the request queue's is not");
  need(bench.replies().state() == wire::STOPPED, "the reply queue's is not");
}

void checkStopWakes(Bench& bench) {
  Waiter waiter(bench);
  stop(bench);
  need(waiter.ends(bench.patience()), "one that waited for a reply waits on");
}

void needRemoved(const SemaphoreSet& set, const char* which) {
  need(!set.exists(), std::string(which) + " is left behind");
}

void checkRemoval(Bench& bench) {
  const RequestQueue& requests = bench.requests();
  const ReplyQueue& replies = bench.replies();
  stop(bench);
  needRemoved(requests.lock_set, "the request queue's lock set");
  needRemoved(requests.empty, "the semaphore _emp");
  needRemoved(requests.overflow, "the semaphore _ovr");
  needRemoved(replies.lock_set, "the reply queue's lock set");
  needRemoved(replies.wake, "the wake-up set");
  need(!segmentExists(requests.memory.id()), "the request queue's segment is left behind");
  need(!segmentExists(replies.memory.id()), "the reply queue's segment is left behind");
  for (const std::string& name : bench.names().all()) {
    need(access(name.c_str(), F_OK) != 0, name + " is left behind");
  }
}

// ---- death --------------------------------------------------------------------------------------

void needFallen(Bench& bench, const LockedSegment& queue, const char* which) {
  const auto creator = [&queue] { return queue.lock_set.value(wire::CREATOR); };
  // A set that is gone says the same.
  const bool fallen = comesTrue(bench.patience(), [&] { return creator() < wire::CREATOR_LIVES; });
  need(fallen, std::string(which) + " stays " + std::to_string(creator()));
}

void checkDeath(Bench& bench) {
  bench.kill();
  needFallen(bench, bench.requests(), "the request queue's");
  needFallen(bench, bench.replies(), "the reply queue's");
}

/// From the moment in which a lock set of the next engine is there, programs connect: what they
/// find ready then must not be what the last one has left.
void checkStartOrder(Bench& bench) {
  const int dead = bench.requests().memory.id();
  bench.kill();
  if (!comesTrue(bench.patience(), [&bench] { return !bench.isServed(); })) {
    throw Unchecked("the dead one seems to live");
  }
  const auto engine = bench.startTraced();
  bool misleads = false;
  const bool begun = engine->runUntil(10 * bench.patience(), [&bench, &misleads, dead] {
    if (!bench.isServed()) return false;
    const auto memory = Segment::find(bench.names().requests);
    misleads = memory && memory->id() == dead && memory->u32(wire::RING_READY) != 0 &&
               memory->u32(wire::RING_STATE) == wire::RUNNING;
    return true;
  });
  if (!begun) throw Unchecked("the next engine makes no lock set");
  need(!misleads, "the dead one's segment is there, and ready, beside the new lock set");
}

void checkNewSets(Bench& bench) {
  const int request_lock = bench.requests().lock_set.id();
  const int reply_lock = bench.replies().lock_set.id();
  bench.kill();
  bench.startAgain();
  need(bench.requests().lock_set.id() != request_lock, "the request queue's lock set is old");
  need(bench.replies().lock_set.id() != reply_lock, "the reply queue's lock set is old");
}

void checkOverflowKept(Bench& bench) {
  const SemaphoreSet overflow = bench.requests().overflow;
  bench.kill();
  bench.startAgain();
  need(overflow.exists() && bench.requests().overflow.id() == overflow.id(),
       "it has been removed, and a writer that empties it never ends");
}

void checkRelease(Bench& bench) {
  Waiter waiter(bench);
  bench.kill();
  bench.startAgain();
  need(waiter.ends(bench.patience()), "one that waited for the dead one waits on");
}

void checkCleanStart(Bench& bench) {
  const Requester requester;
  bench.engine().signal(SIGSTOP);
  bench.post(makePing(requester.identity()));
  bench.kill();
  bench.startAgain();
  // Requests are answered in their order, so that an old one would have been by now.
  bench.needService("it does not answer");
  const ReplyQueue::Guard guard(bench.replies());
  need(!bench.replies().headOf(requester.identity()), "a request of the last engine's is answered");
}

void checkSecondEngine(Bench& bench) {
  const int lock = bench.requests().lock_set.id();
  const auto second = bench.startSecond();
  need(second->ends(bench.patience()), "it does not end");
  const auto now = SemaphoreSet::find(bench.names().requests, wire::LOCK_PROJECT);
  need(now && now->id() == lock, "the first one's lock set is gone");
  bench.needService("the first one does not serve on");
}

}  // namespace

std::vector<Clause> lifeClauses() {
  return {
      {"second-engine", "A second engine of the same prefix ends and leaves the first in peace.", 7,
       Engine::own, checkSecondEngine},
      {"stop-states", "An engine that stops sets both states to 2.", 7, Engine::spent, checkStates},
      {"stop-wakes", "An engine that stops wakes every thread that waits.", 7, Engine::spent,
       checkStopWakes},
      {"stop-removes", "An engine that stops removes its sets, segments and name files.", 7,
       Engine::spent, checkRemoval},
      {"death", "Semaphore 1 of the lock sets falls below 2 when the engine dies.", 2,
       Engine::spent, checkDeath},
      {"start-order",
       "The next engine makes no lock set while the segment of a dead one is still ready.", 7,
       Engine::spent, checkStartOrder},
      {"new-sets", "The next engine makes new lock sets.", 7, Engine::spent, checkNewSets},
      {"overflow-kept", "The next engine uses the semaphore _ovr of a dead one on.", 8,
       Engine::spent, checkOverflowKept},
      {"release", "The next engine releases the threads that wait for the dead one.", 7,
       Engine::spent, checkRelease},
      {"clean-start", "The next engine begins with empty queues.", 7, Engine::spent,
       checkCleanStart},
  };
}

}  // namespace armcontract
