#include "diag/traceformat.h"

#include <cstdarg>
#include <cstdio>

namespace {

constexpr unsigned SHORT_LINE_SIZE = 128;
constexpr unsigned LINE_SIZE = 1024;
/// A getid line carries 3619 + 127 characters of names.
constexpr unsigned LONG_LINE_SIZE = 4096;

template <unsigned Size>
__attribute__((format(printf, 2, 0))) void formatLine(void (*write)(const char*),
                                                      const char* format, va_list arguments) {
  char line[Size];
  line[0] = '\0';
  (void)std::vsnprintf(line, sizeof line, format, arguments);
  write(line);
}

}  // namespace

void traceFormat(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  formatLine<LINE_SIZE>(wcDebug, format, arguments);
  va_end(arguments);
}

void traceFormatln(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  formatLine<LINE_SIZE>(wcDebugln, format, arguments);
  va_end(arguments);
}

void traceFormatShort(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  formatLine<SHORT_LINE_SIZE>(wcDebug, format, arguments);
  va_end(arguments);
}

void traceFormatLong(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  formatLine<LONG_LINE_SIZE>(wcDebug, format, arguments);
  va_end(arguments);
}

long traceFailure(long code, const char* format, ...) {
  if (!VDebugRun) return code;
  va_list arguments;
  va_start(arguments, format);
  formatLine<LINE_SIZE>(wcDebugln, format, arguments);
  va_end(arguments);
  return code;
}

bool traceFailure(const char* format, ...) {
  if (!VDebugRun) return false;
  va_list arguments;
  va_start(arguments, format);
  formatLine<LINE_SIZE>(wcDebugln, format, arguments);
  va_end(arguments);
  return false;
}
