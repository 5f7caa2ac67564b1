#include "core/ReplyLists.h"

#include <cstring>

#include "ipc/CIPCUtils.h"
#include "ipc/EngineObjects.h"
#include "platform/sharedword.h"
#include "system/ProcessStat.h"

namespace armengine {

namespace {

uint64_t keyOf(const TIPCIdentifier& id) {
  return uint64_t{static_cast<uint32_t>(id.processId)} << 32 | id.threadId;
}

}  // namespace

void ReplyLists::layOut(const CReplySegment<TArmReplyMessage>& segment, const CWakeSet& wake) {
  segment_ = segment;
  wake_ = wake;
  const unsigned capacity = segment.Capacity();
  for (unsigned i = 0; i < capacity; ++i) {
    segment.Head(i) = {HEAD_IDLE,
                       0,
                       static_cast<uint16_t>(WAKE_SET_FIRST_HEAD + i),
                       NULL_IPC_ID.processId,
                       NULL_IPC_ID.threadId,
                       0};
    const uint32_t next = i + 1 < capacity ? segment.ItemOffset(i + 1) : 0;
    segment.NthItem(i).next = next;
  }
  storeShared(segment->free_list, capacity > 0 ? segment.ItemOffset(0) : 0U);
}

TIPCHeadItem* ReplyLists::head(const TIPCIdentifier& owner, bool claim) {
  TIPCHeadItem* record = knownHead(owner);
  if (record != nullptr) return record;
  record = segment_.FindOwned(owner);
  if (record == nullptr && claim) record = segment_.Claim(owner, wake_);
  if (record != nullptr) remember(owner, record);
  return record;
}

std::optional<uint16_t> ReplyLists::semaphoreOf(const TIPCHeadItem& head) const {
  const uint16_t semaphore = loadShared(head.semaphore);
  const bool possible =
      semaphore >= WAKE_SET_FIRST_HEAD && semaphore < WAKE_SET_FIRST_HEAD + segment_.Capacity();
  return possible ? std::optional(semaphore) : std::nullopt;
}

ReplyLists::Linked ReplyLists::link(TIPCHeadItem& head, const TArmReplyMessage& reply) {
  const uint32_t offset = takeFreeItem();
  if (offset == 0) return Linked::no_item;
  std::memcpy(&segment_.Item(offset)->record, &reply, sizeof reply);
  return append(head, offset) ? Linked::yes : Linked::damaged;
}

unsigned ReplyLists::usedItems() const {
  return loadShared(segment_->used_items);
}

unsigned ReplyLists::headsInUse() const {
  return loadShared(segment_->heads_in_use);
}

/// The requester's head record if it is where it was before: what a search would find, since no two
/// records carry the same identifier.
TIPCHeadItem* ReplyLists::knownHead(const TIPCIdentifier& owner) const {
  const auto place = places_.find(keyOf(owner));
  if (place == places_.end()) return nullptr;
  TIPCHeadItem* record = place->second;
  return CIPCUtils::sameIPCIdentifiers(segment_.OwnerOf(*record), owner) ? record : nullptr;
}

void ReplyLists::remember(const TIPCIdentifier& owner, TIPCHeadItem* record) {
  // What departed requesters leave behind is thrown away now and then, together with the rest.
  if (places_.size() >= 2U * segment_.Capacity()) places_.clear();
  places_[keyOf(owner)] = record;
}

/// Takes an item off the free list; 0 when none is free.
uint32_t ReplyLists::takeFreeItem() {
  const uint32_t offset = loadShared(segment_->free_list);
  const Item* item = segment_.Item(offset);
  if (item == nullptr) return 0;
  storeShared(segment_->free_list, loadShared(item->next));
  const auto used = static_cast<uint16_t>(loadShared(segment_->used_items) + 1U);
  storeShared(segment_->used_items, used);
  // A reader that takes from a full queue raises this semaphore.  Nobody waits on it here, and at
  // its limit that reader's call would fail.
  if (used >= segment_.Capacity()) wake_.SetValue(WAKE_SET_ROOM, 0);
  return offset;
}

/// Links an item to the end of a list: replies are taken in the order in which they were put.
bool ReplyLists::append(TIPCHeadItem& record, uint32_t offset) {
  storeShared(segment_.Item(offset)->next, 0U);
  uint32_t* link = &record.first_reply;
  for (unsigned steps = 0; loadShared(*link) != 0; ++steps) {
    Item* item = segment_.Item(loadShared(*link));
    if (item == nullptr || steps >= segment_.Capacity()) return false;
    link = &item->next;
  }
  storeShared(*link, offset);
  return true;
}

unsigned ReplyLists::releaseDeparted() {
  // Threads of one process often stand together: it is looked for once.
  TIPCIdentifier last = {0, 0};
  bool alive = false;
  return releaseAll([&](const TIPCHeadItem& record) {
    const TIPCIdentifier owner = {loadShared(record.process_id), 0};
    if (owner.processId != last.processId) alive = processExists(owner.processId);
    last = owner;
    return !alive && wake_.Waiters(loadShared(record.semaphore)) <= 0;
  });
}

unsigned ReplyLists::releaseIdle() {
  return releaseAll([this](const TIPCHeadItem& record) { return isIdle(record); });
}

template <typename Condition>
unsigned ReplyLists::releaseAll(Condition condition) {
  unsigned released = 0;
  for (TIPCHeadItem& record : segment_) {
    if (loadShared(record.process_id) == NULL_IPC_ID.processId || !condition(record)) continue;
    release(record);
    ++released;
  }
  return released;
}

bool ReplyLists::isIdle(const TIPCHeadItem& record) const {
  return loadShared(record.status) == HEAD_IDLE && loadShared(record.first_reply) == 0 &&
         wake_.Waiters(loadShared(record.semaphore)) == 0;
}

/// Gives a head record back, without its list.  A client killed while it waited leaves status 1,
/// and one killed before it took its reply leaves its semaphore raised.
void ReplyLists::release(TIPCHeadItem& record) {
  storeShared(record.first_reply, 0U);
  storeShared(record.status, HEAD_IDLE);
  storeShared(record.process_id, NULL_IPC_ID.processId);
  storeShared(record.thread_id, NULL_IPC_ID.threadId);
  wake_.SetValue(loadShared(record.semaphore), 0);
}

bool ReplyLists::agree() const {
  unsigned owned = 0;
  unsigned linked = 0;
  for (const TIPCHeadItem& record : segment_) {
    if (loadShared(record.process_id) != NULL_IPC_ID.processId) ++owned;
    uint32_t offset = loadShared(record.first_reply);
    while (offset != 0) {
      const Item* item = segment_.Item(offset);
      if (item == nullptr || ++linked > segment_.Capacity()) return false;
      offset = loadShared(item->next);
    }
  }
  return owned == headsInUse() && linked == usedItems();
}

void ReplyLists::rebuild() {
  std::vector<bool> linked(segment_.Capacity(), false);
  uint16_t owned = 0;
  for (TIPCHeadItem& record : segment_) {
    keepList(record, &linked);
    if (loadShared(record.process_id) != NULL_IPC_ID.processId) ++owned;
  }
  uint16_t used = 0;
  uint32_t free_list = 0;
  for (unsigned i = segment_.Capacity(); i-- > 0;) {
    if (linked[i]) {
      ++used;
    } else {
      storeShared(segment_.NthItem(i).next, free_list);
      free_list = segment_.ItemOffset(i);
    }
  }
  storeShared(segment_->free_list, free_list);
  storeShared(segment_->used_items, used);
  storeShared(segment_->heads_in_use, owned);
}

/// Marks the items of a list, and ends it before a link that cannot be right.
void ReplyLists::keepList(TIPCHeadItem& record, std::vector<bool>* linked) {
  uint32_t* link = &record.first_reply;
  for (uint32_t offset = loadShared(*link); offset != 0; offset = loadShared(*link)) {
    Item* item = segment_.Item(offset);
    const uint32_t index = replyItemNumber<TArmReplyMessage>(segment_.Capacity(), offset);
    if (item == nullptr || (*linked)[index]) {
      storeShared(*link, 0U);
      return;
    }
    (*linked)[index] = true;
    link = &item->next;
  }
}

}  // namespace armengine
