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

constexpr int PROJECTS[SETS] = {1, 1, 1, 1, 3};
constexpr int SEGMENT_PROJECT = 2;
constexpr int SEGMENT_NAMES[SEGMENTS] = {REQUEST_LOCK, REPLY_LOCK};
constexpr size_t SLOTS = 28;
constexpr size_t HEADS = 12;
constexpr size_t ITEM_SIZE = 532;
constexpr int MOST_UNITS = 32766;
constexpr uint32_t STRANGERS_THREAD = 0x51;
constexpr int32_t STRANGERS_PROCESS = 0x7ffffff0;

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
  (void)semctl(set, 2, SETVAL, MOST_UNITS);
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
  const int semaphores[SETS] = {3, 3, 2, 2, layout_.heads + 2};
  const size_t sizes[SEGMENTS] = {layout_.request_size, layout_.reply_size};
  for (int i = 0; i < SETS; ++i) {
    close(open(layout_.paths[i].c_str(), O_CREAT | O_RDWR | O_CLOEXEC, 0666));
    sets_[i] = makeSet(layout_.paths[i], PROJECTS[i], semaphores[i]);
  }
  for (int i = 0; i < SEGMENTS; ++i) {
    const key_t key = ftok(layout_.paths[SEGMENT_NAMES[i]].c_str(), SEGMENT_PROJECT);
    segments_[i] = shmget(key, sizes[i], IPC_CREAT | IPC_EXCL | 0666);
    memory_[i] = static_cast<uint8_t*>(shmat(segments_[i], nullptr, 0));
  }
  layOut();
}

void Engine::find() {
  for (int i = 0; i < SETS; ++i) {
    sets_[i] = semget(ftok(layout_.paths[i].c_str(), PROJECTS[i]), 0, 0);
  }
  for (int i = 0; i < SEGMENTS; ++i) {
    segments_[i] = shmget(ftok(layout_.paths[SEGMENT_NAMES[i]].c_str(), SEGMENT_PROJECT), 0, 0);
    memory_[i] = static_cast<uint8_t*>(shmat(segments_[i], nullptr, 0));
  }
}

void Engine::layOut() {
  const size_t n = layout_.heads;
  makeCountingSet(sets_[OVERFLOW_SET]);
  makeCountingSet(sets_[EMPTY_SET]);
  for (size_t i = 0; i < n; ++i) {
    heads()[i] = {0, 0, static_cast<uint16_t>(2 + (i + layout_.first_number) % n), -1, ~0U, 0};
    const uint32_t next =
        i + 1 < n ? static_cast<uint32_t>(HEADS + 16 * n + ITEM_SIZE * (i + 1)) : 0;
    std::memcpy(memory_[REPLIES] + HEADS + 16 * n + ITEM_SIZE * i + REPLY_SIZE, &next, 4);
  }
  word(REPLIES, 4) = n != 0 ? static_cast<uint32_t>(HEADS + 16 * n) : 0;
  change(sets_[WAKE_SET], 0, 1);
  beginLife(sets_[REQUEST_LOCK]);
  beginLife(sets_[REPLY_LOCK]);
  word(REQUESTS, 24) = layout_.ready ? 1 : 0;
}

void Engine::removeSet(int set) {
  (void)semctl(sets_[set], 0, IPC_RMID);
}

void Engine::removeSegment(int segment) {
  (void)shmctl(segments_[segment], IPC_RMID, nullptr);
}

void Engine::removeAll() {
  for (int set : {REQUEST_LOCK, REPLY_LOCK, OVERFLOW_SET, EMPTY_SET}) removeSet(set);
  removeSegment(REQUESTS);
  removeSegment(REPLIES);
  removeSet(WAKE_SET);
}

void Engine::removeNames() {
  for (const std::string& path : layout_.paths) unlink(path.c_str());
}

void Engine::settleDeath() {
  for (int set : {REQUEST_LOCK, REPLY_LOCK}) {
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
  return half(REQUESTS, 0);
}

bool Engine::sleepsOnEmpty() const {
  return semctl(sets_[EMPTY_SET], 0, GETNCNT) == 1;
}

bool Engine::hasLostEmpty() const {
  return semctl(sets_[EMPTY_SET], 0, GETVAL) < 0;
}

void Engine::raiseEmpty() {
  change(sets_[EMPTY_SET], 0, 1);
}

// ---- the request queue --------------------------------------------------------------------------

[[noreturn]] void Engine::serve() {
  sembuf wait = {0, -1, 0};
  for (;;) {
    if (semop(sets_[EMPTY_SET], &wait, 1) == 0) {
      board_.wake_ups.fetch_add(1);
    } else {
      usleep(200);
    }
    TakenRecord record;
    while (take(record)) {
      if (std::memcmp(record.bytes, &STRANGERS_PROCESS, 4) == 0) continue;
      const uint32_t number = board_.taken.load();
      if (number < MOST_TAKEN) board_.records[number] = record;
      board_.taken.store(number + 1);
      react(record);
    }
    board_.looks.fetch_add(1);
  }
}

bool Engine::take(TakenRecord& record) {
  if (ringCount() == 0 || !lock(REQUEST_LOCK)) return false;
  const bool any = ringCount() != 0;
  if (any) {
    record.slot = half(REQUESTS, 2);
    std::memcpy(record.bytes, memory_[REQUESTS] + SLOTS + RECORD_SIZE * record.slot, RECORD_SIZE);
    const size_t capacity = (layout_.request_size - SLOTS) / RECORD_SIZE;
    half(REQUESTS, 2) = static_cast<uint16_t>((record.slot + 1U) % capacity);
    --half(REQUESTS, 0);
  }
  unlock(REQUEST_LOCK);
  return any;
}

void Engine::fill(uint16_t count) {
  const size_t capacity = (layout_.request_size - SLOTS) / RECORD_SIZE;
  const bool locked = lock(REQUEST_LOCK);
  while (ringCount() < count && ringCount() < capacity) {
    uint16_t& tail = half(REQUESTS, 4);
    uint8_t* slot = memory_[REQUESTS] + SLOTS + RECORD_SIZE * tail;
    std::memset(slot, 0x5A, RECORD_SIZE);
    std::memcpy(slot, &STRANGERS_PROCESS, 4);
    tail = static_cast<uint16_t>((tail + 1U) % capacity);
    ++half(REQUESTS, 0);
  }
  if (locked) unlock(REQUEST_LOCK);
}

// ---- the reply queue ----------------------------------------------------------------------------

Engine::Head* Engine::heads() const {
  return reinterpret_cast<Head*>(memory_[REPLIES] + HEADS);
}

Engine::Head* Engine::findHead(int32_t process, uint32_t thread) const {
  for (Head* head = heads(); head != heads() + layout_.heads; ++head) {
    if (head->process == process && head->thread == thread) return head;
  }
  return nullptr;
}

Engine::Head* Engine::claimHead(int32_t process, uint32_t thread) const {
  const bool any_free = half(REPLIES, 2) < layout_.heads;
  for (Head* head = heads(); head != heads() + layout_.heads; ++head) {
    const bool idle = head->status == 0 && head->first == 0 &&
                      semctl(sets_[WAKE_SET], head->number, GETNCNT) == 0;
    if (any_free ? head->process != -1 || head->thread != ~0U : !idle) continue;
    if (any_free) ++half(REPLIES, 2);
    *head = {0, 0, head->number, process, thread, 0};
    return head;
  }
  return nullptr;
}

int Engine::freeItems() const {
  return layout_.heads - half(REPLIES, 0);
}

// Behind what the list holds: first in, first out.
void Engine::append(Head* head, const uint8_t* reply) {
  const uint32_t item = word(REPLIES, 4);
  word(REPLIES, 4) = word(REPLIES, item + REPLY_SIZE);
  std::memcpy(memory_[REPLIES] + item, reply, REPLY_SIZE);
  word(REPLIES, item + REPLY_SIZE) = 0;
  uint32_t* last = &head->first;
  while (*last != 0) last = &word(REPLIES, *last + REPLY_SIZE);
  *last = item;
  ++half(REPLIES, 0);
}

bool Engine::link(int32_t process, uint32_t thread, const uint8_t (*replies)[REPLY_SIZE],
                  int count) {
  if (semctl(sets_[WAKE_SET], 0, GETVAL) < 0 || !lock(REPLY_LOCK)) return false;
  Head* head = word(REPLIES, 8) == 0 && freeItems() > 0 ? findHead(process, thread) : nullptr;
  if (head == nullptr && word(REPLIES, 8) == 0 && freeItems() > 0) {
    head = claimHead(process, thread);
  }
  int linked = 0;
  while (head != nullptr && linked < count && freeItems() > 0) append(head, replies[linked++]);
  unlock(REPLY_LOCK);
  if (linked > 0) change(sets_[WAKE_SET], head->number, linked);
  return linked > 0;
}

void Engine::occupy(uint8_t status) {
  for (Head* head = heads(); head != heads() + layout_.heads; ++head) {
    if (head->process != -1 || head->thread != ~0U) continue;
    const uint32_t thread = STRANGERS_THREAD + static_cast<uint32_t>(head - heads());
    *head = {status, 0, head->number, STRANGERS_PROCESS, thread, 0};
    ++half(REPLIES, 2);
  }
}

bool Engine::sleeps(const Head* head) const {
  return head->status == 1 && semctl(sets_[WAKE_SET], head->number, GETNCNT) > 0;
}

bool Engine::waitForSleeper(int32_t process, uint32_t thread) {
  for (;;) {
    const Head* head = findHead(process, thread);
    if (head != nullptr && sleeps(head)) return true;
    if (board_.call_is_over.load()) return false;
    rest();
  }
}

void Engine::cancel(int32_t process, uint32_t thread) {
  if (!waitForSleeper(process, thread) || !lock(REPLY_LOCK)) return;
  Head* head = findHead(process, thread);
  head->status = 3;
  unlock(REPLY_LOCK);
  change(sets_[WAKE_SET], head->number, 1);
}

void Engine::setState(int segment, int lock_set, uint32_t state) {
  (void)lock(lock_set);
  word(segment, 8) = state;
  if (segment == REPLIES) wakeAll();
  unlock(lock_set);
}

void Engine::wakeAll() const {
  for (int i = 0; i < layout_.heads; ++i) {
    const int number = heads()[i].number;
    const int sleepers = semctl(sets_[WAKE_SET], number, GETNCNT);
    if (sleepers > 0) change(sets_[WAKE_SET], number, sleepers);
  }
}

// ---- reactions ----------------------------------------------------------------------------------

// A caller with a reply of its own takes that one first, whatever the processors do.
void Engine::replyWhenDrained(int32_t process, uint32_t thread, int count) {
  const Head* head = findHead(process, thread);
  while (head != nullptr && head->first != 0 && !sleeps(head) && !board_.call_is_over.load())
    rest();
  if (!link(process, thread, board_.answer.replies, count)) cancel(process, thread);
}

void Engine::react(const TakenRecord& record) {
  int32_t process = 0;
  uint32_t thread = 0;
  std::memcpy(&process, record.bytes, 4);
  std::memcpy(&thread, record.bytes + 4, 4);
  const Reaction reaction = board_.answer.reaction;
  if (reaction == Reaction::reply || reaction == Reaction::reply_twice) {
    replyWhenDrained(process, thread, reaction == Reaction::reply_twice ? 2 : 1);
    return;
  }
  if (reaction == Reaction::cancel) {
    cancel(process, thread);
    return;
  }
  if (!waitForSleeper(process, thread)) return;
  switch (reaction) {
    case Reaction::wake_then_reply:
      change(sets_[WAKE_SET], findHead(process, thread)->number, 1);
      if (waitForSleeper(process, thread)) replyWhenDrained(process, thread, 1);
      break;
    case Reaction::reply_state1:
      setState(REPLIES, REPLY_LOCK, 1);
      break;
    case Reaction::reply_state2:
      setState(REPLIES, REPLY_LOCK, 2);
      break;
    case Reaction::stop:
      setState(REQUESTS, REQUEST_LOCK, 2);
      setState(REPLIES, REPLY_LOCK, 2);
      removeAll();
      removeNames();
      _exit(0);
    default:
      (void)raise(SIGKILL);
  }
}

}  // namespace differential
