#include "platform/kelptime2.h"

#include <sys/time.h>

void KelpBestGetCurrentTime(uint32_t* seconds, uint32_t* nanoseconds) {
  timeval now = {};
  (void)gettimeofday(&now, nullptr);
  *seconds = static_cast<uint32_t>(now.tv_sec);
  *nanoseconds = static_cast<uint32_t>(now.tv_usec) * 1000U;
}

void ConvertToHRT(uint32_t seconds, uint32_t nanoseconds, HrtTime* out) {
  const auto time = static_cast<std::time_t>(seconds);
  out->calendar = {};
  // localtime_r alone may keep an old zone: it need not look at TZ again, as localtime does.
  tzset();
  (void)localtime_r(&time, &out->calendar);
  out->milliseconds = nanoseconds / 1000000U;
  out->microseconds = nanoseconds / 1000U - out->milliseconds * 1000U;
  out->nanoseconds = nanoseconds % 1000U;
}
