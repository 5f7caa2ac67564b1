#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// The bytes of docs/contract.md, written down a second time on purpose: an engine is compared with
/// the document, not with the structures of the library.
namespace armcontract::wire {

// Section 1: names and keys.
inline constexpr int LOCK_PROJECT = 1;  ///< lock sets and counting semaphores
inline constexpr int SEGMENT_PROJECT = 2;
inline constexpr int WAKE_PROJECT = 3;
inline constexpr uint32_t NOBODY = 0xFFFFFFFF;

// Section 2: lock sets.
inline constexpr int LOCK = 0;
inline constexpr int CREATOR = 1;

// Section 3: counting semaphores.
inline constexpr int COUNT = 0;
inline constexpr int PRIVATE_LOCK = 1;
inline constexpr int MAXIMUM = 2;

// Section 4: the request queue.
inline constexpr size_t RING_COUNT = 0;
inline constexpr size_t RING_HEAD = 2;
inline constexpr size_t RING_TAIL = 4;
inline constexpr size_t RING_STATE = 8;
inline constexpr size_t RING_WRITERS = 12;
inline constexpr size_t RING_VERSION = 20;
inline constexpr size_t RING_READY = 24;
inline constexpr size_t RING_SLOTS = 28;
inline constexpr size_t REQUEST_SIZE = 4116;
inline constexpr uint32_t VERSION = 50300;

// Section 5: the reply queue.
inline constexpr size_t REPLY_USED = 0;
inline constexpr size_t REPLY_HEADS = 2;
inline constexpr size_t REPLY_FREE = 4;
inline constexpr size_t REPLY_STATE = 8;
inline constexpr size_t REPLY_RECORDS = 12;
inline constexpr size_t HEAD_SIZE = 16;
inline constexpr size_t HEAD_STATUS = 0;
inline constexpr size_t HEAD_SEMAPHORE = 2;
inline constexpr size_t HEAD_PROCESS = 4;
inline constexpr size_t HEAD_THREAD = 8;
inline constexpr size_t HEAD_FIRST = 12;
inline constexpr size_t ITEM_SIZE = 532;
inline constexpr size_t ITEM_NEXT = 528;
inline constexpr uint8_t IDLE = 0;
inline constexpr uint8_t WAITING = 1;
inline constexpr uint8_t CANCELLED = 3;
inline constexpr int WAKE_INITIALIZED = 0;
inline constexpr int WAKE_ROOM = 1;
inline constexpr int WAKE_FIRST_HEAD = 2;

// Section 6: records.
inline constexpr size_t REPLY_SIZE = 528;
inline constexpr size_t CORRELATOR_SIZE = 168;
inline constexpr size_t REPLY_FLAG = 4;
inline constexpr size_t REPLY_CORRELATOR = 8;
inline constexpr size_t IGNORE_BYTE = 109;
inline constexpr int32_t IGNORED = 2147483647;
inline constexpr uint8_t HAS_PARENT = 0x80;
inline constexpr uint8_t WANTS_CORRELATOR = 0x40;

enum Type : int32_t {
  INIT = 1,
  GETID = 2,
  START = 3,
  UPDATE = 4,
  STOP = 5,
  END = 6,
  UNKNOWN = 7,
  COMPLETE = 15,
  REPORT = 16,
  INSTANCE_REPORT = 17,
  COMPLETE_INSTANCE = 18,
  METRIC_DATA = 19
};

/// Bytes of a record of fixed size, with its words.
template <size_t Size>
struct Bytes : std::array<uint8_t, Size> {
  void put32(size_t offset, int32_t value) { std::memcpy(this->data() + offset, &value, 4); }
  void putText(size_t offset, std::string_view text) {
    std::memcpy(this->data() + offset, text.data(), text.size());
  }
  int32_t word(size_t offset) const {
    int32_t value = 0;
    std::memcpy(&value, this->data() + offset, 4);
    return value;
  }
};

using Request = Bytes<REQUEST_SIZE>;
using Reply = Bytes<REPLY_SIZE>;

}  // namespace armcontract::wire
