#include "arm/forkguard.h"

#include "arm/libarmutils.h"
#include "ipc/CIPCUtils.h"
#include "ipc/arm_ipc.h"
#include "platform/forkgate.h"
#include "platform/kelptime2.h"

namespace {

// Every mutex is made anew: its holder was a thread of the parent, or a call of this thread that a
// signal handler has interrupted to fork.
void renewInForkedChild() {
  renewLocalTimeInForkedChild();
  VCodesetMutex.RenewAfterFork();
  VInitMutex.RenewAfterFork();
  renewIPCInForkedChild();
  forgetIdentityInForkedChild();
}

}  // namespace

bool guardForks() {
  return registerForkHandlers(renewInForkedChild);
}
