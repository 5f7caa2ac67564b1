#pragma once

#include <cstdint>
#include <ctime>

/// Broken-down local time with the parts of the current second.
struct HrtTime {
  std::tm calendar;       ///< the eleven fields of the system's local time, copied whole
  uint32_t milliseconds;  ///< 0 to 999
  uint32_t microseconds;  ///< within the millisecond, 0 to 999
  uint32_t nanoseconds;   ///< within the microsecond, 0 to 999; always 0 with this clock
};

/// The current time of day: whole seconds since the Unix epoch, and the nanoseconds of the current
/// second, always a multiple of 1000 (the source has microseconds).  Steps of the wall clock show
/// as they are.  Any thread, no lock, no system call where the kernel maps its clock into the
/// process.
void KelpBestGetCurrentTime(uint32_t* seconds, uint32_t* nanoseconds);

/// Held around the conversion, so that no fork comes while one is under way: the child would find the
/// system's time-zone lock taken for ever.  For the fork handlers: false when the calling thread holds
/// it already (a signal handler that forks).
bool lockLocalTime();
/// Ends what a successful lockLocalTime began.
void unlockLocalTime();
/// In a forked child: makes the lock free.  The child cannot unlock it, since the mutex knows its
/// holder by the parent's thread.
void renewLocalTimeInForkedChild();

/// Converts a time stamp into local calendar time (TZ of the process) and splits the nanoseconds by
/// truncating division.  Any thread; the host's own localtime result is left alone.
void ConvertToHRT(uint32_t seconds, uint32_t nanoseconds, HrtTime* out);
