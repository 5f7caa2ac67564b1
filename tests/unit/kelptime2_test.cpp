#include "platform/kelptime2.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <thread>

#include "calls.h"
#include "platform/forkgate.h"

namespace armtest {
namespace {

/// 2024-03-07 09:05:02 UTC.
constexpr uint32_t SECOND = 1709802302;

void setClock(std::time_t seconds, suseconds_t microseconds, int result = 0) {
  calls::gettimeofday.replace([=](timeval* now, void* zone) {
    EXPECT_EQ(nullptr, zone);
    now->tv_sec = seconds;
    now->tv_usec = microseconds;
    return result;
  });
}

void setZone(const char* zone) {
  setenv("TZ", zone, 1);
}

HrtTime converted(uint32_t seconds, uint32_t nanoseconds) {
  HrtTime time = {};
  ConvertToHRT(seconds, nanoseconds, &time);
  return time;
}

TEST(KelpTime, StampIsSecondsAndMicrosecondsTimes1000) {
  setClock(SECOND, 45917);
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  KelpBestGetCurrentTime(&seconds, &nanoseconds);
  EXPECT_EQ(1709802302U, seconds);
  EXPECT_EQ(45917000U, nanoseconds);
}

TEST(KelpTime, LastMicrosecondOfASecondGives999999000) {
  setClock(SECOND, 999999);
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  KelpBestGetCurrentTime(&seconds, &nanoseconds);
  EXPECT_EQ(999999000U, nanoseconds);
  const HrtTime time = converted(seconds, nanoseconds);
  EXPECT_EQ(999U, time.milliseconds);
  EXPECT_EQ(999U, time.microseconds);
  EXPECT_EQ(0U, time.nanoseconds);
}

TEST(KelpTime, FirstMicrosecondOfASecondGivesZeros) {
  setClock(SECOND, 0);
  uint32_t seconds = 0;
  uint32_t nanoseconds = 1;
  KelpBestGetCurrentTime(&seconds, &nanoseconds);
  EXPECT_EQ(0U, nanoseconds);
  const HrtTime time = converted(seconds, nanoseconds);
  EXPECT_EQ(0U, time.milliseconds);
  EXPECT_EQ(0U, time.microseconds);
  EXPECT_EQ(0U, time.nanoseconds);
}

TEST(KelpTime, SystemIsAskedOncePerStampAndItsResultIsNotExamined) {
  setClock(5, 7, -1);
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  KelpBestGetCurrentTime(&seconds, &nanoseconds);
  EXPECT_EQ(1, calls::gettimeofday.count());
  EXPECT_EQ(5U, seconds);
  EXPECT_EQ(7000U, nanoseconds);
}

TEST(KelpTime, StampsAreRightAfter2038) {
  setClock(static_cast<std::time_t>(0x80000000U), 0);
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  KelpBestGetCurrentTime(&seconds, &nanoseconds);
  EXPECT_EQ(0x80000000U, seconds);
}

TEST(KelpTime, NanosecondsBelowTheClocksResolutionAreSplitToo) {
  const HrtTime time = converted(SECOND, 1234567);
  EXPECT_EQ(1U, time.milliseconds);
  EXPECT_EQ(234U, time.microseconds);
  EXPECT_EQ(567U, time.nanoseconds);
}

TEST(KelpTime, CalendarFieldsAreCopiedWhole) {
  setZone("UTC");
  const std::tm day = converted(SECOND, 0).calendar;
  EXPECT_EQ(2, day.tm_sec);
  EXPECT_EQ(5, day.tm_min);
  EXPECT_EQ(9, day.tm_hour);
  EXPECT_EQ(7, day.tm_mday);
  EXPECT_EQ(2, day.tm_mon);
  EXPECT_EQ(124, day.tm_year);
  EXPECT_EQ(4, day.tm_wday);
  EXPECT_EQ(66, day.tm_yday);
  EXPECT_EQ(0, day.tm_isdst);
  EXPECT_EQ(0, day.tm_gmtoff);
  EXPECT_STREQ("UTC", day.tm_zone);
}

TEST(KelpTime, CalendarFollowsTheProcessesTimeZone) {
  setZone("EAST-5:30");
  const std::tm day = converted(SECOND, 0).calendar;
  EXPECT_EQ(14, day.tm_hour);
  EXPECT_EQ(35, day.tm_min);
  EXPECT_EQ(19800, day.tm_gmtoff);
  EXPECT_STREQ("EAST", day.tm_zone);
}

TEST(KelpTime, ChangeOfTheTimeZoneTakesEffectAtOnce) {
  setZone("UTC");
  EXPECT_EQ(9, converted(SECOND, 0).calendar.tm_hour);
  setZone("WEST+3");
  EXPECT_EQ(6, converted(SECOND, 0).calendar.tm_hour);
}

TEST(KelpTime, SecondsAreUnsigned) {
  setZone("UTC");
  const std::tm after2038 = converted(0x80000000U, 0).calendar;
  EXPECT_EQ(138, after2038.tm_year);
  EXPECT_EQ(0, after2038.tm_mon);
  EXPECT_EQ(19, after2038.tm_mday);
  const std::tm last = converted(0xffffffffU, 0).calendar;
  EXPECT_EQ(206, last.tm_year);
  EXPECT_EQ(1, last.tm_mon);
  EXPECT_EQ(7, last.tm_mday);
}

TEST(KelpTime, ConversionLeavesTheHostsLocalTimeResultAlone) {
  setZone("UTC");
  const std::time_t start = 0;
  const std::tm* host = std::localtime(&start);
  (void)converted(SECOND, 0);
  EXPECT_EQ(70, host->tm_year);
}

/// For a gate whose mutex nobody else uses.
struct NoMutex {
  static bool Lock() { return true; }
  static bool Unlock() { return true; }
};

TEST(KelpTime, ConversionInsideAConversionOfTheSameThreadHasNoCalendar) {
  setZone("UTC");
  NoMutex mutex;
  ASSERT_TRUE(VLocalTimeGate.Enter(mutex));
  EXPECT_EQ(0, converted(SECOND, 0).calendar.tm_year);
  EXPECT_EQ(7U, converted(SECOND, 7000000).milliseconds);
  VLocalTimeGate.Leave();
  EXPECT_EQ(9, converted(SECOND, 0).calendar.tm_hour);
}

TEST(KelpTime, ConversionGivesItsLockBack) {
  setZone("UTC");
  (void)converted(SECOND, 0);
  int hour = 0;
  std::thread([&] { hour = converted(SECOND, 0).calendar.tm_hour; }).join();
  EXPECT_EQ(9, hour);
}

TEST(KelpTime, RealClockHasMicroseconds) {
  uint32_t seconds = 0;
  uint32_t nanoseconds = 0;
  KelpBestGetCurrentTime(&seconds, &nanoseconds);
  EXPECT_GT(seconds, SECOND);
  EXPECT_LT(nanoseconds, 1000000000U);
  EXPECT_EQ(0U, nanoseconds % 1000);
}

}  // namespace
}  // namespace armtest
