#pragma once

// Where the trace file lies: the log directory that a key of the common properties file names, or a
// fixed default.  No state; every call reads the file anew.  Any thread.  Lengths are capacities in
// bytes, the terminating zero included; a result that does not fit is cut to one byte less.
// Whoever fills a buffer sets its last byte to zero, wherever the text ends; without room nothing
// is written.

/// The properties file, and the key in it that names the common directory.
inline constexpr char LOG_PROPS_FS[] = "/etc/orv/kestra/common/cfg/log.properties";
inline constexpr char COMMON_LOGDIR_KEY[] = "kestra_common_dir";
/// The log directory below the common one.
inline constexpr char LOGDIR_TRAILER[] = "QDN/logs/";
/// The log directory when the properties name none.
inline constexpr char DEFAULT_LOGFILE_DIR[] = "/var/orv/kestra/common/QDN/logs/";
/// The trace file in it.
inline constexpr char DEFAULT_LOG_FILE_NAME[] = "trace-armdebug.log";

/// The full path of the trace file; returns dst.
char* getLogFileSpec(char* dst, unsigned int len);

/// The log directory, ending in "/"; the default one when the properties do not give it.
void findCommonLogDir(char* dst, int len);

/// The log directory according to a properties file; 1, or 0 when the file or the key is missing or
/// the value is empty.
int getLogPropertiesCommonLogDir(const char* path, char* dst, int len);

/// Finds the key in the text of a properties file and extracts its value: 18 characters after the
/// start of the first usable occurrence, up to the end of the line, trimmed.  An occurrence is
/// commented out only by a "#" directly before it.  1 when found, else 0.  size is not used.
int parseLogProps(char* text, unsigned int size, char* dst, int len);
