#include "diag/traceformat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "files.h"
#include "tracing.h"

namespace armtest {
namespace {

using Texts = std::vector<std::string>;

TEST(TraceFormat, RecordIsTheFormattedText) {
  startTracing();
  traceFormat("%s %d\n", "text", 7);
  EXPECT_EQ((Texts{"text 7\n"}), traceTexts());
}

TEST(TraceFormat, LineGetsItsNewline) {
  startTracing();
  traceFormatln("%s %d", "text", 7);
  EXPECT_EQ((Texts{"text 7\n"}), traceTexts());
}

TEST(TraceFormat, ErrorBeginsWithTwoBlanksAndTheBell) {
  startTracing();
  traceError("text");
  EXPECT_EQ((Texts{"  \x07text\n"}), traceTexts());
}

TEST(TraceFormat, FailureIsALineAndReturnsItsCode) {
  startTracing();
  EXPECT_EQ(-252, traceFailure(-252, "%s %d", "text", 7));
  EXPECT_FALSE(traceFailure("%s %d", "other", 8));
  EXPECT_EQ((Texts{"text 7\n", "other 8\n"}), traceTexts());
}

TEST(TraceFormat, FailureReturnsItsCodeWithoutADebugRun) {
  EXPECT_EQ(-252, traceFailure(-252, "%s", "text"));
  EXPECT_FALSE(traceFailure("%s", "text"));
  EXPECT_FALSE(exists(TRACE_FILE));
}

TEST(TraceFormat, LongestNamesOfATransactionClassFit) {
  startTracing();
  const std::string name(127, 'n');
  const std::string detail(3619, 'd');
  traceFormatLong("%s %s\n", name.c_str(), detail.c_str());
  EXPECT_EQ((Texts{name + " " + detail + "\n"}), traceTexts());
}

TEST(TraceFormat, FinishedTextIsWrittenAsItIs) {
  startTracing();
  traceText("100 %s\n");
  EXPECT_EQ((Texts{"100 %s\n"}), traceTexts());
}

TEST(TraceFormat, FinishedTextIsNotWrittenWithoutADebugRun) {
  traceText("text\n");
  EXPECT_FALSE(exists(TRACE_FILE));
}

/// What is traced of a text of 5000 characters: how many of them, and what follows.
std::string cut(void (*trace)(const char*)) {
  startTracing();
  trace(std::string(5000, 't').c_str());
  const std::string text = traceTexts().at(0);
  const size_t length = text.find_first_not_of('t');
  return std::to_string(std::min(length, text.size())) + text.substr(std::min(length, text.size()));
}

TEST(TraceFormat, RecordThatDoesNotFitIsCut) {
  EXPECT_EQ("1023", cut([](const char* text) { traceFormat("%s\n", text); }));
}

TEST(TraceFormat, CutsAShortLineAt127Characters) {
  EXPECT_EQ("127", cut([](const char* text) { traceFormatShort("%s\n", text); }));
}

TEST(TraceFormat, LineThatDoesNotFitIsCutAndGetsItsNewline) {
  EXPECT_EQ("1023\n", cut([](const char* text) { traceFormatln("%s", text); }));
}

TEST(TraceFormat, LongRecordThatDoesNotFitIsCut) {
  EXPECT_EQ("4095", cut([](const char* text) { traceFormatLong("%s\n", text); }));
}

}  // namespace
}  // namespace armtest
