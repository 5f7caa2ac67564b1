#pragma once

#include <cstddef>
#include <cstdint>

#include "arm/TArmReplyMessage.h"

/// Header of the reply queue's segment; n head records and n items follow it.  Every field is read
/// and written under the segment's lock, but for the state, which is also read without it.  All
/// links are offsets from the start of the segment, since each process maps it at an address of its
/// own.
///
/// | offset   | size    | field         | meaning                                              |
/// |----------|---------|---------------|------------------------------------------------------|
/// | 0        | 2       | used_items    | items that now hold a reply                          |
/// | 2        | 2       | heads_in_use  | head records that belong to a requester              |
/// | 4        | 4       | free_list     | first free item, 0 when none                         |
/// | 8        | 4       | state         | 0 running; other values end waits that find nothing  |
/// | 12       | n x 16  | head records  | TIPCHeadItem                                         |
/// | 12 + 16n | n x 532 | items         | TIPCReplyItem                                        |
struct TReplyQueueHeader {
  uint16_t used_items;
  uint16_t heads_in_use;
  uint32_t free_list;
  uint32_t state;
};

static_assert(sizeof(TReplyQueueHeader) == 12);
static_assert(offsetof(TReplyQueueHeader, used_items) == 0);
static_assert(offsetof(TReplyQueueHeader, heads_in_use) == 2);
static_assert(offsetof(TReplyQueueHeader, free_list) == 4);
static_assert(offsetof(TReplyQueueHeader, state) == 8);

/// Status of a head record.
inline constexpr uint8_t HEAD_IDLE = 0;
inline constexpr uint8_t HEAD_WAITING = 1;    ///< its owner waits, or has been killed while waiting
inline constexpr uint8_t HEAD_INDEXED = 2;    ///< open for reading by index
inline constexpr uint8_t HEAD_CANCELLED = 3;  ///< the engine has cancelled the wait

/// Head record, one per requester.
///
/// | offset | size | field       | meaning                                                       |
/// |--------|------|-------------|---------------------------------------------------------------|
/// | 0      | 1    | status      | HEAD_IDLE to HEAD_CANCELLED                                   |
/// | 1      | 1    | padding     |                                                               |
/// | 2      | 2    | semaphore   | number in the queue's set, 2 to n + 1, assigned by the engine |
/// | 4      | 4    | process_id  | owner, first word; -1 when free                               |
/// | 8      | 4    | thread_id   | owner, second word; all ones when free                        |
/// | 12     | 4    | first_reply | first item of the owner's list, 0 when empty                  |
struct _TIPCHeadItem {
  uint8_t status;
  uint8_t padding;
  uint16_t semaphore;
  int32_t process_id;
  uint32_t thread_id;
  uint32_t first_reply;
};

static_assert(sizeof(_TIPCHeadItem) == 16);
static_assert(offsetof(_TIPCHeadItem, status) == 0);
static_assert(offsetof(_TIPCHeadItem, padding) == 1);
static_assert(offsetof(_TIPCHeadItem, semaphore) == 2);
static_assert(offsetof(_TIPCHeadItem, process_id) == 4);
static_assert(offsetof(_TIPCHeadItem, thread_id) == 8);
static_assert(offsetof(_TIPCHeadItem, first_reply) == 12);

using TIPCHeadItem = _TIPCHeadItem;

/// One reply in a list.
///
/// | offset | size | field  | meaning                                          |
/// |--------|------|--------|--------------------------------------------------|
/// | 0      | 528  | record | the reply, copied whole                          |
/// | 528    | 4    | next   | offset of the next item of the list, 0 at its end |
template <typename T>
struct TIPCReplyItem {
  T record;
  uint32_t next;
};

static_assert(sizeof(TIPCReplyItem<TArmReplyMessage>) == 532);
static_assert(offsetof(TIPCReplyItem<TArmReplyMessage>, record) == 0);
static_assert(offsetof(TIPCReplyItem<TArmReplyMessage>, next) == 528);

/// Head records (and items) of a segment of the given size: rounded down and kept as 16 bits; 0
/// when the segment is smaller than its header.
constexpr uint16_t replyQueueCapacity(unsigned long segmentSize, std::size_t recordSize) {
  if (segmentSize < sizeof(TReplyQueueHeader)) return 0;
  return static_cast<uint16_t>((segmentSize - sizeof(TReplyQueueHeader)) /
                               (sizeof(TIPCHeadItem) + recordSize + sizeof(uint32_t)));
}

/// Where an item begins in a segment with that many head records; behind the last one, the size of
/// such a segment.
template <typename T>
constexpr uint32_t replyItemOffset(uint16_t capacity, unsigned number) {
  return static_cast<uint32_t>(sizeof(TReplyQueueHeader) + capacity * sizeof(TIPCHeadItem) +
                               number * sizeof(TIPCReplyItem<T>));
}

/// The number of the item that begins at an offset; the capacity, no item's number, when none does.
template <typename T>
constexpr uint32_t replyItemNumber(uint16_t capacity, uint32_t offset) {
  const uint32_t first = replyItemOffset<T>(capacity, 0);
  if (offset < first || (offset - first) % sizeof(TIPCReplyItem<T>) != 0) return capacity;
  const auto number = static_cast<uint32_t>((offset - first) / sizeof(TIPCReplyItem<T>));
  return number < capacity ? number : capacity;
}

/// The size of a segment with that many head records and items.
template <typename T>
constexpr unsigned long replyQueueSize(uint16_t capacity) {
  return replyItemOffset<T>(capacity, capacity);
}
