#include "platform/CkesMutex.h"

#include "diag/CkesErrorManager.h"
#include "platform/CkesThreadLibrary.h"

namespace {

long recorded(long result, const char* where) {
  if (result != 0) (void)CkesErrorManager::SetError(result, where);
  return result;
}

}  // namespace

CkesMutex::CkesMutex() : VMutex{} {
  if (!CkesThreadLibrary::IsInitialized() && CkesThreadLibrary::Initialize() != 0) return;
  VInitialized.store(implInitialize(), std::memory_order_relaxed);
}

CkesMutex::~CkesMutex() {
  // Cleared first: calls made after the library's statics are gone find it not initialized.
  if (VInitialized.exchange(false, std::memory_order_relaxed)) implDestroy();
}

long CkesMutex::Lock() {
  return recorded(IsInitialized() ? implLock() : ERR_NOT_INITIALIZED, "CkesMutex::Lock()");
}

long CkesMutex::Unlock() {
  return recorded(IsInitialized() ? implUnlock() : ERR_NOT_INITIALIZED, "CkesMutex::Unlock()");
}

long CkesMutex::TryLock() {
  return recorded(IsInitialized() ? implTryLock() : ERR_NOT_INITIALIZED, "CkesMutex::TryLock()");
}

void CkesMutex::RenewAfterFork() {
  if (!IsInitialized()) return;
  noteReleased();
  VInitialized.store(implInitialize(), std::memory_order_relaxed);
}
