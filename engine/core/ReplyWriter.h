#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "arm/TArmReplyMessage.h"
#include "core/ReplyLists.h"
#include "ipc/CReplySegment.h"
#include "ipc/CWakeSet.h"
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

/// A reply on its way, for those that are put together.
struct Outgoing {
  TIPCIdentifier to;
  TArmReplyMessage reply;
  Delivery delivery;  ///< filled in when it has been put
};

/// The writer's end of the reply queue, and its creator: it owns the segment and the semaphore set;
/// when it goes, it sets state 2, wakes every waiter and removes both.  It never waits for room: a
/// requester has one reply at most, so a queue without room is one whose replies belong to the
/// departed, and those are dropped.  Any thread.
///
/// Requesters are woken after the segment has been unlocked, so that they find it free.  No wake-up
/// is lost by that: each linked reply is followed by one raise, by the thread that has linked it,
/// before it does anything else; a requester takes a reply only after it has lowered its semaphore,
/// so the units that have come or are under way are never fewer than the replies in its list.
/// A raise that comes late, for a record that has been given to somebody else meanwhile, finds a
/// requester that looks at its empty list and waits on.
class ReplyWriter {
 public:
  /// Creates the queue for the given number of requesters.
  explicit ReplyWriter(uint16_t requesters);
  ~ReplyWriter();
  ReplyWriter(const ReplyWriter&) = delete;
  ReplyWriter& operator=(const ReplyWriter&) = delete;

  bool isInitialized() const { return static_cast<bool>(segment_); }

  /// Links each reply to the end of its requester's list, in their order, and wakes the requesters:
  /// under one lock, and with one operation.  Claims a head record for one that has none yet, but
  /// gives no_head to any requester while all records are in use: its call may have failed for want
  /// of one, and its next call would take the reply for its own.
  void putAllUnlessCrowded(Outgoing* replies, std::size_t count);
  /// The same for one reply, whatever the crowd, but only for a requester that waits.
  Delivery putToWaiting(const TIPCIdentifier& to, const TArmReplyMessage& reply);
  /// Whether a requester waits for a reply.
  bool isWaiting(const TIPCIdentifier& requester);
  /// Writes the state; 1 and 2 also wake every waiter.
  void setState(uint32_t state);
  /// Frees the head records of processes that have ended, drops their replies, and puts lists and
  /// counts right that disagree, as a process killed in the middle of a change leaves them.
  /// Returns the records freed.
  unsigned reclaimDeparted();

  /// Frees the head records whose owners neither wait nor have replies: threads keep theirs to the
  /// end of their process, and claim another one when they call again.  Returns the records freed.
  unsigned reclaimIdle();

  /// The semaphore set whose semaphore 0 is the segment's lock.
  int lockSet() const { return memory_.GetSetId(); }
  /// Items that hold a reply now.
  unsigned usedItems() const { return lists_.usedItems(); }
  /// Head records that belong to a requester now.
  unsigned headsInUse() const { return lists_.headsInUse(); }
  /// Whether a new requester may find no head record.
  bool isCrowded() const { return headsInUse() >= capacity(); }
  uint16_t capacity() const { return segment_.Capacity(); }

 private:
  using Semaphores = std::vector<unsigned short>;
  enum class To { anybody, waiting };

  bool createSet(uint16_t requesters);
  void putAll(To whom, Outgoing* replies, std::size_t count);
  Delivery putOrRepair(To whom, const Outgoing& reply, Semaphores* due);
  Delivery putLocked(To whom, const Outgoing& reply, Semaphores* due);
  TIPCHeadItem* headFor(To whom, const TIPCIdentifier& owner);
  unsigned reclaim(unsigned (ReplyLists::*release)());
  void raiseAll(const Semaphores& semaphores);

  CkesSharedMemory memory_;
  CWakeSet wake_{-1};
  CReplySegment<TArmReplyMessage> segment_;
  ReplyLists lists_;
};

}  // namespace armengine
