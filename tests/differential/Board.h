#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <ctime>

// What the player, its engine and its client share: one anonymous mapping, made before they are.

namespace differential {

inline constexpr size_t RECORD_SIZE = 4116;
inline constexpr size_t REPLY_SIZE = 528;
inline constexpr size_t ARENA_SIZE = 8192;
inline constexpr uint8_t MARGIN_BYTE = 0xC5;
inline constexpr int ARENAS = 3;
inline constexpr int MOST_THREADS = 2;
inline constexpr unsigned MOST_TAKEN = 64;
inline constexpr int PATIENCE_SECONDS = 20;

/// What the engine does with the request of a call.
enum class Reaction : uint8_t {
  reply,               ///< links one reply
  reply_twice,         ///< links two at once; the second is left for the next call
  cancel,              ///< cancels the wait
  die,                 ///< is killed while the caller sleeps; the wake-up set is removed last
  die_wake_set_first,  ///< the same; the wake-up set is removed alone first
  stop,                ///< ends in good order while the caller sleeps
  reply_state1,        ///< gives the reply queue state 1 while the caller sleeps
  reply_state2,        ///< the same with state 2
  wake_then_reply      ///< wakes the sleeping caller with nothing to take, and then replies
};

/// One call: the function, its numbers, and its memory.
struct CallOrder {
  uint8_t function;
  int32_t numbers[8];
  void* memory[ARENAS];
};

struct CallOutcome {
  int32_t result;
  bool is_text;
  bool is_null;
  char text[256];
  int32_t error;
  timespec begin;
  timespec end;
  bool has_icu_data;
  char icu_data[256];
};

struct ReplyOrder {
  Reaction reaction;
  uint8_t replies[2][REPLY_SIZE];
};

struct TakenRecord {
  uint16_t slot;
  uint8_t bytes[RECORD_SIZE];
};

struct ThreadFacts {
  uint64_t self;
  uint32_t number;
};

struct Board {
  CallOrder call;
  CallOutcome outcome;
  ThreadFacts threads[MOST_THREADS];
  ReplyOrder answer;
  /// Raised by the client when a call is over.
  std::atomic<bool> call_is_over;
  /// Units that the engine has taken from _emp.
  std::atomic<uint32_t> wake_ups;
  /// Looks of an engine that has lost _emp.
  std::atomic<uint32_t> looks;
  std::atomic<bool> engine_is_up;
  std::atomic<uint32_t> taken;
  TakenRecord records[MOST_TAKEN];
};

}  // namespace differential
