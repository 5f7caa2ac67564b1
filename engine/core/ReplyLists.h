#pragma once

#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

#include "arm/TArmReplyMessage.h"
#include "ipc/CReplySegment.h"
#include "ipc/CWakeSet.h"
#include "ipc/TIPCIdentifier.h"

namespace armengine {

/// The lists of the reply queue, as its writer keeps them: head records with the replies of their
/// owners, and the free items.  Every operation is called with the segment locked, except where it
/// says otherwise.
///
/// Every process may write to the segment, and a client may be killed between two of its steps:
/// nothing found there is trusted, and whatever disagrees is put right.
class ReplyLists {
 public:
  /// What taking an item and linking it can come to.
  enum class Linked { yes, no_item, damaged };

  /// Lists in a segment full of zeros, each head record with its semaphore, every item free.
  void layOut(const CReplySegment<TArmReplyMessage>& segment, const CWakeSet& wake);

  /// A requester's head record; with claim one that has none gets one if there is one left.
  TIPCHeadItem* head(const TIPCIdentifier& owner, bool claim);
  /// The semaphore that wakes the owner of a head record; none when it is impossible.
  std::optional<uint16_t> semaphoreOf(const TIPCHeadItem& head) const;
  /// Links a copy of a reply to the end of a head record's list.
  Linked link(TIPCHeadItem& head, const TArmReplyMessage& reply);

  /// Frees the records whose owners have ended; leaves lists and counts to be put right.  A process
  /// that cannot be seen from here, being in another container, may still wait.
  unsigned releaseDeparted();
  /// The same for records whose owners neither wait nor have replies.
  unsigned releaseIdle();
  /// Chains every item that no requester's list holds into the free list, and counts anew.
  void rebuild();
  /// Whether the counts are those of the records and of the replies in their lists.  A free list
  /// that is damaged shows when an item is taken from it.
  bool agree() const;

  /// Items that hold a reply now.  Also without the lock.
  unsigned usedItems() const;
  /// Head records that belong to a requester now.  Also without the lock.
  unsigned headsInUse() const;

 private:
  using Item = TIPCReplyItem<TArmReplyMessage>;

  TIPCHeadItem* knownHead(const TIPCIdentifier& owner) const;
  void remember(const TIPCIdentifier& owner, TIPCHeadItem* record);
  uint32_t takeFreeItem();
  bool append(TIPCHeadItem& head, uint32_t offset);
  template <typename Condition>
  unsigned releaseAll(Condition condition);
  bool isIdle(const TIPCHeadItem& head) const;
  void release(TIPCHeadItem& head);
  void keepList(TIPCHeadItem& head, std::vector<bool>* linked);

  CReplySegment<TArmReplyMessage> segment_;
  CWakeSet wake_{-1};
  /// Where requesters' head records were: places to look first.
  std::unordered_map<uint64_t, TIPCHeadItem*> places_;
};

}  // namespace armengine
