// The trace writer: any text, both formats, records and continuations, and the bounded formatting
// in front of it.  The file is read back and compared.

#include <fcntl.h>
#include <unistd.h>

#include <cctype>
#include <string>

#include "Check.h"
#include "Input.h"
#include "diag/libarmdebug.h"
#include "diag/traceformat.h"
#include "diag/wcdebug.h"
#include "tracefile.h"

namespace {

using armtest::TRACE_FILE;

constexpr int BASIC = 0;

void emptyFile() {
  const int file = open(TRACE_FILE, O_WRONLY | O_CREAT | O_TRUNC, 0600);
  CHECK(file >= 0);
  CHECK(close(file) == 0);
}

std::string fileContent() {
  const int file = open(TRACE_FILE, O_RDONLY);
  CHECK(file >= 0);
  std::string content;
  char part[4096];
  for (ssize_t count; (count = read(file, part, sizeof part)) > 0;) {
    content.append(part, static_cast<std::size_t>(count));
  }
  CHECK(close(file) == 0);
  return content;
}

// A text of any bytes may look like a record: it is compared where it must stand, and the trace not
// split into records as traceRecords does.

/// Takes a pattern off the front of a text: 9 stands for one digit, + for any further digits.
bool takeOff(std::string& text, const std::string& pattern) {
  std::size_t at = 0;
  for (const char expected : pattern) {
    if (expected == '+') {
      while (at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])) != 0) ++at;
      continue;
    }
    if (at == text.size()) return false;
    const bool digit = std::isdigit(static_cast<unsigned char>(text[at])) != 0;
    if (expected == '9' ? !digit : expected != text[at]) return false;
    ++at;
  }
  text.erase(0, at);
  return true;
}

void expectBasic(std::string& content, const std::string& text) {
  CHECK(takeOff(content, "9999-99-99 99:99:99.999:999:000 (9999+:9999+) - "));
  CHECK(content.compare(0, text.size(), text) == 0);
  content.erase(0, text.size());
}

void expectXml(std::string& content, const std::string& text) {
  CHECK(
      takeOff(content, "<Trace>\n <Time Millis=\"9999999999999\">9999-99-99 99:99:99.999</Time>"));
  const std::string begin = " <LogText><![CDATA[";
  const std::size_t at = content.find(begin);
  CHECK(at != std::string::npos);
  content.erase(0, at + begin.size());
  CHECK(content.compare(0, text.size(), text) == 0);
  content.erase(0, text.size());
  CHECK(takeOff(content,
                "]]></LogText>\n <LogAttribs><Key>organization</Key><Value>ORV</Value>"
                "</LogAttribs>\n <Source FileName=\"None\" Method=\"None\"/>\n"
                " <Thread>9999+</Thread>\n <Process>9999+</Process>\n</Trace>\n"));
}

/// Writes a text one way or another; stores what the record must hold and what must follow it.
void writeOne(Input& input, std::string* recorded, std::string* continuation) {
  const unsigned way = input.below(6);
  const std::string text = input.text(6000);
  Exact copy(text, true);
  *recorded = text;
  continuation->clear();
  switch (way) {
    case 0:
      wcDebug(copy.get());
      break;
    case 1:
      wcDebugln(copy.get());
      *continuation = "\n";
      break;
    case 2:
      traceFormat("%s", copy.get());
      *recorded = text.substr(0, 1023);
      break;
    case 3:
      traceFormatln("%s", copy.get());
      *recorded = text.substr(0, 1023);
      *continuation = "\n";
      break;
    case 4:
      traceFormatLong("%s", copy.get());
      *recorded = text.substr(0, 4095);
      break;
    default:
      traceError(copy.get());
      *recorded = ("  \a" + text + "\n").substr(0, 1023);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  Input input(data, size);
  VDebugRun = 1;
  emptyFile();
  std::string content;
  for (int i = 0; i < 4 && !input.empty(); ++i) {
    const bool basic = input.flag();
    wcDebugSetLogFormat(basic ? BASIC : 1);
    wcDebugSetLogFormat(2 + input.byte());
    std::string recorded;
    std::string continuation;
    writeOne(input, &recorded, &continuation);
    content = fileContent();
    emptyFile();
    if (basic) {
      expectBasic(content, recorded);
      CHECK(content == continuation);
    } else {
      expectXml(content, recorded);
      CHECK(content.empty());
    }
  }
  wcDebug(nullptr);
  CHECK(fileContent().empty());
  char path[16];
  CHECK(std::string(wcDebugGetLogFileSpec(path, sizeof path)) == "/var/orv/kestra");
  return 0;
}
