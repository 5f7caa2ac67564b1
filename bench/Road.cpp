#include "Road.h"

#include <sys/ipc.h>
#include <sys/sem.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "ipc/CIPCUtils.h"
#include "platform/sharedword.h"
#include "system/NameFiles.h"

namespace bench {

namespace {

bool operate(int set, sembuf* operations, std::size_t count) {
  while (semop(set, operations, count) != 0) {
    if (errno != EINTR) return false;
  }
  return true;
}

uint64_t keyOf(const TIPCIdentifier& id) {
  return static_cast<uint64_t>(static_cast<uint32_t>(id.processId)) << 32 | id.threadId;
}

bool isOf(const TIPCHeadItem& head, const TIPCIdentifier& id) {
  return loadShared(head.process_id) == id.processId && loadShared(head.thread_id) == id.threadId;
}

}  // namespace

Road::Road(const Habits& habits)
    : habits_(habits),
      request_memory_(armengine::REQUEST_MEMORY_NAME, false),
      reply_memory_(armengine::REPLY_BASE, false),
      empty_set_(armengine::openSemaphoreSet(armengine::nameFiles().empty, armengine::SET_PROJECT)),
      wake_set_(
          armengine::openSemaphoreSet(armengine::nameFiles().replies, armengine::WAKE_SET_PROJECT)),
      taken_(habits.batch) {
  if (!isInitialized()) return;
  auto* request_start = static_cast<uint8_t*>(request_memory_.GetAddress());
  requests_ = reinterpret_cast<TRequestQueueHeader*>(request_start);
  slots_ = request_start + sizeof(TRequestQueueHeader);
  slot_count_ = requestQueueCapacity(request_memory_.GetSize(), sizeof(TArmMessage));
  auto* reply_start = static_cast<uint8_t*>(reply_memory_.GetAddress());
  replies_ = reinterpret_cast<TReplyQueueHeader*>(reply_start);
  heads_ = reinterpret_cast<TIPCHeadItem*>(reply_start + sizeof(TReplyQueueHeader));
  head_count_ = replyQueueCapacity(reply_memory_.GetSize(), sizeof(TArmReplyMessage));
}

bool Road::isInitialized() const {
  return request_memory_.IsInitialized() && reply_memory_.IsInitialized() && empty_set_ != -1 &&
         wake_set_ != -1;
}

bool Road::serve() {
  if (!take()) return false;
  answer();
  return true;
}

bool Road::take() {
  if (request_memory_.Lock() != 0) return false;
  if (!waitForRequest()) return false;
  const uint16_t count = loadShared(requests_->count);
  uint16_t head = loadShared(requests_->head);
  taken_count_ = std::min<std::size_t>(count, taken_.size());
  for (std::size_t i = 0; i < taken_count_; ++i) {
    std::memcpy(&taken_[i], slots_ + head * sizeof(TArmMessage), sizeof(TArmMessage));
    head = static_cast<uint16_t>((head + 1U) % slot_count_);
  }
  storeShared(requests_->head, head);
  storeShared(requests_->count, static_cast<uint16_t>(count - taken_count_));
  return request_memory_.Unlock() == 0;
}

/// Called and left with the request queue locked, except when it fails.
bool Road::waitForRequest() {
  while (loadShared(requests_->count) == 0) {
    storeShared(requests_->empty_waiters, loadShared(requests_->empty_waiters) + 1U);
    (void)request_memory_.Unlock();
    sembuf take_one = {0, -1, 0};
    if (!operate(empty_set_, &take_one, 1) || request_memory_.Lock() != 0) return false;
    storeShared(requests_->empty_waiters, loadShared(requests_->empty_waiters) - 1U);
    if (loadShared(requests_->state) != QUEUE_STATE_RUNNING) return false;
  }
  return true;
}

void Road::answer() {
  semaphores_.clear();
  if (reply_memory_.Lock() != 0) return;
  for (std::size_t i = 0; i < taken_count_; ++i) link(taken_[i].sender_id, resultOf(taken_[i]));
  (void)reply_memory_.Unlock();
  if (habits_.raise == Raise::after) {
    for (std::size_t i = 0; i < semaphores_.size(); ++i) raiseAll(i, 1);
  } else if (habits_.raise == Raise::together) {
    raiseAll(0, semaphores_.size());
  }
}

void Road::link(const TIPCIdentifier& to, int32_t result) {
  TIPCHeadItem* head = headOf(to);
  Item* item = itemAt(loadShared(replies_->free_list));
  if (head == nullptr || item == nullptr) return;
  const uint32_t offset = loadShared(replies_->free_list);
  storeShared(replies_->free_list, loadShared(item->next));
  storeShared(replies_->used_items, static_cast<uint16_t>(loadShared(replies_->used_items) + 1U));
  TArmReplyMessage reply = {};
  reply.result = result;
  std::memcpy(&item->record, &reply, sizeof reply);
  // A program's thread has one reply at most.
  storeShared(item->next, loadShared(head->first_reply));
  storeShared(head->first_reply, offset);
  semaphores_.push_back(loadShared(head->semaphore));
  if (habits_.raise == Raise::locked) raiseAll(semaphores_.size() - 1, 1);
}

TIPCHeadItem* Road::headOf(const TIPCIdentifier& id) {
  if (!habits_.remember) {
    TIPCHeadItem* head = scan(id);
    return head != nullptr ? head : claim(id);
  }
  TIPCHeadItem*& known = known_[keyOf(id)];
  if (known != nullptr && isOf(*known, id)) return known;
  known = scan(id);
  if (known == nullptr) known = claim(id);
  return known;
}

TIPCHeadItem* Road::scan(const TIPCIdentifier& id) const {
  TIPCHeadItem* end = heads_ + head_count_;
  TIPCHeadItem* head =
      std::find_if(heads_, end, [&id](const TIPCHeadItem& item) { return isOf(item, id); });
  return head != end ? head : nullptr;
}

/// A free record, or else one that is idle, empty and not waited on.
TIPCHeadItem* Road::claim(const TIPCIdentifier& id) const {
  TIPCHeadItem* head = scan(NULL_IPC_ID);
  if (head != nullptr) {
    storeShared(replies_->heads_in_use,
                static_cast<uint16_t>(loadShared(replies_->heads_in_use) + 1U));
  } else {
    head = std::find_if(heads_, heads_ + head_count_, [this](const TIPCHeadItem& item) {
      return loadShared(item.status) == HEAD_IDLE && loadShared(item.first_reply) == 0 &&
             semctl(wake_set_, loadShared(item.semaphore), GETNCNT) == 0;
    });
    if (head == heads_ + head_count_) return nullptr;
  }
  storeShared(head->process_id, id.processId);
  storeShared(head->thread_id, id.threadId);
  return head;
}

Road::Item* Road::itemAt(uint32_t offset) const {
  if (offset == 0) return nullptr;
  return reinterpret_cast<Item*>(static_cast<uint8_t*>(reply_memory_.GetAddress()) + offset);
}

void Road::raiseAll(std::size_t from, std::size_t count) {
  // The kernel accepts 500 operations at once.
  constexpr std::size_t MOST = 500;
  sembuf operations[MOST];
  const std::size_t end = from + count;
  while (from < end) {
    const std::size_t now = std::min(end - from, MOST);
    for (std::size_t i = 0; i < now; ++i) operations[i] = {semaphores_[from + i], 1, 0};
    (void)operate(wake_set_, operations, now);
    from += now;
  }
}

int32_t Road::resultOf(const TArmMessage& message) {
  switch (message.msg_type) {
    case ARM_MSG_INIT:
    case ARM_MSG_GETID:
      return 1;
    case ARM_MSG_START:
      handles_ = handles_ % 1'000'000 + 1;
      return handles_;
    default:
      return 0;
  }
}

}  // namespace bench
