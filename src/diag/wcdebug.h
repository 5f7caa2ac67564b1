#pragma once

#include <atomic>
#include <cstdint>

// The trace writer.  It stamps a finished text with the local time, the process and the thread, and
// appends it to the trace file, as a plain line (the basic format) or as a small XML document.
// Callers decide whether to trace at all; the writer writes what it is given, never changes a
// result and ignores its own failures.  Any thread, no lock: each record is several appending
// writes, so records of different threads may interleave between them.  Where the file is a pipe, a
// terminal or another device, each record is handed out whole or not at all, see slowtrace.h.

/// Writes text as a new record.
void wcDebug(const char* text);

/// Writes text as a new record and a newline as its continuation, which shows in the basic format
/// only.
void wcDebugln(const char* text);

/// The worker of both: kind 1 writes a new record, kind 0 a continuation (the text alone in the
/// basic format, nothing in the XML format).  A null text is ignored.
void wcDebugWorker(const char* text, int kind);

/// Sets the format, 0 basic or 1 XML (the initial one); other values are ignored.
void wcDebugSetLogFormat(int format);

/// Copies at most len bytes of the trace file's path into dst, padded with zeros, the last byte
/// forced to zero; returns dst.
char* wcDebugGetLogFileSpec(char* dst, unsigned int len);

// The writer's own parts.

/// Size of a time stamp's buffer.
inline constexpr unsigned TRACE_STAMP_SIZE = 100;
/// Sizes of the file's path and of the host's name.
inline constexpr unsigned TRACE_SPEC_SIZE = 4096;
inline constexpr unsigned TRACE_HOST_SIZE = 256;

/// The format of records: 0 basic, 1 XML.
extern std::atomic<int> VLogFormat;
/// True once a failure to open the file has been reported.
extern std::atomic<bool> VTriedFileOnce;
namespace wcdebug {
/// True once the one-time preparation is done, which settles what follows.
extern std::atomic<bool> VInitialized;
}  // namespace wcdebug
/// The file's path.
extern char VLogFileSpec[TRACE_SPEC_SIZE];
/// The host's name, empty when it has none.
extern char VHostName[TRACE_HOST_SIZE];
/// The fixed text of an XML record, in its order.  The third holds the host's name and is built by
/// the preparation.
extern const char VXMLPart1[];
extern const char VXMLPart2[];
extern char VXMLPart3[];
extern const char VXMLPart4[];
extern const char VXMLPart5[];
extern const char VXMLPart6[];

/// The one-time preparation: the file's path and the XML pieces.
void doInit();
/// Builds the XML pieces, which hold the host name.
void prepXMLFormat();

/// The current local time as text in buffer (TRACE_STAMP_SIZE bytes), with microseconds and
/// nanoseconds when subMilliseconds is not 0.  Stores the epoch seconds unless seconds is null, and
/// the milliseconds only together with them.
void getLocalTime(int subMilliseconds, char* buffer, uint32_t* seconds, uint32_t* milliseconds);
/// The process id.
unsigned long getPid();
/// The calling thread's pthread identifier.
unsigned long getTid();

/// Writes a text with a single write, whose result is ignored.  GATHERED_FILE takes texts too.
void writeString(int file, const char* text);
/// Writes a record of the basic format.
void writeBasicMsg(int file, const char* text, int kind, const char* stamp);
/// Writes a record of the XML format, or nothing for a continuation.
void writeXMLMsg(int file, const char* text, int kind, const char* stamp, uint32_t seconds,
                 uint32_t milliseconds);
