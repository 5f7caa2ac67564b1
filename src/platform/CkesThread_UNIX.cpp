#include <pthread.h>
#include <sched.h>

#include <cerrno>

#include "diag/CkesErrorManager.h"
#include "platform/CkesThread.h"

namespace {

/// A cancelled body does not come back to give its thread's error stack away.
void whenCancelled(void*) {
  (void)CkesErrorManager::UnregisterThread();
}

}  // namespace

void* CkesThread::startRoutine(void* thread) {
  pthread_cleanup_push(whenCancelled, nullptr);
  static_cast<CkesThread*>(thread)->runBody();
  pthread_cleanup_pop(0);
  return nullptr;
}

bool CkesThread::implInitialize() {
  if (!VStartEvent.IsInitialized()) return false;
  return pthread_create(&VThread, nullptr, &CkesThread::startRoutine, this) == 0;
}

long CkesThread::implJoin() {
  switch (pthread_join(VThread, nullptr)) {
    case 0:
      return 0;
    case EDEADLK:
      return ERR_JOIN_SELF;
    default:
      return ERR_JOIN;
  }
}

long CkesThread::implTerminate() {
  return pthread_cancel(VThread) == 0 ? 0 : ERR_CANCEL;
}

long CkesThread::implGiveWay() {
  if (pthread_equal(VThread, pthread_self()) == 0) return ERR_NOT_OWN_THREAD;
  (void)sched_yield();
  return 0;
}
