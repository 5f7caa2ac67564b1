#include "TraceFile.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <sstream>

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

}  // namespace

std::string readTrace() {
  std::ifstream file(kTraceFile, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

bool traceExists() {
  return access(kTraceFile, F_OK) == 0;
}

void clearTrace() {
  unlink(kTraceFile);
}

Lines basicTexts(const std::string& trace) {
  // The nanoseconds are always 000 with this clock.
  constexpr const char kStamp[] = "2099-99-99 99:99:99.999:999:000";
  const std::string ids = " (" + processText() + ":" + threadText() + ") - ";
  Lines texts;
  for (size_t begin = 0; begin < trace.size();) {
    const size_t end = trace.find('\n', begin);
    EXPECT_NE(std::string::npos, end) << "the last line has no end";
    if (end == std::string::npos) break;
    const std::string line = trace.substr(begin, end - begin);
    const size_t stamp = sizeof kStamp - 1;
    EXPECT_TRUE(beginsWith(line, 0, kStamp)) << line;
    const size_t prefix = stamp + ids.size();
    EXPECT_TRUE(line.size() >= prefix && line.compare(stamp, ids.size(), ids) == 0) << line;
    texts.push_back(line.size() >= prefix ? line.substr(prefix) : "");
    begin = end + 1;
  }
  return texts;
}

std::string xmlTrace(const Lines& texts) {
  char host[256] = {};
  gethostname(host, sizeof host - 1);
  std::string trace;
  for (const std::string& text : texts) {
    trace += "<Trace>\n <Time Millis=\"TTTTTTTTTTTTT\">TTTT-TT-TT TT:TT:TT.TTT</Time>\n";
    trace += std::string(" <Server Format=\"IP\">") + host + "</Server>\n";
    trace += " <ProductId>QDN</ProductId>\n <Component>ARM</Component>\n";
    trace += " <ProductInstance>5.3</ProductInstance>\n";
    trace += " <LogText><![CDATA[" + text + "]]></LogText>\n";
    trace += " <LogAttribs><Key>organization</Key><Value>ORV</Value></LogAttribs>\n";
    trace += " <Source FileName=\"None\" Method=\"None\"/>\n";
    trace += " <Thread>" + threadText() + "</Thread>\n";
    trace += " <Process>" + processText() + "</Process>\n</Trace>\n";
  }
  return trace;
}

std::string withoutTimes(const std::string& trace) {
  constexpr const char kTime[] = " <Time Millis=\"9999999999999\">2099-99-99 99:99:99.999</Time>\n";
  std::string masked = trace;
  for (size_t at = masked.find(" <Time "); at != std::string::npos;
       at = masked.find(" <Time ", at + 1)) {
    EXPECT_TRUE(beginsWith(masked, at, kTime)) << masked.substr(at, sizeof kTime);
    maskDigits(masked, at, std::min(at + sizeof kTime - 1, masked.size()));
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
