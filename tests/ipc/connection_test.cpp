// The connection functions and the status check, against both queues laid by hand.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <vector>

#include "arm/dllhook.h"
#include "arm/libarmutils.h"
#include "armext.h"
#include "calls.h"
#include "counted.h"
#include "errortrail.h"
#include "ipc/arm_ipc.h"
#include "process.h"
#include "rawqueues.h"
#include "tracing.h"

namespace armtest {
namespace {

using Listener = std::function<void(CkesMutex*)>;

/// Called before each lock and each unlock of a mutex, and before and after each Pass, which is
/// both in one.
void onMutexes(
    const Listener& locks, const Listener& unlocks = [](CkesMutex*) {}) {
  calls::mutexLock.replace([=](CkesMutex* mutex) {
    locks(mutex);
    return calls::mutexLock.real(mutex);
  });
  calls::mutexUnlock.replace([=](CkesMutex* mutex) {
    unlocks(mutex);
    return calls::mutexUnlock.real(mutex);
  });
  calls::mutexPass.replace([=](CkesMutex* mutex) {
    locks(mutex);
    const long result = calls::mutexPass.real(mutex);
    unlocks(mutex);
    return result;
  });
}

void letMutexesBe() {
  calls::mutexLock.watch();
  calls::mutexUnlock.watch();
  calls::mutexPass.watch();
}

/// Called in place of each pause; nothing sleeps then.
void onNap(const std::function<void(useconds_t)>& nap) {
  calls::usleep.replace([=](useconds_t pause) {
    nap(pause);
    return 0;
  });
}

Bytes bytesOf(const TArmReplyMessage& reply) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&reply);
  return Bytes(bytes, bytes + sizeof reply);
}

/// An engine that has created its queues and reads them.
class Connection : public testing::Test {
 protected:
  Connection() { startEngine(); }
  ~Connection() override {
    letMutexesBe();
    calls::semop.watch();
    calls::semctl.watch();
    onNap([](useconds_t) {});
    if (replies) replies->breakLock();
    CloseIPC();
  }

  void startEngine() {
    requests = std::make_unique<RequestQueue>(3);
    replies = std::make_unique<ReplyQueue>(3);
  }
  void removeEngine() {
    requests.reset();
    replies.reset();
  }

  /// A post that is given the same bytes throughout.
  static long post(uint8_t byte = 0x42) {
    TArmMessage message;
    std::memset(&message, byte, sizeof message);
    return IPCPostToEngine(message);
  }

  /// Waits for a reply in a thread, which sleeps when this returns.
  std::future<Bytes> startGet() {
    std::future<Bytes> got = std::async(std::launch::async, [] {
      TArmReplyMessage reply;
      std::memset(&reply, 0xEE, sizeof reply);
      getResult = IPCGetFromEngine(reply, {1001, 2002});
      return bytesOf(reply);
    });
    EXPECT_TRUE(waitUntil([this] { return replies->waits.sleepers(2) == 1; }));
    return got;
  }

  std::unique_ptr<RequestQueue> requests;
  std::unique_ptr<ReplyQueue> replies;
  static std::atomic<long> getResult;
};

std::atomic<long> Connection::getResult{1};

// ---- opening ------------------------------------------------------------------------------------

TEST_F(Connection, OpensBothQueues) {
  engineID = {5, 6};
  const TraceLog log;
  EXPECT_TRUE(InitializeIPC());
  ASSERT_NE(nullptr, OutQueue);
  ASSERT_NE(nullptr, InQueue);
  EXPECT_EQ(0, engineID.processId);
  EXPECT_EQ(0U, engineID.threadId);
  EXPECT_EQ(Lines{}, log.lines("InitializeIPC"));
  EXPECT_EQ(2U, requests->memory.attachments());
  EXPECT_EQ(2U, replies->memory.attachments());
}

class ConnectionFailure : public Connection {
 protected:
  /// An opening that fails at the request queue.
  static void expectLines(const Lines& expected) {
    engineID = {5, 6};
    const TraceLog log;
    EXPECT_FALSE(InitializeIPC());
    EXPECT_EQ(expected, log.lines("InitializeIPC"));
    EXPECT_EQ(nullptr, OutQueue);
    EXPECT_EQ(nullptr, InQueue);
    EXPECT_EQ(5, engineID.processId) << "the engine's identifier is not touched";
    EXPECT_EQ(6U, engineID.threadId);
    EXPECT_EQ(0, OutQueueMutex.TryLock());
    EXPECT_EQ(0, InQueueMutex.TryLock());
    (void)OutQueueMutex.Unlock();
    (void)InQueueMutex.Unlock();
  }
};

TEST_F(ConnectionFailure, WithoutMemoryIsANullQueue) {
  calls::refuseMemory([](size_t) { return true; });
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue is NULL"});
  calls::giveMemory();
}

TEST_F(ConnectionFailure, WithoutEngineIsNotInitialized) {
  removeEngine();
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue is not Initialized"});
}

TEST_F(ConnectionFailure, OfADeadCreatorIsNotAlive) {
  requests->creatorDies();
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue Creator is not alive"});
}

TEST_F(ConnectionFailure, OfAQueueThatIsNotReadyHasNoLineOfItsOwn) {
  requests->setReady(0);
  expectLines({"InitializeIPC, OutQueue failure"});
}

TEST_F(ConnectionFailure, OfAStoppedQueueIsNotInitializedThoughItsCreatorIsDeadToo) {
  requests->setState(1);
  requests->creatorDies();
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue is not Initialized"});
}

TEST_F(ConnectionFailure, OfADeadCreatorComesBeforeNotReady) {
  requests->creatorDies();
  requests->setReady(0);
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue Creator is not alive"});
}

TEST_F(Connection, WithoutReplyQueueClosesBoth) {
  replies->setState(1);
  engineID = {5, 6};
  const TraceLog log;
  EXPECT_FALSE(InitializeIPC());
  EXPECT_EQ(Lines{"InitializeIPC, Failed to create InQueue"}, log.lines("InitializeIPC"));
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(0, engineID.processId) << "the engine's identifier is copied all the same";
  EXPECT_EQ(0U, engineID.threadId);
  EXPECT_EQ(1U, requests->memory.attachments());
  EXPECT_EQ(1U, replies->memory.attachments());
}

TEST_F(Connection, WithoutMemoryForTheReplyQueueClosesBoth) {
  // The request queue, its two semaphores and its segment come first.
  int left = 4;
  calls::refuseMemory([&left](size_t) { return left-- == 0; });
  const TraceLog log;
  EXPECT_FALSE(InitializeIPC());
  EXPECT_EQ(Lines{"InitializeIPC, Failed to create InQueue"}, log.lines("InitializeIPC"));
  EXPECT_EQ(nullptr, OutQueue);
  calls::giveMemory();
}

TEST_F(Connection, MutexesAreUnlockedASecondTimeWithoutReplyQueue) {
  replies->setState(1);
  int held[3] = {};
  int lowest[3] = {};
  const auto indexOf = [](const CkesMutex* mutex) {
    return mutex == &OutQueueMutex ? 0 : mutex == &InQueueMutex ? 1 : 2;
  };
  onMutexes([&](CkesMutex* mutex) { ++held[indexOf(mutex)]; },
            [&](CkesMutex* mutex) {
              const int index = indexOf(mutex);
              lowest[index] = std::min(lowest[index], --held[index]);
            });
  EXPECT_FALSE(InitializeIPC());
  letMutexesBe();
  EXPECT_EQ(-1, held[0]) << "OutQueueMutex";
  EXPECT_EQ(-1, held[1]) << "InQueueMutex";
  EXPECT_EQ(0, held[2]) << "IsClosingMutex";
  EXPECT_EQ(-1, lowest[0]) << "the second unlocking is the last";
  EXPECT_EQ(-1, lowest[1]);
  EXPECT_EQ(0, OutQueueMutex.TryLock());
  EXPECT_EQ(-124, OutQueueMutex.TryLock());
  (void)OutQueueMutex.Unlock();
}

TEST_F(Connection, BothMutexesAreHeldWhileTheQueuesAreOpened) {
  int allocations = 0;
  calls::refuseMemory([&allocations](size_t) {
    ++allocations;
    EXPECT_EQ(-124, OutQueueMutex.TryLock());
    EXPECT_EQ(-124, InQueueMutex.TryLock());
    return false;
  });
  EXPECT_TRUE(InitializeIPC());
  calls::giveMemory();
  EXPECT_GT(allocations, 1);
}

TEST_F(Connection, OpenedTwiceKeepsOnlyTheSecondQueues) {
  EXPECT_TRUE(InitializeIPC());
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ(2U, requests->memory.attachments());
  EXPECT_EQ(2U, replies->memory.attachments());
  EXPECT_EQ(0, post());
}

TEST_F(Connection, NeverWaitsForRoom) {
  EXPECT_TRUE(InitializeIPC());
  OutQueue->SetOverflowWait(true);
  EXPECT_TRUE(InitializeIPC());
  requests->setRing(3, 0, 0);
  EXPECT_EQ(-8, post());
  EXPECT_EQ(0U, requests->overflowWaiters());
}

// ---- the entry gate -----------------------------------------------------------------------------

TEST_F(Connection, EveryFunctionPassesTheGateBeforeAnythingElse) {
  std::string seen;
  const auto nameOf = [](const CkesMutex* mutex) {
    return mutex == &IsClosingMutex ? 'c' : mutex == &OutQueueMutex ? 'o' : 'i';
  };
  onMutexes([&](CkesMutex* mutex) { seen += static_cast<char>(std::toupper(nameOf(mutex))); },
            [&](CkesMutex* mutex) { seen += nameOf(mutex); });
  const auto sequence = [&seen] {
    std::string result;
    result.swap(seen);
    return result;
  };
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ("CcOIio", sequence());
  EXPECT_TRUE(IsEngineAlive());
  EXPECT_EQ("CcOoOo", sequence());
  EXPECT_EQ(0, post());
  EXPECT_EQ("CcOoOo", sequence());
  replies->setState(1);
  TArmReplyMessage reply;
  EXPECT_EQ(-9, IPCGetFromEngine(reply));
  EXPECT_EQ("CcIiIi", sequence());
  EXPECT_EQ(-9, IPCGetFromEngine(reply, {1, 1}));
  EXPECT_EQ("CcIiIi", sequence());
  letMutexesBe();
}

TEST_F(Connection, GateIsClosedWhileTheQueuesAreBeingClosed) {
  EXPECT_TRUE(InitializeIPC());
  InQueueCount = 1;
  OutQueueCount = 1;
  int polls = 0;
  onNap([&polls](useconds_t) {
    EXPECT_EQ(-124, IsClosingMutex.TryLock());
    ++polls;
    InQueueCount = 0;
  });
  CloseIPC();
  calls::usleep.watch();
  EXPECT_EQ(1, polls);
  EXPECT_EQ(0, IsClosingMutex.TryLock());
  (void)IsClosingMutex.Unlock();
}

TEST_F(Connection, PostWaitsAtTheClosedGate) {
  EXPECT_TRUE(InitializeIPC());
  (void)IsClosingMutex.Lock();
  std::atomic<bool> atGate{false};
  onMutexes([&atGate](CkesMutex* mutex) {
    if (mutex == &IsClosingMutex) atGate = true;
  });
  std::future<long> posted = std::async(std::launch::async, [] { return post(); });
  EXPECT_TRUE(waitUntil([&atGate] { return atGate.load(); }));
  EXPECT_EQ(0, OutQueueCount);
  EXPECT_EQ(0, requests->count());
  (void)IsClosingMutex.Unlock();
  EXPECT_EQ(0, posted.get());
  letMutexesBe();
  EXPECT_EQ(1, requests->count());
}

// ---- posting ------------------------------------------------------------------------------------

TEST_F(Connection, PostWithoutQueueIsMinusTwo) {
  EXPECT_EQ(-2, post());
  EXPECT_EQ(0, OutQueueCount);
}

TEST_F(Connection, PostToADeadCreatorIsMinusTwoAndWritesNothing) {
  EXPECT_TRUE(InitializeIPC());
  requests->creatorDies();
  EXPECT_EQ(-2, post());
  EXPECT_EQ(0, requests->count());
  EXPECT_EQ(0, OutQueueCount);
}

TEST_F(Connection, PostIsSeenInTheRing) {
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ(0, post(0x42));
  EXPECT_EQ(Bytes(4116, 0x42), requests->slot(0));
  EXPECT_EQ(0, OutQueueCount);
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, PostToAFullQueueIsMinusEightAndTheCountsAreBack) {
  EXPECT_TRUE(InitializeIPC());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, post());
  EXPECT_EQ(-8, post(0x43));
  EXPECT_EQ(3, requests->count());
  EXPECT_EQ(Bytes(4116, 0x42), requests->slot(0));
  EXPECT_EQ(0, OutQueueCount);
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, PostThatFailsOtherwiseIsMinusNine) {
  EXPECT_TRUE(InitializeIPC());
  requests->setState(1);
  EXPECT_EQ(-9, post());
  EXPECT_EQ("-284 CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()", errorTrail());
  requests->setState(0);
  requests->setRing(9, 9, 9);
  EXPECT_EQ(-9, post());
  EXPECT_EQ(0, OutQueueCount);
}

TEST_F(Connection, UserCountIsUpDuringAPost) {
  EXPECT_TRUE(InitializeIPC());
  int32_t during = 0;
  calls::semop.ask([&during](int, const sembuf*, size_t) {
    during = OutQueueCount;
    return calls::RUN_IT;
  });
  EXPECT_EQ(0, post());
  calls::semop.watch();
  EXPECT_EQ(1, during);
  EXPECT_EQ(0, OutQueueCount);
}

// ---- getting ------------------------------------------------------------------------------------

TEST_F(Connection, GetWithoutQueueIsMinusTwo) {
  TArmReplyMessage reply;
  EXPECT_EQ(-2, IPCGetFromEngine(reply));
  EXPECT_EQ(-2, IPCGetFromEngine(reply, {1, 1}));
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetFromADeadCreatorIsMinusTwo) {
  EXPECT_TRUE(InitializeIPC());
  replies->creatorDies();
  TArmReplyMessage reply;
  EXPECT_EQ(-2, IPCGetFromEngine(reply));
  EXPECT_EQ(0, replies->headsInUse());
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetThatFailsIsMinusNine) {
  EXPECT_TRUE(InitializeIPC());
  replies->setState(1);
  TArmReplyMessage reply;
  EXPECT_EQ(-9, IPCGetFromEngine(reply));
  EXPECT_EQ("-284 CIPCQueue::PrivateGet() < CIPCQueue::Get()", errorTrail());
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetWithoutHeadIsMinusNineAndNotMinusEight) {
  EXPECT_TRUE(InitializeIPC());
  replies->setHeadsInUse(3);
  for (size_t i = 0; i < 3; ++i) replies->setStatus(i, 1);
  TArmReplyMessage reply;
  EXPECT_EQ(-9, IPCGetFromEngine(reply));
  EXPECT_EQ("-274 CIPCQueue::PrivateGet() < CIPCQueue::Get()", errorTrail());
}

TEST_F(Connection, GetTakesTheReplyOfTheCallingThread) {
  EXPECT_TRUE(InitializeIPC());
  const _TIPCIdentifier me = GetIpcIdentifier();
  replies->setOwner(1, static_cast<uint32_t>(me.processId), me.threadId);
  replies->reply(1, replyRecord(77));
  TArmReplyMessage reply;
  EXPECT_EQ(0, IPCGetFromEngine(reply));
  EXPECT_EQ(replyRecord(77), bytesOf(reply));
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetTakesTheReplyOfAGivenIdentifier) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  EXPECT_EQ(1, InQueueCount);
  EXPECT_EQ(1001U, replies->process(0));
  EXPECT_EQ(2002U, replies->thread(0));
  replies->reply(0, replyRecord(78));
  EXPECT_EQ(replyRecord(78), got.get());
  EXPECT_EQ(0, getResult);
  EXPECT_EQ(0, InQueueCount);
}

// ---- IsEngineAlive ------------------------------------------------------------------------------

TEST_F(Connection, WithoutQueueNoEngineIsAlive) {
  const TraceLog log;
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ(Lines{"IsEngineAlive: OutQueue is NULL"}, log.lines());
}

TEST_F(Connection, EngineThatHasExitedIsNotAlive) {
  EXPECT_TRUE(InitializeIPC());
  requests->creatorDies();
  const TraceLog log;
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ(Lines{"IsEngineAlive: CreatorAlive failed"}, log.lines());
}

TEST_F(Connection, EngineWithAnotherVersionIsNotAlive) {
  EXPECT_TRUE(InitializeIPC());
  requests->setVersion(50299);
  const TraceLog log;
  EXPECT_FALSE(IsEngineAlive());
  requests->setVersion(0xFFFFFFFF);
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ((Lines{"IsEngineAlive: OutQueue version[50299] does not match libarm version[50300]",
                   "IsEngineAlive: OutQueue version[4294967295] does not match libarm "
                   "version[50300]"}),
            log.lines());
}

TEST_F(Connection, EngineIsAliveWithoutALine) {
  EXPECT_TRUE(InitializeIPC());
  const TraceLog log;
  EXPECT_TRUE(IsEngineAlive());
  EXPECT_EQ(Lines{}, log.lines());
}

TEST_F(Connection, IsEngineAliveRaisesTheUserCountTwiceAndNeverLowersIt) {
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ(2, OutQueueCount);
  EXPECT_TRUE(InitializeIPC());
  EXPECT_TRUE(IsEngineAlive());
  EXPECT_EQ(4, OutQueueCount);
  requests->creatorDies();
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ(6, OutQueueCount);
  EXPECT_EQ(0, InQueueCount);
}

// ---- CloseIPC -----------------------------------------------------------------------------------

TEST_F(Connection, CloseDetachesAndRemovesNothing) {
  EXPECT_TRUE(InitializeIPC());
  const Bytes before = requests->memory.all();
  CloseIPC();
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(1U, requests->memory.attachments());
  EXPECT_EQ(1U, replies->memory.attachments());
  EXPECT_EQ(before, requests->memory.all());
  EXPECT_NE(-1, setAt(EA, 1));
  EXPECT_NE(-1, setAt(EA, 3));
  EXPECT_EQ(0U, replies->memory.u32(8));
}

TEST_F(Connection, CloseTwiceIsHarmless) {
  EXPECT_TRUE(InitializeIPC());
  CloseIPC();
  CloseIPC();
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ(0, post());
}

TEST_F(Connection, CloseWaitsFourThousandPollsWhileBothQueuesHaveUsers) {
  EXPECT_TRUE(InitializeIPC());
  OutQueueCount = 1;
  InQueueCount = 1;
  int polls = 0;
  onNap([&polls](useconds_t pause) {
    EXPECT_EQ(1000U, pause);
    EXPECT_NE(nullptr, OutQueue);
    EXPECT_NE(nullptr, InQueue);
    ++polls;
  });
  CloseIPC();
  EXPECT_EQ(4000, polls);
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(1U, replies->memory.attachments());
}

TEST_F(Connection, CloseGoesAheadWhenOneCountReachesZero) {
  EXPECT_TRUE(InitializeIPC());
  OutQueueCount = 5;
  InQueueCount = 1;
  int polls = 0;
  onNap([&polls](useconds_t) {
    if (++polls == 7) InQueueCount = 0;
  });
  CloseIPC();
  EXPECT_EQ(7, polls);
  EXPECT_EQ(nullptr, InQueue);
}

TEST_F(Connection, CloseDoesNotWaitWhenOnlyOneQueueHasUsers) {
  int polls = 0;
  onNap([&polls](useconds_t) { ++polls; });
  EXPECT_TRUE(InitializeIPC());
  OutQueueCount = 9;
  CloseIPC();
  EXPECT_TRUE(InitializeIPC());
  OutQueueCount = 0;
  InQueueCount = 9;
  CloseIPC();
  EXPECT_EQ(0, polls);
  EXPECT_EQ(nullptr, OutQueue);
}

TEST_F(Connection, BlockedGetKeepsItsQueueUntilItLeaves) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  CloseIPC();
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(1U, requests->memory.attachments());
  EXPECT_EQ(2U, replies->memory.attachments());
  replies->reply(0, replyRecord(79));
  EXPECT_EQ(replyRecord(79), got.get());
  EXPECT_EQ(0, getResult);
  EXPECT_EQ(1U, replies->memory.attachments());
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, BlockedGetAndAnAliveCheckMakeTheCloseWaitAndGoAheadAnyway) {
  EXPECT_TRUE(InitializeIPC());
  EXPECT_TRUE(IsEngineAlive());
  std::future<Bytes> got = startGet();
  std::atomic<int> polls{0};
  onNap([&polls](useconds_t) { ++polls; });
  CloseIPC();
  EXPECT_EQ(4000, polls);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(2U, replies->memory.attachments());
  replies->reply(0, replyRecord(80));
  EXPECT_EQ(replyRecord(80), got.get());
  EXPECT_EQ(1U, replies->memory.attachments());
}

TEST_F(Connection, BlockedGetOnTheOldQueueIsNotDisturbedByANewOpening) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  CloseIPC();
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ(3U, replies->memory.attachments());
  replies->reply(0, replyRecord(81));
  EXPECT_EQ(replyRecord(81), got.get());
  EXPECT_EQ(2U, replies->memory.attachments());
}

TEST_F(Connection, BlockedGetWhoseSetIsRemovedIsMinusNine) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  replies->waits.remove();
  EXPECT_EQ(Bytes(528, 0xEE), got.get());
  EXPECT_EQ(-9, getResult);
}

// ---- CheckEngineStatus --------------------------------------------------------------------------

/// The lines of the status check and of the connection.
Lines statusLines(const TraceLog& log) {
  Lines lines;
  for (const std::string& line : log.lines()) {
    for (const char* beginning : {"CheckEngineStatus", "InitializeIPC", "IsEngineAlive"}) {
      if (line.rfind(beginning, 0) == 0) lines.push_back(line);
    }
  }
  return lines;
}

class EngineStatus : public Connection {
 protected:
  EngineStatus() {
    onNap([](useconds_t) {});
  }
};

TEST_F(EngineStatus, OpensTheConnectionOnceAndKeepsIt) {
  EXPECT_FALSE(IPCInitialized);
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_TRUE(IPCInitialized);
  const void* queue = OutQueue;
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ(queue, OutQueue);
}

TEST_F(EngineStatus, WithoutEngineEachCallMakesOneAttempt) {
  removeEngine();
  const TraceLog log;
  const Lines attempt = {"InitializeIPC, OutQueue failure",
                         "InitializeIPC, OutQueue is not Initialized",
                         "CheckEngineStatus, InitializeIPC failed"};
  EXPECT_EQ(-2, CheckEngineStatus());
  EXPECT_EQ(attempt, statusLines(log));
  EXPECT_EQ(-2, CheckEngineStatus());
  Lines twice = attempt;
  twice.insert(twice.end(), attempt.begin(), attempt.end());
  EXPECT_EQ(twice, statusLines(log));
  EXPECT_FALSE(IPCInitialized);
}

TEST_F(EngineStatus, EngineThatRestartedIsFoundInTheSameCall) {
  EXPECT_EQ(0, CheckEngineStatus());
  removeEngine();
  startEngine();
  const TraceLog log;
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ((Lines{"IsEngineAlive: CreatorAlive failed", "CheckEngineStatus, IsEngineAlive failed",
                   "CheckEngineStatus, Try to InitializeIPC again."}),
            statusLines(log));
  EXPECT_EQ(0, post());
  EXPECT_EQ(1, requests->count());
}

TEST_F(EngineStatus, OldReplyQueueStillTriesItsLockBetweenTheLinesOfARestart) {
  EXPECT_EQ(0, CheckEngineStatus());
  const int set = replies->set.id();
  removeEngine();
  startEngine();
  const TraceLog log;
  EXPECT_EQ(0, CheckEngineStatus());
  const Lines lines = log.lines();
  ASSERT_LE(4U, lines.size());
  EXPECT_EQ((Lines{"IsEngineAlive: CreatorAlive failed", "CheckEngineStatus, IsEngineAlive failed",
                   "CkesSharedMemory::implLock: semop on VSemaphore[" + std::to_string(set) +
                       "] failed [-1] errno[22]",
                   "CheckEngineStatus, Try to InitializeIPC again."}),
            Lines(lines.begin(), lines.begin() + 4));
}

TEST_F(EngineStatus, EngineThatIsGoneIsTriedOnceMore) {
  EXPECT_EQ(0, CheckEngineStatus());
  removeEngine();
  const TraceLog log;
  EXPECT_EQ(-2, CheckEngineStatus());
  EXPECT_EQ((Lines{"IsEngineAlive: CreatorAlive failed", "CheckEngineStatus, IsEngineAlive failed",
                   "CheckEngineStatus, Try to InitializeIPC again.",
                   "InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue is not Initialized",
                   "CheckEngineStatus, 2nd try at InitializeIPC failed."}),
            statusLines(log));
  EXPECT_FALSE(IPCInitialized);
  EXPECT_EQ(nullptr, OutQueue);
}

TEST_F(EngineStatus, EngineThatIsNotAliveAfterTheSecondOpeningIsGivenUp) {
  EXPECT_EQ(0, CheckEngineStatus());
  requests->setVersion(7);
  int gates = 0;
  // IsEngineAlive, CloseIPC, InitializeIPC and, as the fourth, IsEngineAlive again.
  onMutexes([&](CkesMutex* mutex) {
    if (mutex == &IsClosingMutex && ++gates == 4) requests->setVersion(8);
  });
  const TraceLog log;
  EXPECT_EQ(-2, CheckEngineStatus());
  letMutexesBe();
  EXPECT_EQ((Lines{"IsEngineAlive: OutQueue version[7] does not match libarm version[50300]",
                   "CheckEngineStatus, IsEngineAlive failed",
                   "CheckEngineStatus, Try to InitializeIPC again.",
                   "IsEngineAlive: OutQueue version[8] does not match libarm version[50300]",
                   "CheckEngineStatus, 2nd InitializeIPC worked, but IsEngineAlive failed."}),
            statusLines(log));
  EXPECT_TRUE(IPCInitialized) << "the second opening did succeed";
}

TEST_F(EngineStatus, WrongVersionIsHealedByTheSecondOpening) {
  EXPECT_EQ(0, CheckEngineStatus());
  requests->setVersion(7);
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ(50300U, requests->version());
}

TEST_F(EngineStatus, OnlyTheFirstOpeningHoldsTheInitMutex) {
  bool held = false;
  int gates = 0;
  onMutexes(
      [&](CkesMutex* mutex) {
        if (mutex == &VInitMutex) held = true;
        if (mutex != &IsClosingMutex) return;
        EXPECT_EQ(gates == 0, held);
        ++gates;
      },
      [&](CkesMutex* mutex) {
        if (mutex == &VInitMutex) held = false;
      });
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ(2, gates);
  requests->creatorDies();
  EXPECT_EQ(-2, CheckEngineStatus());
  EXPECT_EQ(5, gates);
  letMutexesBe();
}

// ---- attach and detach --------------------------------------------------------------------------

TEST_F(EngineStatus, DetachClosesAndTheNextCallReconnects) {
  EXPECT_EQ(0, CheckEngineStatus());
  const TraceLog log;
  processDetach();
  EXPECT_EQ(Lines{"DllMain: Being detached by a PROCESS"}, log.lines("DllMain"));
  EXPECT_FALSE(IPCInitialized);
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(1U, requests->memory.attachments());
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ(2U, requests->memory.attachments());
}

TEST_F(EngineStatus, DetachClosesUnderTheInitMutex) {
  EXPECT_EQ(0, CheckEngineStatus());
  bool closed = false;
  onMutexes([&closed](CkesMutex* mutex) {
    if (mutex != &IsClosingMutex) return;
    closed = true;
    EXPECT_EQ(-124, VInitMutex.TryLock());
    EXPECT_FALSE(IPCInitialized);
  });
  processDetach();
  letMutexesBe();
  EXPECT_TRUE(closed);
}

TEST_F(EngineStatus, AttachSettlesTheDebugSwitch) {
  setenv("ARMDEBUG", "", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  processAttach();
  EXPECT_EQ(1, VDebugRun);
  const TraceLog log;
  EXPECT_EQ(Lines{"processAttach: Being attached by a PROCESS"}, log.lines("processAttach"));
}

TEST_F(EngineStatus, AttachWithoutTheSwitchWritesNothing) {
  unsetenv("ARMDEBUG");
  processAttach();
  processDetach();
  EXPECT_EQ(0, VDebugRun);
  EXPECT_FALSE(traceExists());
}

// ---- closed between a post and its wait ---------------------------------------------------------

/// Another thread closes the connection when a call has posted its request and is about to wait.
void closeBeforeTheNextWait(const std::function<void()>& andThen = [] {}) {
  auto closed = std::make_shared<bool>(false);
  onMutexes([closed, andThen](CkesMutex* mutex) {
    if (mutex != &InQueueMutex || *closed) return;
    *closed = true;
    IPCInitialized = false;
    CloseIPC();
    andThen();
  });
}

int32_t callOnce() {
  return arm_start(5, 0, nullptr, 0);
}

TEST_F(Connection, ClosedBetweenPostAndWaitStillGivesTheCallItsReply) {
  AnsweringEngine engine(*requests, *replies, replyRecord(11));
  ASSERT_EQ(11, callOnce());
  engine.setReply(replyRecord(12));
  closeBeforeTheNextWait();
  EXPECT_EQ(12, callOnce());
  engine.setReply(replyRecord(13));
  EXPECT_EQ(13, callOnce()) << "the reply of the call before";
  counted("closed by another thread between a post and its wait", 1);
}

TEST_F(Connection, ClosedBetweenPostAndWaitAndOpenedToAnotherEngineEndsTheCallWithMinus2) {
  {
    AnsweringEngine engine(*requests, *replies, replyRecord(11));
    ASSERT_EQ(11, callOnce());
  }
  closeBeforeTheNextWait([this] {
    removeEngine();
    startEngine();
  });
  EXPECT_EQ(-2, callOnce());
  AnsweringEngine engine(*requests, *replies, replyRecord(12));
  EXPECT_EQ(12, callOnce());
  counted("opened to another engine between a post and its wait", 1);
}

TEST_F(Connection, OpenedToAnotherEngineBetweenPostAndWaitEndsTheCallWithMinus2) {
  {
    AnsweringEngine engine(*requests, *replies, replyRecord(11));
    ASSERT_EQ(11, callOnce());
  }
  closeBeforeTheNextWait([this] {
    removeEngine();
    startEngine();
    IPCInitialized = InitializeIPC();
  });
  EXPECT_EQ(-2, callOnce()) << "the other engine does not know the request";
  AnsweringEngine engine(*requests, *replies, replyRecord(12));
  EXPECT_EQ(12, callOnce());
  counted("opened to another engine between a post and its wait", 1);
}

TEST_F(Connection, WaitThatFindsOnlyTheReplyQueueDeadGivesUp) {
  {
    AnsweringEngine engine(*requests, *replies, replyRecord(11));
    ASSERT_EQ(11, callOnce());
  }
  replies->creatorDies();
  EXPECT_EQ(-2, callOnce());
}

// ---- dead between a post and its wait -----------------------------------------------------------

class DeadEngine : public Connection {
 protected:
  DeadEngine() {
    EXPECT_EQ(0, CheckEngineStatus());
    onNap([this](useconds_t) { ++naps; });
  }

  /// The engine dies when this thread's next call has posted its request and is about to wait.
  void dieBeforeTheNextWait() {
    const auto isCaller = [caller = std::this_thread::get_id()] {
      return std::this_thread::get_id() == caller;
    };
    onMutexes([this, isCaller](CkesMutex* mutex) {
      if (!isCaller()) return;
      if (mutex == &IsClosingMutex) ++gates;
      if (mutex != &InQueueMutex) return;
      requests->creatorDies();
      replies->creatorDies();
    });
    calls::semop.ask([this, isCaller](int, const sembuf*, size_t) {
      if (isCaller()) ++semops;
      return calls::RUN_IT;
    });
    calls::semctl.ask([this, isCaller](int, int, int command, TSemArgument) {
      if (isCaller() && command == GETVAL) ++looks;
      return 0;
    });
  }

  int gates = 0;
  int semops = 0;
  int looks = 0;
  std::atomic<int> naps{0};
};

TEST_F(DeadEngine, EndsTheCallWithMinus2AndNoSecondLook) {
  dieBeforeTheNextWait();
  EXPECT_EQ(-2, callOnce());
  EXPECT_EQ(3, gates) << "the status check, the post and the wait";
  EXPECT_EQ(5, semops) << "the ring's lock and the wake-up";
  EXPECT_EQ(4, looks) << "each of the three looks once, the wake-up too";
  EXPECT_EQ(1, requests->count());
  EXPECT_NE(nullptr, OutQueue) << "the next call's status check closes";
  EXPECT_TRUE(IPCInitialized);
}

TEST_F(DeadEngine, WritesNothingIntoTheTraceOfASilentCall) {
  const TraceLog log;
  dieBeforeTheNextWait();
  EXPECT_EQ(-2, arm_completeTransactionInstance(5, 0, 0));
  EXPECT_EQ(Lines{}, statusLines(log));
}

TEST_F(DeadEngine, DoesNotMakeTheCallWaitForOtherThreads) {
  dieBeforeTheNextWait();
  std::future<Bytes> got = startGet();
  EXPECT_EQ(-2, callOnce());
  EXPECT_EQ(0, naps);
  replies->reply(0, replyRecord(82));
  EXPECT_EQ(replyRecord(82), got.get());
}

}  // namespace
}  // namespace armtest
