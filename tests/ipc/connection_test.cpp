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
  calls::mutex_lock.replace([=](CkesMutex* mutex) {
    locks(mutex);
    return calls::mutex_lock.real(mutex);
  });
  calls::mutex_unlock.replace([=](CkesMutex* mutex) {
    unlocks(mutex);
    return calls::mutex_unlock.real(mutex);
  });
  calls::mutex_pass.replace([=](CkesMutex* mutex) {
    locks(mutex);
    const long result = calls::mutex_pass.real(mutex);
    unlocks(mutex);
    return result;
  });
}

void letMutexesBe() {
  calls::mutex_lock.watch();
  calls::mutex_unlock.watch();
  calls::mutex_pass.watch();
}

/// Called in place of each pause; nothing sleeps then.
void onNap(const std::function<void(useconds_t)>& nap) {
  calls::usleep.replace([=](useconds_t pause) {
    nap(pause);
    return 0;
  });
}

Bytes replyBytes(const TArmReplyMessage& reply) {
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
    if (replies_) replies_->breakLock();
    CloseIPC();
  }

  void startEngine() {
    requests_ = std::make_unique<RequestQueue>(3);
    replies_ = std::make_unique<ReplyQueue>(3);
  }
  void removeEngine() {
    requests_.reset();
    replies_.reset();
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
      get_result = IPCGetFromEngine(reply, {1001, 2002});
      return replyBytes(reply);
    });
    EXPECT_TRUE(waitUntil([this] { return replies_->waits.sleepers(2) == 1; }));
    return got;
  }

  std::unique_ptr<RequestQueue> requests_;
  std::unique_ptr<ReplyQueue> replies_;
  static std::atomic<long> get_result;
};

std::atomic<long> Connection::get_result{1};

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
  EXPECT_EQ(2U, requests_->memory.attachments());
  EXPECT_EQ(2U, replies_->memory.attachments());
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
  requests_->creatorDies();
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue Creator is not alive"});
}

TEST_F(ConnectionFailure, OfAQueueThatIsNotReadyHasNoLineOfItsOwn) {
  requests_->setReady(0);
  expectLines({"InitializeIPC, OutQueue failure"});
}

TEST_F(ConnectionFailure, OfAStoppedQueueIsNotInitializedThoughItsCreatorIsDeadToo) {
  requests_->setState(1);
  requests_->creatorDies();
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue is not Initialized"});
}

TEST_F(ConnectionFailure, OfADeadCreatorComesBeforeNotReady) {
  requests_->creatorDies();
  requests_->setReady(0);
  expectLines({"InitializeIPC, OutQueue failure", "InitializeIPC, OutQueue Creator is not alive"});
}

TEST_F(Connection, WithoutReplyQueueClosesBoth) {
  replies_->setState(1);
  engineID = {5, 6};
  const TraceLog log;
  EXPECT_FALSE(InitializeIPC());
  EXPECT_EQ(Lines{"InitializeIPC, Failed to create InQueue"}, log.lines("InitializeIPC"));
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(0, engineID.processId) << "the engine's identifier is copied all the same";
  EXPECT_EQ(0U, engineID.threadId);
  EXPECT_EQ(1U, requests_->memory.attachments());
  EXPECT_EQ(1U, replies_->memory.attachments());
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
  replies_->setState(1);
  int held[3] = {};
  int lowest[3] = {};
  const auto index_of = [](const CkesMutex* mutex) {
    return mutex == &OutQueueMutex ? 0 : mutex == &InQueueMutex ? 1 : 2;
  };
  onMutexes([&](CkesMutex* mutex) { ++held[index_of(mutex)]; },
            [&](CkesMutex* mutex) {
              const int index = index_of(mutex);
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
  EXPECT_EQ(2U, requests_->memory.attachments());
  EXPECT_EQ(2U, replies_->memory.attachments());
  EXPECT_EQ(0, post());
}

TEST_F(Connection, NeverWaitsForRoom) {
  EXPECT_TRUE(InitializeIPC());
  OutQueue->SetOverflowWait(true);
  EXPECT_TRUE(InitializeIPC());
  requests_->setRing(3, 0, 0);
  EXPECT_EQ(-8, post());
  EXPECT_EQ(0U, requests_->overflowWaiters());
}

// ---- the entry gate -----------------------------------------------------------------------------

TEST_F(Connection, EveryFunctionPassesTheGateBeforeAnythingElse) {
  std::string seen;
  const auto name_of = [](const CkesMutex* mutex) {
    return mutex == &IsClosingMutex ? 'c' : mutex == &OutQueueMutex ? 'o' : 'i';
  };
  onMutexes([&](CkesMutex* mutex) { seen += static_cast<char>(std::toupper(name_of(mutex))); },
            [&](CkesMutex* mutex) { seen += name_of(mutex); });
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
  replies_->setState(1);
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
  std::atomic<bool> at_gate{false};
  onMutexes([&at_gate](CkesMutex* mutex) {
    if (mutex == &IsClosingMutex) at_gate = true;
  });
  std::future<long> posted = std::async(std::launch::async, [] { return post(); });
  EXPECT_TRUE(waitUntil([&at_gate] { return at_gate.load(); }));
  EXPECT_EQ(0, OutQueueCount);
  EXPECT_EQ(0, requests_->count());
  (void)IsClosingMutex.Unlock();
  EXPECT_EQ(0, posted.get());
  letMutexesBe();
  EXPECT_EQ(1, requests_->count());
}

// ---- posting ------------------------------------------------------------------------------------

TEST_F(Connection, PostWithoutQueueIsMinusTwo) {
  EXPECT_EQ(-2, post());
  EXPECT_EQ(0, OutQueueCount);
}

TEST_F(Connection, PostToADeadCreatorIsMinusTwoAndWritesNothing) {
  EXPECT_TRUE(InitializeIPC());
  requests_->creatorDies();
  EXPECT_EQ(-2, post());
  EXPECT_EQ(0, requests_->count());
  EXPECT_EQ(0, OutQueueCount);
}

TEST_F(Connection, PostIsSeenInTheRing) {
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ(0, post(0x42));
  EXPECT_EQ(Bytes(4116, 0x42), requests_->slot(0));
  EXPECT_EQ(0, OutQueueCount);
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, PostToAFullQueueIsMinusEightAndTheCountsAreBack) {
  EXPECT_TRUE(InitializeIPC());
  for (int i = 0; i < 3; ++i) EXPECT_EQ(0, post());
  EXPECT_EQ(-8, post(0x43));
  EXPECT_EQ(3, requests_->count());
  EXPECT_EQ(Bytes(4116, 0x42), requests_->slot(0));
  EXPECT_EQ(0, OutQueueCount);
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, PostThatFailsOtherwiseIsMinusNine) {
  EXPECT_TRUE(InitializeIPC());
  requests_->setState(1);
  EXPECT_EQ(-9, post());
  EXPECT_EQ("-284 CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()", errorTrail());
  requests_->setState(0);
  requests_->setRing(9, 9, 9);
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
  replies_->creatorDies();
  TArmReplyMessage reply;
  EXPECT_EQ(-2, IPCGetFromEngine(reply));
  EXPECT_EQ(0, replies_->headsInUse());
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetThatFailsIsMinusNine) {
  EXPECT_TRUE(InitializeIPC());
  replies_->setState(1);
  TArmReplyMessage reply;
  EXPECT_EQ(-9, IPCGetFromEngine(reply));
  EXPECT_EQ("-284 CIPCQueue::PrivateGet() < CIPCQueue::Get()", errorTrail());
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetWithoutHeadIsMinusNineAndNotMinusEight) {
  EXPECT_TRUE(InitializeIPC());
  replies_->setHeadsInUse(3);
  for (size_t i = 0; i < 3; ++i) replies_->setStatus(i, 1);
  TArmReplyMessage reply;
  EXPECT_EQ(-9, IPCGetFromEngine(reply));
  EXPECT_EQ("-274 CIPCQueue::PrivateGet() < CIPCQueue::Get()", errorTrail());
}

TEST_F(Connection, GetTakesTheReplyOfTheCallingThread) {
  EXPECT_TRUE(InitializeIPC());
  const _TIPCIdentifier me = GetIpcIdentifier();
  replies_->setOwner(1, static_cast<uint32_t>(me.processId), me.threadId);
  replies_->reply(1, replyRecord(77));
  TArmReplyMessage reply;
  EXPECT_EQ(0, IPCGetFromEngine(reply));
  EXPECT_EQ(replyRecord(77), replyBytes(reply));
  EXPECT_EQ(0, InQueueCount);
}

TEST_F(Connection, GetTakesTheReplyOfAGivenIdentifier) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  EXPECT_EQ(1, InQueueCount);
  EXPECT_EQ(1001U, replies_->process(0));
  EXPECT_EQ(2002U, replies_->thread(0));
  replies_->reply(0, replyRecord(78));
  EXPECT_EQ(replyRecord(78), got.get());
  EXPECT_EQ(0, get_result);
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
  requests_->creatorDies();
  const TraceLog log;
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ(Lines{"IsEngineAlive: CreatorAlive failed"}, log.lines());
}

TEST_F(Connection, EngineWithAnotherVersionIsNotAlive) {
  EXPECT_TRUE(InitializeIPC());
  requests_->setVersion(50299);
  const TraceLog log;
  EXPECT_FALSE(IsEngineAlive());
  requests_->setVersion(0xFFFFFFFF);
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
  requests_->creatorDies();
  EXPECT_FALSE(IsEngineAlive());
  EXPECT_EQ(6, OutQueueCount);
  EXPECT_EQ(0, InQueueCount);
}

// ---- CloseIPC -----------------------------------------------------------------------------------

TEST_F(Connection, CloseDetachesAndRemovesNothing) {
  EXPECT_TRUE(InitializeIPC());
  const Bytes before = requests_->memory.all();
  CloseIPC();
  EXPECT_EQ(nullptr, OutQueue);
  EXPECT_EQ(nullptr, InQueue);
  EXPECT_EQ(1U, requests_->memory.attachments());
  EXPECT_EQ(1U, replies_->memory.attachments());
  EXPECT_EQ(before, requests_->memory.all());
  EXPECT_NE(-1, setAt(EA, 1));
  EXPECT_NE(-1, setAt(EA, 3));
  EXPECT_EQ(0U, replies_->memory.u32(8));
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
  EXPECT_EQ(1U, replies_->memory.attachments());
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
  EXPECT_EQ(1U, requests_->memory.attachments());
  EXPECT_EQ(2U, replies_->memory.attachments());
  replies_->reply(0, replyRecord(79));
  EXPECT_EQ(replyRecord(79), got.get());
  EXPECT_EQ(0, get_result);
  EXPECT_EQ(1U, replies_->memory.attachments());
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
  EXPECT_EQ(2U, replies_->memory.attachments());
  replies_->reply(0, replyRecord(80));
  EXPECT_EQ(replyRecord(80), got.get());
  EXPECT_EQ(1U, replies_->memory.attachments());
}

TEST_F(Connection, BlockedGetOnTheOldQueueIsNotDisturbedByANewOpening) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  CloseIPC();
  EXPECT_TRUE(InitializeIPC());
  EXPECT_EQ(3U, replies_->memory.attachments());
  replies_->reply(0, replyRecord(81));
  EXPECT_EQ(replyRecord(81), got.get());
  EXPECT_EQ(2U, replies_->memory.attachments());
}

TEST_F(Connection, BlockedGetWhoseSetIsRemovedIsMinusNine) {
  EXPECT_TRUE(InitializeIPC());
  std::future<Bytes> got = startGet();
  replies_->waits.remove();
  EXPECT_EQ(Bytes(528, 0xEE), got.get());
  EXPECT_EQ(-9, get_result);
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
  EXPECT_EQ(1, requests_->count());
}

TEST_F(EngineStatus, OldReplyQueueStillTriesItsLockBetweenTheLinesOfARestart) {
  EXPECT_EQ(0, CheckEngineStatus());
  const int set = replies_->set.id();
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
  requests_->setVersion(7);
  int gates = 0;
  // IsEngineAlive, CloseIPC, InitializeIPC and, as the fourth, IsEngineAlive again.
  onMutexes([&](CkesMutex* mutex) {
    if (mutex == &IsClosingMutex && ++gates == 4) requests_->setVersion(8);
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
  requests_->setVersion(7);
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ(50300U, requests_->version());
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
  requests_->creatorDies();
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
  EXPECT_EQ(1U, requests_->memory.attachments());
  EXPECT_EQ(0, CheckEngineStatus());
  EXPECT_EQ(2U, requests_->memory.attachments());
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
void closeBeforeTheNextWait(const std::function<void()>& and_then = [] {}) {
  auto closed = std::make_shared<bool>(false);
  onMutexes([closed, and_then](CkesMutex* mutex) {
    if (mutex != &InQueueMutex || *closed) return;
    *closed = true;
    IPCInitialized = false;
    CloseIPC();
    and_then();
  });
}

int32_t callOnce() {
  return arm_start(5, 0, nullptr, 0);
}

TEST_F(Connection, ClosedBetweenPostAndWaitStillGivesTheCallItsReply) {
  AnsweringEngine engine(*requests_, *replies_, replyRecord(11));
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
    AnsweringEngine engine(*requests_, *replies_, replyRecord(11));
    ASSERT_EQ(11, callOnce());
  }
  closeBeforeTheNextWait([this] {
    removeEngine();
    startEngine();
  });
  EXPECT_EQ(-2, callOnce());
  AnsweringEngine engine(*requests_, *replies_, replyRecord(12));
  EXPECT_EQ(12, callOnce());
  counted("opened to another engine between a post and its wait", 1);
}

TEST_F(Connection, OpenedToAnotherEngineBetweenPostAndWaitEndsTheCallWithMinus2) {
  {
    AnsweringEngine engine(*requests_, *replies_, replyRecord(11));
    ASSERT_EQ(11, callOnce());
  }
  closeBeforeTheNextWait([this] {
    removeEngine();
    startEngine();
    IPCInitialized = InitializeIPC();
  });
  EXPECT_EQ(-2, callOnce()) << "the other engine does not know the request";
  AnsweringEngine engine(*requests_, *replies_, replyRecord(12));
  EXPECT_EQ(12, callOnce());
  counted("opened to another engine between a post and its wait", 1);
}

TEST_F(Connection, WaitThatFindsOnlyTheReplyQueueDeadGivesUp) {
  {
    AnsweringEngine engine(*requests_, *replies_, replyRecord(11));
    ASSERT_EQ(11, callOnce());
  }
  replies_->creatorDies();
  EXPECT_EQ(-2, callOnce());
}

// ---- dead between a post and its wait -----------------------------------------------------------

class DeadEngine : public Connection {
 protected:
  DeadEngine() {
    EXPECT_EQ(0, CheckEngineStatus());
    onNap([this](useconds_t) { ++naps_; });
  }

  /// The engine dies when this thread's next call has posted its request and is about to wait.
  void dieBeforeTheNextWait() {
    const auto is_caller = [caller = std::this_thread::get_id()] {
      return std::this_thread::get_id() == caller;
    };
    onMutexes([this, is_caller](CkesMutex* mutex) {
      if (!is_caller()) return;
      if (mutex == &IsClosingMutex) ++gates_;
      if (mutex != &InQueueMutex) return;
      requests_->creatorDies();
      replies_->creatorDies();
    });
    calls::semop.ask([this, is_caller](int, const sembuf*, size_t) {
      if (is_caller()) ++semops_;
      return calls::RUN_IT;
    });
    calls::semctl.ask([this, is_caller](int, int, int command, TSemArgument) {
      if (is_caller() && command == GETVAL) ++looks_;
      return 0;
    });
  }

  int gates_ = 0;
  int semops_ = 0;
  int looks_ = 0;
  std::atomic<int> naps_{0};
};

TEST_F(DeadEngine, EndsTheCallWithMinus2AndNoSecondLook) {
  dieBeforeTheNextWait();
  EXPECT_EQ(-2, callOnce());
  EXPECT_EQ(3, gates_) << "the status check, the post and the wait";
  EXPECT_EQ(5, semops_) << "the ring's lock and the wake-up";
  EXPECT_EQ(4, looks_) << "each of the three looks once, the wake-up too";
  EXPECT_EQ(1, requests_->count());
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
  EXPECT_EQ(0, naps_);
  replies_->reply(0, replyRecord(82));
  EXPECT_EQ(replyRecord(82), got.get());
}

}  // namespace
}  // namespace armtest
