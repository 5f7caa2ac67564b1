#include "diag/CPatience.h"

#include <ctime>

long long CPatience::now() {
  timespec time = {};
  (void)clock_gettime(CLOCK_MONOTONIC, &time);
  return time.tv_sec * 1000LL + time.tv_nsec / 1000000;
}

void CPatience::pause() {
  const timespec millisecond = {0, 1000000};
  (void)nanosleep(&millisecond, nullptr);
}
