#include "rawqueues.h"

#include <sys/sem.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "unwatched.h"

namespace armtest {
namespace {

/// A laid queue that is not what the test asked for would make every result worthless.
int required(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::abort();
}

void operate(int set, sembuf* operations, size_t count) {
  const Unwatched own;
  int result = 0;
  do {
    result = semop(set, operations, count);
  } while (result < 0 && errno == EINTR);
  required(result, "semop");
}

}  // namespace

SemaphoreSet::SemaphoreSet(const std::string& path, int project, int semaphores)
    : id_(required(makeSet(path, semaphores, project), "semget")), semaphores_(semaphores) {}

void SemaphoreSet::add(int set, int number, int by) {
  sembuf operation = {static_cast<unsigned short>(number), static_cast<short>(by), 0};
  operate(set, &operation, 1);
}

Segment::Segment(const std::string& path, size_t size)
    : size_(size), id_(required(makeSegment(path, size), "shmget")), memory_(id_) {}

void layReplies(Segment& memory, size_t capacity) {
  const size_t items = 12 + 16 * capacity;
  for (size_t i = 0; i < capacity; ++i) {
    const size_t head = 12 + 16 * i;
    memory.put16(head + 2, static_cast<uint16_t>(2 + i));
    memory.put32(head + 4, 0xFFFFFFFF);
    memory.put32(head + 8, 0xFFFFFFFF);
    const size_t next = i + 1 < capacity ? items + 532 * (i + 1) : 0;
    memory.put32(items + 532 * i + 528, static_cast<uint32_t>(next));
  }
  memory.put32(4, capacity > 0 ? static_cast<uint32_t>(items) : 0);
}

LockedSegment::LockedSegment(const std::string& path, size_t size)
    : set(path, 1, 2), memory(path, size) {
  set.setValue(1, 2);
}

void LockedSegment::lock() {
  sembuf operations[] = {{0, 0, 0}, {0, 1, 0}};
  operate(set.id(), operations, 2);
}

// ---- request queue ------------------------------------------------------------------------------

RequestQueue::RequestQueue(const std::string& base, size_t size)
    : LockedSegment(base + "_mem", size),
      empty(base + "_emp", 1, 3),
      overflow(base + "_ovr", 1, 3),
      capacity_(size < 28 ? 0 : (size - 28) / 4116) {
  empty.setValue(2, 32766);
  overflow.setValue(2, 32766);
  if (size >= 28) setReady(1);
}

void RequestQueue::setRing(uint16_t count, uint16_t head, uint16_t tail) {
  memory.put16(0, count);
  memory.put16(2, head);
  memory.put16(4, tail);
}

void RequestQueue::fillSlots(uint8_t byte) {
  std::memset(memory.at(28), byte, memory.mappedSize() - 28);
}

Bytes RequestQueue::take() {
  lock();
  const uint16_t from = head();
  Bytes record = slot(from);
  memory.put16(2, static_cast<uint16_t>((from + 1U) % capacity_));
  memory.put16(0, static_cast<uint16_t>(count() - 1U));
  unlock();
  return record;
}

// ---- reply queue --------------------------------------------------------------------------------

ReplyQueue::ReplyQueue(size_t capacity, size_t spare_bytes, const std::string& name)
    : LockedSegment(name, 12 + capacity * 548 + spare_bytes),
      waits(name, 3, static_cast<int>(capacity) + 2),
      capacity_(capacity) {
  waits.setValue(0, 1);
  layReplies(memory, capacity);
}

void ReplyQueue::setOwner(size_t head, uint32_t process, uint32_t thread) {
  memory.put32(headOffset(head) + 4, process);
  memory.put32(headOffset(head) + 8, thread);
}

uint32_t ReplyQueue::itemOffset(size_t index) const {
  return static_cast<uint32_t>(12 + 16 * capacity_ + 532 * index);
}

size_t ReplyQueue::linkReply(size_t head, const Bytes& reply) {
  const uint32_t item = freeList();
  required(item != 0 ? 0 : -1, "no free item");
  memory.put32(4, memory.u32(item + 528));
  std::memcpy(memory.at(item), reply.data(), 528);
  memory.put32(item + 528, 0);
  size_t place = headOffset(head) + 12;
  while (memory.u32(place) != 0) place = memory.u32(place) + 528;
  memory.put32(place, item);
  setUsedItems(static_cast<uint16_t>(usedItems() + 1U));
  return (item - itemOffset(0)) / 532;
}

void ReplyQueue::reply(size_t head, const Bytes& reply) {
  lock();
  linkReply(head, reply);
  const int number = semaphore(head);
  unlock();
  waits.add(number, 1);
}

size_t ReplyQueue::headOf(uint32_t process, uint32_t thread) {
  for (size_t i = 0; i < capacity_; ++i) {
    if (this->process(i) == process && this->thread(i) == thread) return i;
  }
  for (size_t i = 0; i < capacity_; ++i) {
    if (this->process(i) != 0xFFFFFFFF || this->thread(i) != 0xFFFFFFFF) continue;
    setHeadsInUse(static_cast<uint16_t>(headsInUse() + 1U));
    setOwner(i, process, thread);
    return i;
  }
  required(-1, "no free head");
  return 0;
}

Bytes replyRecord(int32_t result, uint8_t correlator_flag, uint8_t pattern) {
  Bytes record(528);
  for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(pattern + i * 7);
  std::memcpy(record.data(), &result, 4);
  record[4] = correlator_flag;
  return record;
}

// ---- engine -------------------------------------------------------------------------------------

AnsweringEngine::AnsweringEngine(RequestQueue& requests, ReplyQueue& replies, const Bytes& reply)
    : requests_(requests), replies_(replies), reply_(reply), thread_([this] { run(); }) {}

AnsweringEngine::~AnsweringEngine() {
  stop_ = true;
  requests_.empty.add(0, 1);
  thread_.join();
}

void AnsweringEngine::setReply(const Bytes& reply) {
  const std::lock_guard<std::mutex> guard(mutex_);
  reply_ = reply;
}

std::vector<Bytes> AnsweringEngine::taken() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return taken_;
}

void AnsweringEngine::run() {
  for (;;) {
    requests_.empty.add(0, -1);
    while (requests_.count() > 0) answer(requests_.take());
    if (stop_) return;
  }
}

void AnsweringEngine::answer(const Bytes& request) {
  Bytes reply;
  {
    const std::lock_guard<std::mutex> guard(mutex_);
    taken_.push_back(request);
    reply = reply_;
  }
  replies_.lock();
  const size_t head = replies_.headOf(word(request, 0), word(request, 4));
  replies_.unlock();
  replies_.reply(head, reply);
}

}  // namespace armtest
