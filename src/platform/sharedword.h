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

/// Replaces eight aligned bytes of shared memory with one store, whatever stands there; seen is what
/// was read there last.  False, with nothing stored, when others keep changing them.
///
/// Only the general registers take part: a host may have traps on and an exception pending in its
/// floating-point unit, or leave no room there.
template <typename T>
[[nodiscard]] bool storeOnce(T& target, [[maybe_unused]] T seen, T value) {
  static_assert(sizeof(T) == 8 && alignof(T) == 8);
#if defined(__LP64__)
  __atomic_store(&target, &value, __ATOMIC_RELEASE);
  return true;
#else
  using TWords [[gnu::may_alias]] = uint64_t;
  uint64_t expected = 0;
  uint64_t wanted = 0;
  std::memcpy(&expected, &seen, sizeof expected);
  std::memcpy(&wanted, &value, sizeof wanted);
  for (int attempts = 100; attempts > 0; --attempts) {
    // gcc calls a library for the __atomic form when it is kept from the floating-point unit.
    const uint64_t found =
        __sync_val_compare_and_swap(reinterpret_cast<TWords*>(&target), expected, wanted);
    if (found == expected) return true;
    expected = found;
  }
  return false;
#endif
}
