#pragma once

#include <sys/types.h>

namespace armtest {

/// An engine in a process of its own that answers every request with 1.
class CountingEngine {
 public:
  /// How full the ring is when a program posts.
  enum class Ring {
    empty,    ///< every request finds the ring empty
    occupied  ///< no request does: one that belongs to nobody is always there
  };

  explicit CountingEngine(Ring ring);
  /// Kills the engine.
  ~CountingEngine();
  CountingEngine(const CountingEngine&) = delete;
  CountingEngine& operator=(const CountingEngine&) = delete;

  /// False when the engine could not make its queues.
  bool isReady() const { return ready_; }

 private:
  pid_t process_;
  bool ready_;
};

}  // namespace armtest
