#include <pthread.h>
#include <sched.h>

#include <cerrno>

#include "platform/CkesThread.h"

void* CkesThread::startRoutine(void* thread) {
  static_cast<CkesThread*>(thread)->runBody();
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
