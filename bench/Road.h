#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "ipc/ReplyQueueLayout.h"
#include "ipc/RequestQueueLayout.h"
#include "platform/CkesSemaphore.h"
#include "platform/CkesSharedMemory.h"

namespace bench {

/// When an engine raises the semaphores of the requesters that it answers.
enum class Raise {
  locked,   ///< each one while the reply queue is locked
  after,    ///< each one after the unlock
  together  ///< all in one operation after the unlock
};

/// The habits that decide an engine's throughput.
struct Habits {
  unsigned batch = 1;  ///< most requests that are taken, and answered, under one lock
  Raise raise = Raise::locked;
  bool remember = false;  ///< look first where a requester's head record was before
};

/// The request road of an engine whose habits can be chosen, to compare them.  The queues belong to
/// somebody else in the process (armengine::EngineQueues); one thread serves.
///
/// Raising after the unlock is safe: a requester takes a reply only after it has lowered its
/// semaphore, so the replies in a list are never fewer than the units of its semaphore, and each
/// linked reply is followed by exactly one raise of the same thread, before that thread touches the
/// queue again.  Meanwhile nobody else can be given the head record, since its list is not empty.
/// A raise that comes late, for a record that was freed or woken in between, finds a requester that
/// looks at its empty list and waits on.
class Road {
 public:
  explicit Road(const Habits& habits);

  bool isInitialized() const;
  /// Waits for requests and answers those that it finds, up to the batch.  False when the queue was
  /// stopped.
  bool serve();

 private:
  using Item = TIPCReplyItem<TArmReplyMessage>;

  bool take();
  bool waitForRequest();
  void answer();
  void link(const TIPCIdentifier& to, int32_t result);
  TIPCHeadItem* headOf(const TIPCIdentifier& id);
  TIPCHeadItem* scan(const TIPCIdentifier& id) const;
  TIPCHeadItem* claim(const TIPCIdentifier& id) const;
  Item* itemAt(uint32_t offset) const;
  void raiseAll(std::size_t from, std::size_t count);
  int32_t resultOf(const TArmMessage& message);

  Habits habits_;
  CkesSharedMemory request_memory_;
  CkesSharedMemory reply_memory_;
  int empty_set_;
  int wake_set_;
  TRequestQueueHeader* requests_ = nullptr;
  const uint8_t* slots_ = nullptr;
  uint16_t slot_count_ = 0;
  TReplyQueueHeader* replies_ = nullptr;
  TIPCHeadItem* heads_ = nullptr;
  uint16_t head_count_ = 0;
  std::vector<TArmMessage> taken_;
  std::size_t taken_count_ = 0;
  std::vector<unsigned short> semaphores_;
  std::unordered_map<uint64_t, TIPCHeadItem*> known_;
  int32_t handles_ = 0;
};

}  // namespace bench
