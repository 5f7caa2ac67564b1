// What an engine does with head records and lists of replies, also those of the departed.

#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "armcontract/Clauses.h"

namespace armcontract {

namespace {

/// What an engine is given to notice that a client has died, in patiences.
constexpr int TO_NOTICE = 2;

// ---- linked replies -----------------------------------------------------------------------------

/// The head record in which a requester's reply waits to be taken; Unchecked when none comes.
unsigned linkedReply(Bench& bench, Identity who) {
  ReplyQueue& replies = bench.replies();
  unsigned head = 0;
  const bool linked = comesTrue(bench.patience(), [&] {
    const ReplyQueue::Guard guard(replies);
    const auto found = replies.headOf(who);
    head = found.value_or(0);
    return found && replies.first(head) != 0;
  });
  if (!linked) throw Unchecked("a requester that does not wait yet gets no reply");
  return head;
}

/// Claims the last of the free head records: an engine that claims one itself takes another.
unsigned claimLast(ReplyQueue& replies, Identity who) {
  const ReplyQueue::Guard guard(replies);
  const auto head = replies.lastFreeHead();
  if (!head || head == replies.freeHead()) throw Unchecked("fewer than two head records are free");
  replies.memory.put16(wire::REPLY_HEADS, static_cast<uint16_t>(replies.headsInUse() + 1));
  replies.claim(*head, who);
  // As one that waits: an idle record may be taken back.
  replies.setStatus(*head, wire::WAITING);
  return *head;
}

void checkOwnHead(Bench& bench) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  const unsigned own = claimLast(replies, requester.identity());
  bench.post(makePing(requester.identity()));
  const bool linked =
      comesTrue(bench.patience(), [&replies, own] { return replies.first(own) != 0; });
  need(linked, "the owner of a head record gets no reply there");
  (void)bench.take(requester.identity());
}

void checkClaim(Bench& bench) {
  const Requester requester;
  if (bench.replies().capacity() == 0) throw Unchecked("there are no head records");
  bench.post(makePing(requester.identity()));
  const bool claimed = comesTrue(bench.patience(), [&] {
    const ReplyQueue::Guard guard(bench.replies());
    return bench.replies().headOf(requester.identity()).has_value();
  });
  need(claimed, "no head record is claimed for it");
  need(bench.take(requester.identity()).end == ReplyQueue::End::reply, "it gets no reply");
}

void checkOneHead(Bench& bench) {
  const Requester requester;
  for (int i = 0; i < 3; ++i) (void)bench.callOrSkip(makePing(requester.identity()));
  const ReplyQueue::Guard guard(bench.replies());
  const unsigned count = bench.replies().headsOf(requester.identity());
  // None, when the engine has taken back what was idle.
  need(count <= 1, "it has " + std::to_string(count));
}

void checkRaise(Bench& bench) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  bench.post(makePing(requester.identity()));
  const unsigned semaphore = replies.semaphore(linkedReply(bench, requester.identity()));
  const bool raised = comesTrue(
      bench.patience(), [&] { return replies.wake.value(static_cast<int>(semaphore)) > 0; });
  need(raised, "it is not raised");
  bench.settle();
  const int value = replies.wake.value(static_cast<int>(semaphore));
  need(value == 1, "it is " + std::to_string(value) + " after one reply");
  if (bench.take(requester.identity()).end != ReplyQueue::End::reply) {
    throw Unchecked("the reply cannot be taken");
  }
}

void checkCounts(Bench& bench) {
  const Requester requester;
  ReplyQueue& replies = bench.replies();
  bench.post(makePing(requester.identity()));
  (void)linkedReply(bench, requester.identity());
  {
    const ReplyQueue::Guard guard(replies);
    const std::string wrong = replies.countDisorder();
    need(wrong.empty(), wrong);
  }
  (void)bench.take(requester.identity());
}

void checkCrowd(Bench& bench) {
  ReplyQueue& replies = bench.replies();
  if (replies.capacity() > MOST_REQUESTERS) {
    throw Unchecked("start the engine with at most " + std::to_string(MOST_REQUESTERS) +
                    " head records");
  }
  const Requesters requesters = makeRequesters(replies.capacity());
  for (const auto& one : requesters) {
    (void)bench.headFor(one->identity());
    (void)bench.callOrSkip(makePing(one->identity()));
  }
  const Requester another;
  bench.post(makePing(another.identity()));
  // It claims an idle one as late as it can.
  (void)comesTrue(bench.patience(), [&] { return bench.requests().count() == 0; });
  bench.settle();
  need(bench.take(another.identity()).end == ReplyQueue::End::reply,
       "one requester more than there are head records gets no reply");
}

// ---- the departed -------------------------------------------------------------------------------

/// A process that makes the calls of a client and can be killed.
class Client {
 public:
  template <typename Body>
  explicit Client(Body body) : parent_(getpid()), process_(fork()) {
    if (process_ != 0) return;
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() == parent_) run(body);
    _exit(EXIT_FAILURE);
  }
  ~Client() { kill(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  /// A process has one thread only, whose number is the process's.
  Identity identity() const {
    return {static_cast<uint32_t>(process_), static_cast<uint32_t>(process_)};
  }
  void kill() {
    if (process_ <= 0) return;
    (void)::kill(process_, SIGKILL);
    (void)waitpid(process_, nullptr, 0);
    process_ = -1;
  }

 private:
  template <typename Body>
  static void run(Body body) {
    const auto self = static_cast<uint32_t>(getpid());
    try {
      body(Identity{self, self});
    } catch (const std::exception&) {
      _exit(EXIT_FAILURE);
    }
    for (;;) (void)::pause();
  }

  pid_t parent_;
  pid_t process_;
};

/// The head record of a requester that waits; Unchecked when it does not come to that.
unsigned waitingHead(Bench& bench, Identity who) {
  ReplyQueue& replies = bench.replies();
  unsigned head = 0;
  const bool waits = comesTrue(bench.patience(), [&] {
    const auto found = replies.headOf(who);
    head = found.value_or(0);
    return found && replies.status(head) == wire::WAITING &&
           replies.wake.waiters(replies.semaphore(head)) > 0;
  });
  if (!waits) throw Unchecked("a client cannot wait");
  return head;
}

/// Polls while the engine has something to do, as engines may tidy up when they are called.
template <typename Condition>
bool isNoticed(Bench& bench, Condition condition) {
  const Requester caller;
  const auto end = Clock::now() + TO_NOTICE * bench.patience();
  while (!condition()) {
    if (Clock::now() >= end) return false;
    (void)bench.callOrSkip(makePing(caller.identity()));
    (void)comesTrue(Duration(100), condition);
  }
  return true;
}

bool isForgotten(Bench& bench, Identity who) {
  const ReplyQueue::Guard guard(bench.replies());
  return bench.replies().headsOfProcess(who.process) == 0;
}

void checkDeadWaiter(Bench& bench) {
  Client client([&bench](Identity self) { (void)bench.replies().take(self, FOR_EVER); });
  const Identity who = client.identity();
  (void)waitingHead(bench, who);
  client.kill();
  need(isNoticed(bench, [&] { return isForgotten(bench, who); }), "it is not given back");
}

void checkDeadReply(Bench& bench) {
  Client client([&bench](Identity self) { bench.post(makePing(self)); });
  const Identity who = client.identity();
  ReplyQueue& replies = bench.replies();
  const auto semaphore = static_cast<int>(replies.semaphore(linkedReply(bench, who)));
  client.kill();
  const bool dropped = isNoticed(bench, [&] {
    const ReplyQueue::Guard guard(replies);
    return replies.headsOfProcess(who.process) == 0 && replies.linkedItems() == 0;
  });
  need(dropped, "it keeps its item");
  need(replies.wake.value(semaphore) == 0, "the semaphore of its head record stays raised");
}

void checkLivingWaiter(Bench& bench) {
  Client living([&bench](Identity self) { (void)bench.replies().take(self, FOR_EVER); });
  const unsigned head = waitingHead(bench, living.identity());
  Client dying([&bench](Identity self) { (void)bench.replies().take(self, FOR_EVER); });
  const Identity dead = dying.identity();
  (void)waitingHead(bench, dead);
  dying.kill();
  if (!isNoticed(bench, [&] { return isForgotten(bench, dead); })) {
    throw Unchecked("the engine gives no head record back");
  }
  need(bench.replies().isOf(head, living.identity()), "it has lost its head record");
  need(bench.replies().status(head) == wire::WAITING, "its wait has been ended");
}

}  // namespace

std::vector<Clause> replyClauses() {
  return {
      {"claim", "A requester without a head record is given one.", 5, Engine::any, checkClaim},
      {"own-head", "A reply goes into the head record that its requester has claimed.", 5,
       Engine::own, checkOwnHead},
      {"raise", "The head record's semaphore is raised once for each reply.", 5, Engine::any,
       checkRaise},
      {"counts", "The counts agree with the lists while a reply waits to be taken.", 5, Engine::any,
       checkCounts},
      {"one-head", "A requester never has two head records.", 8, Engine::any, checkOneHead},
      {"crowd", "When all head records are in use, idle ones serve new requesters.", 5, Engine::own,
       checkCrowd},
      {"dead-waiter", "The head record of a client killed while it waits is given back.", 8,
       Engine::own, checkDeadWaiter},
      {"dead-reply", "The reply of a client that has died is dropped.", 8, Engine::own,
       checkDeadReply},
      {"living-waiter", "A client that waits keeps its head record when others are given back.", 8,
       Engine::own, checkLivingWaiter},
  };
}

}  // namespace armcontract
