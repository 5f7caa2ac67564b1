#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

/// Reads a word of shared memory exactly once.  Whatever another process writes there meanwhile, a
/// value that has been checked stays the value that is used.
template <typename T>
T loadShared(const T& word) {
  static_assert(std::is_integral_v<T>);
  return __atomic_load_n(&word, __ATOMIC_RELAXED);
}

/// Writes a word of shared memory.
template <typename T>
void storeShared(T& word, T value) {
  static_assert(std::is_integral_v<T>);
  __atomic_store_n(&word, value, __ATOMIC_RELAXED);
}

#if !defined(__LP64__)

using TSharedHalf [[gnu::may_alias]] = uint32_t;
using TSharedWhole [[gnu::may_alias]] = uint64_t;

/// What stands in eight bytes, read in halves.
inline uint64_t seenIn(const void* target) {
  const auto* halves = static_cast<const TSharedHalf*>(target);
  return __atomic_load_n(&halves[0], __ATOMIC_RELAXED) |
         uint64_t{__atomic_load_n(&halves[1], __ATOMIC_RELAXED)} << 32;
}

/// Replaces what others keep changing; false when they do not let up.
[[nodiscard, gnu::noinline, gnu::cold]] inline bool storeAmongOthers(void* target, uint64_t value) {
  for (int attempts = 100; attempts > 0; --attempts) {
    const uint64_t seen = seenIn(target);
    if (__sync_bool_compare_and_swap(static_cast<TSharedWhole*>(target), seen, value)) return true;
  }
  return false;
}

#endif

/// Replaces eight aligned bytes of shared memory with one store.  False, with nothing stored, when
/// others keep changing them.
///
/// Only the general registers take part: a host may have traps on and an exception pending in its
/// floating-point unit, or leave no room there.
template <typename T>
[[nodiscard]] bool storeOnce(T& target, T value) {
  static_assert(sizeof(T) == 8);
  static_assert(alignof(T) == 8);
#if defined(__LP64__)
  __atomic_store(&target, &value, __ATOMIC_RELEASE);
  return true;
#else
  uint64_t wanted = 0;
  std::memcpy(&wanted, &value, sizeof wanted);
  void* start = &target;
  // gcc calls a library for the __atomic form when it is kept from the floating-point unit.
  return __sync_bool_compare_and_swap(static_cast<TSharedWhole*>(start), seenIn(start), wanted) ||
         storeAmongOthers(start, wanted);
#endif
}
