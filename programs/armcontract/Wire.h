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
inline constexpr char REQUEST_FILES[] = "/var/kelp/controls_ae.kelp";
inline constexpr char REPLY_FILE[] = "/var/kelp/controls_ea.kelp";
inline constexpr char OVERFLOW_ENDING[] = "_ovr";
inline constexpr char EMPTY_ENDING[] = "_emp";
inline constexpr char MEMORY_ENDING[] = "_mem";
inline constexpr std::size_t LARGEST_PREFIX = 4095;
inline constexpr std::size_t SEMAPHORE_PATH = 127;  ///< where paths are cut
inline constexpr std::size_t SEGMENT_PATH = 124;
inline constexpr int LOCK_PROJECT = 1;  ///< lock sets and counting semaphores
inline constexpr int SEGMENT_PROJECT = 2;
inline constexpr int WAKE_PROJECT = 3;
inline constexpr uint32_t NOBODY = 0xFFFFFFFF;

// Section 2: lock sets.
inline constexpr unsigned EVERYBODY = 0666;
inline constexpr int LOCK_SET_SIZE = 2;
inline constexpr int LOCK = 0;
inline constexpr int CREATOR = 1;
inline constexpr int CREATOR_LIVES = 2;

// Section 3: counting semaphores.
inline constexpr int COUNTING_SET_SIZE = 3;
inline constexpr int COUNT = 0;
inline constexpr int PRIVATE_LOCK = 1;
inline constexpr int MAXIMUM = 2;
inline constexpr int LARGEST_MAXIMUM = 32766;

// Sections 4 and 5: the states of both queues.
inline constexpr uint32_t RUNNING = 0;
inline constexpr uint32_t STOPPED = 2;

// Section 4: the request queue.
inline constexpr std::size_t RING_COUNT = 0;
inline constexpr std::size_t RING_HEAD = 2;
inline constexpr std::size_t RING_TAIL = 4;
inline constexpr std::size_t RING_STATE = 8;
inline constexpr std::size_t RING_WRITERS = 12;
inline constexpr std::size_t RING_VERSION = 20;
inline constexpr std::size_t RING_READY = 24;
inline constexpr std::size_t RING_SLOTS = 28;
inline constexpr std::size_t REQUEST_SIZE = 4116;
inline constexpr uint32_t VERSION = 50300;

// Section 5: the reply queue.
inline constexpr std::size_t REPLY_USED = 0;
inline constexpr std::size_t REPLY_HEADS = 2;
inline constexpr std::size_t REPLY_FREE = 4;
inline constexpr std::size_t REPLY_STATE = 8;
inline constexpr std::size_t REPLY_RECORDS = 12;
inline constexpr std::size_t HEAD_SIZE = 16;
inline constexpr std::size_t HEAD_STATUS = 0;
inline constexpr std::size_t HEAD_SEMAPHORE = 2;
inline constexpr std::size_t HEAD_PROCESS = 4;
inline constexpr std::size_t HEAD_THREAD = 8;
inline constexpr std::size_t HEAD_FIRST = 12;
inline constexpr std::size_t ITEM_SIZE = 532;
inline constexpr std::size_t ITEM_NEXT = 528;
inline constexpr uint8_t IDLE = 0;
inline constexpr uint8_t WAITING = 1;
inline constexpr uint8_t CANCELLED = 3;
inline constexpr int WAKE_INITIALIZED = 0;
inline constexpr int WAKE_ROOM = 1;
inline constexpr int WAKE_FIRST_HEAD = 2;

// Section 6: requests.
inline constexpr std::size_t SENDER_PROCESS = 0;
inline constexpr std::size_t SENDER_THREAD = 4;
inline constexpr std::size_t TYPE = 8;
inline constexpr std::size_t BODY = 12;
inline constexpr std::size_t ID = BODY;  ///< application, class or handle, in all but type 1
inline constexpr std::size_t INIT_NAME = BODY;
inline constexpr std::size_t INIT_USER = 140;
inline constexpr std::size_t GETID_NAME = 16;
inline constexpr std::size_t GETID_DETAIL = 3636;
inline constexpr std::size_t START_BLOCK = 20;
inline constexpr std::size_t START_BLOCK_SIZE = 276;
inline constexpr std::size_t START_TIME = 280;
inline constexpr std::size_t METRIC_LENGTH = 16;
inline constexpr std::size_t METRIC_BYTES = 20;

// Section 6: blocks of format 1.
inline constexpr int32_t FORMAT = 1;
inline constexpr int32_t BLOCK_SIZE = 256;
inline constexpr std::size_t BLOCK_FORMAT = 0;
inline constexpr std::size_t BLOCK_FLAGS = 4;
inline constexpr std::size_t BLOCK_CORRELATOR = 88;

// Section 6: replies.
inline constexpr std::size_t RESULT = 0;
inline constexpr std::size_t REPLY_SIZE = 528;
inline constexpr std::size_t CORRELATOR_SIZE = 168;
inline constexpr std::size_t REPLY_FLAG = 4;
inline constexpr std::size_t REPLY_CORRELATOR = 8;
inline constexpr std::size_t IGNORE_BYTE = 109;
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
template <std::size_t Size>
struct Bytes : std::array<uint8_t, Size> {
  void put32(std::size_t offset, int32_t value) { std::memcpy(this->data() + offset, &value, 4); }
  void putText(std::size_t offset, std::string_view text) {
    std::memcpy(this->data() + offset, text.data(), text.size());
  }
  int32_t word(std::size_t offset) const {
    int32_t value = 0;
    std::memcpy(&value, this->data() + offset, 4);
    return value;
  }
};

using Request = Bytes<REQUEST_SIZE>;
using Reply = Bytes<REPLY_SIZE>;

}  // namespace armcontract::wire
