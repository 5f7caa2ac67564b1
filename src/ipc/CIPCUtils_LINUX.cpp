#include <sys/syscall.h>
#include <unistd.h>

#include "ipc/CIPCUtils.h"
#include "platform/CkesThreadLibrary.h"

int GetProcessID() {
  return getpid();
}

namespace {

#if defined(__LP64__)

/// The kernel's id of this thread, and the process that asked for it: a forked child asks anew.
struct TThreadIdCache {
  int processId;
  unsigned long threadId;
};

__attribute__((tls_model("initial-exec"))) thread_local TThreadIdCache cache = {0, 0};

unsigned long threadIdIn(int process) {
  if (cache.processId != process) {
    cache = {process, static_cast<unsigned long>(syscall(SYS_gettid))};
  }
  return cache.threadId;
}

void forgetThreadId() {
  cache.processId = 0;
}

#else

unsigned long threadIdIn(int) {
  unsigned long id = 0;
  (void)CkesThreadLibrary::GetCurrentThreadID(&id);
  return id;
}

void forgetThreadId() {}

#endif

}  // namespace

unsigned long GetThreadId() {
  return threadIdIn(GetProcessID());
}

_TIPCIdentifier GetIpcIdentifier() {
  const int process = GetProcessID();
  return {process, static_cast<uint32_t>(threadIdIn(process))};
}

void forgetIdentityInForkedChild() {
  forgetThreadId();
}
