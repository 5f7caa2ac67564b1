#include "tracefile.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>

#include "files.h"

namespace armtest {

namespace {

/// A number as both formats print ids: at least four digits.
std::string idText(unsigned long id) {
  char text[32];
  snprintf(text, sizeof text, "%04lu", id);
  return text;
}

std::string processText() {
  return idText(static_cast<unsigned long>(getpid()));
}
std::string threadText() {
  return idText(pthread_self());
}

bool isDigit(char character) {
  return character >= '0' && character <= '9';
}

/// Whether a text begins with a pattern in which 9 stands for any digit.
bool beginsWith(const std::string& text, size_t position, const char* pattern) {
  for (; *pattern != '\0'; ++pattern, ++position) {
    if (position >= text.size()) return false;
    const bool fits = *pattern == '9' ? isDigit(text[position]) : text[position] == *pattern;
    if (!fits) return false;
  }
  return true;
}

void maskDigits(std::string& text, size_t begin, size_t end) {
  for (size_t i = begin; i < end; ++i) {
    if (isDigit(text[i])) text[i] = 'T';
  }
}

// The nanoseconds are always 000 with this clock.
constexpr const char STAMP[] = "2099-99-99 99:99:99.999:999:000 (9";
constexpr size_t STAMP_LENGTH = sizeof STAMP - 2;

/// The ids of the record that a line begins, empty when it begins none.
std::string idsOf(const std::string& line) {
  if (!beginsWith(line, 0, STAMP)) return "";
  const size_t end = line.find_first_not_of("0123456789:", STAMP_LENGTH);
  if (end == std::string::npos || line.compare(end, 4, ") - ") != 0) return "";
  return line.substr(STAMP_LENGTH, end - STAMP_LENGTH);
}

/// The text of a record that is one line.
std::string lineOf(const TraceRecord& record) {
  const size_t end = record.text.find('\n');
  EXPECT_EQ(record.text.size(), end + 1) << "not one line: " << record.text;
  return record.text.substr(0, end);
}

}  // namespace

std::string readTrace() {
  return contentOf(TRACE_FILE);
}

bool traceExists() {
  return exists(TRACE_FILE);
}

void clearTrace() {
  unlink(TRACE_FILE);
}

std::vector<TraceRecord> traceRecords(const std::string& trace) {
  std::vector<TraceRecord> records;
  for (size_t begin = 0; begin < trace.size();) {
    const size_t end = std::min(trace.find('\n', begin), trace.size() - 1) + 1;
    const std::string line = trace.substr(begin, end - begin);
    const std::string ids = idsOf(line);
    if (!ids.empty() || records.empty()) records.push_back({ids, ""});
    records.back().text += ids.empty() ? line : line.substr(STAMP_LENGTH + ids.size() + 4);
    begin = end;
  }
  return records;
}

Lines traceTexts() {
  Lines texts;
  for (const TraceRecord& record : traceRecords(readTrace())) texts.push_back(record.text);
  return texts;
}

Lines traceLines(const std::string& beginning) {
  Lines lines;
  for (const TraceRecord& record : traceRecords(readTrace())) {
    EXPECT_NE("", record.ids) << "not the beginning of a record: " << record.text;
    const std::string line = lineOf(record);
    if (line.compare(0, beginning.size(), beginning) == 0) lines.push_back(line);
  }
  return lines;
}

Lines basicTexts(const std::string& trace) {
  Lines texts;
  for (const TraceRecord& record : traceRecords(trace)) {
    EXPECT_EQ(processText() + ":" + threadText(), record.ids) << record.text;
    texts.push_back(lineOf(record));
  }
  return texts;
}

std::string xmlRecord(const std::string& text, const XmlStamp& stamp) {
  return "<Trace>\n <Time Millis=\"" + stamp.milliseconds + "\">" + stamp.time +
         "</Time>\n"
         " <Server Format=\"IP\">" +
         stamp.host +
         "</Server>\n"
         " <ProductId>QDN</ProductId>\n"
         " <Component>ARM</Component>\n"
         " <ProductInstance>5.3</ProductInstance>\n"
         " <LogText><![CDATA[" +
         text +
         "]]></LogText>\n"
         " <LogAttribs><Key>organization</Key><Value>ORV</Value></LogAttribs>\n"
         " <Source FileName=\"None\" Method=\"None\"/>\n"
         " <Thread>" +
         stamp.thread +
         "</Thread>\n"
         " <Process>" +
         stamp.process +
         "</Process>\n"
         "</Trace>\n";
}

std::string xmlTrace(const Lines& texts) {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  const XmlStamp stamp = {"TTTTTTTTTTTTT", "TTTT-TT-TT TT:TT:TT.TTT", host, threadText(),
                          processText()};
  std::string trace;
  for (const std::string& text : texts) trace += xmlRecord(text, stamp);
  return trace;
}

std::string withoutTimes(const std::string& trace) {
  constexpr const char TIME_ELEMENT[] =
      " <Time Millis=\"9999999999999\">2099-99-99 99:99:99.999</Time>\n";
  std::string masked = trace;
  for (size_t at = masked.find(" <Time "); at != std::string::npos;
       at = masked.find(" <Time ", at + 1)) {
    EXPECT_TRUE(beginsWith(masked, at, TIME_ELEMENT)) << masked.substr(at, sizeof TIME_ELEMENT);
    maskDigits(masked, at, std::min(at + sizeof TIME_ELEMENT - 1, masked.size()));
  }
  return masked;
}

Lines withoutNumbers(Lines texts, const Lines& words) {
  for (std::string& text : texts) {
    for (const std::string& before : words) {
      const size_t at = text.find(before);
      if (at == std::string::npos) continue;
      const size_t begin = at + before.size();
      size_t end = begin;
      while (end < text.size() && (isDigit(text[end]) || text[end] == '-')) ++end;
      if (end > begin) text.replace(begin, end - begin, "*");
    }
  }
  return texts;
}

Lines operator+(const Lines& left, const Lines& right) {
  Lines all = left;
  all.insert(all.end(), right.begin(), right.end());
  return all;
}

}  // namespace armtest
