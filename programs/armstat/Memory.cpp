#include "armstat/Memory.h"

#include <sys/sem.h>
#include <sys/shm.h>
#include <time.h>

#include <cerrno>
#include <cstring>

#include "arm/TArmMessage.h"
#include "arm/TArmReplyMessage.h"
#include "ipc/EngineObjects.h"
#include "platform/sharedword.h"

namespace armstat {

namespace {

using Words = std::vector<uint32_t>;

constexpr std::size_t WORD = sizeof(uint32_t);
constexpr unsigned ATTEMPTS = 50;
constexpr timespec LOCK_PATIENCE = {1, 0};

constexpr std::size_t LINK_AT = offsetof(TIPCReplyItem<TArmReplyMessage>, next);

/// A segment attached for reading.
class Attached {
 public:
  explicit Attached(const Segment& segment)
      : address_(segment.exists() ? shmat(segment.id, nullptr, SHM_RDONLY) : failed()) {}
  ~Attached() {
    if (*this) (void)shmdt(address_);
  }
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;

  explicit operator bool() const { return address_ != failed(); }

  /// Appends words to a copy, each read once.
  ///   offset  in bytes, a multiple of 4
  void append(std::size_t offset, std::size_t count, Words* copy) const {
    const auto* words = static_cast<const uint32_t*>(address_) + offset / WORD;
    for (std::size_t i = 0; i < count; ++i) copy->push_back(loadShared(words[i]));
  }

 private:
  static void* failed() { return reinterpret_cast<void*>(-1); }

  void* address_;
};

/// Holds a segment's lock; it falls back when the process dies.
class LockHeld {
 public:
  explicit LockHeld(const SemaphoreSet& set) : set_(set.fits() ? set.id : -1) {
    sembuf take[] = {{LOCK_SET_LOCK, 0, 0}, {LOCK_SET_LOCK, 1, SEM_UNDO}};
    while (set_ != -1 && semtimedop(set_, take, 2, &LOCK_PATIENCE) != 0) {
      if (errno != EINTR) set_ = -1;
    }
  }
  ~LockHeld() {
    sembuf give = {LOCK_SET_LOCK, -1, IPC_NOWAIT | SEM_UNDO};
    if (*this) (void)semop(set_, &give, 1);
  }
  LockHeld(const LockHeld&) = delete;
  LockHeld& operator=(const LockHeld&) = delete;

  explicit operator bool() const { return set_ != -1; }

 private:
  int set_;
};

template <typename Read>
Words copyUnder(const SemaphoreSet& lock, Manner manner, Read read, Copy* how) {
  if (manner == Manner::with_lock) {
    const LockHeld held(lock);
    if (held) {
      *how = Copy::locked;
      return read();
    }
  }
  // One copy right after the other: the shorter the time, the likelier that nothing changes.
  Words copy = read();
  for (unsigned i = 0; i < ATTEMPTS; ++i) {
    Words again = read();
    *how = again == copy ? Copy::steady : Copy::torn;
    if (*how == Copy::steady) return again;
    copy = std::move(again);
  }
  return copy;
}

template <typename T>
void unpack(const Words& words, std::size_t* at, T* value) {
  std::memcpy(value, words.data() + *at, sizeof *value);
  *at += sizeof *value / WORD;
}

/// Where an item begins.
std::size_t itemOffset(uint16_t capacity, unsigned number) {
  return replyItemOffset<TArmReplyMessage>(capacity, number);
}

}  // namespace

RequestQueue copyRequests(const Objects& objects, Manner manner) {
  RequestQueue queue;
  const Attached memory(objects.requests);
  if (!memory || objects.requests.size < sizeof queue.header) return queue;
  queue.capacity = requestQueueCapacity(objects.requests.size, sizeof(TArmMessage));
  const auto read = [&memory] {
    Words words;
    memory.append(0, sizeof(TRequestQueueHeader) / WORD, &words);
    return words;
  };
  const Words words = copyUnder(objects.request_lock, manner, read, &queue.copy);
  std::size_t at = 0;
  unpack(words, &at, &queue.header);
  return queue;
}

ReplyQueue copyReplies(const Objects& objects, Manner manner) {
  ReplyQueue queue;
  const Attached memory(objects.replies);
  if (!memory || objects.replies.size < sizeof queue.header) return queue;
  queue.capacity = replyQueueCapacity(objects.replies.size, sizeof(TArmReplyMessage));
  const uint16_t capacity = queue.capacity;
  const auto read = [&memory, capacity] {
    Words words;
    words.reserve(itemOffset(capacity, 0) / WORD + capacity);
    memory.append(0, itemOffset(capacity, 0) / WORD, &words);
    for (unsigned i = 0; i < capacity; ++i) {
      memory.append(itemOffset(capacity, i) + LINK_AT, 1, &words);
    }
    return words;
  };
  const Words words = copyUnder(objects.reply_lock, manner, read, &queue.copy);
  std::size_t at = 0;
  unpack(words, &at, &queue.header);
  queue.heads.resize(capacity);
  for (TIPCHeadItem& head : queue.heads) unpack(words, &at, &head);
  queue.links.assign(words.begin() + static_cast<std::ptrdiff_t>(at), words.end());
  return queue;
}

Chain follow(const ReplyQueue& queue, uint32_t first) {
  Chain chain;
  for (uint32_t offset = first; offset != 0;) {
    const uint32_t number = replyItemNumber<TArmReplyMessage>(queue.capacity, offset);
    chain.sound = number < queue.links.size() && chain.length < queue.capacity;
    if (!chain.sound) return chain;
    ++chain.length;
    offset = queue.links[number];
  }
  return chain;
}

}  // namespace armstat
