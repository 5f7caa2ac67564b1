#include "kill_queues.h"

#include <gtest/gtest.h>
#include <sys/sem.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "ipcobjects.h"
#include "process.h"
#include "watchdog.h"

namespace armtest {

namespace {

constexpr size_t RECORD = 4116;
constexpr size_t REQUEST_HEADER = 28;
constexpr size_t REPLY_HEADER = 12;
constexpr size_t HEAD = 16;
constexpr size_t ITEM = 532;
constexpr size_t LINK = 528;

/// A segment whose lock is held for the life of the object.
class Locked {
 public:
  explicit Locked(const std::string& path)
      : set_(setAt(path, 1)), memory_(path), size_(segmentSize(segmentAt(path))) {
    sembuf lock[] = {{0, 0, 0}, {0, 1, SEM_UNDO}};
    const timespec limit = {static_cast<time_t>(secondsPerTest() / 2), 0};
    int result = -1;
    do {
      result = semtimedop(set_, lock, 2, &limit);
    } while (result != 0 && errno == EINTR);
    held_ = result == 0;
    EXPECT_TRUE(held_) << "the lock of " << path << " does not come free";
  }
  ~Locked() {
    sembuf unlock = {0, -1, IPC_NOWAIT | SEM_UNDO};
    if (held_) (void)semop(set_, &unlock, 1);
  }
  Locked(const Locked&) = delete;
  Locked& operator=(const Locked&) = delete;

  size_t size() const { return size_; }
  template <typename T>
  T read(size_t offset) const {
    return memory_.read<T>(offset);
  }
  std::string bytes(size_t offset, size_t length) const {
    return {static_cast<const char*>(memory_.address()) + offset, length};
  }

 private:
  int set_;
  Attached memory_;
  size_t size_;
  bool held_ = false;
};

int32_t wordOf(const std::string& bytes, size_t offset) {
  int32_t word = 0;
  std::memcpy(&word, bytes.data() + offset, sizeof word);
  return word;
}

bool isRequestType(int32_t type) {
  return (type >= 1 && type <= 6) || (type >= 15 && type <= 19);
}

/// Follows a list and marks its items; the number of items, with a failed test when one is no item
/// or in another list already.
unsigned follow(const Locked& queue, uint32_t offset, size_t first, std::vector<bool>& seen) {
  unsigned count = 0;
  for (; offset != 0; offset = queue.read<uint32_t>(offset + LINK), ++count) {
    const size_t index = (offset - first) / ITEM;
    const bool good = offset >= first && (offset - first) % ITEM == 0 && index < seen.size();
    if (!good || seen[index]) {
      ADD_FAILURE() << "offset " << offset << (good ? " is in two lists" : " is no item");
      return count;
    }
    seen[index] = true;
  }
  return count;
}

void expectSoundReplies() {
  const Locked queue(controlPath("ea.kelp"));
  const size_t capacity = (queue.size() - REPLY_HEADER) / (HEAD + ITEM);
  const size_t first = REPLY_HEADER + capacity * HEAD;
  std::vector<bool> seen(capacity, false);
  unsigned used = 0;
  unsigned owned = 0;
  for (size_t i = 0; i < capacity; ++i) {
    const size_t head = REPLY_HEADER + i * HEAD;
    if (queue.read<int32_t>(head + 4) != -1) ++owned;
    EXPECT_LE(queue.read<uint8_t>(head), 3U) << "status of record " << i;
    used += follow(queue, queue.read<uint32_t>(head + 12), first, seen);
  }
  EXPECT_EQ(used, queue.read<uint16_t>(0)) << "items in use";
  EXPECT_EQ(owned, queue.read<uint16_t>(2)) << "head records in use";
  EXPECT_EQ(capacity - used, follow(queue, queue.read<uint32_t>(4), first, seen)) << "free items";
}

}  // namespace

std::vector<std::string> requestRecords() {
  const Locked queue(controlPath("ae.kelp_mem"));
  const size_t capacity = (queue.size() - REQUEST_HEADER) / RECORD;
  const size_t count = queue.read<uint16_t>(0);
  const size_t head = queue.read<uint16_t>(2);
  const size_t tail = queue.read<uint16_t>(4);
  const bool sound = count <= capacity && head < capacity && tail == (head + count) % capacity;
  EXPECT_TRUE(sound) << "count " << count << ", head " << head << ", tail " << tail;
  std::vector<std::string> records;
  for (size_t i = 0; sound && i < count; ++i) {
    records.push_back(queue.bytes(REQUEST_HEADER + (head + i) % capacity * RECORD, RECORD));
  }
  return records;
}

void expectSoundQueues() {
  for (const std::string& record : requestRecords()) {
    EXPECT_GT(wordOf(record, 0), 0);
    EXPECT_TRUE(isRequestType(wordOf(record, 8))) << wordOf(record, 8);
  }
  expectSoundReplies();
  for (const char* name : {"ae.kelp_emp", "ae.kelp_ovr"}) {
    const int set = setAt(controlPath(name), 1);
    EXPECT_TRUE(waitUntil([&] { return semaphoreValue(set, 1) == 0; }))
        << "the private lock of " << name << " does not come free";
  }
}

}  // namespace armtest
