#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "arm/TArmReplyMessage.h"
#include "ipc/CIPCQueue.h"
#include "ipc/ReplyQueueLayout.h"
#include "ipc/TIPCIdentifier.h"
#include "platform/CkesSharedMemory.h"

namespace armengine {

/// What became of a reply.
enum class Delivery {
  linked,   ///< it waits in its requester's list, or has been taken already
  no_head,  ///< every head record belongs to a living requester that is waiting or has replies
  no_item,  ///< every item holds a reply of a living requester
  failed    ///< the queue could not be locked, or holds impossible values
};

/// Whether a requester's process lives, as far as can be seen.
bool isAlive(const TIPCIdentifier& requester);

/// The writer's end of the reply queue, and its creator: it owns the segment and the semaphore set;
/// when it goes, it sets state 2, wakes every waiter and removes both.  It never waits for room: a requester has one reply at most, so a
/// queue without room is one whose replies belong to the departed, and those are dropped.  Any
/// thread.
class ReplyWriter {
 public:
  /// Creates the queue for the given number of requesters.
  explicit ReplyWriter(uint16_t requesters);
  ~ReplyWriter();
  ReplyWriter(const ReplyWriter&) = delete;
  ReplyWriter& operator=(const ReplyWriter&) = delete;

  bool isInitialized() const;

  /// Links a reply to the end of the requester's list and wakes the requester, claiming a head
  /// record for one that has none yet.
  Delivery put(const TIPCIdentifier& to, const TArmReplyMessage& reply);
  /// The same, but no_head for any requester while all head records are in use: its call may have
  /// failed for want of one, and its next call would take the reply for its own.
  Delivery putUnlessCrowded(const TIPCIdentifier& to, const TArmReplyMessage& reply);
  /// The same, but only for a requester that waits.
  Delivery putToWaiting(const TIPCIdentifier& to, const TArmReplyMessage& reply);
  /// Whether a requester waits for a reply.
  bool isWaiting(const TIPCIdentifier& requester);
  /// Cancels the wait of a requester, whose call then fails; false when it does not wait, or has its
  /// reply already.
  bool cancel(const TIPCIdentifier& to);
  /// Writes the state; 1 and 2 also wake every waiter.
  void setState(uint32_t state);
  /// Frees the head records of processes that have ended, drops their replies, and puts lists and
  /// counts right that a killed process has left half changed.  Returns the records freed.
  unsigned reclaimDeparted();

  /// Frees the head records whose owners neither wait nor have replies: threads keep theirs to the
  /// end of their process, and claim another one when they call again.  Returns the records freed.
  unsigned reclaimIdle();

  /// Items that hold a reply now.
  unsigned usedItems() const;
  /// Head records that belong to a requester now.
  unsigned headsInUse() const;
  /// Whether a new requester may find no head record.
  bool isCrowded() const { return headsInUse() >= capacity_; }
  uint16_t capacity() const { return capacity_; }

 private:
  using Item = TIPCReplyItem<TArmReplyMessage>;

  bool createSet();
  void layOut();
  TIPCHeadItem* head(unsigned index) const;
  uint32_t itemOffset(unsigned index) const;
  Item* itemAt(uint32_t offset) const;
  uint32_t takeFreeItem();
  enum class To { anybody, anybody_unless_crowded, waiting };
  Delivery putOrRepair(To whom, const TIPCIdentifier& to, const TArmReplyMessage& reply);
  Delivery putLocked(To whom, const TIPCIdentifier& to, const TArmReplyMessage& reply);
  TIPCHeadItem* headFor(To whom, const TIPCIdentifier& owner);
  bool append(TIPCHeadItem& head, uint32_t offset);
  unsigned reclaimLocked();
  template <typename Condition>
  unsigned releaseAll(Condition condition);
  bool hasDeparted(const TIPCHeadItem& head) const;
  bool isIdle(const TIPCHeadItem& head) const;
  void release(TIPCHeadItem& head);
  void rebuildLists();
  void keepList(TIPCHeadItem& head, std::vector<bool>* linked);
  void setSemaphore(unsigned short semaphore, int value);
  bool raise(unsigned short semaphore);

  uint16_t capacity_;
  /// The reader's view of the same queue, for the operations that both sides share.  It takes the
  /// lock when it goes, so that the segment, declared after it, goes first with its lock.
  std::unique_ptr<CIPCQueue<TArmReplyMessage>> view_;
  CkesSharedMemory memory_;
  int set_ = -1;
};

}  // namespace armengine
