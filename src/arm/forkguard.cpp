#include "arm/forkguard.h"

#include <pthread.h>

#include "arm/libarmutils.h"
#include "ipc/arm_ipc.h"
#include "platform/kelptime2.h"

std::atomic<bool> VForksGuarded{false};

namespace {

pthread_once_t registered = PTHREAD_ONCE_INIT;

// What the forking thread has taken; it touches these only while it holds the mutex in question.
bool codesetTaken = false;
bool localTimeTaken = false;

// A fork waits for a conversion that is under way, of a string or of a time stamp, since neither can be
// repaired in the child; unless the forking thread itself is in it (a signal handler that forks).  It
// does not wait for the connection's mutexes, which can be held for seconds.
void beforeFork() {
  const bool inConversion = VCodesetMutex.HeldByCaller();
  const bool taken = !inConversion && VCodesetMutex.Lock() == 0;
  const bool timeTaken = lockLocalTime();
  codesetTaken = taken;
  localTimeTaken = timeTaken;
}

void afterFork() {
  const bool taken = codesetTaken;
  if (localTimeTaken) unlockLocalTime();
  if (taken) (void)VCodesetMutex.Unlock();
}

void inChild() {
  afterFork();
  renewLocalTimeInForkedChild();
  VInitMutex.RenewAfterFork();
  renewIPCInForkedChild();
  forgetIdentityInForkedChild();
}

void registerOnce() {
  (void)pthread_atfork(beforeFork, afterFork, inChild);
  VForksGuarded.store(true, std::memory_order_release);
}

}  // namespace

void registerForkHandlers() {
  (void)pthread_once(&registered, registerOnce);
}
