#pragma once

#include <string>
#include <vector>

namespace armtest {

/// The trace file of a process without a properties file, which may name another directory.
inline constexpr const char* TRACE_FILE = "/var/orv/kestra/common/QDN/logs/trace-armdebug.log";
inline constexpr const char* PROPERTIES_FILE = "/etc/orv/kestra/common/cfg/log.properties";

using Lines = std::vector<std::string>;

/// The whole trace file; empty when there is none.
std::string readTrace();
bool traceExists();
/// Removes the trace file; the next record makes a new one.
void clearTrace();

/// A record in the basic format.
struct TraceRecord {
  std::string ids;   ///< "process:thread", empty for text in front of the first record
  std::string text;  ///< up to the next record, newlines included
};

/// The records of a trace in the basic format. Lines that begin none belong to the one before.
std::vector<TraceRecord> traceRecords(const std::string& trace);
/// Their texts, of the trace file.
Lines traceTexts();
/// The texts of the trace file's records with a beginning, each of which must be one line, without
/// the newline.
Lines traceLines(const std::string& beginning = "");
/// The same of a trace, all of whose records the calling thread must have written.
Lines basicTexts(const std::string& trace);

/// What a record in the XML format carries besides its text.
struct XmlStamp {
  std::string milliseconds;
  std::string time;
  std::string host;
  std::string thread;
  std::string process;
};
std::string xmlRecord(const std::string& text, const XmlStamp& stamp);
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
