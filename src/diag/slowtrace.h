#pragma once

#include <sys/stat.h>

// The trace where it is not a regular file, but a pipe, a terminal or another device, which takes
// only what somebody reads.  A record is gathered and then handed out whole or not at all.  When
// only its beginning was taken in time, the rest is kept and goes before the process's next
// record.  Any thread; a forked child starts with nothing kept.

/// How long a record waits for its reader.  A reader that has taken nothing for so long is not
/// waited for again until it has taken something.
inline constexpr long TRACE_READER_MILLISECONDS = 1000;
/// How long a record waits for the threads that are handing out theirs.
inline constexpr long TRACE_TURN_MILLISECONDS = 1000;
/// Room for the rest of one record and for another one, each with the longest text of the library.
inline constexpr unsigned SLOW_TRACE_SIZE = 16384;

/// The "file" whose texts are gathered.
inline constexpr int GATHERED_FILE = -1;

/// Begins a record for what has been opened; what is left of a record begun elsewhere is forgotten.
/// False when other threads have kept the turn too long: the record is lost, nothing is to be
/// ended.
bool beginSlowRecord(const struct stat& place);
/// Adds a text to the record that this thread has begun.
void gatherText(const char* text);
/// Hands the record out and gives the turn to the next thread.  False when nothing of it was taken
/// in time, or when it does not fit.  A continuation is kept instead: the record before it has
/// gone.
bool endSlowRecord(int file, bool isContinuation);
