#include "diag/wcdebug.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "calls.h"
#include "counted.h"
#include "files.h"
#include "fixedstamp.h"
#include "process.h"
#include "tracefile.h"

namespace armtest {
namespace {

using Texts = std::vector<std::string>;

std::string trace() {
  return contentOf(TRACE_FILE);
}

/// The number of times that the trace file's lines contain a text.
int occurrences(const std::string& text) {
  const std::string all = trace();
  int count = 0;
  for (size_t at = all.find(text); at != std::string::npos; at = all.find(text, at + 1)) ++count;
  return count;
}

/// Each write to the trace file.
Texts recordedWrites(void (*act)()) {
  Texts writes;
  calls::write.replace([&](int file, const void* bytes, size_t count) {
    writes.emplace_back(static_cast<const char*>(bytes), count);
    return calls::write.real(file, bytes, count);
  });
  act();
  calls::write.watch();
  return writes;
}

// ---- the XML format -----------------------------------------------------------------------------

TEST(TraceXml, IsTheFormatOfTheDefaultState) {
  fixStamp();
  wcDebug("x");
  EXPECT_EQ(xmlRecord("x"), trace());
}

TEST(TraceXml, RecordHasTwelveLinesAndTheTextInTheSeventh) {
  wcDebug("x");
  EXPECT_EQ(12, occurrences("\n"));
  EXPECT_EQ(1, occurrences(
                   " <ProductInstance>5.3</ProductInstance>\n <LogText><![CDATA[x]]></LogText>\n"));
}

TEST(TraceXml, DebuglnGivesTheSameAsDebug) {
  fixStamp();
  wcDebugln("x");
  EXPECT_EQ(xmlRecord("x"), trace());
}

TEST(TraceXml, ContinuationWritesNothing) {
  wcDebugWorker("x", 0);
  EXPECT_TRUE(exists(TRACE_FILE));
  EXPECT_EQ("", trace());
}

TEST(TraceXml, TextIsNotEscapedEvenWhenItEndsTheSectionEarly) {
  fixStamp();
  wcDebug("<a> & ]]> b");
  EXPECT_EQ(xmlRecord("<a> & ]]> b"), trace());
}

TEST(TraceXml, LineBreaksOfTheTextAreWrittenAsTheyAre) {
  fixStamp();
  wcDebug("a\nb\n");
  EXPECT_EQ(xmlRecord("a\nb\n"), trace());
}

TEST(TraceXml, ServerIsTheHostNameAlthoughItsFormatSaysIp) {
  fixStamp();
  wcDebug("x");
  EXPECT_EQ(1, occurrences("<Server Format=\"IP\">host</Server>"));
}

TEST(TraceXml, ServerIsEmptyWhenTheHostHasNoName) {
  calls::gethostname.fail(-1, EPERM);
  wcDebug("x");
  EXPECT_EQ(1, occurrences("<Server Format=\"IP\"></Server>"));
}

TEST(TraceXml, HostNameOf255CharactersIsWhole) {
  const std::string name(255, 'h');
  calls::gethostname.replace([&](char* out, size_t size) {
    EXPECT_EQ(256U, size);
    std::memcpy(out, name.c_str(), size);
    return 0;
  });
  wcDebug("x");
  EXPECT_EQ(1, occurrences("<Server Format=\"IP\">" + name + "</Server>"));
}

TEST(TraceXml, HostNameIsAskedForOnce) {
  fixStamp();
  wcDebug("x");
  wcDebug("y");
  EXPECT_EQ(1, calls::gethostname.count());
}

TEST(TraceXml, MillisAreRightAlignedInThirteenCharacters) {
  calls::gettimeofday.replace([](timeval* now, void*) {
    now->tv_sec = 5;
    now->tv_usec = 7999;
    return 0;
  });
  wcDebug("x");
  EXPECT_EQ(1, occurrences("<Time Millis=\"         5007\">"));
}

TEST(TraceXml, MillisAreRightAfter2038) {
  calls::gettimeofday.replace([](timeval* now, void*) {
    now->tv_sec = static_cast<std::time_t>(4294967295U);
    now->tv_usec = 0;
    return 0;
  });
  wcDebug("x");
  EXPECT_EQ(1, occurrences("<Time Millis=\"4294967295000\">"));
}

TEST(TraceXml, IdsHaveAtLeastFourDigits) {
  calls::getpid.fail(7, 0);
  calls::pthread_self.fail(42, 0);
  wcDebug("x");
  EXPECT_EQ(1, occurrences(" <Thread>0042</Thread>\n <Process>0007</Process>\n"));
}

TEST(TraceXml, RecordIsElevenWrites) {
  fixStamp();
  const Texts writes = recordedWrites([] { wcDebug("x"); });
  ASSERT_EQ(11U, writes.size());
  EXPECT_EQ("<Trace>\n <Time Millis=\"", writes[0]);
  EXPECT_EQ("1709802302045", writes[1]);
  EXPECT_EQ("\">", writes[2]);
  EXPECT_EQ("2024-03-07 09:05:02.045", writes[3]);
  EXPECT_EQ("x", writes[5]);
  EXPECT_EQ("1024", writes[7]);
  EXPECT_EQ("</Thread>\n <Process>", writes[8]);
  EXPECT_EQ("1234", writes[9]);
  EXPECT_EQ("</Process>\n</Trace>\n", writes[10]);
}

// ---- the basic format ---------------------------------------------------------------------------

TEST(TraceBasic, DebuglnAppendsExactlyOneLine) {
  fixStamp();
  wcDebugSetLogFormat(0);
  wcDebugln("abc");
  EXPECT_EQ("2024-03-07 09:05:02.045:917:000 (1234:1024) - abc\n", trace());
}

TEST(TraceBasic, DebugDoesNotEndTheLine) {
  fixStamp();
  wcDebugSetLogFormat(0);
  wcDebug("abc");
  EXPECT_EQ("2024-03-07 09:05:02.045:917:000 (1234:1024) - abc", trace());
}

TEST(TraceBasic, ContinuationIsTheTextAlone) {
  wcDebugSetLogFormat(0);
  wcDebugWorker("abc", 0);
  EXPECT_EQ("abc", trace());
}

TEST(TraceBasic, IdsHaveAtLeastFourDigits) {
  fixStamp();
  calls::getpid.fail(7, 0);
  calls::pthread_self.fail(42, 0);
  wcDebugSetLogFormat(0);
  wcDebug("abc");
  EXPECT_EQ("2024-03-07 09:05:02.045:917:000 (0007:0042) - abc", trace());
}

TEST(TraceBasic, IdsAreTheProcessAndThePosixThread) {
  char ids[64];
  std::snprintf(ids, sizeof ids, " (%04d:%04lu) - abc", getpid(), pthread_self());
  wcDebugSetLogFormat(0);
  wcDebug("abc");
  EXPECT_EQ(1, occurrences(ids));
}

TEST(TraceBasic, StampIsLocalTime) {
  fixStamp();
  setenv("TZ", "EAST-5:30", 1);
  wcDebugSetLogFormat(0);
  wcDebug("abc");
  EXPECT_EQ("2024-03-07 14:35:02.045:917:000 (1234:1024) - abc", trace());
}

TEST(TraceBasic, TextIsNeverCut) {
  wcDebugSetLogFormat(0);
  const std::string text(100000, 't');
  wcDebug(text.c_str());
  EXPECT_EQ(1, occurrences(") - " + text));
}

TEST(TraceBasic, RecordIsFourWrites) {
  fixStamp();
  wcDebugSetLogFormat(0);
  EXPECT_EQ((Texts{"2024-03-07 09:05:02.045:917:000", " (1234:1024)", " - ", "abc"}),
            recordedWrites([] { wcDebug("abc"); }));
}

// ---- the choice of the format -------------------------------------------------------------------

TEST(TraceFormatChoice, OtherNumbersThanZeroAndOneAreIgnored) {
  wcDebugSetLogFormat(0);
  wcDebugSetLogFormat(2);
  wcDebugSetLogFormat(-1);
  wcDebugWorker("abc", 0);
  EXPECT_EQ("abc", trace());
}

TEST(TraceFormatChoice, OtherNumbersLeaveXmlToo) {
  fixStamp();
  wcDebugSetLogFormat(2);
  wcDebugSetLogFormat(-1);
  wcDebug("x");
  EXPECT_EQ(xmlRecord("x"), trace());
}

TEST(TraceFormatChoice, TakesEffectFromTheNextRecordOn) {
  fixStamp();
  wcDebug("x");
  wcDebugSetLogFormat(0);
  wcDebugln("abc");
  wcDebugSetLogFormat(1);
  wcDebug("y");
  EXPECT_EQ(xmlRecord("x") + "2024-03-07 09:05:02.045:917:000 (1234:1024) - abc\n" + xmlRecord("y"),
            trace());
}

// ---- the file -----------------------------------------------------------------------------------

TEST(TraceFile, NullTextMakesNoFile) {
  wcDebug(nullptr);
  EXPECT_FALSE(exists(TRACE_FILE));
}

TEST(TraceFile, NullTextPreparesNothing) {
  calls::gethostname.watch();
  wcDebug(nullptr);
  EXPECT_EQ(0, calls::gethostname.count());
}

TEST(TraceFile, NullTextOfDebuglnStillWritesItsNewline) {
  wcDebugSetLogFormat(0);
  wcDebugln(nullptr);
  EXPECT_EQ("\n", trace());
}

TEST(TraceFile, IsReadableAndWritableByItsOwnerOnly) {
  umask(0);
  wcDebug("x");
  struct stat info = {};
  ASSERT_EQ(0, stat(TRACE_FILE, &info));
  EXPECT_EQ(0600U, info.st_mode & 07777U);
}

TEST(TraceFile, UmaskStillApplies) {
  umask(0200);
  wcDebug("x");
  struct stat info = {};
  ASSERT_EQ(0, stat(TRACE_FILE, &info));
  EXPECT_EQ(0400U, info.st_mode & 07777U);
}

TEST(TraceFile, IsAppendedTo) {
  writeContent(TRACE_FILE, "before\n");
  wcDebugSetLogFormat(0);
  wcDebugWorker("abc", 0);
  EXPECT_EQ("before\nabc", trace());
}

TEST(TraceFile, IsOpenedForReadingAppendingWritesAndCreated) {
  int given = 0;
  calls::open.replace([&](const char* path, int flags, mode_t mode) {
    given = flags;
    return calls::open.real(path, flags, mode);
  });
  wcDebug("x");
  EXPECT_EQ(O_RDWR | O_CREAT | O_APPEND,
            given & (O_ACCMODE | O_CREAT | O_APPEND | O_TRUNC | O_EXCL));
}

TEST(TraceFile, IsOpenedSoThatNeitherAPipeNorATerminalInItsPlaceDoesHarm) {
  int given = 0;
  calls::open.replace([&](const char* path, int flags, mode_t mode) {
    given = flags;
    return calls::open.real(path, flags, mode);
  });
  wcDebug("x");
  EXPECT_EQ(O_NONBLOCK | O_NOCTTY, given & (O_NONBLOCK | O_NOCTTY));
}

TEST(TraceFile, IsOpenedAnewByEveryCall) {
  calls::open.watch();
  wcDebug("x");
  EXPECT_EQ(1, calls::open.count());
  wcDebug("y");
  EXPECT_EQ(2, calls::open.count());
}

TEST(TraceFile, IsOpenedTwiceByDebugln) {
  calls::open.watch();
  wcDebugln("x");
  EXPECT_EQ(2, calls::open.count());
}

TEST(TraceFile, IsNeverHeldOpen) {
  const int before = openFiles();
  wcDebugln("x");
  EXPECT_EQ(before, openFiles());
}

TEST(TraceFile, RemovedFileIsMadeAgain) {
  wcDebugSetLogFormat(0);
  wcDebugWorker("abc", 0);
  EXPECT_EQ(0, unlink(TRACE_FILE));
  wcDebugWorker("def", 0);
  EXPECT_EQ("def", trace());
}

TEST(TraceFile, TimeIsTakenBeforeTheFileIsOpened) {
  int opens_before = -1;
  calls::open.watch();
  calls::gettimeofday.replace([&](timeval* now, void* zone) {
    opens_before = calls::open.count();
    return calls::gettimeofday.real(now, zone);
  });
  wcDebug("x");
  EXPECT_EQ(0, opens_before);
}

TEST(TraceFile, FailedWritesAreIgnored) {
  calls::write.fail(-1, ENOSPC);
  wcDebugln("x");
  calls::write.watch();
  EXPECT_EQ("", trace());
}

// ---- a limit of the file's size -----------------------------------------------------------------

void limitFileSize(rlim_t bytes) {
  const rlimit limit = {bytes, bytes};
  EXPECT_EQ(0, setrlimit(RLIMIT_FSIZE, &limit));
}

bool isPending(int number) {
  sigset_t pending;
  (void)sigpending(&pending);
  return sigismember(&pending, number) == 1;
}

bool isBlocked(int number) {
  sigset_t mask;
  (void)pthread_sigmask(SIG_BLOCK, nullptr, &mask);
  return sigismember(&mask, number) == 1;
}

TEST(TraceFileLimit, DoesNotKillTheHost) {
  const pid_t child = forkChild([] {
    limitFileSize(3);
    wcDebugSetLogFormat(0);
    wcDebugWorker("abcdef", 0);
    wcDebugWorker("abcdef", 0);
    return isPending(SIGXFSZ) || isBlocked(SIGXFSZ) ? 1 : 0;
  });
  EXPECT_EQ(0, exitCodeOf(child));
  EXPECT_EQ("abc", trace());
  counted("a limit of the file's size", 1);
}

TEST(TraceFileLimit, SignalThatTheHostWasWaitingForStaysPending) {
  sigset_t signals;
  (void)sigemptyset(&signals);
  (void)sigaddset(&signals, SIGXFSZ);
  (void)pthread_sigmask(SIG_BLOCK, &signals, nullptr);
  raise(SIGXFSZ);
  wcDebug("x");
  EXPECT_TRUE(isPending(SIGXFSZ));
  EXPECT_TRUE(isBlocked(SIGXFSZ));
  counted("a limit of the file's size", 1);
}

// ---- the stamp ----------------------------------------------------------------------------------

TEST(TraceStamp, HasMillisecondsOnlyWithoutTheFlag) {
  fixStamp();
  char stamp[TRACE_STAMP_SIZE];
  getLocalTime(0, stamp, nullptr, nullptr);
  EXPECT_STREQ("2024-03-07 09:05:02.045", stamp);
}

TEST(TraceStamp, HasMicrosecondsAndNanosecondsWithTheFlag) {
  fixStamp();
  char stamp[TRACE_STAMP_SIZE];
  getLocalTime(1, stamp, nullptr, nullptr);
  EXPECT_STREQ("2024-03-07 09:05:02.045:917:000", stamp);
}

TEST(TraceStamp, MillisecondsAreNeverStoredWithoutTheSeconds) {
  fixStamp();
  char stamp[TRACE_STAMP_SIZE];
  uint32_t milliseconds = 7;
  getLocalTime(0, stamp, nullptr, &milliseconds);
  EXPECT_EQ(7U, milliseconds);
}

TEST(TraceStamp, SecondsAreStoredWithoutTheMilliseconds) {
  fixStamp();
  char stamp[TRACE_STAMP_SIZE];
  uint32_t seconds = 0;
  getLocalTime(0, stamp, &seconds, nullptr);
  EXPECT_EQ(1709802302U, seconds);
}

// ---- the file's place ---------------------------------------------------------------------------

constexpr const char* ELSEWHERE = "/tmp/common/QDN/logs/trace-armdebug.log";

void moveTraceElsewhere() {
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/tmp/common\n");
}

void makeDirectoryElsewhere() {
  EXPECT_EQ(0, mkdir("/tmp/common", 0755));
  EXPECT_EQ(0, mkdir("/tmp/common/QDN", 0755));
  EXPECT_EQ(0, mkdir("/tmp/common/QDN/logs", 0755));
}

TEST(TracePlace, PropertiesDecide) {
  moveTraceElsewhere();
  makeDirectoryElsewhere();
  wcDebugSetLogFormat(0);
  wcDebugWorker("abc", 0);
  EXPECT_EQ("abc", contentOf(ELSEWHERE));
}

TEST(TracePlace, IsSettledByTheFirstRecord) {
  wcDebugSetLogFormat(0);
  wcDebugWorker("abc", 0);
  moveTraceElsewhere();
  makeDirectoryElsewhere();
  wcDebugWorker("def", 0);
  EXPECT_EQ("abcdef", trace());
}

TEST(TracePlace, MissingDirectoryIsReportedOnceOnStandardOutput) {
  moveTraceElsewhere();
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  wcDebug("x");
  wcDebugln("y");
  wcDebug("z");
  EXPECT_EQ(
      "Failed to open trace file [/tmp/common/QDN/logs/trace-armdebug.log], make sure that "
      "subdirectory exists\n",
      testing::internal::GetCapturedStdout());
  EXPECT_EQ("", testing::internal::GetCapturedStderr());
}

TEST(TracePlace, MissingDirectoryIsNotMade) {
  moveTraceElsewhere();
  testing::internal::CaptureStdout();
  wcDebug("x");
  (void)testing::internal::GetCapturedStdout();
  EXPECT_FALSE(exists("/tmp/common"));
}

TEST(TracePlace, FileIsMadeByTheFirstRecordAfterTheDirectory) {
  moveTraceElsewhere();
  wcDebugSetLogFormat(0);
  testing::internal::CaptureStdout();
  wcDebugWorker("lost", 0);
  (void)testing::internal::GetCapturedStdout();
  makeDirectoryElsewhere();
  wcDebugWorker("abc", 0);
  EXPECT_EQ("abc", contentOf(ELSEWHERE));
}

TEST(TracePlace, GoodRecordPrintsNothing) {
  testing::internal::CaptureStdout();
  wcDebugln("x");
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
}

TEST(TracePlace, IsToldInWhole) {
  char path[64];
  std::memset(path, '?', sizeof path);
  EXPECT_EQ(path, wcDebugGetLogFileSpec(path, sizeof path));
  EXPECT_STREQ("/var/orv/kestra/common/QDN/logs/trace-armdebug.log", path);
  EXPECT_EQ(std::string(14, '\0'), std::string(path + 50, 14));
}

TEST(TracePlace, IsToldInNineCharactersOfTen) {
  char path[11] = "??????????";
  EXPECT_EQ(path, wcDebugGetLogFileSpec(path, 10));
  EXPECT_STREQ("/var/orv/", path);
  EXPECT_EQ('\0', path[10]);
}

TEST(TracePlace, IsToldInOneByteAsNothing) {
  char path[] = "??";
  EXPECT_EQ(path, wcDebugGetLogFileSpec(path, 1));
  EXPECT_EQ('\0', path[0]);
  EXPECT_EQ('?', path[1]);
}

TEST(TracePlace, IsNotToldWithoutRoom) {
  char path[] = "?";
  EXPECT_EQ(path, wcDebugGetLogFileSpec(path, 0));
  EXPECT_EQ('?', path[0]);
}

TEST(TracePlace, AskingForItMakesNoFile) {
  char path[64];
  (void)wcDebugGetLogFileSpec(path, sizeof path);
  EXPECT_FALSE(exists(TRACE_FILE));
}

// ---- threads ------------------------------------------------------------------------------------

TEST(TraceThreads, EveryTextOfSeveralThreadsIsWritten) {
  wcDebugSetLogFormat(0);
  const auto write_many = [](const char* text) {
    for (int i = 0; i < 50; ++i) wcDebug(text);
  };
  std::thread first(write_many, "[first]");
  std::thread second(write_many, "[second]");
  first.join();
  second.join();
  EXPECT_EQ(50, occurrences("[first]"));
  EXPECT_EQ(50, occurrences("[second]"));
  EXPECT_EQ(100, occurrences(" - "));
}

}  // namespace
}  // namespace armtest
