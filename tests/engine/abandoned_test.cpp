// Real processes that end without stopping what they have started.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include "armext.h"
#include "process.h"
#include "programs.h"

namespace {

using armtest::EngineProcess;
using armtest::forkChild;
using armtest::linesWith;
using armtest::runShell;
using armtest::waitUntil;
using armtest::wordsOfLine;

int32_t startOne(const char* application) {
  const int32_t id = arm_init(application, "*", 0, nullptr, 0);
  return arm_start(arm_getid(id, "order", nullptr, 0, nullptr, 0), 0, nullptr, 0);
}

size_t abandonedEvents() {
  return linesWith(runShell("cat /tmp/events").out, "\"event\":\"abandoned\"");
}

TEST(Abandoned, InstancesOfKilledProcessesEndAndThoseOfLivingOnesDoNot) {
  EngineProcess engine({"--report", "--events", "/tmp/events"});
  const int32_t own = startOne("living");
  for (int i = 0; i < 3; ++i) {
    const pid_t child = forkChild([] {
      for (int j = 0; j < 2; ++j) {
        if (startOne("killed") <= 0) return 1;
      }
      return kill(getpid(), SIGKILL);
    });
    EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(child));
  }
  EXPECT_TRUE(waitUntil([] { return abandonedEvents() == 6; }));
  EXPECT_EQ(0, arm_stop(own, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(engine.report(), "abandoned: 6")) << engine.report();
  EXPECT_EQ(0U, linesWith(engine.report(), "never stopped"));
  const auto killed = wordsOfLine(engine.report(), {"killed", "order"});
  const auto living = wordsOfLine(engine.report(), {"living", "order"});
  ASSERT_GE(killed.size(), 3U);
  ASSERT_GE(living.size(), 3U);
  EXPECT_EQ("0", killed[2]);
  EXPECT_EQ("1", living[2]);
}

TEST(Abandoned, ProcessThatOnlyUpdatesKeepsTheInstanceOfAnEndedOne) {
  EngineProcess engine({"--report", "--events", "/tmp/events"});
  const pid_t starter = forkChild([] {
    const int32_t handle = startOne("relay");
    FILE* file = fopen("/tmp/handle", "w");
    if (file == nullptr || handle <= 0) return 1;
    (void)fprintf(file, "%d", handle);
    (void)fclose(file);
    for (;;) pause();
  });
  int32_t handle = 0;
  EXPECT_TRUE(waitUntil([&handle] {
    handle = atoi(runShell("cat /tmp/handle").out.c_str());
    return handle > 0 && arm_update(handle, 0, nullptr, 0) == 0;
  }));
  kill(starter, SIGKILL);
  armtest::exitCodeOf(starter);
  // One that is found shows that the starter has been looked for as well.
  const pid_t other = forkChild([] { return startOne("killed") > 0 ? 0 : 1; });
  EXPECT_EQ(0, armtest::exitCodeOf(other));
  EXPECT_TRUE(waitUntil([] { return abandonedEvents() == 1; }));
  EXPECT_EQ(0, arm_stop(handle, ARM_GOOD, 0, nullptr, 0));
  EXPECT_EQ(0, engine.end(SIGTERM));
  EXPECT_EQ(1U, linesWith(engine.report(), "abandoned: 1")) << engine.report();
}

}  // namespace
