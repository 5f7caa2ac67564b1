// A small engine that keeps the contract, but for the one thing that it is told to get wrong.
//
//   faulty_engine REQUESTS REQUESTERS [FAULT]
//
// Faults carry the names of the clauses that they break; what each one is stands where it is made.
// One is no fault: with last-head-in-use the engine has the last head record for itself.

#include <fcntl.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "armcontract/Queues.h"

namespace {

using armcontract::Channel;
using armcontract::Clock;
using armcontract::Duration;
using armcontract::Identity;
using armcontract::Names;
using armcontract::ReplyQueue;
using armcontract::RequestQueue;
using armcontract::Segment;
using armcontract::SemaphoreSet;
using armcontract::Waited;
namespace wire = armcontract::wire;

constexpr Duration PATIENCE{60'000};
constexpr Duration BETWEEN_TIDYINGS{50};

std::string the_fault;
volatile sig_atomic_t stopping = 0;

bool faulty(const char* fault) {
  return the_fault == fault;
}

[[noreturn]] void die(const char* what) {
  std::perror(what);
  std::exit(EXIT_FAILURE);
}

// On purpose not the library's own: what checks engines shares nothing with it.
union SemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

// ---- creation -----------------------------------------------------------------------------------

bool servedAlready(const Names& names) {
  const auto set = SemaphoreSet::find(names.requests, wire::LOCK_PROJECT);
  if (!set || set->value(wire::CREATOR) < 2) return false;
  return kill(semctl(set->id(), wire::CREATOR, GETPID), 0) == 0;
}

void removeSet(const std::string& path, int project) {
  const auto set = SemaphoreSet::find(path, project);
  if (set) (void)semctl(set->id(), 0, IPC_RMID);
}

void removeSegment(const std::string& path) {
  const auto segment = Segment::find(path);
  if (segment) (void)shmctl(segment->id(), IPC_RMID, nullptr);
}

key_t keyOf(const std::string& path, int project) {
  const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666);
  if (file < 0) die(path.c_str());
  (void)close(file);
  return ftok(path.c_str(), project);
}

int makeSet(const std::string& path, int project, int count, int mode = 0666) {
  const int set = semget(keyOf(path, project), count, IPC_CREAT | mode);
  if (set < 0) die("semget");
  return set;
}

void setValue(int set, int semaphore, int value) {
  SemArgument argument = {};
  argument.val = value;
  if (semctl(set, semaphore, SETVAL, argument) < 0) die("SETVAL");
}

void makeCounting(const std::string& path) {
  const int set = makeSet(path, wire::LOCK_PROJECT, 3);
  setValue(set, wire::COUNT, 0);
  setValue(set, wire::PRIVATE_LOCK, 0);
  // counting-semaphores: a maximum that none may have.
  setValue(set, wire::MAXIMUM, faulty("counting-semaphores") ? 32767 : 32766);
}

void makeLockSet(const std::string& path) {
  const int set = makeSet(path, wire::LOCK_PROJECT, faulty("lock-sets") ? 3 : 2);
  // creator: one too many. death: nothing falls at the end.
  const short with_undo = faulty("creator") ? 2 : 1;
  const short undo = faulty("death") ? 0 : SEM_UNDO;
  const short rest = static_cast<short>(semctl(set, wire::CREATOR, GETVAL) == 0 ? 1 : 0);
  sembuf raise[] = {{wire::CREATOR, with_undo, undo}, {wire::CREATOR, rest, 0}};
  if (semop(set, raise, rest != 0 ? 2 : 1) != 0) die("semop");
}

void setReady(const std::string& path, uint32_t ready) {
  auto segment = Segment::find(path);
  if (segment) segment->put32(wire::RING_READY, ready);
}

void removeWhatIsLeft(const Names& names) {
  for (const std::string& path : {names.empty, names.replies}) {
    removeSet(path, wire::LOCK_PROJECT);
  }
  // overflow-kept: a writer may be emptying it at this moment.
  if (faulty("overflow-kept")) removeSet(names.overflow, wire::LOCK_PROJECT);
  // new-sets: the lock set of a dead engine is used on.
  if (!faulty("new-sets")) removeSet(names.requests, wire::LOCK_PROJECT);
  // release: so is the wake-up set, on which others may wait.
  if (!faulty("release")) removeSet(names.replies, wire::WAKE_PROJECT);
  // start-order: the new set is made before the old ring is out of the way.
  if (faulty("start-order")) makeLockSet(names.requests);
  // clean-start: the ring is used on, with what is in there.
  if (faulty("clean-start")) {
    setReady(names.requests, 0);
  } else {
    removeSegment(names.requests);
  }
  removeSegment(names.replies);
}

void makeSegment(const std::string& path, size_t size) {
  const int id = shmget(keyOf(path, wire::SEGMENT_PROJECT), size, IPC_CREAT | 0666);
  if (id < 0) die("shmget");
  void* start = shmat(id, nullptr, 0);
  if (!faulty("clean-start")) std::memset(start, 0, size);
  (void)shmdt(start);
}

void makeObjects(const Names& names, unsigned requests, unsigned requesters) {
  // keys: one object is forgotten.
  if (!faulty("keys")) makeCounting(names.overflow);
  makeCounting(names.empty);
  // request-size, reply-size: a byte too few for a single slot or requester.
  const size_t ring = requests * wire::REQUEST_SIZE;
  const size_t heads = requesters * (wire::HEAD_SIZE + wire::ITEM_SIZE);
  makeSegment(names.requests,
              wire::RING_SLOTS + (faulty("request-size") ? wire::REQUEST_SIZE - 1 : ring));
  makeSegment(
      names.replies,
      wire::REPLY_RECORDS + (faulty("reply-size") ? wire::HEAD_SIZE + wire::ITEM_SIZE - 1 : heads));
  // wake-up-set: a semaphore too many. permissions: others are shut out.
  const int count = static_cast<int>(faulty("reply-size") ? 0 : requesters) + 2;
  const int wake =
      makeSet(names.replies, wire::WAKE_PROJECT, count + (faulty("wake-up-set") ? 1 : 0),
              faulty("permissions") ? 0600 : 0666);
  setValue(wake, wire::WAKE_INITIALIZED, 1);
  if (!faulty("start-order")) makeLockSet(names.requests);
  makeLockSet(names.replies);
}

void layOut(ReplyQueue& replies) {
  const unsigned count = replies.capacity();
  for (unsigned i = 0; i < count; ++i) {
    // head-semaphores: two head records share one.
    const unsigned number = faulty("head-semaphores") && i == 5 ? 4 : i;
    replies.memory.put16(ReplyQueue::headAt(i) + wire::HEAD_SEMAPHORE,
                         static_cast<uint16_t>(wire::WAKE_FIRST_HEAD + number));
    replies.claim(i, {wire::NOBODY, wire::NOBODY});
    // lists: the last item is in none.
    const bool last = i + 1 == count || (faulty("lists") && i + 2 == count);
    replies.memory.put32(replies.itemAt(i) + wire::ITEM_NEXT,
                         last ? 0 : static_cast<uint32_t>(replies.itemAt(i + 1)));
  }
  replies.memory.put32(wire::REPLY_FREE, count > 0 ? static_cast<uint32_t>(replies.itemAt(0)) : 0);
  if (faulty("last-head-in-use")) {
    replies.claim(count - 1, {static_cast<uint32_t>(getpid()), static_cast<uint32_t>(getpid())});
    replies.memory.put16(wire::REPLY_HEADS, 1);
  }
}

// ---- answers ------------------------------------------------------------------------------------

/// What the engine knows.
class Registry {
 public:
  wire::Reply answer(const wire::Request& request);

 private:
  int32_t newId() { return ++last_; }
  int32_t classOf(const wire::Request& request);
  void start(const wire::Request& request, wire::Reply* reply);

  int32_t last_ = 0;
  std::map<std::pair<int32_t, std::string>, int32_t> classes_;
};

std::string textAt(const wire::Request& request, size_t offset, size_t size) {
  const char* start = reinterpret_cast<const char*>(request.data() + offset);
  return std::string(start, strnlen(start, size));
}

int32_t Registry::classOf(const wire::Request& request) {
  // equal-classes: every one is new.
  if (faulty("equal-classes")) return newId();
  int32_t& id = classes_[{request.word(12), textAt(request, 16, 3620)}];
  if (id == 0) id = newId();
  return id;
}

void Registry::start(const wire::Request& request, wire::Reply* reply) {
  const uint8_t flags = request.word(276) > 0 && request.word(20) == 1 ? request[24] : 0;
  reply->put32(0, newId());
  // no-correlator, foreign-parent: such transactions are refused.
  if (faulty("no-correlator") && (flags & wire::WANTS_CORRELATOR) == 0) reply->put32(0, -1);
  if (faulty("foreign-parent") && (flags & wire::HAS_PARENT) != 0) reply->put32(0, -1);
  if ((flags & wire::WANTS_CORRELATOR) == 0) return;
  (*reply)[wire::REPLY_FLAG] = 1;
  // correlator: an empty one is called one.
  if (faulty("correlator")) return;
  (*reply)[wire::REPLY_CORRELATOR + 1] = wire::CORRELATOR_SIZE;
  reply->put32(wire::REPLY_CORRELATOR + 4, last_);
}

wire::Reply Registry::answer(const wire::Request& request) {
  wire::Reply reply = {};
  switch (request.word(8)) {
    case wire::INIT:
      // bad-records: a name is taken to end.
      if (faulty("bad-records") && std::memchr(request.data() + 12, 0, 128) == nullptr)
        std::abort();
      // ids: a negative one.
      reply.put32(0, faulty("ids") ? -5 : newId());
      break;
    case wire::GETID:
      reply.put32(0, classOf(request));
      break;
    case wire::START:
      start(request, &reply);
      break;
    default:
      break;
  }
  return reply;
}

// ---- replies ------------------------------------------------------------------------------------

class Replier {
 public:
  explicit Replier(ReplyQueue& queue) : queue_(queue) {}

  /// Sends a reply, or keeps it for a requester that is to wait first.
  void send(Identity to, const wire::Reply& reply);
  /// What can be done for those that have died, and for the replies that are kept.
  void tidy();
  bool keepsReplies() const { return !kept_.empty(); }

 private:
  bool put(Identity to, const wire::Reply& reply);
  std::optional<unsigned> headOf(Identity to) const;
  std::optional<unsigned> claimFree(Identity to);
  bool link(unsigned head, const wire::Reply& reply);
  bool append(unsigned head, uint32_t item);
  bool raise(unsigned head);
  void sendToOthers(Identity to, const wire::Reply& reply);
  void makeTwin(Identity to);
  bool isOver(unsigned head) const;
  void release(unsigned head);
  void reclaim();
  void rebuild();

  ReplyQueue& queue_;
  std::vector<std::pair<Identity, wire::Reply>> kept_;
};

void Replier::send(Identity to, const wire::Reply& reply) {
  const ReplyQueue::Guard guard(queue_);
  if (!put(to, reply)) {
    // An impossible free list, or a list that has no end.
    reclaim();
    // crowd: without a free head record the reply is lost.
    if (!put(to, reply) && !faulty("crowd")) kept_.emplace_back(to, reply);
  }
  if (faulty("sender")) sendToOthers(to, reply);
  if (faulty("one-head")) makeTwin(to);
}

bool Replier::put(Identity to, const wire::Reply& reply) {
  auto head = headOf(to);
  if (!head) head = claimFree(to);
  return head && link(*head, reply);
}

std::optional<unsigned> Replier::headOf(Identity to) const {
  const auto head = queue_.headOf(to);
  // own-head: the last record is overlooked.
  return faulty("own-head") && head == queue_.capacity() - 1 ? std::nullopt : head;
}

std::optional<unsigned> Replier::claimFree(Identity to) {
  // claim: everybody must have one already.
  if (faulty("claim") || queue_.headsInUse() >= queue_.capacity()) return {};
  const auto head = queue_.headOf({wire::NOBODY, wire::NOBODY});
  if (!head) return {};
  queue_.claim(*head, to);
  queue_.memory.put16(wire::REPLY_HEADS, static_cast<uint16_t>(queue_.headsInUse() + 1));
  return head;
}

bool Replier::link(unsigned head, const wire::Reply& reply) {
  const uint32_t item = queue_.freeList();
  // bad-free-list: it is taken to be right.
  if (faulty("bad-free-list") && item != 0 && !queue_.isItem(item)) std::abort();
  if (!queue_.isItem(item)) return false;
  if (!raise(head)) return false;
  // ignore-byte: only the part that has a meaning is written.
  std::memcpy(queue_.memory.at(item), reply.data(),
              faulty("ignore-byte") ? size_t{28} : reply.size());
  const uint32_t next = queue_.next(item);
  queue_.memory.put32(item + wire::ITEM_NEXT, 0);
  if (!append(head, item)) return false;
  queue_.memory.put32(wire::REPLY_FREE, next);
  // counts: the item is not counted.
  if (!faulty("counts")) {
    queue_.memory.put16(wire::REPLY_USED, static_cast<uint16_t>(queue_.usedItems() + 1));
  }
  return true;
}

bool Replier::append(unsigned head, uint32_t item) {
  size_t link = ReplyQueue::headAt(head) + wire::HEAD_FIRST;
  for (unsigned steps = 0; queue_.memory.u32(link) != 0; ++steps) {
    const uint32_t next = queue_.memory.u32(link);
    // bad-list, bad-cycle: lists are taken to be right.
    if (faulty("bad-list") && !queue_.isItem(next)) std::abort();
    const bool endless = steps > queue_.capacity() && !faulty("bad-cycle");
    if (!queue_.isItem(next) || endless) return false;
    link = next + wire::ITEM_NEXT;
  }
  queue_.memory.put32(link, item);
  return true;
}

bool Replier::raise(unsigned head) {
  const unsigned number = queue_.semaphore(head);
  const bool possible = number < queue_.capacity() + wire::WAKE_FIRST_HEAD;
  // bad-head: the number is taken to be right.
  if (!possible && faulty("bad-head")) std::abort();
  // raise: twice for one reply.
  return possible && queue_.wake.add(static_cast<int>(number), faulty("raise") ? 2 : 1);
}

/// sender: others get the reply too, if they have not gone to sleep yet.
void Replier::sendToOthers(Identity to, const wire::Reply& reply) {
  for (unsigned i = 0; i < queue_.capacity(); ++i) {
    const bool waits =
        queue_.status(i) == wire::WAITING && queue_.wake.waiters(queue_.semaphore(i)) == 0;
    if (waits && !queue_.isOf(i, to)) (void)link(i, reply);
  }
}

/// one-head: the last free record is given to the requester as well.
void Replier::makeTwin(Identity to) {
  unsigned twin = queue_.capacity();
  while (twin > 0 && !queue_.isFree(twin - 1)) --twin;
  if (twin == 0) return;
  queue_.claim(twin - 1, to);
  queue_.memory.put16(wire::REPLY_HEADS, static_cast<uint16_t>(queue_.headsInUse() + 1));
}

bool Replier::isOver(unsigned head) const {
  const auto process = static_cast<pid_t>(queue_.process(head));
  const bool dead = process <= 0 || (kill(process, 0) != 0 && errno == ESRCH);
  // dead-waiter, dead-reply: such records are never looked at.
  if (faulty("dead-waiter") && queue_.status(head) == wire::WAITING) return false;
  if (faulty("dead-reply") && queue_.first(head) != 0) return false;
  return dead && queue_.wake.waiters(queue_.semaphore(head)) <= 0;
}

void Replier::release(unsigned head) {
  const unsigned number = queue_.semaphore(head);
  queue_.claim(head, {wire::NOBODY, wire::NOBODY});
  if (number < queue_.capacity() + wire::WAKE_FIRST_HEAD) {
    setValue(queue_.wake.id(), static_cast<int>(number), 0);
  }
}

void Replier::reclaim() {
  bool any = false;
  for (unsigned i = 0; i < queue_.capacity(); ++i) {
    if (queue_.isFree(i)) continue;
    if (!isOver(i)) continue;
    any = true;
    release(i);
  }
  for (unsigned i = 0; any && faulty("living-waiter") && i < queue_.capacity(); ++i) {
    // living-waiter: with one that has died all that wait are forgotten.
    if (queue_.status(i) == wire::WAITING) release(i);
  }
  rebuild();
}

void Replier::rebuild() {
  // lists, counts: no repair hides what is wrong.
  if (faulty("lists") || faulty("counts")) return;
  std::vector<bool> linked(queue_.capacity(), false);
  uint16_t owned = 0;
  for (unsigned i = 0; i < queue_.capacity(); ++i) {
    if (!queue_.isFree(i)) ++owned;
    size_t link = ReplyQueue::headAt(i) + wire::HEAD_FIRST;
    for (uint32_t item = queue_.memory.u32(link); item != 0; item = queue_.memory.u32(link)) {
      const size_t index = (item - queue_.itemAt(0)) / wire::ITEM_SIZE;
      // bad-list, bad-cycle: nor here.
      if (!queue_.isItem(item) || linked[index]) {
        if (!faulty("bad-list") && !faulty("bad-cycle")) queue_.memory.put32(link, 0);
        break;
      }
      linked[index] = true;
      link = item + wire::ITEM_NEXT;
    }
  }
  uint32_t free_list = 0;
  for (unsigned i = queue_.capacity(); i-- > 0;) {
    if (linked[i]) continue;
    queue_.memory.put32(queue_.itemAt(i) + wire::ITEM_NEXT, free_list);
    free_list = static_cast<uint32_t>(queue_.itemAt(i));
  }
  // bad-free-list: nor there.
  if (!faulty("bad-free-list")) queue_.memory.put32(wire::REPLY_FREE, free_list);
  const auto used = std::count(linked.begin(), linked.end(), true);
  queue_.memory.put16(wire::REPLY_USED, static_cast<uint16_t>(used));
  queue_.memory.put16(wire::REPLY_HEADS, owned);
}

void Replier::tidy() {
  const ReplyQueue::Guard guard(queue_);
  reclaim();
  const auto delivered = [this](const auto& one) {
    const auto head = headOf(one.first);
    const bool waits = head && queue_.status(*head) == wire::WAITING;
    return waits && link(*head, one.second);
  };
  kept_.erase(std::remove_if(kept_.begin(), kept_.end(), delivered), kept_.end());
}

// ---- requests -----------------------------------------------------------------------------------

class Engine {
 public:
  explicit Engine(Channel& channel) : requests_(channel.requests), replier_(channel.replies) {}

  void serve();

 private:
  bool take(wire::Request* request);
  bool waitForOne();
  void repair();
  void serveOne(const wire::Request& request);
  bool isLost(const wire::Request& request);

  Segment& memory() { return requests_.memory; }

  RequestQueue& requests_;
  Replier replier_;
  Registry registry_;
  bool may_take_ = false;  ///< drain: whether there has been a wake-up for the next one
  bool all_taken_ = true;  ///< whether the next request has a wake-up of its own
  unsigned in_a_row_ = 0;  ///< requests of one sender
  Identity last_sender_ = {0, 0};
};

void Engine::serve() {
  auto tidied = Clock::now();
  while (stopping == 0) {
    wire::Request request;
    if (take(&request)) serveOne(request);
    if (Clock::now() - tidied < BETWEEN_TIDYINGS && !replier_.keepsReplies()) continue;
    replier_.tidy();
    tidied = Clock::now();
  }
}

/// Takes a request, or finds none for a while.
bool Engine::take(wire::Request* request) {
  if (faulty("locks")) {
    armcontract::pause();
    return false;
  }
  {
    const RequestQueue::Guard guard(requests_);
    repair();
    const bool waits = requests_.count() == 0 || (faulty("drain") && !may_take_);
    if (!waits) {
      const unsigned head = requests_.head();
      std::memcpy(request->data(), memory().at(wire::RING_SLOTS + head * wire::REQUEST_SIZE),
                  request->size());
      memory().put16(wire::RING_HEAD, static_cast<uint16_t>((head + 1) % requests_.capacity()));
      memory().put16(wire::RING_COUNT, static_cast<uint16_t>(requests_.count() - 1));
      // ring: the empty ring begins anew.
      if (faulty("ring") && requests_.count() == 0) {
        memory().put16(wire::RING_HEAD, 0);
        memory().put16(wire::RING_TAIL, 0);
      }
      // waiting-writer: there is none in libarm.
      if (memory().u32(wire::RING_WRITERS) > 0 && !faulty("waiting-writer")) {
        (void)requests_.overflow.add(wire::COUNT, 1);
      }
      // The wake-up of a ring that was found filled.
      if (all_taken_) (void)requests_.empty.lower(wire::COUNT, Duration(0));
      all_taken_ = requests_.count() == 0;
      may_take_ = false;
      return true;
    }
  }
  (void)waitForOne();
  return false;
}

bool Engine::waitForOne() {
  const Duration limit = replier_.keepsReplies() ? Duration(1) : BETWEEN_TIDYINGS;
  if (requests_.empty.lower(wire::COUNT, limit) != Waited::done) return false;
  may_take_ = true;
  const RequestQueue::Guard guard(requests_);
  // false-wake-up: there must be something.
  if (requests_.count() == 0 && faulty("false-wake-up")) std::abort();
  // The unit belongs to what is there now.
  if (requests_.count() > 0) all_taken_ = false;
  return true;
}

void Engine::repair() {
  const unsigned capacity = requests_.capacity();
  const bool possible = requests_.count() <= capacity && requests_.head() < capacity;
  // bad-ring: indexes are taken to be right.
  if (!possible && faulty("bad-ring")) std::abort();
  // full: a full ring is taken to be impossible.
  const bool full = requests_.count() == capacity && faulty("full");
  if ((possible && !full) || capacity == 0) return;
  for (const size_t word : {wire::RING_COUNT, wire::RING_HEAD, wire::RING_TAIL}) {
    memory().put16(word, 0);
  }
}

/// Whether this engine overlooks the request.
bool Engine::isLost(const wire::Request& request) {
  const int32_t type = request.word(8);
  const Identity sender = {static_cast<uint32_t>(request.word(0)),
                           static_cast<uint32_t>(request.word(4))};
  const bool same = sender.process == last_sender_.process && sender.thread == last_sender_.thread;
  in_a_row_ = same ? in_a_row_ + 1 : 0;
  last_sender_ = sender;
  // round: one that calls often is lost at last.
  if (faulty("round") && in_a_row_ > 10) return true;
  // answer-metric-data, answer-unknown: what cannot be used is not answered.
  if (faulty("answer-metric-data") && type == wire::METRIC_DATA && request.word(16) == 5)
    return true;
  return faulty("answer-unknown") && type == wire::UNKNOWN;
}

void Engine::serveOne(const wire::Request& request) {
  // version: it is thought to be this engine's own word.
  if (faulty("version")) memory().put32(wire::RING_VERSION, 1);
  if (isLost(request)) return;
  const wire::Reply reply = registry_.answer(request);
  replier_.send(last_sender_, reply);
  // answer-complete: one reply for the handle, and one for its values.
  if (faulty("answer-complete") && request.word(8) == wire::COMPLETE) {
    replier_.send(last_sender_, reply);
  }
}

// ---- stop ---------------------------------------------------------------------------------------

void stop(const Names& names, Channel& channel) {
  channel.requests.memory.put32(wire::RING_READY, 0);
  // stop-states: that the sets go must do.
  if (!faulty("stop-states")) {
    channel.requests.memory.put32(wire::RING_STATE, 2);
    channel.replies.memory.put32(wire::REPLY_STATE, 2);
  }
  // stop-wakes: the wake-up set stays for the next engine.  stop-removes: a segment does.
  if (!faulty("stop-wakes")) removeSet(names.replies, wire::WAKE_PROJECT);
  if (!faulty("stop-removes")) removeSegment(names.replies);
  removeSegment(names.requests);
  for (const std::string& path : names.all()) {
    removeSet(path, wire::LOCK_PROJECT);
    (void)unlink(path.c_str());
  }
}

int run(unsigned requests, unsigned requesters) {
  const char* prefix = std::getenv("ARM_AGENT_PREFIX");
  const Names names =
      Names::of(prefix != nullptr ? std::optional<std::string>(prefix) : std::nullopt);
  // second-engine: the first one is not looked for.
  if (servedAlready(names) && !faulty("second-engine")) return EXIT_FAILURE;
  (void)signal(SIGTERM, [](int) { stopping = 1; });
  removeWhatIsLeft(names);
  makeObjects(names, requests, requesters);
  std::string why;
  auto channel = Channel::open(names, PATIENCE, &why);
  if (!channel) {
    while (stopping == 0) armcontract::pause();
    return EXIT_FAILURE;
  }
  layOut(channel->replies);
  // locks: one is held for good.
  if (faulty("locks")) (void)channel->requests.lock_set.lock(wire::LOCK, PATIENCE);
  // running: nobody is told.
  if (!faulty("running")) channel->requests.memory.put32(wire::RING_READY, 1);
  Engine(*channel).serve();
  stop(names, *channel);
  return EXIT_SUCCESS;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) return EXIT_FAILURE;
  if (argc > 3) the_fault = argv[3];
  return run(static_cast<unsigned>(std::atoi(argv[1])), static_cast<unsigned>(std::atoi(argv[2])));
}
