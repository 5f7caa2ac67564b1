#pragma once

#include <cstddef>
#include <cstdint>

#include "ipc/CIPCUtils.h"
#include "ipc/CWakeSet.h"
#include "ipc/EngineObjects.h"
#include "ipc/ReplyQueueLayout.h"
#include "ipc/headhint.h"
#include "platform/sharedword.h"

/// The reply queue's segment, as both of its ends see it: a header, head records, and items that
/// hold replies of type T (ReplyQueueLayout.h).  Where things lie is worked out here and in the
/// layout, and nowhere else.
///
/// Every process of the machine may write to the segment: what is read there is an offset only once
/// Item or BytesAt has found it possible.
template <typename T>
class CReplySegment {
 public:
  using TItem = TIPCReplyItem<T>;

  static constexpr long ERR_GETNCNT = -279;
  static constexpr long ERR_WAKE_WRITER = -280;
  static constexpr long ERR_WAKE_READER = -281;

  /// No segment.
  CReplySegment() = default;
  /// The segment of the given size at an address; none when it is smaller than its header.
  CReplySegment(void* address, unsigned long size)
      : VStart(size >= sizeof(TReplyQueueHeader) ? static_cast<uint8_t*>(address) : nullptr),
        VSize(size),
        VCapacity(replyQueueCapacity(size, sizeof(T))) {}

  explicit operator bool() const { return VStart != nullptr; }
  /// Head records, and as many items.
  uint16_t Capacity() const { return VCapacity; }
  TReplyQueueHeader* operator->() const { return reinterpret_cast<TReplyQueueHeader*>(VStart); }
  TIPCHeadItem& Head(unsigned number) const { return begin()[number]; }
  // The head records, for a range.
  TIPCHeadItem* begin() const {
    return reinterpret_cast<TIPCHeadItem*>(VStart + sizeof(TReplyQueueHeader));
  }
  TIPCHeadItem* end() const { return begin() + VCapacity; }

  uint32_t ItemOffset(unsigned number) const { return replyItemOffset<T>(VCapacity, number); }
  TItem& NthItem(unsigned number) const {
    return *reinterpret_cast<TItem*>(VStart + ItemOffset(number));
  }
  /// The item that begins at an offset of this layout, null when none does.
  TItem* Item(uint32_t offset) const {
    const uint32_t number = replyItemNumber<T>(VCapacity, offset);
    return number < VCapacity ? &NthItem(number) : nullptr;
  }
  /// The bytes of the item at an offset, null when it would not lie in the segment, behind the
  /// header.  For readers: where items begin is the engine's affair, whose layout may be smaller
  /// than the segment, which it may have found.
  uint8_t* BytesAt(uint32_t offset) const {
    if (offset < sizeof(TReplyQueueHeader) || offset > VSize || VSize - offset < sizeof(TItem)) {
      return nullptr;
    }
    return VStart + offset;
  }

  static _TIPCIdentifier OwnerOf(const TIPCHeadItem& head) {
    return {loadShared(head.process_id), loadShared(head.thread_id)};
  }
  /// The record that carries an identifier, null when none does.  Looked for first where the
  /// calling thread found its own before: identifiers are unique among the records, so the scan
  /// would end there.
  TIPCHeadItem* FindOwned(_TIPCIdentifier id) const;
  /// A record for an identifier that has none: a free one, or one that is idle, empty and not
  /// waited on, which its old owner loses.  Null when there is none.
  TIPCHeadItem* Claim(_TIPCIdentifier id, const CWakeSet& wake) const;

  /// Wakes the waiting writer and every waiting reader; ERR_GETNCNT, ERR_WAKE_WRITER,
  /// ERR_WAKE_READER.
  long WakeAll(const CWakeSet& wake) const;

 private:
  TIPCHeadItem* claimFree() const;
  TIPCHeadItem* takeOver(const CWakeSet& wake) const;

  uint8_t* VStart = nullptr;
  unsigned long VSize = 0;
  uint16_t VCapacity = 0;
};

template <typename T>
TIPCHeadItem* CReplySegment<T>::FindOwned(_TIPCIdentifier id) const {
  uint16_t& hint = headHint();
  if (hint < VCapacity && CIPCUtils::sameIPCIdentifiers(OwnerOf(Head(hint)), id)) {
    return &Head(hint);
  }
  for (uint16_t i = 0; i < VCapacity; ++i) {
    if (!CIPCUtils::sameIPCIdentifiers(OwnerOf(Head(i)), id)) continue;
    hint = i;
    return &Head(i);
  }
  return nullptr;
}

template <typename T>
TIPCHeadItem* CReplySegment<T>::Claim(_TIPCIdentifier id, const CWakeSet& wake) const {
  TIPCHeadItem* head = loadShared((*this)->heads_in_use) < VCapacity ? claimFree() : takeOver(wake);
  if (head == nullptr) return nullptr;
  storeShared(head->first_reply, 0U);
  storeShared(head->status, HEAD_IDLE);
  storeShared(head->process_id, id.processId);
  storeShared(head->thread_id, id.threadId);
  return head;
}

/// The first free record.  Deliberate (trusted-counter): the counter is trusted; when it says that
/// a record is free and none is, the scan stops at the last one, which is claimed without being
/// counted.
template <typename T>
TIPCHeadItem* CReplySegment<T>::claimFree() const {
  for (TIPCHeadItem* head = begin();; ++head) {
    if (CIPCUtils::sameIPCIdentifiers(OwnerOf(*head), NULL_IPC_ID)) {
      const uint16_t inUse = loadShared((*this)->heads_in_use);
      storeShared((*this)->heads_in_use, static_cast<uint16_t>(inUse + 1U));
      return head;
    }
    if (head == end() - 1) return head;
  }
}

template <typename T>
TIPCHeadItem* CReplySegment<T>::takeOver(const CWakeSet& wake) const {
  for (TIPCHeadItem& head : *this) {
    if (loadShared(head.first_reply) != 0 || loadShared(head.status) != HEAD_IDLE) continue;
    if (wake.Waiters(loadShared(head.semaphore)) == 0) return &head;
  }
  return nullptr;
}

template <typename T>
long CReplySegment<T>::WakeAll(const CWakeSet& wake) const {
  const int writers = wake.Waiters(WAKE_SET_ROOM);
  if (writers < 0) return ERR_GETNCNT;
  if (writers > 0 && !wake.Raise(WAKE_SET_ROOM, writers)) return ERR_WAKE_WRITER;
  for (const TIPCHeadItem& head : *this) {
    const uint16_t semaphore = loadShared(head.semaphore);
    const int readers = wake.Waiters(semaphore);
    if (readers < 0) return ERR_GETNCNT;
    if (readers > 0 && !wake.Raise(semaphore, readers)) return ERR_WAKE_READER;
  }
  return 0;
}
