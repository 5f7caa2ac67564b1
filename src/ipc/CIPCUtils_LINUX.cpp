#include <sys/syscall.h>
#include <unistd.h>

#include "ipc/CIPCUtils.h"
#include "platform/CkesThreadLibrary.h"

int GetProcessID() {
  return getpid();
}

#if defined(__LP64__)

namespace {

/// The kernel's id of this thread, and the process that asked for it: a forked child asks anew.
struct TThreadIdCache {
  int processId;
  unsigned long threadId;
};

__attribute__((tls_model("initial-exec"))) thread_local TThreadIdCache cache = {0, 0};

}  // namespace

unsigned long GetThreadId() {
  const int process = getpid();
  if (cache.processId != process) {
    cache = {process, static_cast<unsigned long>(syscall(SYS_gettid))};
  }
  return cache.threadId;
}

#else

unsigned long GetThreadId() {
  unsigned long id = 0;
  (void)CkesThreadLibrary::GetCurrentThreadID(&id);
  return id;
}

#endif
