#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace armengine {

/// How a thread that does something every now and then is ended without waiting for its pause.
/// Announced once, by any thread; pauses from then on are over at once.
class Ending {
 public:
  void announce() {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      announced_ = true;
    }
    changed_.notify_all();
  }

  /// False when the end has been announced, at the latest after the duration.
  bool pause(std::chrono::milliseconds duration) {
    std::unique_lock<std::mutex> lock(mutex_);
    return !changed_.wait_for(lock, duration, [this] { return announced_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool announced_ = false;
};

}  // namespace armengine
