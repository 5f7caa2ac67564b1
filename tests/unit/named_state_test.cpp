// The state and the constants that are known by name, read through their headers.

#include <gtest/gtest.h>

#include <string>

#include "calls.h"
#include "diag/libarmdebug.h"
#include "diag/util1.h"
#include "diag/util2.h"
#include "diag/wcdebug.h"
#include "files.h"
#include "ipc/CIPCUtils.h"
#include "ipc/multiagent.h"
#include "platform/CkesSharedMemory.h"
#include "platform/CkesThreadLibrary.h"
#include "tracefile.h"

namespace armtest {
namespace {

TEST(NamedState, DebugSwitchesAreCheckedOnce) {
  EXPECT_FALSE(VCheckedForDebugRun);
  checkDebug();
  EXPECT_TRUE(VCheckedForDebugRun);
  EXPECT_EQ(0, VDebugRun);
}

TEST(NamedState, DebugSwitchesHaveTheirNames) {
  EXPECT_STREQ("ARMDEBUG", ARMDEBUG_RUN_ENV_VAR);
  EXPECT_STREQ("ARMDEBUGFORMAT", ARMDEBUG_FORMAT_ENV_VAR);
  EXPECT_STREQ("basic", ARMDEBUG_FORMAT_BASIC);
}

TEST(NamedState, TraceFormatIsXmlUntilItIsChosen) {
  EXPECT_EQ(1, VLogFormat);
  wcDebugSetLogFormat(0);
  EXPECT_EQ(0, VLogFormat);
}

TEST(NamedState, TraceIsPreparedByItsFirstRecord) {
  calls::gethostname.replace([](char* name, size_t) {
    name[0] = 'h';
    name[1] = '\0';
    return 0;
  });
  EXPECT_FALSE(wcdebug::VInitialized);
  EXPECT_STREQ("", VLogFileSpec);
  EXPECT_STREQ("", VHostName);
  EXPECT_STREQ("", VXMLPart3);
  wcDebug("x");
  EXPECT_TRUE(wcdebug::VInitialized);
  EXPECT_STREQ("/var/orv/kestra/common/QDN/logs/trace-armdebug.log", VLogFileSpec);
  EXPECT_STREQ("h", VHostName);
  EXPECT_STREQ(
      "</Time>\n <Server Format=\"IP\">h</Server>\n <ProductId>QDN</ProductId>\n"
      " <Component>ARM</Component>\n <ProductInstance>5.3</ProductInstance>\n"
      " <LogText><![CDATA[",
      VXMLPart3);
}

TEST(NamedState, TraceOfXmlHasItsPieces) {
  EXPECT_STREQ("<Trace>\n <Time Millis=\"", VXMLPart1);
  EXPECT_STREQ("\">", VXMLPart2);
  EXPECT_STREQ(
      "]]></LogText>\n <LogAttribs><Key>organization</Key><Value>ORV</Value></LogAttribs>\n"
      " <Source FileName=\"None\" Method=\"None\"/>\n <Thread>",
      VXMLPart4);
  EXPECT_STREQ("</Thread>\n <Process>", VXMLPart5);
  EXPECT_STREQ("</Process>\n</Trace>\n", VXMLPart6);
}

TEST(NamedState, TraceRemembersThatItHasComplained) {
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/tmp/common\n");
  EXPECT_FALSE(VTriedFileOnce);
  testing::internal::CaptureStdout();
  wcDebug("lost");
  (void)testing::internal::GetCapturedStdout();
  EXPECT_TRUE(VTriedFileOnce);
}

TEST(NamedState, LogLocationHasItsConstants) {
  EXPECT_STREQ("/etc/orv/kestra/common/cfg/log.properties", LOG_PROPS_FS);
  EXPECT_STREQ("kestra_common_dir", COMMON_LOGDIR_KEY);
  EXPECT_STREQ("QDN/logs/", LOGDIR_TRAILER);
  EXPECT_STREQ("/var/orv/kestra/common/QDN/logs/", DEFAULT_LOGFILE_DIR);
  EXPECT_STREQ("trace-armdebug.log", DEFAULT_LOG_FILE_NAME);
  EXPECT_STREQ("\r\n", EOL_CHARS);
  EXPECT_STREQ(" =\t\r\n", _TRIM_CHARS);
}

TEST(NamedState, ThreadLibraryIsInitializedWithTheKeyOfTheNames) {
  EXPECT_FALSE(CkesThreadLibrary::VInitialized);
  EXPECT_EQ(0, CkesThreadLibrary::Initialize());
  EXPECT_TRUE(CkesThreadLibrary::VInitialized);
  void* name = nullptr;
  EXPECT_EQ(0, CkesThreadLibrary::GetKeyValue(CkesThreadLibrary::VTNameKey, &name));
  EXPECT_STREQ("Main Thread", static_cast<const char*>(name));
}

TEST(NamedState, AgentsNameHasItsVariableAndItsDelimiter) {
  EXPECT_STREQ("ARM_AGENT_PREFIX", MULTI_AGENT_ENV_VAR);
  EXPECT_STREQ(".", POST_MULTI_DELIMETER);
}

TEST(NamedState, KeysOfASegmentHaveTheirProjects) {
  EXPECT_EQ(1, CkesSharedMemory::IPC_SEM_ID);
  EXPECT_EQ(2, CkesSharedMemory::IPC_MEM_ID);
}

}  // namespace
}  // namespace armtest
