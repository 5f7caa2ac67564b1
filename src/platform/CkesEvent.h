#pragma once

#include <pthread.h>

#include "platform/CkesMutex.h"

/// How an event resets.
enum TEventMode : int {
  EVENT_MANUAL_RESET = 0,  ///< a signal releases every waiter and stays until Reset
  EVENT_AUTO_RESET = 1     ///< a signal releases one waiter and does not stay
};

/// An event of the process.  Results are 0 or a negative code, which is also recorded with the
/// error manager; -130 on an object that is not initialized.  Any thread may call any operation.
class CkesEvent {
 public:
  static constexpr long ERR_NOT_INITIALIZED = -130;
  static constexpr long ERR_TIMEOUT = -132;
  static constexpr long ERR_WAIT = -133;
  static constexpr long ERR_SIGNAL = -134;

  /// An automatic event, not signalled.
  CkesEvent();
  /// Initializes the thread library when needed; initialized exactly when its mutex is.
  CkesEvent(TEventMode mode, bool initialState);
  ~CkesEvent();
  CkesEvent(const CkesEvent&) = delete;
  CkesEvent& operator=(const CkesEvent&) = delete;

  /// True when construction succeeded.
  bool IsInitialized() const { return VInitialized; }

  /// Passes at once when signalled (an automatic event is then reset); else waits for one wake-up,
  /// without a limit and without looking at the state again.  -133 on failure.
  long Wait();
  /// The same with a limit.  The deadline is the current whole second plus the given time, so the
  /// wait can end up to a second early.  -132 when it passes, -133 on any other failure.
  long Wait(long milliseconds);
  /// Automatic: wakes at most one waiter and leaves the event not signalled, so that a signal
  /// nobody waits for is lost.  Manual: wakes all and stays signalled.  -134 on failure.
  long Signal();
  /// Wakes one waiter (automatic) or all (manual) and leaves the event not signalled; -134 on
  /// failure.
  long Pulse();
  /// Makes the event not signalled.
  long Reset();

 private:
  long implWait();
  long implWait(long milliseconds);
  long implSignal();
  long implPulse();
  long implReset();
  void implInitialize();
  void implDestroy();
  bool consumeSignal();
  long wake();

  TEventMode VMode;
  bool VInitialized;
  pthread_cond_t VCondition;
  CkesMutex VMutex;
  bool VSignalled;
};
