#pragma once

#include <string>
#include <thread>
#include <vector>

#include "base/Ending.h"
#include "core/EngineQueues.h"

namespace armengine {

/// Looks, on a thread of its own, for a program that keeps the lock of a queue: one that was
/// stopped, or dumps core, in the middle of a call keeps every other program waiting.  Says in the
/// log who it is once the lock has been held for a second, and that it is free again.
class LockWatch {
 public:
  /// The queues outlive the watch.
  explicit LockWatch(EngineQueues& queues);
  ~LockWatch();
  LockWatch(const LockWatch&) = delete;
  LockWatch& operator=(const LockWatch&) = delete;

 private:
  struct Lock {
    std::string what;  ///< whose lock it is
    int set;
    int suspect = 0;  ///< the process that held it at the last check, for a second already
    bool told = false;
  };

  void run();
  static void check(Lock& lock);

  std::vector<Lock> locks_;
  Ending ending_;
  std::thread thread_;
};

}  // namespace armengine
