#include "core/ReplyWriter.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "ipc/CIPCUtils.h"
#include "ipc/EngineObjects.h"
#include "ipc/RequestQueueLayout.h"
#include "platform/semaphoreset.h"
#include "platform/sharedword.h"
#include "system/NameFiles.h"
#include "system/ProcessStat.h"

namespace armengine {

namespace {

uint64_t keyOf(const TIPCIdentifier& id) {
  return uint64_t{static_cast<uint32_t>(id.processId)} << 32 | id.threadId;
}

unsigned long segmentSize(uint16_t requesters) {
  return sizeof(TReplyQueueHeader) +
         requesters * (sizeof(TIPCHeadItem) + sizeof(TIPCReplyItem<TArmReplyMessage>));
}

}  // namespace

ReplyWriter::ReplyWriter(uint16_t requesters)
    : capacity_(requesters), memory_(REPLY_QUEUE_NAME, segmentSize(requesters), true) {
  if (!memory_.IsInitialized() || !createSet()) return;
  layOut();
  view_ = std::make_unique<CIPCQueue<TArmReplyMessage>>(REPLY_QUEUE_NAME, false);
}

ReplyWriter::~ReplyWriter() {
  // Without the lock: readers that an earlier stop has woken give back what they have not taken, so
  // that it may stay taken for ever once they have exited.  The end of the set wakes the waiters.
  if (isInitialized()) {
    auto* header = static_cast<TReplyQueueHeader*>(memory_.GetAddress());
    storeShared(header->state, QUEUE_STATE_CLOSED);
  }
  if (set_ != -1) (void)semctl(set_, 0, IPC_RMID);
}

bool ReplyWriter::isInitialized() const {
  return view_ != nullptr && view_->IsInitialized();
}

bool ReplyWriter::createSet() {
  const key_t key =
      ftok(objectPath(REPLY_QUEUE_NAME, WAKE_SET_PATH_LIMIT).c_str(), WAKE_SET_PROJECT);
  if (key == -1) return false;
  set_ = semget(key, capacity_ + WAKE_SET_FIRST_HEAD, OBJECT_ACCESS | IPC_CREAT | IPC_EXCL);
  if (set_ == -1) return false;
  std::vector<unsigned short> zeros(capacity_ + unsigned{WAKE_SET_FIRST_HEAD}, 0);
  zeros[WAKE_SET_INITIALIZED] = 1;
  TSemArgument argument = {};
  argument.array = zeros.data();
  return semctl(set_, 0, SETALL, argument) >= 0;
}

/// Gives every head record its semaphore and chains the items into the free list.
void ReplyWriter::layOut() {
  for (unsigned i = 0; i < capacity_; ++i) {
    TIPCHeadItem& record = *head(i);
    record = {HEAD_IDLE,
              0,
              static_cast<uint16_t>(WAKE_SET_FIRST_HEAD + i),
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

Delivery ReplyWriter::putToWaiting(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
  Outgoing one = {to, reply, Delivery::failed};
  putAll(To::waiting, &one, 1);
  return one.delivery;
}

void ReplyWriter::putAllUnlessCrowded(Outgoing* replies, std::size_t count) {
  putAll(To::anybody, replies, count);
}

void ReplyWriter::putAll(To whom, Outgoing* replies, std::size_t count) {
  if (count == 0) return;
  Semaphores due;
  due.reserve(count);
  const bool locked = memory_.Lock() == 0;
  for (std::size_t i = 0; i < count; ++i) {
    replies[i].delivery = locked ? putOrRepair(whom, replies[i], &due) : Delivery::failed;
  }
  if (locked) (void)memory_.Unlock();
  raiseAll(due);
}

Delivery ReplyWriter::putOrRepair(To whom, const Outgoing& reply, Semaphores* due) {
  const Delivery delivery = putLocked(whom, reply, due);
  if (delivery == Delivery::linked || delivery == Delivery::no_head) return delivery;
  (void)releaseDeparted();
  rebuildLists();
  return putLocked(whom, reply, due);
}

Delivery ReplyWriter::putLocked(To whom, const Outgoing& reply, Semaphores* due) {
  TIPCHeadItem* record = headFor(whom, reply.to);
  if (record == nullptr) return Delivery::no_head;
  const uint16_t semaphore = loadShared(record->semaphore);
  if (!isOfHead(semaphore)) return Delivery::failed;
  const uint32_t offset = takeFreeItem();
  if (offset == 0) return Delivery::no_item;
  std::memcpy(&itemAt(offset)->record, &reply.reply, sizeof reply.reply);
  if (!append(*record, offset)) return Delivery::failed;
  due->push_back(semaphore);
  return Delivery::linked;
}

/// The requester's head record, found or claimed; null when it is to have none.
TIPCHeadItem* ReplyWriter::headFor(To whom, const TIPCIdentifier& owner) {
  // Free records carry this identifier, and would be found.
  if (CIPCUtils::sameIPCIdentifiers(owner, NULL_IPC_ID)) return nullptr;
  if (whom == To::anybody && isCrowded()) return nullptr;
  TIPCHeadItem* record = knownHead(owner);
  if (record == nullptr) {
    if (view_->FindHead(owner, whom != To::waiting, &record) != 0) return nullptr;
    remember(owner, record);
  }
  const bool suits = whom != To::waiting || loadShared(record->status) == HEAD_WAITING;
  return suits ? record : nullptr;
}

/// The requester's head record if it is where it was before: what a search would find, since no two
/// records carry the same identifier.
TIPCHeadItem* ReplyWriter::knownHead(const TIPCIdentifier& owner) const {
  const auto place = places_.find(keyOf(owner));
  if (place == places_.end()) return nullptr;
  TIPCHeadItem* record = place->second;
  const TIPCIdentifier now = {loadShared(record->process_id), loadShared(record->thread_id)};
  return CIPCUtils::sameIPCIdentifiers(now, owner) ? record : nullptr;
}

void ReplyWriter::remember(const TIPCIdentifier& owner, TIPCHeadItem* record) {
  // What departed requesters leave behind is thrown away now and then, together with the rest.
  if (places_.size() >= 2U * capacity_) places_.clear();
  places_[keyOf(owner)] = record;
}

/// Takes an item off the free list; 0 when none is free.
uint32_t ReplyWriter::takeFreeItem() {
  auto* header = static_cast<TReplyQueueHeader*>(memory_.GetAddress());
  const uint32_t offset = loadShared(header->free_list);
  const Item* item = itemAt(offset);
  if (item == nullptr) return 0;
  storeShared(header->free_list, loadShared(item->next));
  const auto used = static_cast<uint16_t>(loadShared(header->used_items) + 1U);
  storeShared(header->used_items, used);
  // A reader that takes from a full queue raises this semaphore.  Nobody waits on it here, and at
  // its limit that reader's call would fail.
  if (used >= capacity_) setSemaphore(WAKE_SET_ROOM, 0);
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

bool ReplyWriter::isWaiting(const TIPCIdentifier& requester) {
  if (memory_.Lock() != 0) return false;
  const bool waits = headFor(To::waiting, requester) != nullptr;
  (void)memory_.Unlock();
  return waits;
}

void ReplyWriter::setState(uint32_t state) {
  (void)view_->SetState(state);
}

unsigned ReplyWriter::reclaimDeparted() {
  if (memory_.Lock() != 0) return 0;
  const unsigned released = releaseDeparted();
  repairLists(released > 0);
  (void)memory_.Unlock();
  return released;
}

unsigned ReplyWriter::reclaimIdle() {
  if (memory_.Lock() != 0) return 0;
  const unsigned released =
      releaseAll([this](const TIPCHeadItem& record) { return isIdle(record); });
  repairLists(released > 0);
  (void)memory_.Unlock();
  return released;
}

/// Frees the records whose owners have ended.  A process that cannot be seen from here, being in
/// another container, may still wait.
unsigned ReplyWriter::releaseDeparted() {
  // Threads of one process often stand together: it is looked for once.
  TIPCIdentifier last = {0, 0};
  bool alive = false;
  return releaseAll([&](const TIPCHeadItem& record) {
    const TIPCIdentifier owner = {loadShared(record.process_id), 0};
    if (owner.processId != last.processId) alive = processExists(owner.processId);
    last = owner;
    return !alive && semctl(set_, loadShared(record.semaphore), GETNCNT) <= 0;
  });
}

/// Leaves the lists and counts to be put right.
template <typename Condition>
unsigned ReplyWriter::releaseAll(Condition condition) {
  unsigned released = 0;
  for (unsigned i = 0; i < capacity_; ++i) {
    TIPCHeadItem& record = *head(i);
    if (loadShared(record.process_id) == NULL_IPC_ID.processId || !condition(record)) continue;
    release(record);
    ++released;
  }
  return released;
}

bool ReplyWriter::isIdle(const TIPCHeadItem& record) const {
  return loadShared(record.status) == HEAD_IDLE && loadShared(record.first_reply) == 0 &&
         semctl(set_, loadShared(record.semaphore), GETNCNT) == 0;
}

/// Gives a head record back, without its list.  A client killed while it waited leaves status 1,
/// and one killed before it took its reply leaves its semaphore raised.
void ReplyWriter::release(TIPCHeadItem& record) {
  storeShared(record.first_reply, 0U);
  storeShared(record.status, HEAD_IDLE);
  storeShared(record.process_id, NULL_IPC_ID.processId);
  storeShared(record.thread_id, NULL_IPC_ID.threadId);
  setSemaphore(loadShared(record.semaphore), 0);
}

/// Rebuilding touches every item, so it is done only when something is wrong.
void ReplyWriter::repairLists(bool changed) {
  if (changed || !listsAgree()) rebuildLists();
}

/// Whether the counts are those of the records and of the replies in their lists.  A free list that
/// is damaged shows when an item is taken from it.
bool ReplyWriter::listsAgree() const {
  unsigned owned = 0;
  unsigned linked = 0;
  for (unsigned i = 0; i < capacity_; ++i) {
    if (loadShared(head(i)->process_id) != NULL_IPC_ID.processId) ++owned;
    uint32_t offset = loadShared(head(i)->first_reply);
    while (offset != 0) {
      const Item* item = itemAt(offset);
      if (item == nullptr || ++linked > capacity_) return false;
      offset = loadShared(item->next);
    }
  }
  return owned == headsInUse() && linked == usedItems();
}

/// Chains every item that no requester's list holds into the free list, and counts anew.
void ReplyWriter::rebuildLists() {
  std::vector<bool> linked(capacity_, false);
  uint16_t owned = 0;
  for (unsigned i = 0; i < capacity_; ++i) {
    keepList(*head(i), &linked);
    if (loadShared(head(i)->process_id) != NULL_IPC_ID.processId) ++owned;
  }
  uint16_t used = 0;
  uint32_t free_list = 0;
  for (unsigned i = capacity_; i-- > 0;) {
    if (linked[i]) {
      ++used;
    } else {
      storeShared(itemAt(itemOffset(i))->next, free_list);
      free_list = itemOffset(i);
    }
  }
  auto* header = static_cast<TReplyQueueHeader*>(memory_.GetAddress());
  storeShared(header->free_list, free_list);
  storeShared(header->used_items, used);
  storeShared(header->heads_in_use, owned);
}

/// Marks the items of a list, and ends it before a link that cannot be right.
void ReplyWriter::keepList(TIPCHeadItem& record, std::vector<bool>* linked) {
  uint32_t* link = &record.first_reply;
  for (uint32_t offset = loadShared(*link); offset != 0; offset = loadShared(*link)) {
    Item* item = itemAt(offset);
    const std::size_t index = item != nullptr ? (offset - itemOffset(0)) / sizeof(Item) : 0;
    if (item == nullptr || (*linked)[index]) {
      storeShared(*link, 0U);
      return;
    }
    (*linked)[index] = true;
    link = &item->next;
  }
}

void ReplyWriter::setSemaphore(unsigned short semaphore, int value) {
  TSemArgument argument = {};
  argument.val = value;
  (void)semctl(set_, semaphore, SETVAL, argument);
}

/// Whether a number that everybody may write to is one that head records have.
bool ReplyWriter::isOfHead(unsigned short semaphore) const {
  return semaphore >= WAKE_SET_FIRST_HEAD && semaphore < WAKE_SET_FIRST_HEAD + capacity_;
}

bool ReplyWriter::raise(unsigned short semaphore) {
  sembuf add = {semaphore, 1, 0};
  return semop(set_, &add, 1) == 0;
}

/// Raises semaphores, those of many requesters in one operation.  When that fails, since one of
/// them stands at its limit or the kernel accepts fewer at once, each is raised for itself: a
/// requester whose semaphore cannot rise for its height is awake, and those of a removed set have
/// been sent away.
void ReplyWriter::raiseAll(const Semaphores& semaphores) {
  constexpr std::size_t MOST = 64;
  sembuf operations[MOST];
  for (std::size_t from = 0; from < semaphores.size(); from += MOST) {
    const std::size_t count = std::min(semaphores.size() - from, MOST);
    for (std::size_t i = 0; i < count; ++i) operations[i] = {semaphores[from + i], 1, 0};
    if (semop(set_, operations, count) == 0) continue;
    for (std::size_t i = 0; i < count; ++i) (void)raise(operations[i].sem_num);
  }
}

unsigned ReplyWriter::usedItems() const {
  return loadShared(static_cast<TReplyQueueHeader*>(memory_.GetAddress())->used_items);
}

unsigned ReplyWriter::headsInUse() const {
  return loadShared(static_cast<TReplyQueueHeader*>(memory_.GetAddress())->heads_in_use);
}

}  // namespace armengine
