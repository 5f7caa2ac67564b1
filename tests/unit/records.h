#pragma once

#include <string>
#include <vector>

namespace armtest {

/// The calling thread's last error and its trail, "-122 CkesMutex::Lock()"; further names of the
/// trail follow behind blanks.  "no stack" on a thread without one.
std::string lastError();

/// Starts tracing, in the basic format.
void startTracing();

/// The texts of the records in the trace file, which must be in the basic format.
std::vector<std::string> traceTexts();

/// Fixes everything that a record of the trace carries: 2024-03-07 09:05:02.045917 UTC on "host" in
/// process 1234, thread 1024.
void fixStamp();
/// The XML record of a text, with the fixed stamp.
std::string xmlRecord(const std::string& text);

/// The trace file of a process without a properties file.
inline constexpr const char kTraceFile[] = "/var/orv/kestra/common/QDN/logs/trace-armdebug.log";
/// The properties file that names the log directory.
inline constexpr const char kPropertiesFile[] = "/etc/orv/kestra/common/cfg/log.properties";

bool exists(const std::string& path);
/// The whole content of a file; empty when there is none.
std::string contentOf(const std::string& path);
/// Replaces a file's content.
void writeContent(const std::string& path, const std::string& content);
/// The number of files that this process has open.
int openFiles();

}  // namespace armtest
