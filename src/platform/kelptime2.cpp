#include "platform/kelptime2.h"

#include <pthread.h>
#include <sys/time.h>

void KelpBestGetCurrentTime(uint32_t* seconds, uint32_t* nanoseconds) {
  timeval now = {};
  (void)gettimeofday(&now, nullptr);
  *seconds = static_cast<uint32_t>(now.tv_sec);
  *nanoseconds = static_cast<uint32_t>(now.tv_usec) * 1000U;
}

namespace {
// Needs no constructor, and answers EDEADLK to its own holder.
pthread_mutex_t localTimeMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
}  // namespace

bool lockLocalTime() {
  return pthread_mutex_lock(&localTimeMutex) == 0;
}

void unlockLocalTime() {
  (void)pthread_mutex_unlock(&localTimeMutex);
}

void renewLocalTimeInForkedChild() {
  localTimeMutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
}

void ConvertToHRT(uint32_t seconds, uint32_t nanoseconds, HrtTime* out) {
  const auto time = static_cast<std::time_t>(seconds);
  out->calendar = {};
  const bool locked = lockLocalTime();
  // localtime_r alone may keep an old zone: it need not look at TZ again, as localtime does.
  tzset();
  (void)localtime_r(&time, &out->calendar);
  if (locked) unlockLocalTime();
  out->milliseconds = nanoseconds / 1000000U;
  out->microseconds = nanoseconds / 1000U - out->milliseconds * 1000U;
  out->nanoseconds = nanoseconds % 1000U;
}
