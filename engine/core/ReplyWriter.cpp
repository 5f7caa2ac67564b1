#include "core/ReplyWriter.h"

#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "core/NameFiles.h"
#include "platform/sharedword.h"

namespace armengine {

namespace {

constexpr int SET_PROJECT = 3;
constexpr int SET_PATH_LIMIT = 123;

union SemArgument {
  int val;
  semid_ds* buf;
  unsigned short* array;
};

bool processLives(int32_t process) {
  return process > 0 && (kill(process, 0) == 0 || errno == EPERM);
}

unsigned long segmentSize(uint16_t requesters) {
  return sizeof(TReplyQueueHeader) +
         requesters * (sizeof(TIPCHeadItem) + sizeof(TIPCReplyItem<TArmReplyMessage>));
}

}  // namespace

ReplyWriter::ReplyWriter(uint16_t requesters)
    : capacity_(requesters), memory_(REPLY_BASE, segmentSize(requesters), true) {
  if (!memory_.IsInitialized() || !createSet()) return;
  layOut();
  view_ = std::make_unique<CIPCQueue<TArmReplyMessage>>(REPLY_BASE, false);
}

ReplyWriter::~ReplyWriter() {
  view_.reset();
  if (set_ != -1) (void)semctl(set_, 0, IPC_RMID);
}

bool ReplyWriter::isInitialized() const {
  return view_ != nullptr && view_->IsInitialized();
}

bool ReplyWriter::createSet() {
  char path[SET_PATH_LIMIT + 1];
  (void)CIPCUtils::createIPCName(REPLY_BASE, nullptr, SET_PATH_LIMIT, path);
  const key_t key = ftok(path, SET_PROJECT);
  if (key == -1) return false;
  set_ = semget(key, capacity_ + 2, 0666 | IPC_CREAT | IPC_EXCL);
  if (set_ == -1) return false;
  std::vector<unsigned short> zeros(capacity_ + 2U, 0);
  zeros[REPLY_SET_INITIALIZED] = 1;
  SemArgument argument = {};
  argument.array = zeros.data();
  return semctl(set_, 0, SETALL, argument) >= 0;
}

/// Gives every head record its semaphore and chains the items into the free list.
void ReplyWriter::layOut() {
  for (unsigned i = 0; i < capacity_; ++i) {
    TIPCHeadItem& record = *head(i);
    record = {HEAD_IDLE,
              0,
              static_cast<uint16_t>(REPLY_SET_FIRST_HEAD + i),
              NULL_IPC_ID.processId,
              NULL_IPC_ID.threadId,
              0};
    itemAt(itemOffset(i))->next = i + 1 < capacity_ ? itemOffset(i + 1) : 0;
  }
  auto* header = static_cast<TReplyQueueHeader*>(memory_.GetAddress());
  storeShared(header->free_list, capacity_ > 0 ? itemOffset(0) : 0U);
}

TIPCHeadItem* ReplyWriter::head(unsigned index) const {
  auto* start = static_cast<uint8_t*>(memory_.GetAddress());
  return reinterpret_cast<TIPCHeadItem*>(start + sizeof(TReplyQueueHeader)) + index;
}

uint32_t ReplyWriter::itemOffset(unsigned index) const {
  return static_cast<uint32_t>(sizeof(TReplyQueueHeader) + capacity_ * sizeof(TIPCHeadItem) +
                               index * sizeof(Item));
}

/// The item at an offset, null when none begins there.
ReplyWriter::Item* ReplyWriter::itemAt(uint32_t offset) const {
  const uint32_t first = itemOffset(0);
  if (offset < first || (offset - first) % sizeof(Item) != 0) return nullptr;
  if ((offset - first) / sizeof(Item) >= capacity_) return nullptr;
  return reinterpret_cast<Item*>(static_cast<uint8_t*>(memory_.GetAddress()) + offset);
}

Delivery ReplyWriter::put(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
  if (memory_.Lock() != 0) return Delivery::failed;
  Delivery delivery = Delivery::linked;
  TIPCHeadItem* record = claimHead(to);
  const uint32_t offset = record != nullptr ? takeFreeItem() : 0;
  if (record == nullptr) {
    delivery = Delivery::no_head;
  } else if (offset == 0) {
    delivery = Delivery::no_item;
  } else {
    std::memcpy(&itemAt(offset)->record, &reply, sizeof reply);
    // The raise comes under the lock, so that the semaphore and the list always agree.
    const bool linked = append(*record, offset) && raise(loadShared(record->semaphore));
    if (!linked) delivery = Delivery::failed;
  }
  (void)memory_.Unlock();
  return delivery;
}

/// The requester's head record, found or claimed; null when none can be given.
TIPCHeadItem* ReplyWriter::claimHead(const TIPCIdentifier& owner) {
  TIPCHeadItem* record = nullptr;
  if (view_->FindHead(owner, true, &record) == 0) return record;
  if (reclaimLocked() == 0) return nullptr;
  return view_->FindHead(owner, true, &record) == 0 ? record : nullptr;
}

/// Takes an item off the free list; 0 when none is free, even without the replies of the departed.
uint32_t ReplyWriter::takeFreeItem() {
  auto* header = static_cast<TReplyQueueHeader*>(memory_.GetAddress());
  if (loadShared(header->free_list) == 0) (void)reclaimLocked();
  const uint32_t offset = loadShared(header->free_list);
  const Item* item = itemAt(offset);
  if (item == nullptr) return 0;
  storeShared(header->free_list, loadShared(item->next));
  storeShared(header->used_items, static_cast<uint16_t>(loadShared(header->used_items) + 1U));
  return offset;
}

/// Links an item to the end of a list: replies are taken in the order in which they were put.
bool ReplyWriter::append(TIPCHeadItem& record, uint32_t offset) {
  storeShared(itemAt(offset)->next, 0U);
  uint32_t* link = &record.first_reply;
  for (unsigned steps = 0; loadShared(*link) != 0; ++steps) {
    Item* item = itemAt(loadShared(*link));
    if (item == nullptr || steps >= capacity_) return false;
    link = &item->next;
  }
  storeShared(*link, offset);
  return true;
}

bool ReplyWriter::cancel(const TIPCIdentifier& to) {
  if (memory_.Lock() != 0) return false;
  TIPCHeadItem* record = nullptr;
  const bool found = view_->FindHead(to, false, &record) == 0;
  if (found) {
    storeShared(record->status, HEAD_CANCELLED);
    (void)raise(loadShared(record->semaphore));
  }
  (void)memory_.Unlock();
  return found;
}

void ReplyWriter::setState(uint32_t state) {
  (void)view_->SetState(state);
}

unsigned ReplyWriter::reclaimDeparted() {
  if (memory_.Lock() != 0) return 0;
  const unsigned reclaimed = reclaimLocked();
  (void)memory_.Unlock();
  return reclaimed;
}

unsigned ReplyWriter::reclaimLocked() {
  unsigned reclaimed = 0;
  for (unsigned i = 0; i < capacity_; ++i) {
    TIPCHeadItem& record = *head(i);
    const int32_t process = loadShared(record.process_id);
    if (process == NULL_IPC_ID.processId || processLives(process)) continue;
    release(record);
    ++reclaimed;
  }
  return reclaimed;
}

/// Drops a list and gives its head record back.  A client killed while it waited leaves status 1,
/// and one killed before it took its reply leaves its semaphore raised.
void ReplyWriter::release(TIPCHeadItem& record) {
  auto* header = static_cast<TReplyQueueHeader*>(memory_.GetAddress());
  uint32_t offset = loadShared(record.first_reply);
  for (unsigned steps = 0; offset != 0 && steps < capacity_; ++steps) {
    Item* item = itemAt(offset);
    if (item == nullptr) break;
    const uint32_t next = loadShared(item->next);
    storeShared(item->next, loadShared(header->free_list));
    storeShared(header->free_list, offset);
    storeShared(header->used_items, static_cast<uint16_t>(loadShared(header->used_items) - 1U));
    offset = next;
  }
  storeShared(record.first_reply, 0U);
  storeShared(record.status, HEAD_IDLE);
  storeShared(record.process_id, NULL_IPC_ID.processId);
  storeShared(record.thread_id, NULL_IPC_ID.threadId);
  storeShared(header->heads_in_use, static_cast<uint16_t>(loadShared(header->heads_in_use) - 1U));
  SemArgument zero = {};
  (void)semctl(set_, loadShared(record.semaphore), SETVAL, zero);
}

bool ReplyWriter::raise(unsigned short semaphore) {
  sembuf add = {semaphore, 1, 0};
  return semop(set_, &add, 1) == 0;
}

unsigned ReplyWriter::usedItems() const {
  return loadShared(static_cast<TReplyQueueHeader*>(memory_.GetAddress())->used_items);
}

unsigned ReplyWriter::headsInUse() const {
  return loadShared(static_cast<TReplyQueueHeader*>(memory_.GetAddress())->heads_in_use);
}

}  // namespace armengine
