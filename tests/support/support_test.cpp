#include <gtest/gtest.h>
#include <pwd.h>
#include <sys/shm.h>

#include <climits>
#include <cstdlib>
#include <thread>

#include "process.h"

namespace {

TEST(TestSupport, FirstSegmentOfAFreshNamespaceHasIdentifierZero) {
  const int segment = shmget(IPC_PRIVATE, 64, IPC_CREAT | 0600);
  EXPECT_EQ(0, segment);
  shmctl(segment, IPC_RMID, nullptr);
}

TEST(TestSupport, SegmentWithoutRightsCannotBeAttachedByItsOwner) {
  const int segment = shmget(IPC_PRIVATE, 64, IPC_CREAT | 0);
  ASSERT_GE(segment, 0);
  errno = 0;
  EXPECT_EQ(reinterpret_cast<void*>(-1), shmat(segment, nullptr, 0));
  EXPECT_EQ(EACCES, errno);
  shmctl(segment, IPC_RMID, nullptr);
}

TEST(TestSupport, LoginNameIsFound) {
  EXPECT_NE(nullptr, getpwuid(getuid()));
}

TEST(TestSupport, ChildReturnsItsResult) {
  EXPECT_EQ(42, armtest::exitCodeOf(armtest::forkChild([] { return 42; })));
}

TEST(TestSupport, KilledChildIsReportedWithItsSignal) {
  const pid_t child = armtest::forkChild([] { return pause(); });
  kill(child, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(child));
}

TEST(TestSupport, WaitUntilSeesAConditionThatComesTrue) {
  int rounds = 0;
  EXPECT_TRUE(armtest::waitUntil([&rounds] { return ++rounds == 3; }));
}

using WatchdogDeathTest = testing::Test;

TEST_F(WatchdogDeathTest, HungTestIsNamedAndAborted) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        setenv("ARM_TEST_SECONDS", "1", 1);
        armtest::Watchdog().OnTestStart(*testing::UnitTest::GetInstance()->current_test_info());
        for (;;) pause();
      },
      testing::KilledBySignal(SIGABRT),
      "watchdog: WatchdogDeathTest.HungTestIsNamedAndAborted has not ended after 1 seconds");
}

// A sanitized tree whose sanitizers do not work would pass every test.

#ifdef __SANITIZE_ADDRESS__

using SanitizerDeathTest = testing::Test;

TEST_F(SanitizerDeathTest, ByteBehindABlockIsNoticed) {
  EXPECT_DEATH(
      {
        volatile size_t size = 8;
        volatile char* block = new char[size];
        block[size] = 1;
      },
      "heap-buffer-overflow");
}

TEST_F(SanitizerDeathTest, SignedOverflowIsNoticed) {
  EXPECT_DEATH(
      {
        volatile int number = INT_MAX;
        number = number + 1;
      },
      "signed integer overflow");
}

TEST_F(SanitizerDeathTest, LostBlockIsNoticedAtTheEnd) {
  EXPECT_DEATH(
      {
        // Of many, since registers and the stack may still hold some.
        for (int i = 0; i < 100; ++i) {
          void* volatile block = malloc(77);
          block = nullptr;
        }
        exit(0);
      },
      "LeakSanitizer: detected memory leaks");
}

#endif

#ifdef __SANITIZE_THREAD__

using SanitizerDeathTest = testing::Test;

TEST_F(SanitizerDeathTest, RaceIsNoticed) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_DEATH(
      {
        int shared = 0;
        std::thread other([&shared] { ++shared; });
        ++shared;
        other.join();
      },
      "data race");
}

#endif

}  // namespace
