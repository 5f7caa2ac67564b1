#include "platform/kelptime2.h"

#include <pthread.h>
#include <sys/time.h>

#include <atomic>

#include "platform/forkgate.h"
#include "platform/threadmark.h"

void KelpBestGetCurrentTime(uint32_t* seconds, uint32_t* nanoseconds) {
  timeval now = {};
  (void)gettimeofday(&now, nullptr);
  *seconds = static_cast<uint32_t>(now.tv_sec);
  *nanoseconds = static_cast<uint32_t>(now.tv_usec) * 1000U;
}

namespace {

/// A mutex that needs no constructor, and that refuses its own holder (a signal handler that
/// traces).
class CLocalTimeMutex {
 public:
  bool Lock() {
    if (VHolder.load(std::memory_order_relaxed) == threadMark()) return false;
    if (pthread_mutex_lock(&VMutex) != 0) return false;
    VHolder.store(threadMark(), std::memory_order_relaxed);
    return true;
  }
  bool Unlock() {
    VHolder.store(nullptr, std::memory_order_relaxed);
    return pthread_mutex_unlock(&VMutex) == 0;
  }
  void RenewAfterFork() {
    VMutex = PTHREAD_MUTEX_INITIALIZER;
    VHolder.store(nullptr, std::memory_order_relaxed);
  }

 private:
  pthread_mutex_t VMutex = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<const void*> VHolder{nullptr};
};

CLocalTimeMutex localTimeMutex;

/// One thread at a time, and none while another forks: the child would find the system's time-zone
/// lock taken for ever.
void convertLocked(std::time_t time, std::tm* calendar) {
  if (!VLocalTimeGate.Enter(localTimeMutex)) return;
  // localtime_r alone may keep an old zone: it need not look at TZ again, as localtime does.
  tzset();
  (void)localtime_r(&time, calendar);
  VLocalTimeGate.Leave();
}

}  // namespace

void renewLocalTimeInForkedChild() {
  localTimeMutex.RenewAfterFork();
}

void ConvertToHRT(uint32_t seconds, uint32_t nanoseconds, HrtTime* out) {
  out->calendar = {};
  if (localTimeMutex.Lock()) {
    convertLocked(static_cast<std::time_t>(seconds), &out->calendar);
    (void)localTimeMutex.Unlock();
  }
  out->milliseconds = nanoseconds / 1000000U;
  out->microseconds = nanoseconds / 1000U - out->milliseconds * 1000U;
  out->nanoseconds = nanoseconds % 1000U;
}
