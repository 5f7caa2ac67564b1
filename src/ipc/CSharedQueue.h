#pragma once

#include <atomic>

/// A queue of the connection together with the number of its users.  The connection holds one use;
/// every caller inside a queue operation holds another.  The queue goes when the last use ends, so
/// that closing the connection never takes a queue, or its mapping, from under a waiting thread.
template <typename Queue>
class CSharedQueue final : public Queue {
 public:
  using Queue::Queue;

  /// Begins a use.  The caller holds the mutex that guards the connection's pointer to the queue,
  /// or another use.
  void Acquire() { VUses.fetch_add(1, std::memory_order_relaxed); }

  /// Ends a use; the last one deletes the queue.
  void Release() {
    if (VUses.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  /// The engine that the connection was opened to when it opened this queue.  Set before the queue is
  /// shared.
  void SetEngine(int engine) { VEngine = engine; }
  int Engine() const { return VEngine; }

  /// In a forked child: the users were threads of the parent; only the connection's use remains.
  void KeepOneUse() { VUses.store(1, std::memory_order_relaxed); }

 private:
  ~CSharedQueue() = default;

  std::atomic<long> VUses{1};
  int VEngine = -1;
};
