#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include "base/Time.h"
#include "dispatch/ProcessWatch.h"
#include "process.h"
#include "system/ProcessStat.h"

namespace {

using armengine::bootTime;
using armengine::Departed;
using armengine::ProcessWatch;
using armengine::startOfProcess;
using armtest::exitCodeOf;
using armtest::forkChild;
using armtest::waitUntil;

constexpr std::chrono::milliseconds QUICK{5};
constexpr uint64_t TICK = 10000000;

int sleepForEver() {
  for (;;) pause();
}

TEST(Processes, StartIsBeforeNowAndAfterTheParents) {
  const uint64_t before = bootTime();
  const pid_t child = forkChild(sleepForEver);
  const auto start = startOfProcess(child);
  ASSERT_TRUE(start);
  EXPECT_LE(*start, bootTime());
  EXPECT_GE(*start + TICK, before);
  EXPECT_LE(*startOfProcess(getpid()), *start);
  kill(child, SIGKILL);
  exitCodeOf(child);
}

TEST(Processes, ZombieAndUnknownNumbersHaveNoStart) {
  const pid_t child = forkChild([] { return 0; });
  siginfo_t info;
  ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT));
  EXPECT_FALSE(startOfProcess(child));
  exitCodeOf(child);
  EXPECT_FALSE(startOfProcess(child));
  for (const int32_t process : {0, -1, 2147483647}) EXPECT_FALSE(startOfProcess(process));
}

TEST(Processes, ProcessWhoseFirstThreadHasEndedLives) {
  const pid_t child = armtest::forkWithoutFirstThread();
  const auto stat = armengine::processStat(child);
  ASSERT_TRUE(stat);
  EXPECT_EQ('Z', stat->state);
  EXPECT_FALSE(stat->ended);
  siginfo_t info = {};
  EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT | WNOHANG));
  EXPECT_EQ(0, info.si_pid);
  EXPECT_TRUE(startOfProcess(child));
  kill(child, SIGKILL);
  exitCodeOf(child);
}

TEST(Processes, KilledOneIsReportedOnceAndLivingOnesAreNot) {
  ProcessWatch watch(QUICK);
  const pid_t child = forkChild(sleepForEver);
  watch.observe(getpid(), bootTime());
  watch.observe(child, bootTime());
  kill(child, SIGKILL);
  exitCodeOf(child);
  std::vector<Departed> all;
  EXPECT_TRUE(waitUntil([&] {
    for (const Departed& one : watch.takeDeparted()) all.push_back(one);
    return !all.empty();
  }));
  ASSERT_EQ(1U, all.size());
  EXPECT_EQ(child, all[0].process);
  EXPECT_LE(all[0].before, bootTime());
  EXPECT_TRUE(watch.takeDeparted().empty());
}

TEST(Processes, OneThatCannotBeSeenIsGivenTime) {
  ProcessWatch watch(QUICK);
  watch.observe(2147483647, bootTime());
  const pid_t child = forkChild(sleepForEver);
  watch.observe(child, bootTime());
  kill(child, SIGKILL);
  exitCodeOf(child);
  std::vector<Departed> departed;
  EXPECT_TRUE(waitUntil([&] {
    departed = watch.takeDeparted();
    return !departed.empty();
  }));
  ASSERT_EQ(1U, departed.size());
  EXPECT_EQ(child, departed[0].process) << "though the other one was to be looked at first";
}

TEST(Processes, NumberThatBelongsToALaterProcessIsOneThatHasEnded) {
  ProcessWatch watch(QUICK);
  const uint64_t long_ago = *startOfProcess(getpid()) - TICK;
  // A request came from this number before this process was started.
  watch.observe(getpid(), long_ago);
  std::vector<Departed> departed;
  EXPECT_TRUE(waitUntil([&] {
    departed = watch.takeDeparted();
    return !departed.empty();
  }));
  ASSERT_EQ(1U, departed.size());
  EXPECT_EQ(getpid(), departed[0].process);
  EXPECT_EQ(*startOfProcess(getpid()), departed[0].before);
}

}  // namespace
