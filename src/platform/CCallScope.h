#pragma once

#include <pthread.h>

#include <cerrno>

#include "platform/forkgate.h"

/// What every exported call holds for its host, from its first line to its last: errno is given
/// back as it was found, and the thread cannot be cancelled inside the library, where it would
/// leave a mutex locked or a queue in use.  A cancellation that arrives meanwhile takes effect
/// afterwards.  A call made by a fork handler of the host's finds the library fit for use.
class CCallScope {
 public:
  CCallScope() : VErrno(errno), VCancelState(PTHREAD_CANCEL_ENABLE) {
    (void)pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &VCancelState);
    if (__builtin_expect(VForkingProcess != 0, 0)) renewIfForked();
  }
  ~CCallScope() {
    (void)pthread_setcancelstate(VCancelState, nullptr);
    errno = VErrno;
  }
  CCallScope(const CCallScope&) = delete;
  CCallScope& operator=(const CCallScope&) = delete;

 private:
  int VErrno;
  int VCancelState;
};
