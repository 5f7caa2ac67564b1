#pragma once

#include <chrono>
#include <cstdint>
#include <cstring>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "core/EngineQueues.h"
#include "ipc/CReplySegment.h"
#include "ipc/CRequestSegment.h"
#include "ipc/CWakeSet.h"
#include "ipc/EngineObjects.h"
#include "platform/CkesSharedMemory.h"
#include "platform/sharedword.h"
#include "system/NameFiles.h"

namespace armtest {

/// Takes the oldest request if there is one.
inline bool takeRequestIfAny(armengine::RequestReader& requests, TArmMessage& message,
                             std::chrono::milliseconds limit = std::chrono::milliseconds(0)) {
  std::size_t count = 0;
  return requests.take(&message, 1, &count, limit) == armengine::Taken::request;
}

/// Takes the oldest request, waiting for one.  False when the queue was stopped or interrupted.
inline bool takeRequest(armengine::RequestReader& requests, TArmMessage& message) {
  // A writer that is killed between its steps wakes nobody: no wait is long.
  constexpr std::chrono::seconds LONGEST_WAIT{1};
  std::size_t count = 0;
  armengine::Taken taken = armengine::Taken::nothing;
  while (taken == armengine::Taken::nothing) {
    taken = requests.take(&message, 1, &count, LONGEST_WAIT);
  }
  return taken == armengine::Taken::request;
}

/// What an engine could do to its queues, and armengine never does.  Goes after the queues: their
/// lock may be held by nobody when they end.
class QueueAccess {
 public:
  explicit QueueAccess(armengine::EngineQueues& queues)
      : queues_(queues),
        requests_(REQUEST_SEGMENT_NAME, false),
        replies_(REPLY_QUEUE_NAME, false),
        ring_(requests_.GetAddress(), requests_.GetSize()),
        segment_(replies_.GetAddress(), replies_.GetSize()),
        wake_(armengine::openSemaphoreSet(
            armengine::objectPath(REPLY_QUEUE_NAME, WAKE_SET_PATH_LIMIT), WAKE_SET_PROJECT)) {}

  void setVersion(uint32_t version) { storeShared(ring_->arm_version, version); }

  /// Gives a reply to a requester, waiting or not, however many there are; false when there is no
  /// room, also not after the departed have been removed.
  bool put(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
    if (tryPut(to, reply)) return true;
    (void)queues_.replies().reclaimDeparted();
    return tryPut(to, reply);
  }

  /// Cancels the wait of a requester; false when it does not wait, or has its reply already.
  bool cancel(const TIPCIdentifier& to) {
    if (replies_.Lock() != 0) return false;
    TIPCHeadItem* head = segment_.FindOwned(to);
    const bool waits = head != nullptr && loadShared(head->status) == HEAD_WAITING &&
                       loadShared(head->first_reply) == 0;
    if (waits) storeShared(head->status, HEAD_CANCELLED);
    (void)replies_.Unlock();
    if (waits) (void)wake_.Raise(loadShared(head->semaphore), 1);
    return waits;
  }

 private:
  bool tryPut(const TIPCIdentifier& to, const TArmReplyMessage& reply) {
    if (replies_.Lock() != 0) return false;
    TIPCHeadItem* head = segment_.FindOwned(to);
    if (head == nullptr) head = segment_.Claim(to, wake_);
    const bool linked = head != nullptr && link(head, reply);
    (void)replies_.Unlock();
    if (linked) (void)wake_.Raise(loadShared(head->semaphore), 1);
    return linked;
  }
  bool link(TIPCHeadItem* head, const TArmReplyMessage& reply) {
    const uint32_t offset = loadShared(segment_->free_list);
    auto* item = segment_.Item(offset);
    if (item == nullptr) return false;
    storeShared(segment_->free_list, loadShared(item->next));
    storeShared(segment_->used_items, static_cast<uint16_t>(loadShared(segment_->used_items) + 1U));
    std::memcpy(&item->record, &reply, sizeof reply);
    storeShared(item->next, 0U);
    uint32_t* last = &head->first_reply;
    while (auto* before = segment_.Item(loadShared(*last))) last = &before->next;
    storeShared(*last, offset);
    return true;
  }

  armengine::EngineQueues& queues_;
  CkesSharedMemory requests_;
  CkesSharedMemory replies_;
  CRequestSegment<TArmMessage> ring_;
  CReplySegment<TArmReplyMessage> segment_;
  CWakeSet wake_;
};

}  // namespace armtest
