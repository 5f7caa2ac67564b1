#include "armstat/Processes.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "process.h"

namespace {

using armstat::processLives;
using armstat::processState;

TEST(Processes, OneThatWaitsForItsParentLivesNoMore) {
  const pid_t child = armtest::forkChild([] { return 0; });
  siginfo_t info = {};
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_FALSE(processLives(child));
  EXPECT_EQ('Z', processState(child));
  armtest::exitCodeOf(child);
  EXPECT_FALSE(processLives(child));
  EXPECT_EQ('?', processState(child));
}

TEST(Processes, OneWhoseFirstThreadHasEndedLives) {
  const pid_t child = armtest::forkWithoutFirstThread();
  EXPECT_EQ('Z', processState(child));
  EXPECT_TRUE(processLives(child));
  kill(child, SIGKILL);
  armtest::exitCodeOf(child);
  EXPECT_FALSE(processLives(child));
}

TEST(Processes, NumbersOfNoProcessLiveNot) {
  EXPECT_TRUE(processLives(getpid()));
  for (const pid_t process : {0, -1, 2147483647}) EXPECT_FALSE(processLives(process)) << process;
}

}  // namespace
