#pragma once

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "armcontract/Objects.h"
#include "armcontract/Wire.h"

namespace armcontract {

/// A clause does not hold.
struct Broken : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// A clause cannot be looked at: something else that it needs does not work, or does not fit here.
struct Unchecked : std::runtime_error {
  using std::runtime_error::runtime_error;
};

inline void need(bool holds, const std::string& otherwise) {
  if (!holds) throw Broken(otherwise);
}

/// A requester's identifier.
struct Identity {
  uint32_t process;
  uint32_t thread;
};

/// A segment with its lock set.
class LockedSegment {
 public:
  LockedSegment(Segment segment, SemaphoreSet set, Duration patience)
      : memory(std::move(segment)), lock_set(set), patience_(patience) {}

  /// The lock, held while the object lives.  Throws Unchecked when nobody gives it back.
  class Guard {
   public:
    explicit Guard(const LockedSegment& of) : set_(of.lock_set) {
      if (set_.lock(wire::LOCK, of.patience_) != Waited::done) {
        throw Unchecked("a segment's lock is not given back");
      }
    }
    ~Guard() { (void)set_.unlock(wire::LOCK); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

   private:
    SemaphoreSet set_;
  };

  /// Whether the creator lives, as programs see it.
  bool creatorLives() const { return lock_set.value(wire::CREATOR) >= wire::CREATOR_LIVES; }

  Segment memory;
  SemaphoreSet lock_set;

 private:
  Duration patience_;
};

/// The writer's end of a request queue.
class RequestQueue : public LockedSegment {
 public:
  RequestQueue(LockedSegment queue, SemaphoreSet empty_set, SemaphoreSet overflow_set)
      : LockedSegment(std::move(queue)), empty(empty_set), overflow(overflow_set) {}

  unsigned capacity() const;
  unsigned count() const { return memory.u16(wire::RING_COUNT); }
  unsigned head() const { return memory.u16(wire::RING_HEAD); }
  unsigned tail() const { return memory.u16(wire::RING_TAIL); }
  bool isReady() const;

  /// Puts requests as libarm does, all of them behind one taking of the lock.  Throws Unchecked
  /// when they are refused.
  void put(const std::vector<wire::Request>& requests);
  /// Raises the semaphore on which the engine waits.
  void wake() const;

  SemaphoreSet empty;
  SemaphoreSet overflow;
};

/// The reader's end of a reply queue.  What takes an index or an offset is called under the lock.
class ReplyQueue : public LockedSegment {
 public:
  ReplyQueue(LockedSegment queue, SemaphoreSet wake_set)
      : LockedSegment(std::move(queue)), wake(wake_set) {}

  /// n of the contract.
  unsigned capacity() const;
  unsigned usedItems() const { return memory.u16(wire::REPLY_USED); }
  unsigned headsInUse() const { return memory.u16(wire::REPLY_HEADS); }
  uint32_t freeList() const { return memory.u32(wire::REPLY_FREE); }
  uint32_t state() const { return memory.u32(wire::REPLY_STATE); }

  static std::size_t headAt(unsigned head) { return wire::REPLY_RECORDS + wire::HEAD_SIZE * head; }
  uint8_t status(unsigned head) const { return memory.u8(headAt(head) + wire::HEAD_STATUS); }
  uint16_t semaphore(unsigned head) const {
    return memory.u16(headAt(head) + wire::HEAD_SEMAPHORE);
  }
  uint32_t process(unsigned head) const { return memory.u32(headAt(head) + wire::HEAD_PROCESS); }
  uint32_t first(unsigned head) const { return memory.u32(headAt(head) + wire::HEAD_FIRST); }
  bool isFree(unsigned head) const;
  bool isOf(unsigned head, Identity who) const;
  void setStatus(unsigned head, uint8_t status) {
    memory.put8(headAt(head) + wire::HEAD_STATUS, status);
  }

  std::size_t itemAt(unsigned item) const {
    return wire::REPLY_RECORDS + wire::HEAD_SIZE * capacity() + wire::ITEM_SIZE * item;
  }
  bool isItem(uint32_t offset) const;
  uint32_t next(uint32_t item) const { return memory.u32(item + wire::ITEM_NEXT); }

  /// The head record of a requester, as libarm finds it; nothing when it has none.
  std::optional<unsigned> headOf(Identity who) const;
  /// The same, claimed as libarm does when there is none; nothing when none can be had.
  std::optional<unsigned> headFor(Identity who);
  void claim(unsigned head, Identity who);
  /// The free head record that is claimed next; nothing when none is free.
  std::optional<unsigned> freeHead() const;
  /// The one that is claimed last.
  std::optional<unsigned> lastFreeHead() const;
  /// Head records of a requester.
  unsigned headsOf(Identity who) const;
  /// Head records of a process.
  unsigned headsOfProcess(uint32_t process) const;
  /// Replies that wait to be taken, at most one for each head record.
  unsigned linkedItems() const;
  /// What is wrong with the lists; empty when each item is in one.
  std::string listDisorder() const;
  /// What is wrong with the counts; empty when they agree with the lists.
  std::string countDisorder() const;

  /// How a wait for a reply ended.
  enum class End { reply, nothing, stopped, cancelled, gone, no_head };
  struct Taken {
    End end;
    wire::Reply reply;
  };
  /// Waits for the next reply of a requester, as libarm does but with a time limit.
  Taken take(Identity who, Duration limit);

  SemaphoreSet wake;

 private:
  std::optional<unsigned> idleHead() const;
  std::string walk(uint32_t first, const char* list, std::vector<bool>* seen) const;
  std::optional<Taken> tryTake(unsigned head);
  wire::Reply unlink(unsigned head);
};

/// Both queues of the engine of a prefix, opened as a program opens them.
struct Channel {
  RequestQueue requests;
  ReplyQueue replies;

  /// Nothing, with a sentence in why, when a part is missing or its size leaves no room.
  static std::optional<Channel> open(const Names& names, Duration patience, std::string* why);
};

}  // namespace armcontract
