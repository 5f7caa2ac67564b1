// The hooks that nothing in the library calls, with the calls linked from the archive.

#include <stdlib.h>

#include "CallTest.h"
#include "arm/dllhook.h"
#include "arm/libarmutils.h"
#include "ipc/arm_ipc.h"
#include "tracefile.h"

namespace armtest {
namespace {

using Hooks = CallsWithEngine;

TEST_F(Hooks, DetachedProcessReconnectsWithItsNextCall) {
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_TRUE(IPCInitialized);
  processDetach();
  EXPECT_FALSE(IPCInitialized);
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_TRUE(IPCInitialized);
}

TEST_F(Hooks, DetachFreesTheConverterAndTheNextConversionOpensTheDefaultOne) {
  EXPECT_EQ(0, SetExpectedCodeset("ISO-8859-1"));
  EXPECT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  processDetach();
  EXPECT_EQ(nullptr, GetExpectedCodeset());
  EXPECT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_STREQ("UTF-8", GetExpectedCodeset());
}

TEST_F(Hooks, DetachTwiceAndWithoutAConnectionIsHarmless) {
  processDetach();
  processDetach();
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  processDetach();
  processDetach();
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Hooks, AttachSettlesTheSwitchBeforeTheFirstRegistrationAndBothAreTraced) {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  processAttach();
  processDetach();
  EXPECT_EQ(
      (Lines{"Debug run found in caller's environment.",
             "processAttach: Being attached by a PROCESS", "DllMain: Being detached by a PROCESS"}),
      basicTexts(readTrace()));
}

TEST_F(Hooks, AreSilentWithoutTheSwitch) {
  unsetenv("ARMDEBUG");
  processAttach();
  processDetach();
  EXPECT_FALSE(traceExists());
}

TEST_F(Hooks, StatusIs0WithAnEngineAndMinus2Without) {
  EXPECT_EQ(0, CheckEngineStatus());
  engine_.quit();
  EXPECT_EQ(-2, CheckEngineStatus());
  EXPECT_FALSE(IPCInitialized);
}

}  // namespace
}  // namespace armtest
