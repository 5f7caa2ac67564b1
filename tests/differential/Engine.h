#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

#include "Board.h"

namespace differential {

/// The semaphore sets and segments of an engine, in this order on the wire too.
enum SetNumber { OVERFLOW_SET, EMPTY_SET, REQUEST_LOCK, REPLY_LOCK, WAKE_SET, SETS };
enum SegmentNumber { REQUESTS, REPLIES, SEGMENTS };

/// How an engine is laid out.
struct EngineLayout {
  std::string paths[SETS];  ///< the name file of each set; segments share their lock set's
  uint32_t request_size;
  uint32_t reply_size;
  uint16_t heads;
  uint16_t first_number;  ///< rotates the semaphore numbers of the head records
  bool ready;
};

/// The engine's side of both queues, from the words of the contract alone: nothing of the library
/// and of its engine is used, so that a common mistake cannot hide. Used by the engine's own
/// process, and by the player for what happens between calls.
class Engine {
 public:
  Engine(Board& board, EngineLayout layout) : board_(board), layout_(std::move(layout)) {}

  /// Makes the name files and all objects; to be called in the engine's own process.
  void make();
  /// Finds the objects that the engine's process has made.
  void find();
  /// Takes requests and reacts, for ever.
  [[noreturn]] void serve();

  /// Links replies for a requester, or does nothing where there is no way to.
  bool link(int32_t process, uint32_t thread, const uint8_t (*replies)[REPLY_SIZE], int count);
  /// Writes records of somebody else until the ring holds so many.
  void fill(uint16_t count);
  /// Gives every free head record to somebody else.
  void occupy(uint8_t status);
  void raiseEmpty();
  void removeSet(int set);
  void removeSegment(int segment);
  /// Removes every set and segment; the wake-up set comes last.
  void removeAll();
  void removeNames();

  int set(int number) const { return sets_[number]; }
  int segment(int number) const { return segments_[number]; }
  uint8_t* memory(int number) const { return memory_[number]; }
  const EngineLayout& layout() const { return layout_; }
  uint16_t ringCount() const;
  bool sleepsOnEmpty() const;
  bool hasLostEmpty() const;
  /// A dead engine's life semaphores never say that it lives.
  void settleDeath();
  /// Detaches; the objects stay.
  void forget();

 private:
  struct Head;

  void layOut();
  bool lock(int set) const;
  void unlock(int set) const;
  bool take(TakenRecord& record);
  void react(const TakenRecord& record);
  void replyWhenDrained(int32_t process, uint32_t thread, int count);
  bool waitForSleeper(int32_t process, uint32_t thread);
  bool sleeps(const Head* head) const;
  void cancel(int32_t process, uint32_t thread);
  void setState(int segment, int lock_set, uint32_t state);
  void wakeAll() const;
  Head* heads() const;
  Head* findHead(int32_t process, uint32_t thread) const;
  Head* claimHead(int32_t process, uint32_t thread) const;
  int freeItems() const;
  void append(Head* head, const uint8_t* reply);
  uint32_t& word(int segment, size_t offset) const;
  uint16_t& half(int segment, size_t offset) const;

  Board& board_;
  EngineLayout layout_;
  int sets_[SETS] = {-1, -1, -1, -1, -1};
  int segments_[SEGMENTS] = {-1, -1};
  uint8_t* memory_[SEGMENTS] = {nullptr, nullptr};
};

}  // namespace differential
