#include "arm/dllhook.h"

#include "arm/libarmutils.h"
#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"
#include "intl/intlcodeset.h"
#include "ipc/arm_ipc.h"

void processAttach() {
  checkDebug();
  if (VDebugRun) wcDebugln("processAttach: Being attached by a PROCESS");
}

void processDetach() {
  if (VDebugRun) wcDebugln("DllMain: Being detached by a PROCESS");
  (void)VInitMutex.Lock();
  IPCInitialized = false;
  CloseIPC();
  (void)VInitMutex.Unlock();
  FreeIntlICUConverter();
}
