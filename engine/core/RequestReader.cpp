#include "core/RequestReader.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <string>

#include "ipc/EngineObjects.h"
#include "ipc/queuestate.h"
#include "platform/sharedword.h"
#include "system/NameFiles.h"

namespace armengine {

namespace {

std::string writable(const char* name) {
  return name;
}

}  // namespace

RequestReader::RequestReader(uint16_t capacity)
    : overflow_(writable(OVERFLOW_NAME).data(), 0, LARGEST_COUNT),
      empty_(writable(EMPTY_NAME).data(), 0, LARGEST_COUNT),
      memory_(REQUEST_SEGMENT_NAME, requestQueueSize(capacity, sizeof(TArmMessage)), true) {
  if (!overflow_.IsInitialized() || !empty_.IsInitialized() || !memory_.IsInitialized()) return;
  empty_set_ = openSemaphoreSet(nameFiles().empty, SET_PROJECT);
  if (empty_set_ == -1) return;
  segment_ = {memory_.GetAddress(), memory_.GetSize()};
  // As the first opener would: who looks at the queue finds a version from the beginning.
  storeShared(segment_->arm_version, ARM_QUEUE_VERSION);
}

void RequestReader::setReady(bool ready) {
  storeShared(segment_->ready_for_io, ready ? 1U : 0U);
}

void RequestReader::setState(uint32_t state) {
  (void)setQueueState(memory_, segment_->state, state,
                      [this] { return segment_.WakeAll(empty_, overflow_); });
}

Taken RequestReader::take(TArmMessage* messages, std::size_t room, std::size_t* count,
                          std::chrono::milliseconds limit) {
  *count = 0;
  if (memory_.Lock() != 0) return Taken::stopped;
  const Taken taken = waitForRequest(std::chrono::steady_clock::now() + limit);
  if (taken == Taken::request) {
    // Read once: what is taken is bounded even if somebody writes to the count meanwhile.
    const std::size_t waiting = std::min<std::size_t>(loadShared(segment_->count), capacity());
    for (; *count < std::min(waiting, room); ++*count) takeLocked(messages[*count]);
  }
  (void)memory_.Unlock();
  return taken;
}

/// What a reader that holds the lock finds.
Taken RequestReader::peek() {
  if (loadShared(segment_->state) != QUEUE_STATE_RUNNING) return Taken::stopped;
  if (interrupted_.exchange(false)) return Taken::interrupted;
  return loadShared(segment_->count) > 0 ? Taken::request : Taken::nothing;
}

/// Called and left with the segment locked.
Taken RequestReader::waitForRequest(std::chrono::steady_clock::time_point end) {
  for (;;) {
    repairRing();
    const Taken found = peek();
    const auto left = end - std::chrono::steady_clock::now();
    if (found != Taken::nothing || left <= left.zero()) return found;
    storeShared(segment_->empty_waiters, loadShared(segment_->empty_waiters) + 1U);
    (void)memory_.Unlock();
    const bool waited = waitForWriter(left);
    const long locked = memory_.Lock();
    storeShared(segment_->empty_waiters, loadShared(segment_->empty_waiters) - 1U);
    if (!waited || locked != 0) return Taken::stopped;
  }
}

/// Takes one unit of the empty-queue semaphore, or lets the time run out; false when it is gone.
bool RequestReader::waitForWriter(std::chrono::nanoseconds limit) const {
  constexpr long NANOSECONDS = 1'000'000'000;
  sembuf take_one = {COUNTING_SET_COUNT, -1, 0};
  const timespec time = {static_cast<time_t>(limit.count() / NANOSECONDS),
                         static_cast<long>(limit.count() % NANOSECONDS)};
  return semtimedop(empty_set_, &take_one, 1, &time) == 0 || errno == EAGAIN || errno == EINTR;
}

void RequestReader::takeLocked(TArmMessage& message) {
  const uint16_t count = loadShared(segment_->count);
  const auto head = static_cast<uint16_t>(loadShared(segment_->head) % capacity());
  std::memcpy(&message, segment_.Slot(head), sizeof message);
  storeShared(segment_->head, segment_.After(head));
  storeShared(segment_->count, static_cast<uint16_t>(count - 1U));
  // One unit for each slot that becomes free while writers wait; the library's own writers never
  // do.
  if (loadShared(segment_->overflow_waiters) > 0) (void)overflow_.Post(1);
}

/// Every process may write to the segment, and a writer may be killed between two of its steps.  A
/// tail that disagrees with the count is put right, so that the requests that are counted are
/// served; a ring with impossible values is emptied: its requests are lost, the queue goes on.
void RequestReader::repairRing() {
  const TRingPosition ring = segment_.Position();
  const bool possible = ring.count <= capacity() && ring.head < capacity();
  const uint16_t right = possible ? segment_.After(ring.head, ring.count) : uint16_t{0};
  if (possible && ring.tail == right) return;
  if (!possible) {
    storeShared(segment_->count, uint16_t{0});
    storeShared(segment_->head, uint16_t{0});
  }
  storeShared(segment_->tail, right);
  ++repairs_;
}

void RequestReader::interrupt() {
  interrupted_ = true;
  (void)empty_.Post(1);
}

unsigned RequestReader::depth() const {
  return loadShared(segment_->count);
}

}  // namespace armengine
