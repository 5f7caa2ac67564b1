#include "diag/libarmdebug.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

#include "diag/wcdebug.h"
#include "files.h"
#include "tracefile.h"

namespace armtest {
namespace {

using Texts = std::vector<std::string>;

const Texts FIRST_RECORD = {"Debug run found in caller's environment.\n"};

bool writesXml() {
  return contentOf(TRACE_FILE).rfind("<Trace>\n", 0) == 0;
}

void setSwitches(const char* run, const char* format) {
  setenv("ARMDEBUG", run, 1);
  setenv("ARMDEBUGFORMAT", format, 1);
}

TEST(DebugSwitches, TracingIsOffAtFirst) {
  EXPECT_EQ(0, VDebugRun);
}

TEST(DebugSwitches, WithoutArmdebugNothingIsWritten) {
  unsetenv("ARMDEBUG");
  EXPECT_FALSE(checkForDebugRun());
  checkDebug();
  EXPECT_EQ(0, VDebugRun);
  EXPECT_FALSE(exists(TRACE_FILE));
}

TEST(DebugSwitches, EmptyArmdebugTurnsTracingOn) {
  setSwitches("", "basic");
  EXPECT_TRUE(checkForDebugRun());
  checkDebug();
  EXPECT_EQ(1, VDebugRun);
  EXPECT_EQ(FIRST_RECORD, traceTexts());
}

TEST(DebugSwitches, AnyValueOfArmdebugTurnsTracingOn) {
  setSwitches("0", "basic");
  checkDebug();
  EXPECT_EQ(1, VDebugRun);
}

TEST(DebugSwitches, FormatIsXmlByDefault) {
  setenv("ARMDEBUG", "1", 1);
  unsetenv("ARMDEBUGFORMAT");
  checkDebug();
  EXPECT_TRUE(writesXml());
}

TEST(DebugSwitches, FormatBasicGivesTheBasicFormat) {
  setSwitches("1", "basic");
  checkDebug();
  EXPECT_FALSE(writesXml());
  EXPECT_EQ(FIRST_RECORD, traceTexts());
}

TEST(DebugSwitches, FormatWithACapitalBGivesXml) {
  setSwitches("1", "Basic");
  wcDebugSetLogFormat(0);
  checkDebug();
  EXPECT_TRUE(writesXml());
}

TEST(DebugSwitches, FormatThatOnlyBeginsWithBasicGivesXml) {
  setSwitches("1", "basic ");
  wcDebugSetLogFormat(0);
  checkDebug();
  EXPECT_TRUE(writesXml());
}

TEST(DebugSwitches, EmptyFormatGivesXml) {
  setSwitches("1", "");
  wcDebugSetLogFormat(0);
  checkDebug();
  EXPECT_TRUE(writesXml());
}

TEST(DebugSwitches, MissingFormatLeavesTheFormatAsItIs) {
  setenv("ARMDEBUG", "1", 1);
  unsetenv("ARMDEBUGFORMAT");
  wcDebugSetLogFormat(0);
  checkDebug();
  EXPECT_EQ(FIRST_RECORD, traceTexts());
}

TEST(DebugSwitches, FormatWithoutArmdebugHasNoEffect) {
  unsetenv("ARMDEBUG");
  setenv("ARMDEBUGFORMAT", "basic", 1);
  checkDebug();
  wcDebug("text");
  EXPECT_TRUE(writesXml());
}

TEST(DebugSwitches, EnvironmentIsReadOnce) {
  unsetenv("ARMDEBUG");
  checkDebug();
  setSwitches("1", "basic");
  checkDebug();
  EXPECT_EQ(0, VDebugRun);
  EXPECT_FALSE(exists(TRACE_FILE));
}

TEST(DebugSwitches, TracingStaysOnWhenTheVariableGoes) {
  setSwitches("1", "basic");
  checkDebug();
  unsetenv("ARMDEBUG");
  checkDebug();
  EXPECT_EQ(1, VDebugRun);
  EXPECT_EQ(FIRST_RECORD, traceTexts());
}

}  // namespace
}  // namespace armtest
