#pragma once

#include <atomic>

/// Waits, for a bounded time, for somebody who may never come.  Whoever did not come in time is not
/// waited for again until he has come, so that he costs his time only once.  Any thread.
class CPatience {
 public:
  constexpr explicit CPatience(long milliseconds) : VMilliseconds(milliseconds) {}

  /// Tries until the attempt is true, once every millisecond; false when the time has run out.
  template <typename Attempt>
  bool Until(Attempt attempt) {
    if (attempt()) {
      Renew();
      return true;
    }
    if (VExhausted.load(std::memory_order_relaxed)) return false;
    const long long deadline = now() + VMilliseconds;
    do {
      if (now() >= deadline) {
        VExhausted.store(true, std::memory_order_relaxed);
        return false;
      }
      pause();
    } while (!attempt());
    return true;
  }

  /// From here on the full time is waited again.
  void Renew() { VExhausted.store(false, std::memory_order_relaxed); }

 private:
  static long long now();
  static void pause();

  long VMilliseconds;
  std::atomic<bool> VExhausted{false};
};
