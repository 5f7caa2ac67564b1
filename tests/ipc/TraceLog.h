#pragma once

#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "diag/libarmdebug.h"
#include "diag/wcdebug.h"

/// Tracing in the basic format, and the texts that were traced.
class TraceLog {
 public:
  TraceLog() {
    wcDebugSetLogFormat(0);
    VDebugRun = 1;
  }
  ~TraceLog() { VDebugRun = 0; }
  TraceLog(const TraceLog&) = delete;
  TraceLog& operator=(const TraceLog&) = delete;

  /// The traced lines without their stamps and identifiers; only those with the given beginning.
  std::vector<std::string> lines(const std::string& beginning = "") const {
    char path[4096];
    std::ifstream file(wcDebugGetLogFileSpec(path, sizeof path));
    std::vector<std::string> found;
    for (std::string line; std::getline(file, line);) {
      const size_t end = line.find(") - ");
      EXPECT_NE(std::string::npos, end) << "not the beginning of a record: " << line;
      const std::string text = end == std::string::npos ? line : line.substr(end + 4);
      if (text.compare(0, beginning.size(), beginning) == 0) found.push_back(text);
    }
    return found;
  }
};

using Lines = std::vector<std::string>;
