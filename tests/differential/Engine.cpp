#include "Engine.h"

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace differential {

namespace {

constexpr int kProjects[kSets] = {1, 1, 1, 1, 3};
constexpr int kSegmentProject = 2;
constexpr int kSegmentNames[kSegments] = {kRequestLock, kReplyLock};
constexpr size_t kSlots = 28;
constexpr size_t kHeads = 12;
constexpr size_t kItemSize = 532;
constexpr int kMostUnits = 32766;
constexpr uint32_t kStrangersThread = 0x51;
constexpr int32_t kStrangersProcess = 0x7ffffff0;

int makeSet(const std::string& path, int project, int semaphores) {
  return semget(ftok(path.c_str(), project), semaphores, IPC_CREAT | IPC_EXCL | 0666);
}

void change(int set, int number, int by, int flags = 0) {
  sembuf operation = {static_cast<unsigned short>(number), static_cast<short>(by),
                      static_cast<short>(flags)};
  (void)semop(set, &operation, 1);
}

void makeCountingSet(int set) {
  (void)semctl(set, 0, SETVAL, 0);
  (void)semctl(set, 1, SETVAL, 0);
  (void)semctl(set, 2, SETVAL, kMostUnits);
}

void beginLife(int set) {
  sembuf life[2] = {{1, 1, 0}, {1, 1, SEM_UNDO}};
  (void)semop(set, life, 2);
}

void rest() {
  usleep(50);
}

}  // namespace

struct Engine::Head {
  uint8_t status;
  uint8_t unused;
  uint16_t number;
  int32_t process;
  uint32_t thread;
  uint32_t first;
};

// ---- objects ------------------------------------------------------------------------------------

void Engine::make() {
  const int semaphores[kSets] = {3, 3, 2, 2, layout_.heads + 2};
  const size_t sizes[kSegments] = {layout_.requestSize, layout_.replySize};
  for (int i = 0; i < kSets; ++i) {
    close(open(layout_.paths[i].c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666));
    sets_[i] = makeSet(layout_.paths[i], kProjects[i], semaphores[i]);
  }
  for (int i = 0; i < kSegments; ++i) {
    const key_t key = ftok(layout_.paths[kSegmentNames[i]].c_str(), kSegmentProject);
    segments_[i] = shmget(key, sizes[i], IPC_CREAT | IPC_EXCL | 0666);
    memory_[i] = static_cast<uint8_t*>(shmat(segments_[i], nullptr, 0));
  }
  layOut();
}

void Engine::find() {
  for (int i = 0; i < kSets; ++i) {
    sets_[i] = semget(ftok(layout_.paths[i].c_str(), kProjects[i]), 0, 0);
  }
  for (int i = 0; i < kSegments; ++i) {
    segments_[i] = shmget(ftok(layout_.paths[kSegmentNames[i]].c_str(), kSegmentProject), 0, 0);
    memory_[i] = static_cast<uint8_t*>(shmat(segments_[i], nullptr, 0));
  }
}

void Engine::layOut() {
  const size_t n = layout_.heads;
  makeCountingSet(sets_[kOverflowSet]);
  makeCountingSet(sets_[kEmptySet]);
  for (size_t i = 0; i < n; ++i) {
    heads()[i] = {0, 0, static_cast<uint16_t>(2 + (i + layout_.firstNumber) % n), -1, ~0U, 0};
    const uint32_t next =
        i + 1 < n ? static_cast<uint32_t>(kHeads + 16 * n + kItemSize * (i + 1)) : 0;
    std::memcpy(memory_[kReplies] + kHeads + 16 * n + kItemSize * i + kReplySize, &next, 4);
  }
  word(kReplies, 4) = n != 0 ? static_cast<uint32_t>(kHeads + 16 * n) : 0;
  change(sets_[kWakeSet], 0, 1);
  beginLife(sets_[kRequestLock]);
  beginLife(sets_[kReplyLock]);
  word(kRequests, 24) = layout_.ready ? 1 : 0;
}

void Engine::removeSet(int set) {
  (void)semctl(sets_[set], 0, IPC_RMID);
}

void Engine::removeSegment(int segment) {
  (void)shmctl(segments_[segment], IPC_RMID, nullptr);
}

void Engine::removeAll() {
  for (int set : {kRequestLock, kReplyLock, kOverflowSet, kEmptySet}) removeSet(set);
  removeSegment(kRequests);
  removeSegment(kReplies);
  removeSet(kWakeSet);
}

void Engine::removeNames() {
  for (const std::string& path : layout_.paths) unlink(path.c_str());
}

void Engine::settleDeath() {
  for (int set : {kRequestLock, kReplyLock}) {
    if (semctl(sets_[set], 1, GETVAL) > 1) (void)semctl(sets_[set], 1, SETVAL, 1);
  }
}

void Engine::forget() {
  for (uint8_t* memory : memory_) (void)shmdt(memory);
}

// ---- words --------------------------------------------------------------------------------------

uint32_t& Engine::word(int segment, size_t offset) const {
  return *reinterpret_cast<uint32_t*>(memory_[segment] + offset);
}

uint16_t& Engine::half(int segment, size_t offset) const {
  return *reinterpret_cast<uint16_t*>(memory_[segment] + offset);
}

bool Engine::lock(int set) const {
  sembuf operations[2] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
  return semop(sets_[set], operations, 2) == 0;
}

void Engine::unlock(int set) const {
  change(sets_[set], 0, -1, IPC_NOWAIT | SEM_UNDO);
}

uint16_t Engine::ringCount() const {
  return half(kRequests, 0);
}

bool Engine::sleepsOnEmpty() const {
  return semctl(sets_[kEmptySet], 0, GETNCNT) == 1;
}

bool Engine::hasLostEmpty() const {
  return semctl(sets_[kEmptySet], 0, GETVAL) < 0;
}

void Engine::raiseEmpty() {
  change(sets_[kEmptySet], 0, 1);
}

// ---- the request queue --------------------------------------------------------------------------

[[noreturn]] void Engine::serve() {
  sembuf wait = {0, -1, 0};
  for (;;) {
    if (semop(sets_[kEmptySet], &wait, 1) == 0) {
      board_.wakeUps.fetch_add(1);
    } else {
      usleep(200);
    }
    TakenRecord record;
    while (take(record)) {
      if (std::memcmp(record.bytes, &kStrangersProcess, 4) == 0) continue;
      const uint32_t number = board_.taken.load();
      if (number < kMostTaken) board_.records[number] = record;
      board_.taken.store(number + 1);
      react(record);
    }
    board_.looks.fetch_add(1);
  }
}

bool Engine::take(TakenRecord& record) {
  if (ringCount() == 0 || !lock(kRequestLock)) return false;
  const bool any = ringCount() != 0;
  if (any) {
    record.slot = half(kRequests, 2);
    std::memcpy(record.bytes, memory_[kRequests] + kSlots + kRecordSize * record.slot, kRecordSize);
    const size_t capacity = (layout_.requestSize - kSlots) / kRecordSize;
    half(kRequests, 2) = static_cast<uint16_t>((record.slot + 1U) % capacity);
    --half(kRequests, 0);
  }
  unlock(kRequestLock);
  return any;
}

void Engine::fill(uint16_t count) {
  const size_t capacity = (layout_.requestSize - kSlots) / kRecordSize;
  const bool locked = lock(kRequestLock);
  while (ringCount() < count && ringCount() < capacity) {
    uint16_t& tail = half(kRequests, 4);
    uint8_t* slot = memory_[kRequests] + kSlots + kRecordSize * tail;
    std::memset(slot, 0x5A, kRecordSize);
    std::memcpy(slot, &kStrangersProcess, 4);
    tail = static_cast<uint16_t>((tail + 1U) % capacity);
    ++half(kRequests, 0);
  }
  if (locked) unlock(kRequestLock);
}

// ---- the reply queue ----------------------------------------------------------------------------

Engine::Head* Engine::heads() const {
  return reinterpret_cast<Head*>(memory_[kReplies] + kHeads);
}

Engine::Head* Engine::findHead(int32_t process, uint32_t thread) const {
  for (Head* head = heads(); head != heads() + layout_.heads; ++head) {
    if (head->process == process && head->thread == thread) return head;
  }
  return nullptr;
}

Engine::Head* Engine::claimHead(int32_t process, uint32_t thread) const {
  const bool anyFree = half(kReplies, 2) < layout_.heads;
  for (Head* head = heads(); head != heads() + layout_.heads; ++head) {
    const bool idle = head->status == 0 && head->first == 0 &&
                      semctl(sets_[kWakeSet], head->number, GETNCNT) == 0;
    if (anyFree ? head->process != -1 || head->thread != ~0U : !idle) continue;
    if (anyFree) ++half(kReplies, 2);
    *head = {0, 0, head->number, process, thread, 0};
    return head;
  }
  return nullptr;
}

int Engine::freeItems() const {
  return layout_.heads - half(kReplies, 0);
}

// Behind what the list holds: first in, first out.
void Engine::append(Head* head, const uint8_t* reply) {
  const uint32_t item = word(kReplies, 4);
  word(kReplies, 4) = word(kReplies, item + kReplySize);
  std::memcpy(memory_[kReplies] + item, reply, kReplySize);
  word(kReplies, item + kReplySize) = 0;
  uint32_t* last = &head->first;
  while (*last != 0) last = &word(kReplies, *last + kReplySize);
  *last = item;
  ++half(kReplies, 0);
}

bool Engine::link(int32_t process, uint32_t thread, const uint8_t (*replies)[kReplySize],
                  int count) {
  if (semctl(sets_[kWakeSet], 0, GETVAL) < 0 || !lock(kReplyLock)) return false;
  Head* head = word(kReplies, 8) == 0 && freeItems() > 0 ? findHead(process, thread) : nullptr;
  if (head == nullptr && word(kReplies, 8) == 0 && freeItems() > 0) {
    head = claimHead(process, thread);
  }
  int linked = 0;
  while (head != nullptr && linked < count && freeItems() > 0) append(head, replies[linked++]);
  unlock(kReplyLock);
  if (linked > 0) change(sets_[kWakeSet], head->number, linked);
  return linked > 0;
}

void Engine::occupy(uint8_t status) {
  for (Head* head = heads(); head != heads() + layout_.heads; ++head) {
    if (head->process != -1 || head->thread != ~0U) continue;
    const uint32_t thread = kStrangersThread + static_cast<uint32_t>(head - heads());
    *head = {status, 0, head->number, kStrangersProcess, thread, 0};
    ++half(kReplies, 2);
  }
}

bool Engine::sleeps(const Head* head) const {
  return head->status == 1 && semctl(sets_[kWakeSet], head->number, GETNCNT) > 0;
}

bool Engine::waitForSleeper(int32_t process, uint32_t thread) {
  for (;;) {
    const Head* head = findHead(process, thread);
    if (head != nullptr && sleeps(head)) return true;
    if (board_.callIsOver.load()) return false;
    rest();
  }
}

void Engine::cancel(int32_t process, uint32_t thread) {
  if (!waitForSleeper(process, thread) || !lock(kReplyLock)) return;
  Head* head = findHead(process, thread);
  head->status = 3;
  unlock(kReplyLock);
  change(sets_[kWakeSet], head->number, 1);
}

void Engine::setState(int segment, int lockSet, uint32_t state) {
  (void)lock(lockSet);
  word(segment, 8) = state;
  if (segment == kReplies) wakeAll();
  unlock(lockSet);
}

void Engine::wakeAll() const {
  for (int i = 0; i < layout_.heads; ++i) {
    const int number = heads()[i].number;
    const int sleepers = semctl(sets_[kWakeSet], number, GETNCNT);
    if (sleepers > 0) change(sets_[kWakeSet], number, sleepers);
  }
}

// ---- reactions ----------------------------------------------------------------------------------

// A caller with a reply of its own takes that one first, whatever the processors do.
void Engine::replyWhenDrained(int32_t process, uint32_t thread, int count) {
  const Head* head = findHead(process, thread);
  while (head != nullptr && head->first != 0 && !sleeps(head) && !board_.callIsOver.load()) rest();
  if (!link(process, thread, board_.answer.replies, count)) cancel(process, thread);
}

void Engine::react(const TakenRecord& record) {
  int32_t process = 0;
  uint32_t thread = 0;
  std::memcpy(&process, record.bytes, 4);
  std::memcpy(&thread, record.bytes + 4, 4);
  const Reaction reaction = board_.answer.reaction;
  if (reaction == Reaction::reply || reaction == Reaction::replyTwice) {
    replyWhenDrained(process, thread, reaction == Reaction::replyTwice ? 2 : 1);
    return;
  }
  if (reaction == Reaction::cancel) {
    cancel(process, thread);
    return;
  }
  if (!waitForSleeper(process, thread)) return;
  switch (reaction) {
    case Reaction::wakeThenReply:
      change(sets_[kWakeSet], findHead(process, thread)->number, 1);
      if (waitForSleeper(process, thread)) replyWhenDrained(process, thread, 1);
      break;
    case Reaction::replyState1:
      setState(kReplies, kReplyLock, 1);
      break;
    case Reaction::replyState2:
      setState(kReplies, kReplyLock, 2);
      break;
    case Reaction::stop:
      setState(kRequests, kRequestLock, 2);
      setState(kReplies, kReplyLock, 2);
      removeAll();
      removeNames();
      _exit(0);
    default:
      (void)raise(SIGKILL);
  }
}

}  // namespace differential
