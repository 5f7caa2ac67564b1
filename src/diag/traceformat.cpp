#include "diag/traceformat.h"

#include <cstdarg>
#include <cstdio>

#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"

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

void traceText(const char* text) {
  if (VDebugRun) wcDebug(text);
}

void traceError(const char* text) {
  traceFormat("  \a%s\n", text);
}
