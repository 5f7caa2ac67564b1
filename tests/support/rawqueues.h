#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "bytes.h"
#include "ipcobjects.h"

/// The engine's side of both queues, laid by hand. Every offset, key and semaphore number in here
/// is a bare number on purpose: the library's own structures must not be what the bytes are
/// compared with.
namespace armtest {

inline const std::string AE = "/var/kelp/controls_ae.kelp";
inline const std::string EA = "/var/kelp/controls_ea.kelp";

/// A semaphore set at a project of a name file. Made with the given number of semaphores, all 0;
/// removed with the object.
class SemaphoreSet {
 public:
  SemaphoreSet(const std::string& path, int project, int semaphores);
  ~SemaphoreSet() { remove(); }
  SemaphoreSet(const SemaphoreSet&) = delete;
  SemaphoreSet& operator=(const SemaphoreSet&) = delete;

  int id() const { return id_; }
  int semaphores() const { return semaphores_; }
  int value(int number) const { return semaphoreValue(id_, number); }
  void setValue(int number, int value) { setSemaphore(id_, number, value); }
  /// The same; false when the set is gone.
  bool tryValue(int number, int value) { return trySetSemaphore(id_, number, value); }
  /// Threads that sleep until the semaphore can be lowered.
  int sleepers(int number) const { return semaphoreWaiters(id_, number); }
  /// One semop without flags; it may sleep.
  void add(int number, int by) { add(id_, number, by); }
  static void add(int set, int number, int by);
  void remove() { removeSet(id_); }

 private:
  int id_;
  int semaphores_;
};

/// A segment at project 2 of a name file. Removed with the object.
class Segment {
 public:
  Segment(const std::string& path, size_t size);
  ~Segment() { remove(); }
  Segment(const Segment&) = delete;
  Segment& operator=(const Segment&) = delete;

  size_t size() const { return size_; }
  /// The size with the rest of the last page, whose bytes are mapped but not the segment's.
  size_t mappedSize() const { return (size_ + 4095) / 4096 * 4096; }
  uint8_t* at(size_t offset) const { return static_cast<uint8_t*>(memory_.address()) + offset; }
  uint8_t u8(size_t offset) const { return memory_.read<uint8_t>(offset); }
  uint16_t u16(size_t offset) const { return memory_.read<uint16_t>(offset); }
  uint32_t u32(size_t offset) const { return memory_.read<uint32_t>(offset); }
  void put8(size_t offset, uint8_t value) { memory_.write(offset, value); }
  void put16(size_t offset, uint16_t value) { memory_.write(offset, value); }
  void put32(size_t offset, uint32_t value) { memory_.write(offset, value); }
  Bytes bytes(size_t offset, size_t length) const { return {at(offset), at(offset) + length}; }
  /// Every mapped byte.
  Bytes all() const { return bytes(0, mappedSize()); }
  /// Attachments in all processes; the object itself is one.
  unsigned long attachments() const { return armtest::attachments(id_); }
  /// Takes the segment out of its name's reach; whoever has attached it keeps it.
  void remove() { removeSegment(id_); }

 private:
  size_t size_;
  int id_;
  Attached memory_;
};

/// Lays so many head records and items into a reply queue's segment of zeros: all heads are free
/// and have the semaphores 2 to n + 1, all items are in the free list.
void layReplies(Segment& memory, size_t capacity);

/// A segment with its lock set: semaphore 0 the lock, semaphore 1 the creator's life.
class LockedSegment {
 public:
  LockedSegment(const std::string& path, size_t size);
  void lock();
  void unlock() { set.add(0, -1); }
  bool locked() const { return set.value(0) != 0; }
  /// Whoever holds the lock loses it.
  void breakLock() { set.tryValue(0, 0); }
  void creatorDies() { set.setValue(1, 1); }

  SemaphoreSet set;
  Segment memory;
};

/// The request queue: header of 28 bytes, then slots of 4116.
class RequestQueue : public LockedSegment {
 public:
  explicit RequestQueue(size_t capacity, size_t spare_bytes = 0, const std::string& base = AE)
      : RequestQueue(base, 28 + capacity * 4116 + spare_bytes) {}
  /// A segment of any size.
  RequestQueue(const std::string& base, size_t size);

  uint16_t count() const { return memory.u16(0); }
  uint16_t head() const { return memory.u16(2); }
  uint16_t tail() const { return memory.u16(4); }
  uint32_t state() const { return memory.u32(8); }
  uint32_t overflowWaiters() const { return memory.u32(12); }
  uint32_t emptyWaiters() const { return memory.u32(16); }
  uint32_t version() const { return memory.u32(20); }
  void setRing(uint16_t count, uint16_t head, uint16_t tail);
  void setState(uint32_t state) { memory.put32(8, state); }
  void setOverflowWaiters(uint32_t count) { memory.put32(12, count); }
  void setEmptyWaiters(uint32_t count) { memory.put32(16, count); }
  void setVersion(uint32_t version) { memory.put32(20, version); }
  void setReady(uint32_t ready) { memory.put32(24, ready); }
  Bytes slot(size_t index) const { return memory.bytes(28 + index * 4116, 4116); }
  void fillSlots(uint8_t byte);
  /// Takes the oldest record, under the lock.
  Bytes take();

  SemaphoreSet empty;
  SemaphoreSet overflow;

 private:
  size_t capacity_;
};

/// The reply queue: header of 12 bytes, head records of 16, items of 532, as layReplies lays them.
class ReplyQueue : public LockedSegment {
 public:
  explicit ReplyQueue(size_t capacity, size_t spare_bytes = 0, const std::string& name = EA);

  uint16_t usedItems() const { return memory.u16(0); }
  uint16_t headsInUse() const { return memory.u16(2); }
  uint32_t freeList() const { return memory.u32(4); }
  void setUsedItems(uint16_t count) { memory.put16(0, count); }
  void setHeadsInUse(uint16_t count) { memory.put16(2, count); }
  void setState(uint32_t state) { memory.put32(8, state); }

  size_t headOffset(size_t index) const { return 12 + 16 * index; }
  uint8_t status(size_t head) const { return memory.u8(headOffset(head)); }
  uint16_t semaphore(size_t head) const { return memory.u16(headOffset(head) + 2); }
  uint32_t process(size_t head) const { return memory.u32(headOffset(head) + 4); }
  uint32_t thread(size_t head) const { return memory.u32(headOffset(head) + 8); }
  uint32_t firstReply(size_t head) const { return memory.u32(headOffset(head) + 12); }
  void setStatus(size_t head, uint8_t status) { memory.put8(headOffset(head), status); }
  void setSemaphore(size_t head, uint16_t number) { memory.put16(headOffset(head) + 2, number); }
  void setOwner(size_t head, uint32_t process, uint32_t thread);
  void setFirstReply(size_t head, uint32_t offset) { memory.put32(headOffset(head) + 12, offset); }

  uint32_t itemOffset(size_t index) const;
  uint32_t link(size_t item) const { return memory.u32(itemOffset(item) + 528); }

  /// Links a reply at the end of a head's list, with all the counting but without a raise. Returns
  /// the item's index.
  size_t linkReply(size_t head, const Bytes& reply);
  /// The same, and raises the head's semaphore.
  void reply(size_t head, const Bytes& reply);
  /// The head that belongs to an identifier, claimed when there is none yet.
  size_t headOf(uint32_t process, uint32_t thread);

  SemaphoreSet waits;

 private:
  size_t capacity_;
};

/// A reply record of 528 bytes: the result word, the flag byte, every other byte from a pattern.
Bytes replyRecord(int32_t result, uint8_t correlator_flag = 0, uint8_t pattern = 0x30);

/// An engine that answers: a thread that takes every request and replies to its sender, always the
/// same.
class AnsweringEngine {
 public:
  AnsweringEngine(RequestQueue& requests, ReplyQueue& replies, const Bytes& reply);
  ~AnsweringEngine();
  AnsweringEngine(const AnsweringEngine&) = delete;
  AnsweringEngine& operator=(const AnsweringEngine&) = delete;

  void setReply(const Bytes& reply);
  /// The requests taken so far.
  std::vector<Bytes> taken() const;

 private:
  void run();
  void answer(const Bytes& request);

  RequestQueue& requests_;
  ReplyQueue& replies_;
  mutable std::mutex mutex_;
  Bytes reply_;
  std::vector<Bytes> taken_;
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

}  // namespace armtest
