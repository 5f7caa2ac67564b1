#pragma once

#include <string>
#include <vector>

namespace armtest {

inline constexpr const char* kTraceFile = "/var/orv/kestra/common/QDN/logs/trace-armdebug.log";

using Lines = std::vector<std::string>;

/// The whole trace file; empty when there is none.
std::string readTrace();
bool traceExists();
/// Removes the trace file; the next record makes a new one.
void clearTrace();

/// The texts of the records of a trace in the basic format, all written by the calling thread, one
/// per line and without the newline. Every prefix must be right: stamp, process and thread.
Lines basicTexts(const std::string& trace);

/// The trace in the XML format of records with these texts, written by the calling thread, with 'T'
/// for the digits of the times.
std::string xmlTrace(const Lines& texts);
/// A trace in the XML format with 'T' for the digits of the times, which must be of this century.
std::string withoutTimes(const std::string& trace);

/// The texts with '*' for the number behind each of the given words.
Lines withoutNumbers(Lines texts, const Lines& words);

/// Joins lists of texts.
Lines operator+(const Lines& left, const Lines& right);

}  // namespace armtest
