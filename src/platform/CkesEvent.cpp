#include "platform/CkesEvent.h"

#include "diag/CkesErrorManager.h"
#include "platform/CkesThreadLibrary.h"

namespace {

/// Runs the work with the event's mutex held; the mutex's own results are not looked at.
template <typename Work>
long underMutex(CkesMutex& mutex, Work work) {
  (void)mutex.Lock();
  const long result = work();
  (void)mutex.Unlock();
  return result;
}

}  // namespace

CkesEvent::CkesEvent() : CkesEvent(EVENT_AUTO_RESET, false) {}

CkesEvent::CkesEvent(TEventMode mode, bool initialState)
    : VMode(mode), VInitialized(false), VCondition{}, VMutex(), VSignalled(initialState) {
  if (!CkesThreadLibrary::IsInitialized() && CkesThreadLibrary::Initialize() != 0) return;
  implInitialize();
  VInitialized = VMutex.IsInitialized();
}

CkesEvent::~CkesEvent() {
  if (VInitialized) implDestroy();
}

long CkesEvent::Wait() {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, "CkesEvent::Wait()");
  return CkesErrorManager::Record(underMutex(VMutex, [this] { return implWait(); }),
                                  "CkesEvent::Wait()");
}

long CkesEvent::Wait(long milliseconds) {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, "CkesEvent::Wait(long)");
  return CkesErrorManager::Record(
      underMutex(VMutex, [this, milliseconds] { return implWait(milliseconds); }),
      "CkesEvent::Wait(long)");
}

long CkesEvent::Signal() {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, "CkesEvent::Signal()");
  return CkesErrorManager::Record(underMutex(VMutex, [this] { return implSignal(); }),
                                  "CkesEvent::Signal()");
}

long CkesEvent::Pulse() {
  // Deliberate (pulse-name): the recorded name is not the operation's own.  Readers of error trails
  // know it so.
  static constexpr const char* where = "CkesEvent::SignalAll()";
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, where);
  return CkesErrorManager::Record(underMutex(VMutex, [this] { return implPulse(); }), where);
}

long CkesEvent::Reset() {
  if (!VInitialized) return CkesErrorManager::Record(ERR_NOT_INITIALIZED, "CkesEvent::Reset()");
  return CkesErrorManager::Record(underMutex(VMutex, [this] { return implReset(); }),
                                  "CkesEvent::Reset()");
}
