#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

// What a test and its measuring programs, of either width, share: a mapping with counts.

namespace armtest {

inline constexpr unsigned SLOTS = 512;
inline constexpr unsigned LIVES = 1024;

/// Where a measuring program finds the board.
inline constexpr int BOARD_DESCRIPTOR = 3;

using Count = std::atomic<uint32_t>;
static_assert(sizeof(Count) == 4 && Count::is_always_lock_free);

/// What one thread of one program has seen; used again by the threads of later programs.
struct Slot {
  Count answered;      ///< calls that were answered as they must be
  Count disturbed;     ///< calls that a change of engines has failed
  Count reconnecting;  ///< calls that failed with -2 although an engine serves
  Count rests;         ///< it pauses, or will make no more calls
};

/// A call whose result cannot be: which, and what came instead.
struct Wrong {
  Count count;
  std::atomic<int32_t> call;
  std::atomic<int32_t> expected;
  std::atomic<int32_t> result;
};

/// The finished instances of one engine's life.
struct Life {
  Count confirmed;  ///< the engine has said so
  Count possible;   ///< the call failed, or its thread was killed
};

struct SoakBoard {
  Count stop;
  Count pause;  ///< no thread begins a call
  /// Odd while engines change; twice the number of the engine that serves otherwise.
  Count epoch;
  Wrong wrong;
  Slot slots[SLOTS];
  Life lives[LIVES];
};

static_assert(sizeof(SoakBoard) == 12 + 16 + SLOTS * 16 + LIVES * 8);

}  // namespace armtest
