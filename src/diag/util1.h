#pragma once

#include <sys/types.h>

#include "diag/CPatience.h"

// Small helpers for files and texts of the log location.  Any thread.

/// What ends a line.
inline constexpr char EOL_CHARS[] = "\r\n";
/// What is trimmed from the ends of a value.
inline constexpr char _TRIM_CHARS[] = " =\t\r\n";

/// How long a file is waited for on which another process holds a lease: longer than the 45 seconds
/// after which the kernel takes a lease away, unless it was told otherwise.
inline constexpr long LEASE_MILLISECONDS = 60000;

/// Opens a file as open does with O_NONBLOCK, but waits, with the patience given, for other
/// processes to give their leases on it back.
int openPatiently(const char* path, int flags, mode_t mode, CPatience& patience);

/// 1 when the path can be examined, its size in bytes stored through size when that is not null;
/// else 0.
int fileExists(const char* path, unsigned int* size);

/// Reads exactly size bytes of a file into a new buffer, adds a zero byte and hands it over through
/// text (the caller frees it); 1.  On any failure, a shorter file included, *text is null; 0.
int readFile(const char* path, unsigned int size, char** text);

/// Cuts s at its first carriage return or line feed.  Null is left alone.
void clipLine(char* s);

/// Removes blanks, "=", tabs, carriage returns and line feeds from both ends of s.  Null is left
/// alone.
void trimString(char* s);

/// Appends "/" unless s ends in one (or is empty or null).  The caller leaves room for it.
void ensureEndsWithSlash(char* s);

/// Appends as much of source to the text in dst as fits into size bytes with the terminating zero.
void appendBounded(char* dst, const char* source, unsigned long size);
