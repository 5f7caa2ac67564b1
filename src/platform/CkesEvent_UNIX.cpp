#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/CkesEvent.h"

void CkesEvent::implInitialize() {
  std::memset(&VCondition, 0, sizeof VCondition);
}

void CkesEvent::implDestroy() {
  (void)pthread_cond_destroy(&VCondition);
}

bool CkesEvent::consumeSignal() {
  if (!VSignalled) return false;
  if (VMode == EVENT_AUTO_RESET) VSignalled = false;
  return true;
}

long CkesEvent::implWait() {
  if (consumeSignal()) return 0;
  // Deliberate (any-wake-up): no loop and no second look at the state; any wake-up ends the wait.
  VMutex.clearHolder();
  const int result = pthread_cond_wait(&VCondition, &VMutex.VMutex);
  VMutex.setHolder();
  return result == 0 ? 0 : ERR_WAIT;
}

long CkesEvent::implWait(long milliseconds) {
  if (consumeSignal()) return 0;
  timespec deadline = {};
  // Deliberate (whole-seconds): whole seconds only, so the wait may end up to one second early.
  deadline.tv_sec = std::time(nullptr) + milliseconds / 1000;
  deadline.tv_nsec = (milliseconds % 1000) * 1000000L;
  VMutex.clearHolder();
  const int result = pthread_cond_timedwait(&VCondition, &VMutex.VMutex, &deadline);
  VMutex.setHolder();
  switch (result) {
    case 0:
      return 0;
    case ETIMEDOUT:
      return ERR_TIMEOUT;
    default:
      return ERR_WAIT;
  }
}

long CkesEvent::wake() {
  const int result = VMode == EVENT_AUTO_RESET ? pthread_cond_signal(&VCondition)
                                               : pthread_cond_broadcast(&VCondition);
  return result == 0 ? 0 : ERR_SIGNAL;
}

long CkesEvent::implSignal() {
  const long result = wake();
  // Deliberate (no-latch): an automatic event does not latch; a signal that nobody waits for is
  // lost.
  VSignalled = VMode != EVENT_AUTO_RESET;
  return result;
}

long CkesEvent::implPulse() {
  const long result = wake();
  VSignalled = false;
  return result;
}

long CkesEvent::implReset() {
  VSignalled = false;
  return 0;
}
