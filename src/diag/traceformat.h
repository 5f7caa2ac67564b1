#pragma once

#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"

// Formats one trace line and hands it whole to the trace writer.  Call sites test VDebugRun first,
// except where a function says that it does.
// A line that does not fit is cut; the capacities are chosen so that no line of accepted arguments
// is. Any thread.

/// Formats into 1024 bytes and writes with wcDebug: for texts that bring their own newline.
void traceFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats into 1024 bytes and writes with wcDebugln: for texts without a newline.
void traceFormatln(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats into 128 bytes and writes with wcDebug: for fixed texts with numbers, where much of the
/// caller's stack is in use already.
void traceFormatShort(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats into 4096 bytes and writes with wcDebug: for lines with a transaction-class name or a
/// code set's name.
void traceFormatLong(const char* format, ...) __attribute__((format(printf, 1, 2)));

/// Formats as traceFormatln, but only when the process traces, and returns the code: for the ways
/// out of a function that fails.  The arguments may name errno, which the caller still finds
/// unchanged when the process does not trace.
long traceFailure(long code, const char* format, ...) __attribute__((cold, format(printf, 2, 3)));
/// The same for functions that tell by false that they fail.
bool traceFailure(const char* format, ...) __attribute__((cold, format(printf, 1, 2)));

/// Writes a finished text with wcDebug when the process traces.
inline void traceText(const char* text) {
  if (VDebugRun) wcDebug(text);
}

/// Writes an error line of the ARM calls when the process traces: two blanks, the BEL character,
/// the text, a newline.
inline void traceError(const char* text) {
  if (VDebugRun) traceFormat("  \a%s\n", text);
}
