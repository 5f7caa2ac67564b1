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

/// In a forked child: makes the conversion's mutex free.
void renewLocalTimeInForkedChild();

/// Converts a time stamp into local calendar time (TZ of the process) and splits the nanoseconds by
/// truncating division.  Any thread; the host's own localtime result is left alone.  The calendar
/// stays zero where the zone cannot be asked for: in a signal handler that has interrupted a
/// conversion, and in a child forked during one.
void ConvertToHRT(uint32_t seconds, uint32_t nanoseconds, HrtTime* out);
