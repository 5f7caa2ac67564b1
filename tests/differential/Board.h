#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

// What the player, its engine and its client share: one anonymous mapping, made before they are.

namespace differential {

inline constexpr size_t kRecordSize = 4116;
inline constexpr size_t kReplySize = 528;
inline constexpr size_t kArenaSize = 8192;
inline constexpr uint8_t kMarginByte = 0xC5;
inline constexpr int kArenas = 3;
inline constexpr int kMostThreads = 2;
inline constexpr unsigned kMostTaken = 64;
inline constexpr int kPatienceSeconds = 20;

/// What the engine does with the request of a call.
enum class Reaction : uint8_t {
  reply,            ///< links one reply
  replyTwice,       ///< links two at once; the second is left for the next call
  cancel,           ///< cancels the wait
  die,              ///< is killed while the caller sleeps; the wake-up set is removed last
  dieWakeSetFirst,  ///< the same; the wake-up set is removed alone first
  stop,             ///< ends in good order while the caller sleeps
  replyState1,      ///< gives the reply queue state 1 while the caller sleeps
  replyState2,      ///< the same with state 2
  wakeThenReply     ///< wakes the sleeping caller with nothing to take, and then replies
};

/// One call: the function, its numbers, and its memory.
struct CallOrder {
  uint8_t function;
  int32_t numbers[8];
  void* memory[kArenas];
};

struct CallOutcome {
  int32_t result;
  bool isText;
  bool isNull;
  char text[256];
  int32_t error;
  timespec begin;
  timespec end;
  bool hasIcuData;
  char icuData[256];
};

struct ReplyOrder {
  Reaction reaction;
  uint8_t replies[2][kReplySize];
};

struct TakenRecord {
  uint16_t slot;
  uint8_t bytes[kRecordSize];
};

struct ThreadFacts {
  uint64_t self;
  uint32_t number;
};

struct Board {
  CallOrder call;
  CallOutcome outcome;
  ThreadFacts threads[kMostThreads];
  ReplyOrder answer;
  /// Raised by the client when a call is over.
  std::atomic<bool> callIsOver;
  /// Units that the engine has taken from _emp.
  std::atomic<uint32_t> wakeUps;
  /// Looks of an engine that has lost _emp.
  std::atomic<uint32_t> looks;
  std::atomic<bool> engineIsUp;
  std::atomic<uint32_t> taken;
  TakenRecord records[kMostTaken];
};

}  // namespace differential
