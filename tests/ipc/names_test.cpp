// The names of the interprocess objects and the identifiers of requesters.

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "ipc/CIPCQueue.h"
#include "ipc/CIPCUtils.h"
#include "ipc/multiagent.h"
#include "platform/CkesSemaphore.h"
#include "platform/CkesSharedMemory.h"
#include "process.h"
#include "rawqueues.h"

namespace armtest {
namespace {

void setPrefix(const char* value) {
  setenv("ARM_AGENT_PREFIX", value, 1);
}

class Names : public testing::Test {
 protected:
  Names() { unsetenv("ARM_AGENT_PREFIX"); }

  /// The name built within a limit, after a look at the bytes behind the limit.
  static std::string built(const std::string& name, const char* suffix, int size) {
    std::vector<char> out(static_cast<size_t>(size) + 64, '\xA5');
    CIPCUtils::createIPCName(name.c_str(), suffix, size, out.data());
    for (size_t i = static_cast<size_t>(size); i < out.size(); ++i) {
      EXPECT_EQ('\xA5', out[i]) << "byte " << i << " of a buffer of " << size;
    }
    return out.data();
  }
};

// ---- createIPCName ------------------------------------------------------------------------------

TEST_F(Names, NameAloneWithoutSuffixAndPrefix) {
  EXPECT_EQ("/base", built("/base", nullptr, 128));
}

TEST_F(Names, SuffixFollowsTheName) {
  EXPECT_EQ("/base_mem", built("/base", "_mem", 128));
}

TEST_F(Names, PrefixFollowsTheSuffixBehindADot) {
  setPrefix("agent2");
  EXPECT_EQ("/base_mem.agent2", built("/base", "_mem", 128));
  EXPECT_EQ("/base.agent2", built("/base", nullptr, 128));
}

TEST_F(Names, PrefixSetToTheEmptyStringLeavesABareDot) {
  setPrefix("");
  EXPECT_EQ("/var/kelp/controls_ea.kelp.", built("/var/kelp/controls_ea.kelp", nullptr, 123));
}

TEST_F(Names, ResultIsOutOnlyWhenAPrefixWasAppended) {
  char out[64];
  EXPECT_EQ(nullptr, CIPCUtils::createIPCName("/base", "_mem", 64, out));
  setPrefix("agent2");
  EXPECT_EQ(out, CIPCUtils::createIPCName("/base", "_mem", 64, out));
}

TEST_F(Names, NameOfSizeLessOneDropsSuffixAndPrefix) {
  setPrefix("agent2");
  EXPECT_EQ("1234567", built("1234567", "_mem", 8));
  EXPECT_EQ("1234567", built("12345678", "_mem", 8));
  EXPECT_EQ("1234567", built(std::string("1234567") + std::string(300, 'x'), "_mem", 8));
}

TEST_F(Names, EveryPartIsCutAtTheLimit) {
  setPrefix("agent2");
  EXPECT_EQ("12345_m", built("12345", "_mem", 8));
  EXPECT_EQ("123_mem", built("123", "_mem", 8));
  EXPECT_EQ("12_mem.", built("12", "_mem", 8));
  EXPECT_EQ("1_mem.a", built("1", "_mem", 8));
}

TEST_F(Names, LimitOneGivesTheEmptyString) {
  setPrefix("agent2");
  EXPECT_EQ("", built("/base", "_mem", 1));
}

TEST_F(Names, LimitZeroWritesNothing) {
  char out[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(nullptr, CIPCUtils::createIPCName("/base", nullptr, 0, out));
  EXPECT_EQ(0, std::memcmp("abcd", out, 4));
}

TEST_F(Names, NothingIsWrittenPastTheLimitWithAnyLength) {
  setPrefix("agent2");
  for (size_t length = 0; length < 20; ++length) {
    const std::string whole = std::string(length, 'n') + "_suffix.agent2";
    EXPECT_EQ(whole.substr(0, 15), built(std::string(length, 'n'), "_suffix", 16));
  }
}

TEST_F(Names, AtMost4095CharactersOfThePrefixAreUsed) {
  setPrefix(std::string(5000, 'p').c_str());
  EXPECT_EQ("/base." + std::string(4095, 'p'), built("/base", nullptr, 8192));
}

// ---- the prefix ---------------------------------------------------------------------------------

TEST_F(Names, PrefixThatIsEmptyCountsAsSet) {
  EXPECT_EQ(0, isMultiAgent());
  setPrefix("");
  EXPECT_EQ(1, isMultiAgent());
  setPrefix("agent2");
  EXPECT_EQ(1, isMultiAgent());
}

TEST_F(Names, MultiAgentNameIsCopied) {
  setPrefix("agent2");
  char name[16];
  getMultiAgentName(name, sizeof name);
  EXPECT_STREQ("agent2", name);
}

TEST_F(Names, MultiAgentNameWithoutPrefixIsEmpty) {
  char name[4] = {'x', 'x', 'x', 'x'};
  getMultiAgentName(name, sizeof name);
  EXPECT_STREQ("", name);
}

TEST_F(Names, MultiAgentNameIsCutToLenLessOne) {
  setPrefix("agent2");
  char name[8] = {'x', 'x', 'x', 'x', 'x', 'x', 'x', 'x'};
  getMultiAgentName(name, 6);
  EXPECT_STREQ("agent", name);
  EXPECT_EQ('x', name[6]);
  getMultiAgentName(name, 7);
  EXPECT_STREQ("agent2", name);
  EXPECT_EQ('x', name[7]);
}

TEST_F(Names, MultiAgentNameOfLenOneIsEmpty) {
  setPrefix("agent2");
  char name[2] = {'x', 'x'};
  getMultiAgentName(name, 1);
  EXPECT_STREQ("", name);
  EXPECT_EQ('x', name[1]);
}

TEST_F(Names, MultiAgentNameWithoutRoomDoesNothing) {
  setPrefix("agent2");
  char name[2] = {'x', 'x'};
  getMultiAgentName(name, 0);
  getMultiAgentName(name, -1);
  getMultiAgentName(nullptr, 16);
  EXPECT_EQ('x', name[0]);
  EXPECT_EQ('x', name[1]);
}

// ---- the limits of the classes ------------------------------------------------------------------

/// A path of the given length; shorter ones are the beginnings of longer ones.
std::string pathOf(size_t length) {
  const std::string path = "/var/kelp/" + std::string(200, 'n');
  return path.substr(0, length);
}

TEST_F(Names, SemaphoreCutsItsPathTo127Characters) {
  SemaphoreSet set(pathOf(127), 1, 3);
  std::string name = pathOf(200);
  EXPECT_TRUE(CkesSemaphore(name.data()).IsInitialized());
  name = pathOf(126);
  EXPECT_FALSE(CkesSemaphore(name.data()).IsInitialized());
}

TEST_F(Names, SharedMemoryCutsItsPathTo124Characters) {
  LockedSegment segment(pathOf(124), 100);
  EXPECT_EQ(0, CkesSharedMemory(pathOf(200).c_str(), false).GetInitResult());
  EXPECT_EQ(-250, CkesSharedMemory(pathOf(123).c_str(), false).GetInitResult());
}

TEST_F(Names, ReplyQueueCutsThePathOfItsSetTo122Characters) {
  LockedSegment segment(pathOf(124), 12 + 548);
  {
    SemaphoreSet set(pathOf(122), 3, 3);
    EXPECT_TRUE(CIPCQueue<TArmReplyMessage>(pathOf(200).c_str(), false).IsInitialized());
  }
  SemaphoreSet set(pathOf(123), 3, 3);
  EXPECT_FALSE(CIPCQueue<TArmReplyMessage>(pathOf(200).c_str(), false).IsInitialized());
}

TEST_F(Names, EveryClassAppendsThePrefix) {
  setPrefix("agent2");
  SemaphoreSet semaphore("/var/kelp/sem.agent2", 1, 3);
  LockedSegment segment("/var/kelp/queue.agent2", 12 + 548);
  SemaphoreSet set("/var/kelp/queue.agent2", 3, 3);
  char name[] = "/var/kelp/sem";
  EXPECT_TRUE(CkesSemaphore(name).IsInitialized());
  EXPECT_EQ(0, CkesSharedMemory("/var/kelp/queue", false).GetInitResult());
  EXPECT_TRUE(CIPCQueue<TArmReplyMessage>("/var/kelp/queue", false).IsInitialized());
}

// ---- identifiers --------------------------------------------------------------------------------

TEST(Identifiers, AreTwoWordsProcessFirst) {
  const _TIPCIdentifier id = {0x01020304, 0x05060708};
  ASSERT_EQ(8U, sizeof id);
  EXPECT_EQ(0, std::memcmp("\x04\x03\x02\x01\x08\x07\x06\x05", &id, 8));
}

TEST(Identifiers, SameOnlyWhenBothWordsAre) {
  EXPECT_TRUE(CIPCUtils::sameIPCIdentifiers({5, 7}, {5, 7}));
  EXPECT_FALSE(CIPCUtils::sameIPCIdentifiers({5, 7}, {5, 8}));
  EXPECT_FALSE(CIPCUtils::sameIPCIdentifiers({5, 7}, {6, 7}));
  EXPECT_FALSE(CIPCUtils::sameIPCIdentifiers({5, 7}, {7, 5}));
}

TEST(Identifiers, NullIdentifierIsAllOnes) {
  EXPECT_TRUE(CIPCUtils::sameIPCIdentifiers(NULL_IPC_ID, {-1, 0xFFFFFFFFU}));
  EXPECT_EQ(0, std::memcmp("\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", &NULL_IPC_ID, 8));
}

TEST(Identifiers, EngineIsZeroZero) {
  EXPECT_EQ(0, GetEngineID().processId);
  EXPECT_EQ(0U, GetEngineID().threadId);
}

TEST(Identifiers, AreTheProcessAndTheThread) {
  const _TIPCIdentifier id = GetIpcIdentifier();
  EXPECT_EQ(getpid(), id.processId);
  EXPECT_EQ(getpid(), GetProcessID());
#if defined(__LP64__)
  EXPECT_EQ(static_cast<uint32_t>(syscall(SYS_gettid)), id.threadId);
#else
  EXPECT_EQ(pthread_self(), id.threadId);
#endif
  EXPECT_EQ(GetThreadId(), id.threadId);
}

TEST(Identifiers, StayTheSameWithinAThread) {
  EXPECT_TRUE(CIPCUtils::sameIPCIdentifiers(GetIpcIdentifier(), GetIpcIdentifier()));
}

TEST(Identifiers, DifferBetweenLiveThreads) {
  constexpr size_t THREADS = 32;
  std::vector<uint32_t> ids(THREADS);
  std::vector<std::thread> threads;
  std::atomic<size_t> ready{0};
  for (size_t i = 0; i < THREADS; ++i) {
    threads.emplace_back([&ids, &ready, i] {
      ids[i] = GetIpcIdentifier().threadId;
      ++ready;
      EXPECT_TRUE(waitUntil([&ready] { return ready == THREADS; }));
    });
  }
  for (std::thread& thread : threads) thread.join();
  ids.push_back(GetIpcIdentifier().threadId);
  EXPECT_EQ(THREADS + 1, std::set<uint32_t>(ids.begin(), ids.end()).size());
}

TEST(Identifiers, OfAForkedChildAreItsOwn) {
  const _TIPCIdentifier parent = GetIpcIdentifier();
  const int code = exitCodeOf(forkChild([&parent] {
    const _TIPCIdentifier child = GetIpcIdentifier();
    if (child.processId != getpid() || child.processId == parent.processId) return 1;
#if defined(__LP64__)
    if (child.threadId != static_cast<uint32_t>(syscall(SYS_gettid))) return 2;
#endif
    return 0;
  }));
  EXPECT_EQ(0, code);
}

#if defined(__LP64__)

struct Seen {
  unsigned long self;
  uint32_t thread_id;
};

void* look(void* seen) {
  *static_cast<Seen*>(seen) = {pthread_self(), GetIpcIdentifier().threadId};
  return nullptr;
}

/// Runs look on a stack of 1 MiB at the address.
pthread_t startOnStack(void* stack, Seen* seen) {
  constexpr size_t SIZE = size_t{1} << 20;
  EXPECT_EQ(0, mprotect(stack, SIZE, PROT_READ | PROT_WRITE));
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  EXPECT_EQ(0, pthread_attr_setstack(&attributes, stack, SIZE));
  pthread_t thread = 0;
  EXPECT_EQ(0, pthread_create(&thread, &attributes, look, seen));
  pthread_attr_destroy(&attributes);
  return thread;
}

TEST(Identifiers, DifferOnStacksThatLieFourGiBApart) {
  constexpr size_t APART = size_t{4} << 30;
  char* stacks = static_cast<char*>(
      mmap(nullptr, APART * 2, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));
  ASSERT_NE(MAP_FAILED, static_cast<void*>(stacks));
  Seen low = {};
  Seen high = {};
  const pthread_t first = startOnStack(stacks, &low);
  const pthread_t second = startOnStack(stacks + APART, &high);
  pthread_join(first, nullptr);
  pthread_join(second, nullptr);
  ASSERT_EQ(static_cast<uint32_t>(low.self), static_cast<uint32_t>(high.self));
  EXPECT_NE(low.thread_id, high.thread_id);
}

#endif

}  // namespace
}  // namespace armtest
