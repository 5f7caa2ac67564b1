#include <pthread.h>
#include <sched.h>

#include <cerrno>

#include "platform/CkesThreadLibrary.h"

long CkesThreadLibrary::implInitialize() {
  return 0;
}

long CkesThreadLibrary::implCreateNewKey(unsigned int* key) {
  pthread_key_t made = 0;
  if (pthread_key_create(&made, nullptr) != 0) return ERR_KEY_CREATE;
  if (pthread_getspecific(made) == nullptr) {
    *key = made;
    return 0;
  }
  // A new key that has a value already is in use by another C library of the process (dlmopen),
  // which numbers its keys as this one does.  It is kept: made anew after a deletion, its number
  // would look free, and the other's value be lost.
  return implCreateNewKey(key);
}

long CkesThreadLibrary::implSetKeyValue(unsigned int key, void* value) {
  switch (pthread_setspecific(key, value)) {
    case 0:
      return 0;
    case EINVAL:
      return ERR_KEY_INVALID;
    default:
      return ERR_KEY_SET;
  }
}

long CkesThreadLibrary::implGetKeyValue(unsigned int key, void** value) {
  *value = pthread_getspecific(key);
  return 0;
}

long CkesThreadLibrary::implGetCurrentThreadID(unsigned long* id) {
  *id = pthread_self();
  return 0;
}

long CkesThreadLibrary::implGiveWay() {
  (void)sched_yield();
  return 0;
}
