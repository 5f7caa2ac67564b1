#include "RawQueues.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/sem.h>
#include <sys/shm.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace raw {
namespace {

union SemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

/// A laid queue that is not what the test asked for would make every result worthless.
int need(int result, const char* what) {
  if (result >= 0) return result;
  std::perror(what);
  std::abort();
}

int keyOf(const std::string& path, int project) {
  touch(path);
  return need(ftok(path.c_str(), project), "ftok");
}

/// A semop that the hooks on semop do not see.
int operate(int set, sembuf* operations, size_t count) {
  int result = 0;
  do {
    result = semtimedop(set, operations, count, nullptr);
  } while (result < 0 && errno == EINTR);
  return result;
}

template <typename T>
T load(const uint8_t* address) {
  return __atomic_load_n(reinterpret_cast<const T*>(address), __ATOMIC_SEQ_CST);
}

template <typename T>
void store(uint8_t* address, T value) {
  __atomic_store_n(reinterpret_cast<T*>(address), value, __ATOMIC_SEQ_CST);
}

}  // namespace

void touch(const std::string& path) {
  const int file = need(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666), path.c_str());
  close(file);
}

// ---- semaphores ---------------------------------------------------------------------------------

Set::Set(const std::string& path, int project, int semaphores)
    : id_(need(semget(keyOf(path, project), semaphores, 0666 | IPC_CREAT | IPC_EXCL), "semget")) {}

Set::~Set() {
  remove();
}

int Set::value(int number) const {
  return need(semctl(id_, number, GETVAL), "GETVAL");
}

bool Set::tryValue(int number, int value) {
  SemArgument argument = {};
  argument.val = value;
  return semctl(id_, number, SETVAL, argument) == 0;
}

void Set::setValue(int number, int value) {
  need(tryValue(number, value) ? 0 : -1, "SETVAL");
}

int Set::sleepers(int number) const {
  return need(semctl(id_, number, GETNCNT), "GETNCNT");
}

void Set::add(int set, int number, int by) {
  sembuf operation = {static_cast<unsigned short>(number), static_cast<short>(by), 0};
  need(operate(set, &operation, 1), "semop");
}

void Set::remove() {
  (void)semctl(id_, 0, IPC_RMID);
}

int findSet(const std::string& path, int project) {
  const int key = ftok(path.c_str(), project);
  return key == -1 ? -1 : semget(key, 0, 0);
}

// ---- segments -----------------------------------------------------------------------------------

Segment::Segment(const std::string& path, size_t size)
    : size_(size),
      id_(need(shmget(keyOf(path, 2), size, 0666 | IPC_CREAT | IPC_EXCL | SHM_NORESERVE),
               "shmget")),
      start_(static_cast<uint8_t*>(shmat(id_, nullptr, 0))) {
  need(reinterpret_cast<intptr_t>(start_) == -1 ? -1 : 0, "shmat");
}

Segment::~Segment() {
  shmdt(start_);
  remove();
}

void Segment::remove() {
  (void)shmctl(id_, IPC_RMID, nullptr);
}

size_t Segment::mappedSize() const {
  return (size_ + 4095) / 4096 * 4096;
}
uint8_t Segment::u8(size_t offset) const {
  return load<uint8_t>(start_ + offset);
}
uint16_t Segment::u16(size_t offset) const {
  return load<uint16_t>(start_ + offset);
}
uint32_t Segment::u32(size_t offset) const {
  return load<uint32_t>(start_ + offset);
}
void Segment::put8(size_t offset, uint8_t value) {
  store(start_ + offset, value);
}
void Segment::put16(size_t offset, uint16_t value) {
  store(start_ + offset, value);
}
void Segment::put32(size_t offset, uint32_t value) {
  store(start_ + offset, value);
}

Bytes Segment::bytes(size_t offset, size_t length) const {
  return Bytes(start_ + offset, start_ + offset + length);
}

unsigned long Segment::attachments() const {
  shmid_ds info = {};
  need(shmctl(id_, IPC_STAT, &info), "IPC_STAT");
  return info.shm_nattch;
}

LockedSegment::LockedSegment(const std::string& path, size_t size)
    : set(path, 1, 2), memory(path, size) {
  set.setValue(1, 2);
}

void LockedSegment::lock() {
  sembuf operations[] = {{0, 0, 0}, {0, 1, 0}};
  need(operate(set.id(), operations, 2), "lock");
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

ReplyQueue::ReplyQueue(size_t capacity, size_t spareBytes, const std::string& name)
    : LockedSegment(name, 12 + capacity * 548 + spareBytes),
      waits(name, 3, static_cast<int>(capacity) + 2),
      capacity_(capacity) {
  waits.setValue(0, 1);
  for (size_t i = 0; i < capacity; ++i) {
    setSemaphore(i, static_cast<uint16_t>(2 + i));
    setOwner(i, 0xFFFFFFFF, 0xFFFFFFFF);
    memory.put32(itemOffset(i) + 528, i + 1 < capacity ? itemOffset(i + 1) : 0);
  }
  memory.put32(4, capacity > 0 ? itemOffset(0) : 0);
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
  need(item != 0 ? 0 : -1, "no free item");
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
  need(-1, "no free head");
  return 0;
}

Bytes replyRecord(int32_t result, uint8_t correlatorFlag, uint8_t pattern) {
  Bytes record(528);
  for (size_t i = 0; i < record.size(); ++i) record[i] = static_cast<uint8_t>(pattern + i * 7);
  std::memcpy(record.data(), &result, 4);
  record[4] = correlatorFlag;
  return record;
}

uint32_t word(const Bytes& bytes, size_t offset) {
  uint32_t value = 0;
  std::memcpy(&value, bytes.data() + offset, 4);
  return value;
}

// ---- engine -------------------------------------------------------------------------------------

Engine::Engine(RequestQueue& requests, ReplyQueue& replies, const Bytes& reply)
    : requests_(requests), replies_(replies), reply_(reply), thread_([this] { run(); }) {}

Engine::~Engine() {
  stop_ = true;
  requests_.empty.add(0, 1);
  thread_.join();
}

void Engine::setReply(const Bytes& reply) {
  const std::lock_guard<std::mutex> guard(mutex_);
  reply_ = reply;
}

std::vector<Bytes> Engine::taken() const {
  const std::lock_guard<std::mutex> guard(mutex_);
  return taken_;
}

void Engine::run() {
  for (;;) {
    requests_.empty.add(0, -1);
    while (requests_.count() > 0) answer(requests_.take());
    if (stop_) return;
  }
}

void Engine::answer(const Bytes& request) {
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

}  // namespace raw
