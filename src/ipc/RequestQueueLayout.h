#pragma once

#include <cstddef>
#include <cstdint>

#include "arm/TArmMessage.h"

/// Header of the request queue's segment; a ring of record slots follows it.  Records and indexes
/// are changed under the segment's lock only.  Without it: an opener writes arm_version and reads
/// the state and ready_for_io, and a writer that waits for room tests count and raises
/// overflow_waiters.
///
/// | offset | size     | field            | meaning                                         |
/// |--------|----------|------------------|-------------------------------------------------|
/// | 0      | 2        | count            | records now in the queue                        |
/// | 2      | 2        | head             | slot of the oldest record, the next to be taken |
/// | 4      | 2        | tail             | slot of the next record                         |
/// | 6      | 2        | padding          |                                                 |
/// | 8      | 4        | state            | 0 running; other values refuse writes           |
/// | 12     | 4        | overflow_waiters | writers blocked because the queue is full       |
/// | 16     | 4        | empty_waiters    | readers blocked because it is empty (engine)    |
/// | 20     | 4        | arm_version      | 50300, written by every opener                  |
/// | 24     | 4        | ready_for_io     | non-zero once the engine reads (engine)         |
/// | 28     | n x 4116 | slots            | the records                                     |
///
/// Who wakes whom: a writer that makes count 1 raises the "_emp" semaphore, on which the engine
/// waits; the engine raises "_ovr" when it makes room in a full queue.
struct TRequestQueueHeader {
  uint16_t count;
  uint16_t head;
  uint16_t tail;
  uint16_t padding;
  uint32_t state;
  uint32_t overflow_waiters;
  uint32_t empty_waiters;
  uint32_t arm_version;
  uint32_t ready_for_io;
};

static_assert(sizeof(TRequestQueueHeader) == 28);
static_assert(offsetof(TRequestQueueHeader, count) == 0);
static_assert(offsetof(TRequestQueueHeader, head) == 2);
static_assert(offsetof(TRequestQueueHeader, tail) == 4);
static_assert(offsetof(TRequestQueueHeader, padding) == 6);
static_assert(offsetof(TRequestQueueHeader, state) == 8);
static_assert(offsetof(TRequestQueueHeader, overflow_waiters) == 12);
static_assert(offsetof(TRequestQueueHeader, empty_waiters) == 16);
static_assert(offsetof(TRequestQueueHeader, arm_version) == 20);
static_assert(offsetof(TRequestQueueHeader, ready_for_io) == 24);

/// The words of the header that say where the records are, which a writer stores as one.
struct alignas(8) TRingPosition {
  uint16_t count;
  uint16_t head;
  uint16_t tail;
  uint16_t padding;
};

static_assert(sizeof(TRingPosition) == 8);
static_assert(offsetof(TRingPosition, count) == offsetof(TRequestQueueHeader, count));
static_assert(offsetof(TRingPosition, head) == offsetof(TRequestQueueHeader, head));
static_assert(offsetof(TRingPosition, tail) == offsetof(TRequestQueueHeader, tail));
static_assert(offsetof(TRingPosition, padding) == offsetof(TRequestQueueHeader, padding));

/// The only value of arm_version that this library accepts.
inline constexpr uint32_t ARM_QUEUE_VERSION = 50300;

/// Queue states; any value but 0 stops the queue, 1 and 2 also wake everybody who waits on it.
inline constexpr uint32_t QUEUE_STATE_RUNNING = 0;
inline constexpr uint32_t QUEUE_STATE_STOPPED = 1;
inline constexpr uint32_t QUEUE_STATE_CLOSED = 2;  ///< what an owner that closes the queue sets

/// Slots of a segment of the given size: rounded down and kept as 16 bits; 0 when the segment is
/// smaller than its header.
constexpr uint16_t requestQueueCapacity(unsigned long segmentSize, std::size_t recordSize) {
  if (segmentSize < sizeof(TRequestQueueHeader)) return 0;
  return static_cast<uint16_t>((segmentSize - sizeof(TRequestQueueHeader)) / recordSize);
}

/// The size of a segment with that many slots.
constexpr unsigned long requestQueueSize(uint16_t slots, std::size_t recordSize) {
  return sizeof(TRequestQueueHeader) + slots * static_cast<unsigned long>(recordSize);
}
