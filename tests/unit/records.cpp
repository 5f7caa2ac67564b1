#include "records.h"

#include <dirent.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "calls.h"
#include "diag/CkesErrorManager.h"
#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"

namespace armtest {

namespace {

/// The length of the stamp and the ids that begin a record, 0 when the line begins none.
size_t headerLength(const std::string& line) {
  constexpr size_t kStampLength = sizeof "2024-03-07 09:05:02.045:917:000 (" - 1;
  if (line.size() < kStampLength || line[4] != '-' || line[23] != ':' ||
      line.compare(kStampLength - 2, 2, " (") != 0)
    return 0;
  const size_t end = line.find(") - ", kStampLength);
  return end == std::string::npos ? 0 : end + 4;
}

}  // namespace

std::string lastError() {
  long code = 0;
  char dump[4096] = "";
  if (CkesErrorManager::GetError(&code) != 0) return "no stack";
  (void)CkesErrorManager::GetStackDump(dump, sizeof dump);
  std::string text = std::to_string(code) + " " + dump;
  text.pop_back();
  for (char& c : text)
    if (c == '\n') c = ' ';
  return text;
}

void startTracing() {
  VDebugRun = 1;
  wcDebugSetLogFormat(0);
}

std::vector<std::string> traceTexts() {
  std::vector<std::string> texts;
  std::istringstream lines(contentOf(kTraceFile));
  for (std::string line; std::getline(lines, line);) {
    if (!lines.eof()) line += '\n';
    const size_t header = headerLength(line);
    if (header > 0 || texts.empty()) texts.emplace_back();
    texts.back() += line.substr(header);
  }
  return texts;
}

void fixStamp() {
  setenv("TZ", "UTC", 1);
  calls::gettimeofday.replace([](timeval* now, void*) {
    now->tv_sec = 1709802302;
    now->tv_usec = 45917;
    return 0;
  });
  calls::gethostname.replace([](char* name, size_t) {
    std::strcpy(name, "host");
    return 0;
  });
  calls::getpid.fail(1234, 0);
  calls::pthread_self.fail(1024, 0);
}

std::string xmlRecord(const std::string& text) {
  return "<Trace>\n"
         " <Time Millis=\"1709802302045\">2024-03-07 09:05:02.045</Time>\n"
         " <Server Format=\"IP\">host</Server>\n"
         " <ProductId>QDN</ProductId>\n"
         " <Component>ARM</Component>\n"
         " <ProductInstance>5.3</ProductInstance>\n"
         " <LogText><![CDATA[" +
         text +
         "]]></LogText>\n"
         " <LogAttribs><Key>organization</Key><Value>ORV</Value></LogAttribs>\n"
         " <Source FileName=\"None\" Method=\"None\"/>\n"
         " <Thread>1024</Thread>\n"
         " <Process>1234</Process>\n"
         "</Trace>\n";
}

bool exists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::ostringstream content;
  content << file.rdbuf();
  return content.str();
}

void writeContent(const std::string& path, const std::string& content) {
  std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

int openFiles() {
  DIR* files = opendir("/proc/self/fd");
  int count = 0;
  while (readdir(files) != nullptr) ++count;
  closedir(files);
  return count;
}

}  // namespace armtest
