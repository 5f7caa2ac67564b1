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
    if (endUse()) delete this;
  }
  /// Ends the use that the calling thread keeps a pointer for, which is cleared before the queue
  /// may go: a child that a signal handler forks finds nothing deleted there.
  void Release(CSharedQueue*& own) {
    const bool last = endUse();
    std::atomic_signal_fence(std::memory_order_seq_cst);
    own = nullptr;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    if (last) delete this;
  }

  /// The engine that the connection was opened to when it opened this queue.  Set before the queue
  /// is shared.
  void SetEngine(int engine) { VEngine = engine; }
  int Engine() const { return VEngine; }

  /// In a forked child: the uses of the parent's other threads are gone.
  void KeepUses(long uses) { VUses.store(uses, std::memory_order_relaxed); }

 private:
  ~CSharedQueue() = default;

  bool endUse() { return VUses.fetch_sub(1, std::memory_order_acq_rel) == 1; }

  std::atomic<long> VUses{1};
  int VEngine = -1;
};
