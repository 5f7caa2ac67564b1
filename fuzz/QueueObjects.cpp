#include "QueueObjects.h"

#include <cstring>
#include <string>

#include "Check.h"

namespace {

// Numbers of the contract, not the library's own.
constexpr std::size_t REPLY_HEADER = 12;
constexpr std::size_t HEAD = 16;
constexpr std::size_t ITEM = 532;
constexpr std::size_t REQUEST_HEADER = 28;
constexpr std::size_t SLOT = 4116;
/// One more element than a 16-bit capacity counts.
constexpr std::size_t TOO_MANY = 65536;

template <typename T>
std::string bytesOf(const T& value) {
  return std::string(reinterpret_cast<const char*>(&value), sizeof value);
}

/// A few elements, with up to three bytes more; sometimes hardly anything, or too many.
std::size_t segmentSize(Input& input, std::size_t header, std::size_t element, std::size_t most) {
  const uint8_t kind = input.byte();
  if (kind < 0xe0) return header + (1 + kind % most) * element + kind / 64U;
  if (kind < 0xff || sizeof(void*) == 4) return 1 + input.half() % (2 * element);
  return header + TOO_MANY * element + input.half();
}

void makeLockSet(HostileQueue& queue, const std::string& path, Input& input) {
  const uint8_t creator = input.byte();
  const auto alive = static_cast<uint16_t>(creator < 0xf0 ? 2 : creator);
  queue.makeSet(path, 1, creator == 0xff ? 1 : 2, {0, alive});
}

std::size_t capacityOf(const HostileQueue& queue) {
  return queue.size() < REPLY_HEADER ? 0 : (queue.size() - REPLY_HEADER) / (HEAD + ITEM);
}

void layOut(HostileQueue& queue) {
  const std::size_t capacity = capacityOf(queue);
  if (capacity > 0 && capacity <= 16) armtest::layReplies(queue.memory(), capacity);
}

/// Gives the first head record its owner, the first item as a reply, and a raised semaphore.
void putReply(HostileQueue& queue) {
  const std::size_t capacity = capacityOf(queue);
  if (capacity == 0 || capacity > 16) return;
  const std::size_t item = REPLY_HEADER + capacity * HEAD;
  const std::size_t second = capacity > 1 ? item + ITEM : 0;
  queue.write(0, bytesOf(uint16_t{1}) + bytesOf(uint16_t{1}));
  queue.write(4, bytesOf(static_cast<uint32_t>(second)));
  queue.write(REPLY_HEADER + 4, bytesOf(REQUESTER));
  queue.write(REPLY_HEADER + 12, bytesOf(static_cast<uint32_t>(item)));
  queue.write(item, bytesOf(int32_t{42}));
  queue.write(item + 528, bytesOf(uint32_t{0}));
  queue.setValue(REPLY_WAKE, 2, 1);
}

}  // namespace

void buildReplyQueue(HostileQueue& queue, Input& input) {
  queue.makeSegment(REPLY_NAME, segmentSize(input, REPLY_HEADER, HEAD + ITEM, 8));
  makeLockSet(queue, REPLY_NAME, input);
  const uint8_t semaphores = input.byte();
  queue.makeSet(REPLY_NAME, 3, semaphores < 0xe0 ? 10 : 1 + semaphores % 32, {1, 0});
  const uint8_t start = input.byte();
  if (start < 0xe0) layOut(queue);
  if (start < 0x80) putReply(queue);
  queue.write(0, input.bytes(input.byte()));
  for (uint32_t patches = input.below(4); patches > 0; --patches) {
    const std::size_t offset = input.below(static_cast<uint32_t>(queue.size()));
    queue.write(offset, input.bytes(1 + input.below(8)));
  }
}

void buildRequestQueue(HostileQueue& queue, Input& input) {
  const std::string name = REQUEST_NAME;
  queue.makeSegment(name + "_mem", segmentSize(input, REQUEST_HEADER, SLOT, 4));
  makeLockSet(queue, name + "_mem", input);
  for (const char* suffix : {"_ovr", "_emp"}) {
    const uint8_t kind = input.byte();
    const auto count = static_cast<uint16_t>(kind < 0xf8 ? kind % 4 : edgeValue(input));
    const auto lock = static_cast<uint16_t>(kind < 0xf0 ? 0 : 1);
    const auto maximum = static_cast<uint16_t>(kind < 0xc0 ? 32766 : edgeValue(input));
    queue.makeSet(name + suffix, 1, kind == 0xff ? 2 : 3, {count, lock, maximum});
  }
  queue.write(0, input.bytes(input.byte()));
}
