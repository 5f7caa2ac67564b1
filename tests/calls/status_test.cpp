// How often, and when, the status check of a call opens the connection. This program stands between
// the library and the C library's ftok and semget.

#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <cstring>

#include "CallTest.h"
#include "ipcobjects.h"
#include "nextcall.h"
#include "tracefile.h"

namespace {

int keys_of_overflow_semaphore = 0;
int keys_of_reply_set = 0;
int sets_opened = 0;
/// When set, every opening of a reply queue is followed by this version word.
bool spoil_version = false;

constexpr const char* REQUEST_SEGMENT = "/var/kelp/controls_ae.kelp_mem";
constexpr int REPLY_SET_PROJECT = 3;
constexpr size_t VERSION_OFFSET = 20;

key_t realFtok(const char* path, int project) {
  static auto* const REAL = armtest::nextCall<key_t(const char*, int)>("ftok");
  return REAL(path, project);
}

void writeVersion(uint32_t version) {
  armtest::Attached(REQUEST_SEGMENT).write(VERSION_OFFSET, version);
}

}  // namespace

extern "C" key_t ftok(const char* path, int project) __THROW;
extern "C" key_t ftok(const char* path, int project) __THROW {
  if (std::strcmp(path, "/var/kelp/controls_ae.kelp_ovr") == 0) ++keys_of_overflow_semaphore;
  if (project == REPLY_SET_PROJECT) ++keys_of_reply_set;
  return realFtok(path, project);
}

extern "C" int semget(key_t key, int count, int flags) __THROW;
extern "C" int semget(key_t key, int count, int flags) __THROW {
  static auto* const REAL = armtest::nextCall<int(key_t, int, int)>("semget");
  ++sets_opened;
  if (spoil_version && count == 2 &&
      key == realFtok("/var/kelp/controls_ea.kelp", REPLY_SET_PROJECT)) {
    writeVersion(12345);
  }
  return REAL(key, count, flags);
}

namespace armtest {
namespace {

class EngineStatus : public Calls {
 protected:
  /// Attempts to open the connection since the last look.
  static int attempts() {
    const int count = keys_of_overflow_semaphore;
    keys_of_overflow_semaphore = 0;
    keys_of_reply_set = 0;
    sets_opened = 0;
    return count;
  }
};

TEST_F(EngineStatus, OfAnAbsentEngineIsOneAttemptPerCall) {
  for (const PostingCall& one : postingCalls()) {
    EXPECT_EQ(-2, one.call()) << one.name;
    EXPECT_EQ(1, keys_of_overflow_semaphore) << one.name;
    EXPECT_EQ(0, sets_opened) << one.name;
    (void)attempts();
  }
}

TEST_F(EngineStatus, OfAConnectedProcessOpensNothing) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(1, keys_of_reply_set);
  EXPECT_EQ(1, attempts());
  for (const PostingCall& one : postingCalls()) {
    EXPECT_EQ(100 + one.type, one.call()) << one.name;
    EXPECT_EQ(0, sets_opened) << one.name;
    EXPECT_EQ(0, attempts()) << one.name;
  }
}

TEST_F(EngineStatus, OfAnEngineThatWentAwayIsOneSecondAttemptAndThenOnePerCall) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  (void)attempts();
  engine_.quit();
  for (const PostingCall& one : postingCalls()) {
    EXPECT_EQ(-2, one.call()) << one.name;
    EXPECT_EQ(1, attempts()) << one.name;
  }
}

TEST_F(EngineStatus, OfARestartedEngineIsOneAttempt) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  for (const PostingCall& one : postingCalls()) {
    engine_.kill();
    ASSERT_TRUE(engine_.start());
    (void)attempts();
    EXPECT_EQ(100 + one.type, one.call()) << one.name;
    EXPECT_EQ(1, attempts()) << one.name;
  }
}

TEST_F(EngineStatus, OfAWrongVersionWordIsOneAttemptThatRepairsIt) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  (void)attempts();
  engine_.setVersion(1);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(1, attempts());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(0, attempts());
}

TEST_F(EngineStatus, OfAVersionWordThatStaysWrongIsMinus2AfterTwoAttempts) {
  ASSERT_TRUE(engine_.start());
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  (void)attempts();
  spoil_version = true;
  EXPECT_EQ(-2, arm_init("a", "u", 0, nullptr, 0));
  EXPECT_EQ(2, attempts());
  spoil_version = false;
  EXPECT_EQ(0U, engine_.taken());
  const Lines texts = basicTexts(readTrace());
  ASSERT_LT(4U, texts.size());
  const Lines end(texts.end() - 4, texts.end());
  EXPECT_EQ((Lines{"IsEngineAlive: OutQueue version[12345] does not match libarm version[50300]",
                   "CheckEngineStatus, 2nd InitializeIPC worked, but IsEngineAlive failed.",
                   "  \aCheckEngineStatus failed", "libarm:arm_init EXIT[-2]"}),
            end);
  // Connected with a wrong word: the next call closes, opens and goes on.
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(1, attempts());
}

TEST_F(EngineStatus, IsNotAskedForByTheCorrelatorKeyAndTheCodesetCalls) {
  (void)arm_getCorrelatorKey();
  (void)SetExpectedCodeset("UTF-8");
  (void)GetExpectedCodeset();
  EXPECT_EQ(0, attempts());
}

}  // namespace
}  // namespace armtest
