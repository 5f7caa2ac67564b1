#include <cerrno>

#include "platform/CkesMutex.h"

bool CkesMutex::implInitialize() {
  return pthread_mutex_init(&VMutex, nullptr) == 0;
}

void CkesMutex::implDestroy() {
  (void)pthread_mutex_destroy(&VMutex);
}

long CkesMutex::implLock() {
  if (pthread_mutex_lock(&VMutex) != 0) return ERR_LOCK;
  setHolder();
  return 0;
}

long CkesMutex::implUnlock() {
  clearHolder();
  return pthread_mutex_unlock(&VMutex) == 0 ? 0 : ERR_UNLOCK;
}

// Nobody asks meanwhile whether the caller holds the mutex.
long CkesMutex::implPass() {
  if (pthread_mutex_lock(&VMutex) != 0) return ERR_LOCK;
  return pthread_mutex_unlock(&VMutex) == 0 ? 0 : ERR_UNLOCK;
}

long CkesMutex::implTryLock() {
  switch (pthread_mutex_trylock(&VMutex)) {
    case 0:
      setHolder();
      return 0;
    case EBUSY:
      return ERR_BUSY;
    default:
      return ERR_LOCK;
  }
}
