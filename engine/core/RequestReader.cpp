#include "core/RequestReader.h"

#include <cstring>
#include <string>

#include "core/NameFiles.h"
#include "platform/sharedword.h"

namespace armengine {

namespace {

constexpr long LARGEST_COUNT = 32766;

std::string writable(const char* name) {
  return name;
}

}  // namespace

RequestReader::RequestReader(uint16_t capacity)
    : capacity_(capacity),
      overflow_(writable(OVERFLOW_NAME).data(), 0, LARGEST_COUNT),
      empty_(writable(EMPTY_NAME).data(), 0, LARGEST_COUNT),
      memory_(
          REQUEST_MEMORY_NAME,
          sizeof(TRequestQueueHeader) + capacity * static_cast<unsigned long>(sizeof(TArmMessage)),
          true) {
  if (!overflow_.IsInitialized() || !empty_.IsInitialized() || !memory_.IsInitialized()) return;
  auto* start = static_cast<uint8_t*>(memory_.GetAddress());
  header_ = reinterpret_cast<TRequestQueueHeader*>(start);
  slots_ = start + sizeof(TRequestQueueHeader);
  view_ = std::make_unique<CIPCSimpleQueue<TArmMessage>>(REQUEST_BASE);
}

bool RequestReader::isInitialized() const {
  return view_ != nullptr && view_->IsInitialized();
}

void RequestReader::setReady(bool ready) {
  storeShared(header_->ready_for_io, ready ? 1U : 0U);
}

void RequestReader::setVersion(uint32_t version) {
  storeShared(header_->arm_version, version);
}

void RequestReader::setState(uint32_t state) {
  (void)view_->SetState(state);
}

bool RequestReader::take(TArmMessage& message) {
  if (memory_.Lock() != 0) return false;
  const bool taken = waitForRequest() && takeLocked(message);
  (void)memory_.Unlock();
  return taken;
}

bool RequestReader::tryTake(TArmMessage& message) {
  if (memory_.Lock() != 0) return false;
  repairRing();
  const bool taken = loadShared(header_->count) > 0 && takeLocked(message);
  (void)memory_.Unlock();
  return taken;
}

/// Called and left with the segment locked; true when a request can be taken.
bool RequestReader::waitForRequest() {
  for (;;) {
    repairRing();
    if (loadShared(header_->state) != QUEUE_STATE_RUNNING) return false;
    if (interrupted_.exchange(false)) return false;
    if (loadShared(header_->count) > 0) return true;
    storeShared(header_->empty_waiters, loadShared(header_->empty_waiters) + 1U);
    (void)memory_.Unlock();
    const long waited = empty_.Wait(0);
    const long locked = memory_.Lock();
    storeShared(header_->empty_waiters, loadShared(header_->empty_waiters) - 1U);
    if (waited != 0 || locked != 0) return false;
  }
}

bool RequestReader::takeLocked(TArmMessage& message) {
  const uint16_t count = loadShared(header_->count);
  const uint16_t head = loadShared(header_->head);
  std::memcpy(&message, slots_ + head * sizeof(TArmMessage), sizeof message);
  storeShared(header_->head, static_cast<uint16_t>((head + 1U) % capacity_));
  storeShared(header_->count, static_cast<uint16_t>(count - 1U));
  // One unit for each slot that becomes free while writers wait; the library's own writers never
  // do.
  if (loadShared(header_->overflow_waiters) > 0) (void)overflow_.Post(1);
  return true;
}

/// Every process may write to the segment.  A ring that cannot be right is emptied: its requests
/// are lost, the queue goes on.
void RequestReader::repairRing() {
  const unsigned count = loadShared(header_->count);
  const unsigned head = loadShared(header_->head);
  const unsigned tail = loadShared(header_->tail);
  const bool whole = count <= capacity_ && head < capacity_ && tail == (head + count) % capacity_;
  if (whole) return;
  storeShared(header_->count, uint16_t{0});
  storeShared(header_->head, uint16_t{0});
  storeShared(header_->tail, uint16_t{0});
  ++repairs_;
}

void RequestReader::interrupt() {
  interrupted_ = true;
  (void)empty_.Post(1);
}

unsigned RequestReader::depth() const {
  return loadShared(header_->count);
}

}  // namespace armengine
