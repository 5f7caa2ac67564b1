#include "HostileQueue.h"

#include <fcntl.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "Check.h"

namespace {

constexpr int ACCESS = 0666;

union SemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

key_t keyOf(const std::string& path, int project) {
  const key_t key = ftok(path.c_str(), project);
  CHECK(key != -1);
  return key;
}

}  // namespace

void makeNameFile(const std::string& path) {
  const int file = open(path.c_str(), O_RDWR | O_CREAT, 0666);
  CHECK(file >= 0);
  CHECK(close(file) == 0);
}

uint32_t edgeValue(Input& input) {
  constexpr uint32_t EDGES[] = {0,       1,          2,          3,          0x7f,      0x80,
                                0xff,    0x100,      0x7fff,     0x8000,     0xfffe,    0xffff,
                                0x10000, 0x7fffffff, 0x80000000, 0xfffffffe, 0xffffffff};
  const uint8_t choice = input.byte();
  if (choice < std::size(EDGES)) return EDGES[choice];
  // Where an item of a reply queue may begin, or would behind its end.
  if (choice < 128) return 12 + 16 * (1U + choice / 16U) + 532 * (choice % 16U);
  return choice < 192 ? choice : input.word();
}

HostileQueue::~HostileQueue() {
  const PeerActs acts;
  for (std::size_t i = 0; i < sets_.size(); ++i) removeSet(i);
  removeSegment();
  if (bytes_ != nullptr) CHECK(shmdt(bytes_) == 0);
}

std::size_t HostileQueue::makeSet(const std::string& path, int project, int semaphores,
                                  const std::vector<uint16_t>& values) {
  const PeerActs acts;
  const int id = semget(keyOf(path, project), semaphores, ACCESS | IPC_CREAT | IPC_EXCL);
  CHECK(id != -1);
  std::vector<unsigned short> all(static_cast<std::size_t>(semaphores), 0);
  for (std::size_t i = 0; i < all.size() && i < values.size(); ++i) {
    all[i] = static_cast<unsigned short>(values[i] & 0x7fff);
  }
  SemArgument argument = {};
  argument.array = all.data();
  CHECK(semctl(id, 0, SETALL, argument) == 0);
  sets_.push_back({id, semaphores});
  return sets_.size() - 1;
}

void HostileQueue::makeSegment(const std::string& path, std::size_t size) {
  const PeerActs acts;
  memory_ = shmget(keyOf(path, 2), size, ACCESS | IPC_CREAT | IPC_EXCL);
  CHECK(memory_ != -1);
  void* address = shmat(memory_, nullptr, 0);
  CHECK(address != reinterpret_cast<void*>(-1));
  bytes_ = static_cast<uint8_t*>(address);
  size_ = size;
}

int HostileQueue::value(std::size_t set, int semaphore) const {
  const PeerActs acts;
  return semctl(sets_[set].id, semaphore, GETVAL);
}

void HostileQueue::setValue(std::size_t set, int semaphore, int value) {
  SemArgument argument = {};
  argument.val = value;
  (void)semctl(sets_[set].id, semaphore % sets_[set].semaphores, SETVAL, argument);
}

void HostileQueue::raise(std::size_t set, int semaphore) {
  sembuf add = {static_cast<unsigned short>(semaphore), 1, IPC_NOWAIT};
  (void)semop(sets_[set].id, &add, 1);
}

void HostileQueue::removeSet(std::size_t number) {
  (void)semctl(sets_[number].id, 0, IPC_RMID);
}

void HostileQueue::removeSegment() {
  if (memory_ != -1) (void)shmctl(memory_, IPC_RMID, nullptr);
  memory_ = -1;
}

void HostileQueue::write(std::size_t offset, const std::string& bytes) {
  if (offset >= size_) return;
  std::memcpy(bytes_ + offset, bytes.data(), std::min(bytes.size(), size_ - offset));
}

ScriptedPeer::ScriptedPeer(HostileQueue& queue, Input& script, std::size_t heads)
    : queue_(queue), script_(script), heads_(std::min(heads, queue.size())) {
  setPeer(this);
}

ScriptedPeer::~ScriptedPeer() {
  setPeer(nullptr);
}

void ScriptedPeer::writeWord() {
  const std::size_t area = script_.flag() ? queue_.size() : heads_;
  const std::size_t offset = script_.below(static_cast<uint32_t>(area));
  const uint32_t value = edgeValue(script_);
  const std::size_t width = std::size_t{1} << script_.below(3);
  queue_.write(offset, std::string(reinterpret_cast<const char*>(&value), width));
}

void ScriptedPeer::changeSemaphore() {
  touched_ = true;
  const std::size_t set = script_.below(static_cast<uint32_t>(queue_.sets()));
  queue_.setValue(set, script_.byte(), script_.flag() ? 1 : static_cast<int>(edgeValue(script_)));
}

void ScriptedPeer::act() {
  const uint8_t choice = script_.byte();
  if (choice < 0x80) return;
  if (choice < 0xb0) return writeWord();
  if (choice < 0xc0) return changeSemaphore();
  if (choice == 0xc0) {
    touched_ = true;
    queue_.removeSet(script_.below(static_cast<uint32_t>(queue_.sets())));
  }
  if (choice == 0xc1) queue_.removeSegment();
}

void ScriptedPeer::release(int set, const sembuf& wait) {
  act();
  const uint8_t choice = script_.byte();
  for (std::size_t i = 0; i < queue_.sets(); ++i) {
    if (queue_.set(i) != set) continue;
    if (wait.sem_op == 0) {  // a lock that is taken: its holder gives it back
      if (choice != 0) return queue_.setValue(i, wait.sem_num, 0);
    } else if (choice != 0) {
      return queue_.raise(i, wait.sem_num);
    }
    touched_ = true;
    queue_.removeSet(i);
  }
}

int ScriptedPeer::sleepers() {
  const uint8_t choice = script_.byte();
  return choice >= 0xf0 ? choice - 0xf0 : -1;
}
