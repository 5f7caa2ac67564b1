#include "platform/CkesMutex.h"

#include "diag/CkesErrorManager.h"
#include "platform/CkesThreadLibrary.h"

CkesMutex::CkesMutex() : VMutex{} {
  if (!CkesThreadLibrary::IsInitialized() && CkesThreadLibrary::Initialize() != 0) return;
  VInitialized.store(implInitialize(), std::memory_order_relaxed);
}

CkesMutex::~CkesMutex() {
  // Cleared first: calls made after the library's statics are gone find it not initialized.
  if (VInitialized.exchange(false, std::memory_order_relaxed)) implDestroy();
}

long CkesMutex::Lock() {
  return CkesErrorManager::Record(IsInitialized() ? implLock() : ERR_NOT_INITIALIZED,
                                  "CkesMutex::Lock()");
}

long CkesMutex::Unlock() {
  // A holder lets go even when the library's statics have been destroyed meanwhile: somebody may be
  // waiting.
  if (HeldByCaller()) return CkesErrorManager::Record(implUnlock(), "CkesMutex::Unlock()");
  return IsInitialized() ? 0 : CkesErrorManager::Record(ERR_NOT_INITIALIZED, "CkesMutex::Unlock()");
}

long CkesMutex::Pass() {
  const long result = IsInitialized() ? implPass() : ERR_NOT_INITIALIZED;
  const bool unlocking = result == ERR_UNLOCK;
  return CkesErrorManager::Record(result, unlocking ? "CkesMutex::Unlock()" : "CkesMutex::Lock()");
}

long CkesMutex::TryLock() {
  return CkesErrorManager::Record(IsInitialized() ? implTryLock() : ERR_NOT_INITIALIZED,
                                  "CkesMutex::TryLock()");
}

void CkesMutex::RenewAfterFork() {
  if (!IsInitialized()) return;
  clearHolder();
  VInitialized.store(implInitialize(), std::memory_order_relaxed);
}
