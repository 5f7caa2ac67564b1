// What an application may expect of its guest: errno, its output and its memory stay its own.

#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "CallTest.h"

namespace armtest {
namespace {

using Manners = Calls;

constexpr int ERRNO = 12321;

void expectErrnoUntouched(const char* name) {
  EXPECT_EQ(ERRNO, errno) << name;
  errno = ERRNO;
}

void expectErrnoUntouchedByEveryCall() {
  errno = ERRNO;
  for (const PostingCall& one : postingCalls()) {
    (void)one.call();
    expectErrnoUntouched(one.name);
  }
  (void)arm_init(nullptr, nullptr, 0, nullptr, 0);
  expectErrnoUntouched("rejected arm_init");
  (void)arm_start(-1, 0, nullptr, 0);
  expectErrnoUntouched("rejected arm_start");
  (void)arm_init("a", "*", 0, nullptr, 0);
  expectErrnoUntouched("arm_init with the login name");
  (void)arm_getCorrelatorKey();
  expectErrnoUntouched("arm_getCorrelatorKey");
}

TEST_F(Manners, ErrnoIsUntouchedWithAnEngine) {
  ASSERT_TRUE(engine_.start());
  expectErrnoUntouchedByEveryCall();
}

TEST_F(Manners, ErrnoIsUntouchedWithoutAnEngine) {
  expectErrnoUntouchedByEveryCall();
}

TEST_F(Manners, ErrnoIsUntouchedWithTracing) {
  setenv("ARMDEBUG", "1", 1);
  expectErrnoUntouchedByEveryCall();
  ASSERT_TRUE(engine_.start());
  expectErrnoUntouchedByEveryCall();
}

TEST_F(Manners, ErrnoIsUntouchedByTheCodesetCalls) {
  errno = ERRNO;
  EXPECT_EQ(nullptr, GetExpectedCodeset());
  expectErrnoUntouched("GetExpectedCodeset");
  EXPECT_EQ(-1003, SetExpectedCodeset("no such code set"));
  expectErrnoUntouched("SetExpectedCodeset that fails");
  EXPECT_EQ(0, SetExpectedCodeset("UTF-8"));
  expectErrnoUntouched("SetExpectedCodeset");
}

TEST_F(Manners, ErrnoIsUntouchedWhenTheWaitFailsAndWhenTheRingIsFull) {
  EngineSetup setup;
  setup.requests = 1;
  ASSERT_TRUE(engine_.start(setup));
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.pause();
  int errno_after = 0;
  CallInThread call([&errno_after] {
    errno = ERRNO;
    const int32_t result = arm_start(5, 0, nullptr, 0);
    errno_after = errno;
    return result;
  });
  ASSERT_TRUE(engine_.waitSleepers(1));
  errno = ERRNO;
  EXPECT_EQ(-8, arm_start(5, 0, nullptr, 0));
  expectErrnoUntouched("arm_start that is refused");
  engine_.kill();
  ASSERT_TRUE(engine_.start(setup));
  EXPECT_EQ(-9, call.result());
  EXPECT_EQ(ERRNO, errno_after);
}

/// Catches what the process writes to standard output and standard error.
class CaughtOutput {
 public:
  CaughtOutput() : file_(memfd_create("output", MFD_CLOEXEC)), out_(dup(1)), err_(dup(2)) {
    dup2(file_, 1);
    dup2(file_, 2);
  }
  ~CaughtOutput() { end(); }
  std::string end() {
    if (file_ < 0) return "";
    fflush(nullptr);
    dup2(out_, 1);
    dup2(err_, 2);
    char text[4096] = {};
    const ssize_t length = pread(file_, text, sizeof text - 1, 0);
    close(file_);
    close(out_);
    close(err_);
    file_ = -1;
    return std::string(text, length > 0 ? static_cast<size_t>(length) : 0);
  }

 private:
  int file_;
  int out_;
  int err_;
};

void makeEveryCall() {
  for (const PostingCall& one : postingCalls()) (void)one.call();
  (void)arm_init("", nullptr, 0, nullptr, 0);
  (void)arm_start(-1, 0, nullptr, 0);
  (void)SetExpectedCodeset("no such code set");
  (void)GetExpectedCodeset();
  (void)arm_getCorrelatorKey();
}

TEST_F(Manners, NothingIsPrinted) {
  CaughtOutput output;
  makeEveryCall();
  ASSERT_TRUE(engine_.start());
  makeEveryCall();
  engine_.kill();
  makeEveryCall();
  EXPECT_EQ("", output.end());
}

TEST_F(Manners, NothingIsPrintedWithTracing) {
  setenv("ARMDEBUG", "1", 1);
  CaughtOutput output;
  makeEveryCall();
  ASSERT_TRUE(engine_.start());
  makeEveryCall();
  engine_.quit();
  makeEveryCall();
  EXPECT_EQ("", output.end());
}

TEST_F(Manners, MissingTraceDirectoryIsPrintedOnceAndChangesNoResult) {
  ASSERT_EQ(0, rmdir("/var/orv/kestra/common/QDN/logs"));
  setenv("ARMDEBUG", "1", 1);
  ASSERT_TRUE(engine_.start());
  CaughtOutput output;
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(100 + one.type, one.call()) << one.name;
  EXPECT_EQ(
      "Failed to open trace file [/var/orv/kestra/common/QDN/logs/trace-armdebug.log], make sure "
      "that subdirectory exists\n",
      output.end());
}

// ---- no byte beside what the caller gave is touched ---------------------------------------------

/// Memory that ends at an unreadable page.
class GuardedMemory {
 public:
  explicit GuardedMemory(const Bytes& content) {
    pages_ = static_cast<uint8_t*>(
        mmap(nullptr, 2 * PAGE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    mprotect(pages_ + PAGE, PAGE, PROT_NONE);
    start_ = pages_ + PAGE - content.size();
    std::memcpy(start_, content.data(), content.size());
  }
  ~GuardedMemory() { munmap(pages_, 2 * PAGE); }
  GuardedMemory(const GuardedMemory&) = delete;
  GuardedMemory& operator=(const GuardedMemory&) = delete;
  void protect() { mprotect(pages_, PAGE, PROT_READ); }
  uint8_t* get() { return start_; }

 private:
  static constexpr size_t PAGE = 8192;
  uint8_t* pages_;
  uint8_t* start_;
};

TEST_F(Manners, NothingIsReadBehindABlockOfTheStandardsSize) {
  ASSERT_TRUE(engine_.start());
  GuardedMemory format1(makeBlock(256, 1));
  GuardedMemory format2(makeBlock(1024, 2));
  GuardedMemory format101(makeBlock(344, 101));
  GuardedMemory metric(makeBlock(4096, 7));
  EXPECT_EQ(103, arm_start(5, 0, format1.get(), 256));
  EXPECT_EQ(104, arm_update(5, 0, format1.get(), 256));
  EXPECT_EQ(104, arm_update(5, 0, format2.get(), 1024));
  EXPECT_EQ(105, arm_stop(5, 0, 0, format1.get(), 256));
  EXPECT_EQ(102, arm_getid(5, "n", "d", 0, format101.get(), 344));
  EXPECT_EQ(116, arm_transactionReport(5, 0, format1.get(), 256, 0, 0, 0, 0));
  EXPECT_EQ(119, arm_associateMetricData(5, metric.get(), 4096));
}

TEST_F(Manners, OnlyTheFormatWordOfAnotherFormatIsRead) {
  ASSERT_TRUE(engine_.start());
  Bytes word5(4);
  word5[0] = 5;
  GuardedMemory block(word5);
  EXPECT_EQ(104, arm_update(5, 0, block.get(), 256));
  EXPECT_EQ(102, arm_getid(5, "n", "d", 0, block.get(), 344));
}

TEST_F(Manners, NothingIsReadBehindAString) {
  ASSERT_TRUE(engine_.start());
  GuardedMemory name(Bytes{'n', 0});
  const char* text = reinterpret_cast<const char*>(name.get());
  for (const uint8_t convert : Bytes{0, 1}) {
    EXPECT_EQ(101, w_ArmInit(convert, text, text, 0, nullptr, 0));
    EXPECT_EQ(102, w_ArmGetID(convert, 5, text, text, 0, nullptr, 0));
  }
  // One that is too long is looked at no further than its limit.
  GuardedMemory long_name(Bytes(3620, 'n'));
  const char* endless = reinterpret_cast<const char*>(long_name.get());
  EXPECT_EQ(-1, arm_getid(5, endless, "d", 0, nullptr, 0));
  EXPECT_EQ(-1, arm_init(endless + 3620 - 128, "u", 0, nullptr, 0));
}

TEST_F(Manners, BlocksWithoutARequestAreNeverWrittenTo) {
  ASSERT_TRUE(engine_.start());
  engine_.replyWithCorrelator(0, 1, 1, makeCorrelator(1));
  GuardedMemory block(makeBlock(1024, 1, 0xB0));
  block.protect();
  EXPECT_EQ(1, arm_start(5, 0, block.get(), 256));
  EXPECT_EQ(1, arm_update(5, 0, block.get(), 256));
  EXPECT_EQ(1, arm_stop(5, 0, 0, block.get(), 256));
  EXPECT_EQ(1, arm_transactionReport(5, 0, block.get(), 256, 0, 0, 0, 0));
}

}  // namespace
}  // namespace armtest
