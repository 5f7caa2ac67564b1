#pragma once

#include <pthread.h>

#include <atomic>

#include "platform/threadmark.h"

/// A plain, non-recursive mutex of the process.  Results are 0 or a negative code, which is also
/// recorded with the error manager.  Any thread may call any operation; a thread that locks twice
/// deadlocks.
///
/// An object whose storage is zero and whose constructor has not run, or whose destructor has,
/// refuses every operation with -120.
class CkesMutex {
 public:
  static constexpr long ERR_NOT_INITIALIZED = -120;
  static constexpr long ERR_LOCK = -122;
  static constexpr long ERR_UNLOCK = -123;
  static constexpr long ERR_BUSY = -124;

  /// Initializes the thread library when needed; on its failure the mutex stays not initialized.
  CkesMutex();
  ~CkesMutex();
  CkesMutex(const CkesMutex&) = delete;
  CkesMutex& operator=(const CkesMutex&) = delete;

  /// True when construction succeeded.
  bool IsInitialized() const { return VInitialized.load(std::memory_order_relaxed); }

  /// Waits for the mutex; -120, or -122 when it cannot be locked.
  long Lock();
  /// Releases the mutex; -120, or -123 when it cannot be unlocked.  A call by a thread that does
  /// not hold the mutex is tolerated: it returns 0 and leaves the mutex, and whoever holds it,
  /// alone.
  long Unlock();
  /// Waits for the mutex and releases it at once; results as of Lock and Unlock.
  long Pass();
  /// Takes the mutex without waiting; -120, -124 when it is held, -122 on any other failure.
  long TryLock();

  /// True when the calling thread holds the mutex.
  bool HeldByCaller() const { return VHolder.load(std::memory_order_relaxed) == threadMark(); }

  /// In a forked child: makes an initialized mutex free, whoever held it in the parent.
  void RenewAfterFork();

 private:
  friend class CkesEvent;

  bool implInitialize();
  void implDestroy();
  long implLock();
  long implUnlock();
  long implPass();
  long implTryLock();
  // A wait on a condition variable gives the mutex up and takes it again by itself.
  void clearHolder() { VHolder.store(nullptr, std::memory_order_relaxed); }
  void setHolder() { VHolder.store(threadMark(), std::memory_order_relaxed); }

  std::atomic<bool> VInitialized{false};
  pthread_mutex_t VMutex;
  /// The mark of the thread that holds the mutex, null when none does: POSIX leaves unlocking a
  /// mutex that the caller does not hold undefined, so it is recognised here.
  std::atomic<const void*> VHolder{nullptr};
};
