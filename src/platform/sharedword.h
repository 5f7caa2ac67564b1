#pragma once

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
