// The trace where it is a pipe, a terminal, or a file on which another process holds a lease.

#include "diag/slowtrace.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "calls.h"
#include "counted.h"
#include "diag/wcdebug.h"
#include "files.h"
#include "fixedstamp.h"
#include "process.h"
#include "shared.h"
#include "tracefile.h"

namespace armtest {
namespace {

/// A clock that goes on only while somebody sleeps.
class SleptTime {
 public:
  SleptTime() {
    calls::clock_gettime.replace([this](clockid_t, timespec* out) {
      const long long now = milliseconds_;
      *out = {static_cast<time_t>(now / 1000), static_cast<long>(now % 1000 * 1000000)};
      return 0;
    });
    calls::nanosleep.replace([this](const timespec* time, timespec*) {
      milliseconds_ += time->tv_sec * 1000 + time->tv_nsec / 1000000;
      if (whileAsleep_) whileAsleep_();
      return 0;
    });
  }
  ~SleptTime() {
    calls::clock_gettime.watch();
    calls::nanosleep.watch();
  }

  /// Milliseconds slept since the last look.
  long long slept() {
    const long long now = milliseconds_;
    return now - std::exchange(looked_, now);
  }
  void whileAsleep(std::function<void()> act) { whileAsleep_ = std::move(act); }

 private:
  std::atomic<long long> milliseconds_{1000000};
  long long looked_ = 1000000;
  std::function<void()> whileAsleep_;
};

/// Time stands still, so that whoever waits for a reader waits until he reads, however busy the
/// machine is.
class StoppedTime {
 public:
  StoppedTime() {
    calls::clock_gettime.replace([](clockid_t, timespec* out) {
      *out = {1000, 0};
      return 0;
    });
  }
  ~StoppedTime() { calls::clock_gettime.watch(); }
};

/// Stands for the reader of a pipe in the trace's place: takes as many bytes as it is told to.
class PipeReader {
 public:
  PipeReader() {
    EXPECT_EQ(0, mkfifo(TRACE_FILE, 0600));
    calls::write.replace([this](int, const void* bytes, size_t count) -> ssize_t {
      const size_t now = std::min(count, room_);
      if (now == 0) {
        errno = EAGAIN;
        return -1;
      }
      taken_.append(static_cast<const char*>(bytes), now);
      room_ -= now;
      ++writes_;
      return static_cast<ssize_t>(now);
    });
  }
  ~PipeReader() { calls::write.watch(); }

  void take(size_t bytes) { room_ = bytes; }
  void takeAll() { room_ = ~size_t{0}; }
  std::string taken() { return std::exchange(taken_, {}); }
  int writes() { return std::exchange(writes_, 0); }

 private:
  size_t room_ = 0;
  int writes_ = 0;
  std::string taken_;
};

/// The complete texts of the XML records in a trace; "torn" stands for whatever is no complete
/// record.
std::vector<std::string> textsOf(const std::string& trace) {
  static const std::string BEGIN = "<Trace>\n";
  static const std::string END = "</Trace>\n";
  static const std::string TEXT = "<LogText><![CDATA[";
  std::vector<std::string> texts;
  size_t at = 0;
  while (at < trace.size()) {
    const size_t close = trace.find(END, at);
    const std::string record =
        close == std::string::npos ? "" : trace.substr(at, close + END.size() - at);
    const size_t from = record.find(TEXT);
    const bool whole = record.rfind(BEGIN, 0) == 0 && record.find(BEGIN, 1) == std::string::npos &&
                       from != std::string::npos;
    texts.push_back(whole
                        ? record.substr(from + TEXT.size(), record.find("]]>") - from - TEXT.size())
                        : "torn");
    if (record.empty()) break;
    at = close + END.size();
  }
  return texts;
}

/// Reads a descriptor slowly.
class SlowReader {
 public:
  SlowReader(int file, size_t portion)
      : file_(file), portion_(portion), thread_([this] { read(); }) {}
  /// True when the whole record of a text has been read.
  bool has(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return all_.find("</Trace>\n", all_.find("[" + text + "]")) != std::string::npos;
  }
  /// Everything up to the record of a last text.
  std::string allTo(const std::string& last) {
    EXPECT_TRUE(waitUntil([&] { return has(last); })) << last;
    mayEnd_ = true;
    thread_.join();
    return all_;
  }

 private:
  void read() {
    std::string portion(portion_, '\0');
    while (!mayEnd_) {
      pollfd ready = {file_, POLLIN, 0};
      if (poll(&ready, 1, 1) != 1) continue;
      const ssize_t count = ::read(file_, portion.data(), portion.size());
      if (count <= 0) return;
      const std::lock_guard<std::mutex> lock(mutex_);
      all_.append(portion, 0, static_cast<size_t>(count));
    }
  }

  int file_;
  size_t portion_;
  std::atomic<bool> mayEnd_{false};
  std::mutex mutex_;
  std::string all_;
  std::thread thread_;
};

int openPipe() {
  EXPECT_EQ(0, mkfifo(TRACE_FILE, 0600));
  return open(TRACE_FILE, O_RDWR | O_NONBLOCK | O_CLOEXEC);
}

/// The master of a new terminal that is in the trace's place, and takes bytes as they are.
int openTerminal() {
  const int terminal = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  EXPECT_EQ(0, unlockpt(terminal));
  termios attributes = {};
  EXPECT_EQ(0, tcgetattr(terminal, &attributes));
  cfmakeraw(&attributes);
  EXPECT_EQ(0, tcsetattr(terminal, TCSANOW, &attributes));
  EXPECT_EQ(0, symlink(ptsname(terminal), TRACE_FILE));
  return terminal;
}

constexpr int MANY = 1000;

std::vector<std::string> manyTexts() {
  std::vector<std::string> texts;
  for (int i = 0; i < MANY; ++i) texts.push_back("text " + std::to_string(i));
  return texts;
}

void writeMany() {
  for (const std::string& text : manyTexts()) wcDebug(text.c_str());
}

// ---- readers that are slow ----------------------------------------------------------------------

TEST(SlowTrace, EveryRecordReachesTheReaderOfAPipe) {
  const StoppedTime time;
  const int pipe = openPipe();
  SlowReader reader(pipe, 300);
  writeMany();
  EXPECT_EQ(manyTexts(), textsOf(reader.allTo(manyTexts().back())));
  close(pipe);
  counted("records for a slow reader", MANY);
}

TEST(SlowTrace, EveryRecordReachesTheReaderOfATerminal) {
  const StoppedTime time;
  const int terminal = openTerminal();
  // As long as somebody has it open, its contents stay.
  const int held = open(TRACE_FILE, O_RDWR | O_NOCTTY | O_CLOEXEC);
  SlowReader reader(terminal, 300);
  writeMany();
  EXPECT_EQ(manyTexts(), textsOf(reader.allTo(manyTexts().back())));
  close(held);
  close(terminal);
  counted("records for a slow reader", MANY);
}

TEST(SlowTrace, RecordsOfSeveralThreadsAreWhole) {
  const StoppedTime time;
  const int pipe = openPipe();
  SlowReader reader(pipe, 1000);
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([] {
      const std::string text(4000, 't');
      for (int n = 0; n < 50; ++n) wcDebug(text.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  wcDebug("last");
  std::vector<std::string> expected(200, std::string(4000, 't'));
  expected.emplace_back("last");
  EXPECT_EQ(expected, textsOf(reader.allTo("last")));
  close(pipe);
  counted("records for a slow reader", 200);
}

TEST(SlowTrace, RecordIsOneWriteWhereItIsNoFile) {
  fixStamp();
  PipeReader reader;
  reader.takeAll();
  wcDebug("x");
  EXPECT_EQ(xmlRecord("x"), reader.taken());
  EXPECT_EQ(1, reader.writes());
}

TEST(SlowTrace, ReaderIsWaitedForOneSecond) {
  fixStamp();
  SleptTime time;
  PipeReader reader;
  time.whileAsleep([&, slept = 0]() mutable {
    if (++slept == 999) reader.takeAll();
  });
  wcDebug("x");
  EXPECT_EQ(xmlRecord("x"), reader.taken());
  EXPECT_EQ(999, time.slept());
}

// ---- readers that have stopped reading ----------------------------------------------------------

TEST(SlowTrace, ReaderThatHasStoppedCostsOneSecondAltogether) {
  SleptTime time;
  PipeReader reader;
  wcDebug("x");
  EXPECT_EQ(1000, time.slept());
  for (int i = 0; i < 100; ++i) wcDebugln("x");
  EXPECT_EQ(0, time.slept());
  EXPECT_EQ("", reader.taken());
}

TEST(SlowTrace, ReaderThatReadsAgainIsWaitedForAgain) {
  fixStamp();
  SleptTime time;
  PipeReader reader;
  wcDebug("lost");
  reader.takeAll();
  wcDebug("x");
  reader.take(0);
  (void)time.slept();
  wcDebug("lost too");
  EXPECT_EQ(1000, time.slept());
  EXPECT_EQ(xmlRecord("x"), reader.taken());
}

TEST(SlowTrace, PipeThatNobodyReadsHoldsWholeRecords) {
  SleptTime time;
  const int pipe = openPipe();
  for (int i = 0; i < 500; ++i) wcDebug("x");
  EXPECT_EQ(1000, time.slept());
  std::string held(1 << 20, '\0');
  const ssize_t count = read(pipe, held.data(), held.size());
  ASSERT_LT(10000, count);
  held.resize(static_cast<size_t>(count));
  const std::vector<std::string> texts = textsOf(held);
  EXPECT_EQ(std::vector<std::string>(texts.size(), "x"), texts);
  wcDebug("again");
  held.assign(1000, '\0');
  held.resize(static_cast<size_t>(read(pipe, held.data(), held.size())));
  EXPECT_EQ(std::vector<std::string>{"again"}, textsOf(held));
  close(pipe);
}

TEST(SlowTrace, TerminalThatNobodyReadsHoldsNoTornRecordOnceItIsRead) {
  const int terminal = openTerminal();
  const int held = open(TRACE_FILE, O_RDWR | O_NOCTTY | O_CLOEXEC);
  {
    SleptTime time;
    for (int i = 0; i < 500; ++i) wcDebug("x");
  }
  SlowReader reader(terminal, 1000);
  EXPECT_TRUE(waitUntil([&] {
    wcDebug("again");
    return reader.has("again");
  }));
  {
    const StoppedTime time;
    wcDebug("last");
  }
  std::vector<std::string> texts = textsOf(reader.allTo("last"));
  EXPECT_LT(10, std::count(texts.begin(), texts.end(), "x"));
  EXPECT_GT(500, std::count(texts.begin(), texts.end(), "x"));
  EXPECT_EQ(0, std::count(texts.begin(), texts.end(), "torn"));
  close(held);
  close(terminal);
}

TEST(SlowTrace, RecordIsWrittenWholeOrNotAtAllWhereverItsReaderStops) {
  fixStamp();
  SleptTime time;
  PipeReader reader;
  const std::string first = xmlRecord("first");
  for (size_t taken = 0; taken <= first.size(); ++taken) {
    reader.take(taken);
    wcDebug("first");
    reader.takeAll();
    wcDebug("second");
    EXPECT_EQ((taken == 0 ? "" : first) + xmlRecord("second"), reader.taken()) << taken;
  }
  counted("bytes of a record after which its reader stops", first.size() + 1);
}

TEST(SlowTrace, LineIsWrittenWholeOrNotAtAllWhereverItsReaderStops) {
  fixStamp();
  wcDebugSetLogFormat(0);
  SleptTime time;
  PipeReader reader;
  const std::string stamp = "2024-03-07 09:05:02.045:917:000 (1234:1024) - ";
  const std::string first = stamp + "first\n";
  for (size_t taken = 0; taken <= first.size(); ++taken) {
    reader.take(taken);
    wcDebugln("first");
    reader.takeAll();
    wcDebugln("second");
    EXPECT_EQ((taken == 0 ? "" : first) + stamp + "second\n", reader.taken()) << taken;
  }
  counted("bytes of a record after which its reader stops", first.size() + 1);
}

TEST(SlowTrace, RecordsAreLostWholeUntilTheRestOfOneHasGone) {
  fixStamp();
  SleptTime time;
  PipeReader reader;
  reader.take(10);
  wcDebug("begun");
  reader.take(10);
  wcDebug("lost");
  reader.take(0);
  wcDebug("lost too");
  reader.takeAll();
  wcDebug("x");
  EXPECT_EQ(xmlRecord("begun") + xmlRecord("x"), reader.taken());
}

TEST(SlowTrace, LongestRecordsOfTheLibraryFitBehindEachOther) {
  fixStamp();
  calls::gethostname.replace([](char* out, size_t size) {
    std::memset(out, 'h', size);
    return 0;
  });
  SleptTime time;
  PipeReader reader;
  const std::string text(4095, 't');
  reader.take(1);
  wcDebug(text.c_str());
  reader.takeAll();
  wcDebug(text.c_str());
  EXPECT_EQ((std::vector<std::string>{text, text}), textsOf(reader.taken()));
}

TEST(SlowTrace, RecordWithoutRoomIsNotWrittenAtAll) {
  fixStamp();
  PipeReader reader;
  reader.takeAll();
  wcDebugln(std::string(100000, 't').c_str());
  EXPECT_EQ("", reader.taken());
  wcDebug("x");
  EXPECT_EQ(xmlRecord("x"), reader.taken());
}

TEST(SlowTrace, ReaderThatIsGoneLosesTheRecord) {
  SleptTime time;
  const int pipe = openPipe();
  calls::write.fail(-1, EIO);
  wcDebugln("x");
  EXPECT_EQ(0, time.slept());
  calls::write.watch();
  char byte;
  EXPECT_EQ(-1, read(pipe, &byte, 1));
  close(pipe);
}

// ---- what becomes of the rest -------------------------------------------------------------------

TEST(SlowTrace, RestOfARecordIsNotWrittenInAnotherPlace) {
  fixStamp();
  SleptTime time;
  PipeReader reader;
  reader.take(10);
  wcDebug("begun");
  EXPECT_EQ(10U, reader.taken().size());
  ASSERT_EQ(0, rename(TRACE_FILE, (std::string(TRACE_FILE) + ".1").c_str()));
  ASSERT_EQ(0, mkfifo(TRACE_FILE, 0600));
  reader.takeAll();
  wcDebug("x");
  EXPECT_EQ(xmlRecord("x"), reader.taken());
}

TEST(SlowTrace, RestOfARecordIsItsOwnProcesssAffair) {
  SleptTime time;
  const int pipe = openPipe();
  calls::write.replace([](int file, const void* bytes, size_t count) -> ssize_t {
    if (calls::write.count() > 1) return errno = EAGAIN, -1;
    return calls::write.real(file, bytes, std::min(count, size_t{10}));
  });
  wcDebug("parent");
  calls::write.watch();
  char begun[10];
  ASSERT_EQ(10, read(pipe, begun, sizeof begun));
  EXPECT_EQ(0, exitCodeOf(forkChild([] {
              wcDebug("child");
              return 0;
            })));
  wcDebug("later");
  std::string trace(10000, '\0');
  trace.resize(static_cast<size_t>(read(pipe, trace.data(), trace.size())));
  const size_t parents = trace.find("</Trace>\n") + 9;
  EXPECT_EQ(std::vector<std::string>{"child"}, textsOf(trace.substr(0, parents)));
  EXPECT_EQ((std::vector<std::string>{"parent", "later"}),
            textsOf(std::string(begun, 10) + trace.substr(parents)));
  close(pipe);
}

TEST(SlowTrace, ChildOfAForkInTheMiddleOfARecordTraces) {
  const StoppedTime time;
  const int pipe = openPipe();
  std::atomic<bool> writing{false};
  std::atomic<bool> forked{false};
  calls::write.replace([&](int file, const void* bytes, size_t count) {
    writing = true;
    EXPECT_TRUE(waitUntil([&] { return forked.load(); }));
    return calls::write.real(file, bytes, count);
  });
  std::thread other([] { wcDebug("parent"); });
  EXPECT_TRUE(waitUntil([&] { return writing.load(); }));
  const pid_t child = forkChild([&] {
    forked = true;
    wcDebug("child");
    return 0;
  });
  EXPECT_EQ(0, exitCodeOf(child));
  forked = true;
  other.join();
  std::string trace(10000, '\0');
  trace.resize(static_cast<size_t>(read(pipe, trace.data(), trace.size())));
  EXPECT_EQ((std::vector<std::string>{"child", "parent"}), textsOf(trace));
  close(pipe);
}

// ---- turns --------------------------------------------------------------------------------------

TEST(SlowTrace, ThreadThatKeepsItsTurnCostsTheOthersOneSecondAltogether) {
  SleptTime time;
  PipeReader reader;
  reader.takeAll();
  struct stat info = {};
  ASSERT_EQ(0, stat(TRACE_FILE, &info));
  ASSERT_TRUE(beginSlowRecord(info));
  wcDebug("lost");
  EXPECT_EQ(1000, time.slept());
  for (int i = 0; i < 100; ++i) wcDebugln("lost");
  EXPECT_EQ(0, time.slept());
  EXPECT_TRUE(endSlowRecord(-1, false));
  wcDebug("x");
  EXPECT_EQ(std::vector<std::string>{"x"}, textsOf(reader.taken()));
}

// ---- a terminal that stops background jobs ------------------------------------------------------

/// Leads a session whose terminal stops what writes from the background, and has a child write
/// there.
int traceFromTheBackground() {
  (void)setsid();
  const int terminal = open(TRACE_FILE, O_RDWR | O_CLOEXEC);
  termios attributes = {};
  if (tcgetattr(terminal, &attributes) != 0) return 2;
  attributes.c_lflag |= TOSTOP;
  if (tcsetattr(terminal, TCSANOW, &attributes) != 0) return 3;
  const pid_t child = forkChild([] {
    (void)setpgid(0, 0);
    wcDebug("x");
    return 0;
  });
  int status = 0;
  if (waitpid(child, &status, WUNTRACED) != child) return 4;
  if (WIFSTOPPED(status)) (void)kill(child, SIGKILL);
  return status == 0 ? 0 : 1;
}

TEST(SlowTrace, TerminalDoesNotStopAHostInTheBackground) {
  const int terminal = openTerminal();
  EXPECT_EQ(0, exitCodeOf(forkChild(traceFromTheBackground)));
  std::string trace(2000, '\0');
  trace.resize(static_cast<size_t>(read(terminal, trace.data(), trace.size())));
  EXPECT_EQ(std::vector<std::string>{"x"}, textsOf(trace));
  close(terminal);
  counted("terminal that stops what writes from the background", 1);
}

// ---- leases -------------------------------------------------------------------------------------

/// A process that holds a lease on a file until so many attempts to open it have been made.
class LeaseHolder {
 public:
  LeaseHolder(const char* path, int attempts) {
    child_ = forkChild([this, path, attempts] {
      sigset_t signals;
      (void)sigemptyset(&signals);
      (void)sigaddset(&signals, SIGIO);
      (void)sigprocmask(SIG_BLOCK, &signals, nullptr);
      const int file = open(path, O_RDWR | O_CLOEXEC);
      if (fcntl(file, F_SETLEASE, F_WRLCK) != 0) return 1;
      shared_->held = true;
      if (!waitUntil([&] { return shared_->attempts >= attempts; })) return 2;
      return fcntl(file, F_SETLEASE, F_UNLCK) == 0 ? 0 : 3;
    });
    EXPECT_TRUE(waitUntil([this] { return shared_->held.load(); }));
    calls::open.replace([this](const char* opened, int flags, mode_t mode) {
      const int file = calls::open.real(opened, flags, mode);
      if (file < 0) ++shared_->attempts;
      return file;
    });
  }
  ~LeaseHolder() {
    calls::open.watch();
    EXPECT_EQ(0, exitCodeOf(child_));
  }

 private:
  struct Words {
    std::atomic<bool> held{false};
    std::atomic<int> attempts{0};
  };
  Shared<Words> shared_;
  pid_t child_;
};

TEST(Lease, OnTheTraceFileIsWaitedFor) {
  const StoppedTime time;
  writeContent(TRACE_FILE, "");
  wcDebugSetLogFormat(0);
  testing::internal::CaptureStdout();
  {
    const LeaseHolder holder(TRACE_FILE, 3);
    wcDebugWorker("abc", 0);
  }
  EXPECT_EQ("", testing::internal::GetCapturedStdout());
  EXPECT_EQ("abc", contentOf(TRACE_FILE));
  counted("leases on the trace file and the properties", 1);
}

TEST(Lease, OnThePropertiesIsWaitedFor) {
  const StoppedTime time;
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/a");
  {
    const LeaseHolder holder(PROPERTIES_FILE, 3);
    char path[100];
    EXPECT_STREQ("/a/QDN/logs/trace-armdebug.log", wcDebugGetLogFileSpec(path, sizeof path));
  }
  counted("leases on the trace file and the properties", 1);
}

TEST(Lease, ThatIsNeverGivenBackCostsOneMinuteAltogetherAndOneMessage) {
  SleptTime time;
  calls::open.fail(-1, EWOULDBLOCK, 0, 60102);
  testing::internal::CaptureStdout();
  wcDebug("lost");
  EXPECT_EQ(60000, time.slept());
  for (int i = 0; i < 100; ++i) wcDebug("lost");
  EXPECT_EQ(0, time.slept());
  EXPECT_EQ(
      "Failed to open trace file [/var/orv/kestra/common/QDN/logs/trace-armdebug.log], make "
      "sure that subdirectory exists\n",
      testing::internal::GetCapturedStdout());
}

TEST(Lease, OnTheTraceFileIsWaitedForAgainOnceTheFileWasOpened) {
  SleptTime time;
  wcDebugSetLogFormat(0);
  testing::internal::CaptureStdout();
  calls::open.fail(-1, EWOULDBLOCK);
  wcDebugWorker("lost", 0);
  calls::open.watch();
  wcDebugWorker("abc", 0);
  (void)time.slept();
  calls::open.fail(-1, EWOULDBLOCK, 0, 1000);
  wcDebugWorker("def", 0);
  EXPECT_EQ(1000, time.slept());
  (void)testing::internal::GetCapturedStdout();
  EXPECT_EQ("abcdef", contentOf(TRACE_FILE));
}

TEST(Lease, ThatIsNeverGivenBackGivesTheDefaultDirectory) {
  SleptTime time;
  writeContent(PROPERTIES_FILE, "kestra_common_dir=/a");
  calls::open.fail(-1, EWOULDBLOCK);
  char path[100];
  EXPECT_STREQ("/var/orv/kestra/common/QDN/logs/trace-armdebug.log",
               wcDebugGetLogFileSpec(path, sizeof path));
  EXPECT_EQ(60000, time.slept());
}

TEST(Lease, OtherFailuresAreNotWaitedFor) {
  SleptTime time;
  calls::open.fail(-1, EACCES);
  testing::internal::CaptureStdout();
  wcDebug("lost");
  (void)testing::internal::GetCapturedStdout();
  EXPECT_EQ(0, time.slept());
  EXPECT_EQ(1, calls::open.count());
}

}  // namespace
}  // namespace armtest
