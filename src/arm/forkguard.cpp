#include "arm/forkguard.h"

#include <pthread.h>

#include "arm/libarmutils.h"
#include "ipc/arm_ipc.h"

namespace {

pthread_once_t registered = PTHREAD_ONCE_INIT;

// A fork waits for a conversion that is under way, since the converter cannot be repaired in the
// child. It does not wait for the connection's mutexes, which can be held for seconds.
void beforeFork() {
  (void)VCodesetMutex.Lock();
}

void inParent() {
  (void)VCodesetMutex.Unlock();
}

void inChild() {
  (void)VCodesetMutex.Unlock();
  VInitMutex.RenewAfterFork();
  renewIPCInForkedChild();
}

void registerHandlers() {
  (void)pthread_atfork(beforeFork, inParent, inChild);
}

}  // namespace

void guardForks() {
  (void)pthread_once(&registered, registerHandlers);
}
