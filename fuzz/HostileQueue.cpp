#include "HostileQueue.h"

#include <sys/sem.h>

#include <algorithm>
#include <cstring>

namespace {

/// One unit more, without waiting for room.
void raise(int set, unsigned short semaphore) {
  sembuf add = {semaphore, 1, IPC_NOWAIT};
  (void)semop(set, &add, 1);
}

}  // namespace

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

void HostileQueue::makeSet(const std::string& path, int project, int semaphores,
                           const std::vector<uint16_t>& values) {
  sets_.push_back(std::make_unique<armtest::SemaphoreSet>(path, project, semaphores));
  const int given = std::min(semaphores, static_cast<int>(values.size()));
  for (int i = 0; i < given; ++i) {
    sets_.back()->setValue(i, values[static_cast<std::size_t>(i)] & 0x7fff);
  }
}

void HostileQueue::makeSegment(const std::string& path, std::size_t size) {
  memory_ = std::make_unique<armtest::Segment>(path, size);
}

void HostileQueue::setValue(std::size_t number, int semaphore, int value) {
  (void)set(number).tryValue(semaphore % set(number).semaphores(), value);
}

void HostileQueue::write(std::size_t offset, const std::string& bytes) {
  if (offset >= size()) return;
  std::memcpy(memory_->at(offset), bytes.data(), std::min(bytes.size(), size() - offset));
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
    queue_.set(script_.below(static_cast<uint32_t>(queue_.sets()))).remove();
  }
  if (choice == 0xc1) queue_.memory().remove();
}

void ScriptedPeer::release(int set, const sembuf& wait) {
  act();
  const uint8_t choice = script_.byte();
  for (std::size_t i = 0; i < queue_.sets(); ++i) {
    if (queue_.set(i).id() != set) continue;
    if (wait.sem_op == 0) {  // a lock that is taken: its holder gives it back
      if (choice != 0) return queue_.setValue(i, wait.sem_num, 0);
    } else if (choice != 0) {
      return raise(set, wait.sem_num);
    }
    touched_ = true;
    queue_.set(i).remove();
  }
}

int ScriptedPeer::sleepers() {
  const uint8_t choice = script_.byte();
  return choice >= 0xf0 ? choice - 0xf0 : -1;
}
