#pragma once

// Formats one trace line and hands it whole to the trace writer.  Call sites test VDebugRun first.
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

/// Writes a finished text with wcDebug when the process traces.
void traceText(const char* text);

/// Writes an error line of the ARM calls: two blanks, the BEL character, the text, a newline.
void traceError(const char* text);
