#include "core/ReplyWriter.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/ipc.h>
#include <sys/sem.h>

#include <memory>
#include <thread>
#include <vector>

#include "core/EngineQueues.h"
#include "ipcobjects.h"
#include "process.h"
#include "queueclients.h"

namespace {

using armengine::Delivery;
using armengine::EngineQueues;
using armengine::ReplyWriter;
using armtest::controlPath;
using armtest::forkChild;
using armtest::waitUntil;

// Offsets in the reply queue's segment, here with REQUESTERS head records.
constexpr uint16_t REQUESTERS = 4;
constexpr size_t USED_ITEMS = 0;
constexpr size_t HEADS_IN_USE = 2;
constexpr size_t FREE_LIST = 4;
constexpr size_t HEADS = 12;
constexpr size_t HEAD_SIZE = 16;
constexpr size_t FIRST_REPLY = 12;
constexpr uint32_t FIRST_ITEM = HEADS + REQUESTERS * HEAD_SIZE;
constexpr uint32_t ITEM_SIZE = 532;

TArmReplyMessage reply(int32_t result) {
  TArmReplyMessage message = {};
  message.result = result;
  return message;
}

/// A process that has ended.
TIPCIdentifier departed(uint32_t thread) {
  const pid_t child = forkChild([] { return 0; });
  EXPECT_EQ(0, armtest::exitCodeOf(child));
  return {child, thread};
}

class ReplyWriterTest : public testing::Test {
 protected:
  void SetUp() override {
    armengine::EngineOptions options;
    options.requests = 3;
    options.requesters = REQUESTERS;
    std::string why;
    queues_ = EngineQueues::create(options, &why);
    ASSERT_NE(nullptr, queues_) << why;
    set_ = armtest::setAt(controlPath("ea.kelp"), 3);
  }
  ReplyWriter& writer() { return queues_->replies(); }
  Delivery put(const TIPCIdentifier& to, const TArmReplyMessage& message) {
    armengine::Outgoing one = {to, message, Delivery::failed};
    writer().putAllUnlessCrowded(&one, 1);
    return one.delivery;
  }
  /// Thread `thread` of this process, which lives.
  static TIPCIdentifier living(uint32_t thread) { return {getpid(), thread}; }
  int32_t take(const TIPCIdentifier& id) {
    CIPCQueue<TArmReplyMessage> queue("/var/kelp/controls_ea.kelp", false);
    TArmReplyMessage message = {};
    EXPECT_EQ(0, queue.Get(id, message));
    return message.result;
  }
  bool someWaiter() const {
    for (int i = 0; i < REQUESTERS; ++i) {
      if (armtest::semaphoreWaiters(set_, 2 + i) > 0) return true;
    }
    return false;
  }
  pid_t killedWaiter() {
    const pid_t waiter = forkChild(armtest::waitForReply);
    EXPECT_TRUE(waitUntil([this] { return someWaiter(); }));
    kill(waiter, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(waiter));
    return waiter;
  }
  /// Every item can be used, and nothing else.
  void expectWholeQueue() {
    for (int32_t i = 0; i < REQUESTERS; ++i) {
      EXPECT_EQ(Delivery::linked, put(living(0), reply(i)));
    }
    EXPECT_EQ(Delivery::no_item, put(living(0), reply(9)));
    for (int32_t i = 0; i < REQUESTERS; ++i) EXPECT_EQ(i, take(living(0)));
  }

  std::unique_ptr<EngineQueues> queues_;
  int set_ = -1;
};

TEST_F(ReplyWriterTest, LayoutIsCompleteAtTheBeginning) {
  const armtest::Attached memory(controlPath("ea.kelp"));
  EXPECT_EQ(0, memory.read<uint16_t>(USED_ITEMS));
  EXPECT_EQ(0, memory.read<uint16_t>(HEADS_IN_USE));
  EXPECT_EQ(FIRST_ITEM, memory.read<uint32_t>(FREE_LIST));
  for (uint32_t i = 0; i < REQUESTERS; ++i) {
    const size_t head = HEADS + i * HEAD_SIZE;
    EXPECT_EQ(0, memory.read<uint8_t>(head));
    EXPECT_EQ(2U + i, memory.read<uint16_t>(head + 2));
    EXPECT_EQ(-1, memory.read<int32_t>(head + 4));
    EXPECT_EQ(0xFFFFFFFFU, memory.read<uint32_t>(head + 8));
    EXPECT_EQ(0U, memory.read<uint32_t>(head + FIRST_REPLY));
    const uint32_t next = i + 1 < REQUESTERS ? FIRST_ITEM + (i + 1) * ITEM_SIZE : 0;
    EXPECT_EQ(next, memory.read<uint32_t>(FIRST_ITEM + i * ITEM_SIZE + 528));
  }
  EXPECT_EQ(1, armtest::semaphoreValue(set_, 0));
  for (int i = 1; i < REQUESTERS + 2; ++i) EXPECT_EQ(0, armtest::semaphoreValue(set_, i));
}

TEST_F(ReplyWriterTest, ReplyBeforeTheWaitIsFound) {
  EXPECT_EQ(Delivery::linked, put(living(1), reply(42)));
  EXPECT_EQ(1U, writer().usedItems());
  EXPECT_EQ(1U, writer().headsInUse());
  EXPECT_EQ(42, take(living(1)));
  EXPECT_EQ(0U, writer().usedItems());
}

TEST_F(ReplyWriterTest, WaitingRequesterIsWoken) {
  const pid_t waiter = forkChild([] {
    TArmReplyMessage message = {};
    return armtest::getReply(&message) == 0 && message.result == 7 ? 0 : 1;
  });
  EXPECT_TRUE(waitUntil([this] { return someWaiter(); }));
  const armtest::Attached memory(controlPath("ea.kelp"));
  const TIPCIdentifier id = {memory.read<int32_t>(HEADS + 4), memory.read<uint32_t>(HEADS + 8)};
  EXPECT_EQ(waiter, id.processId);
  EXPECT_EQ(Delivery::linked, put(id, reply(7)));
  EXPECT_EQ(0, armtest::exitCodeOf(waiter));
}

TEST_F(ReplyWriterTest, RepliesOfOneRequesterAreTakenInTheirOrder) {
  for (const int32_t result : {1, 2, 3}) {
    EXPECT_EQ(Delivery::linked, put(living(1), reply(result)));
  }
  for (const int32_t result : {1, 2, 3}) EXPECT_EQ(result, take(living(1)));
}

TEST_F(ReplyWriterTest, QueueFullOfLivingRequestersRefuses) {
  expectWholeQueue();
  for (uint32_t i = 0; i < REQUESTERS; ++i) {
    EXPECT_EQ(Delivery::linked, put(living(i), reply(1)));
  }
  EXPECT_EQ(Delivery::no_head, put(living(100), reply(1)));
}

TEST_F(ReplyWriterTest, CrowdedQueueRefuses) {
  for (uint32_t i = 0; i < REQUESTERS; ++i) {
    EXPECT_EQ(Delivery::linked, put(living(i), reply(1)));
    EXPECT_EQ(1, take(living(i)));
  }
  EXPECT_TRUE(writer().isCrowded());
  EXPECT_EQ(Delivery::no_head, put(living(0), reply(1)));
  EXPECT_EQ(Delivery::no_head, put(living(100), reply(1)));
  EXPECT_EQ(0U, writer().usedItems());
}

TEST_F(ReplyWriterTest, OnlyAWaitingRequesterIsGivenAReplyWhenAsked) {
  EXPECT_EQ(Delivery::no_head, writer().putToWaiting(living(1), reply(1)));
  EXPECT_EQ(Delivery::linked, put(living(1), reply(1)));
  EXPECT_EQ(1, take(living(1)));
  EXPECT_EQ(Delivery::no_head, writer().putToWaiting(living(1), reply(1)));
  EXPECT_FALSE(writer().isWaiting(living(1)));
  int32_t result = 0;
  std::thread waiter([&] { result = take(living(1)); });
  EXPECT_TRUE(waitUntil([this] { return writer().isWaiting(living(1)); }));
  EXPECT_EQ(Delivery::linked, writer().putToWaiting(living(1), reply(5)));
  waiter.join();
  EXPECT_EQ(5, result);
}

TEST_F(ReplyWriterTest, IdleRecordsAreFreedAndOthersKept) {
  EXPECT_EQ(Delivery::linked, put(living(1), reply(1)));
  EXPECT_EQ(1, take(living(1)));
  EXPECT_EQ(Delivery::linked, put(living(2), reply(2)));
  const pid_t waiter = forkChild(armtest::waitForReply);
  EXPECT_TRUE(waitUntil([this] { return someWaiter(); }));
  EXPECT_EQ(3U, writer().headsInUse());
  EXPECT_EQ(1U, writer().reclaimIdle());
  EXPECT_EQ(2U, writer().headsInUse());
  EXPECT_EQ(2, take(living(2)));
  kill(waiter, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(waiter));
}

TEST_F(ReplyWriterTest, RepliesOfTheDepartedMakeRoom) {
  for (int round = 0; round < 3; ++round) {
    for (uint32_t i = 0; i < REQUESTERS; ++i) {
      EXPECT_EQ(Delivery::linked, put(departed(i), reply(1)));
    }
    EXPECT_EQ(Delivery::no_head, put(living(1), reply(1)));
    EXPECT_EQ(unsigned{REQUESTERS}, writer().reclaimDeparted());
  }
  EXPECT_EQ(0U, writer().usedItems());
  EXPECT_EQ(0U, writer().headsInUse());
  expectWholeQueue();
}

TEST_F(ReplyWriterTest, ItemsOfTheDepartedMakeRoomWithoutBeingAskedFor) {
  const TIPCIdentifier gone = departed(1);
  for (uint32_t i = 0; i < REQUESTERS; ++i) {
    EXPECT_EQ(Delivery::linked, put(gone, reply(1)));
  }
  EXPECT_EQ(Delivery::linked, put(living(1), reply(5)));
  EXPECT_EQ(1U, writer().usedItems());
  EXPECT_EQ(5, take(living(1)));
}

TEST_F(ReplyWriterTest, RecordsOfRequestersKilledWhileWaitingMakeRoom) {
  for (int i = 0; i < 3 * REQUESTERS; ++i) {
    (void)killedWaiter();
    if (writer().headsInUse() == REQUESTERS) {
      EXPECT_GT(writer().reclaimDeparted(), 0U);
      EXPECT_EQ(Delivery::linked, put(living(1), reply(5)));
      EXPECT_EQ(5, take(living(1)));
    }
  }
  (void)writer().reclaimDeparted();
  expectWholeQueue();
}

TEST_F(ReplyWriterTest, RecordOfTheDepartedIsGivenBackClean) {
  const pid_t waiter = killedWaiter();
  const armtest::Attached memory(controlPath("ea.kelp"));
  EXPECT_EQ(1, memory.read<uint8_t>(HEADS));
  const TIPCIdentifier id = {waiter, memory.read<uint32_t>(HEADS + 8)};
  EXPECT_EQ(Delivery::linked, put(id, reply(1)));
  EXPECT_EQ(1, armtest::semaphoreValue(set_, 2));
  EXPECT_EQ(1U, writer().reclaimDeparted());
  EXPECT_EQ(0, memory.read<uint8_t>(HEADS));
  EXPECT_EQ(-1, memory.read<int32_t>(HEADS + 4));
  EXPECT_EQ(0xFFFFFFFFU, memory.read<uint32_t>(HEADS + 8));
  EXPECT_EQ(0U, memory.read<uint32_t>(HEADS + FIRST_REPLY));
  EXPECT_EQ(0, armtest::semaphoreValue(set_, 2));
}

TEST_F(ReplyWriterTest, RepliesOfTheLivingAreKept) {
  EXPECT_EQ(Delivery::linked, put(living(1), reply(11)));
  EXPECT_EQ(Delivery::linked, put(departed(1), reply(12)));
  EXPECT_EQ(Delivery::linked, put(living(2), reply(13)));
  EXPECT_EQ(1U, writer().reclaimDeparted());
  EXPECT_EQ(2U, writer().usedItems());
  EXPECT_EQ(2U, writer().headsInUse());
  EXPECT_EQ(13, take(living(2)));
  EXPECT_EQ(11, take(living(1)));
}

// Its process has another number here than where it runs.
TEST_F(ReplyWriterTest, WaiterOfAnotherContainerIsKept) {
  const TIPCIdentifier unseen = departed(3);
  int32_t result = 0;
  std::thread waiter([&] { result = take(unseen); });
  EXPECT_TRUE(waitUntil([this] { return someWaiter(); }));
  EXPECT_EQ(0U, writer().reclaimDeparted());
  EXPECT_EQ(Delivery::linked, put(unseen, reply(77)));
  waiter.join();
  EXPECT_EQ(77, result);
}

TEST_F(ReplyWriterTest, ItemLostByAKilledReaderIsFoundAgain) {
  for (uint32_t i = 0; i < REQUESTERS; ++i) {
    armtest::Attached memory(controlPath("ea.kelp"));
    const uint32_t lost = memory.read<uint32_t>(FREE_LIST);
    memory.write(FREE_LIST, memory.read<uint32_t>(lost + 528));
  }
  EXPECT_EQ(0U, armtest::Attached(controlPath("ea.kelp")).read<uint32_t>(FREE_LIST));
  expectWholeQueue();
}

TEST_F(ReplyWriterTest, ImpossibleLinksArePutRight) {
  for (const uint32_t link :
       {1U, FIRST_ITEM + 1, FIRST_ITEM + REQUESTERS * ITEM_SIZE, 0xFFFFFFFFU}) {
    queues_.reset();
    SetUp();
    EXPECT_EQ(Delivery::linked, put(living(1), reply(1)));
    armtest::Attached memory(controlPath("ea.kelp"));
    memory.write(HEADS + FIRST_REPLY, link);
    memory.write(FREE_LIST, link);
    memory.write<uint16_t>(USED_ITEMS, 0xFFFF);
    memory.write<uint16_t>(HEADS_IN_USE, 0xFFFF);
    (void)writer().reclaimDeparted();
    EXPECT_EQ(0U, writer().usedItems());
    EXPECT_EQ(1U, writer().headsInUse());
    armtest::setSemaphore(set_, 2, 0);
    expectWholeQueue();
  }
}

TEST_F(ReplyWriterTest, ListThatRunsInACircleIsCut) {
  EXPECT_EQ(Delivery::linked, put(living(1), reply(1)));
  armtest::Attached memory(controlPath("ea.kelp"));
  const uint32_t item = memory.read<uint32_t>(HEADS + FIRST_REPLY);
  memory.write(item + 528, item);
  EXPECT_EQ(Delivery::linked, put(living(1), reply(2)));
  EXPECT_EQ(1, take(living(1)));
  EXPECT_EQ(2, take(living(1)));
}

TEST_F(ReplyWriterTest, ReadersOfAFullQueueNeverFindItsSemaphoreAtTheLimit) {
  for (uint32_t i = 0; i < REQUESTERS; ++i) {
    armtest::setSemaphore(set_, 1, 32767);
    EXPECT_EQ(Delivery::linked, put(living(i), reply(1)));
  }
  EXPECT_EQ(1, take(living(0)));
  EXPECT_EQ(1, armtest::semaphoreValue(set_, 1));
}

// ---- several at once ----------------------------------------------------------------------------

using armengine::Outgoing;

Outgoing outgoing(const TIPCIdentifier& to, int32_t result) {
  return {to, reply(result), Delivery::failed};
}

TEST_F(ReplyWriterTest, RepliesPutTogetherKeepTheOrderOfEachRequester) {
  Outgoing all[] = {outgoing(living(1), 1), outgoing(living(2), 2), outgoing(living(1), 3),
                    outgoing(living(2), 4)};
  writer().putAllUnlessCrowded(all, 4);
  for (const Outgoing& one : all) EXPECT_EQ(Delivery::linked, one.delivery);
  EXPECT_EQ(2, armtest::semaphoreValue(set_, 2));
  EXPECT_EQ(2, armtest::semaphoreValue(set_, 3));
  for (const int32_t result : {1, 3}) EXPECT_EQ(result, take(living(1)));
  for (const int32_t result : {2, 4}) EXPECT_EQ(result, take(living(2)));
}

TEST_F(ReplyWriterTest, RepliesPutTogetherWakeEveryWaiter) {
  // One record stays free: a crowded queue refuses.
  constexpr size_t WAITERS = REQUESTERS - 1;
  pid_t waiters[WAITERS];
  for (pid_t& waiter : waiters) {
    waiter = forkChild([] {
      TArmReplyMessage message = {};
      return armtest::getReply(&message) == 0 && message.result == getpid() ? 0 : 1;
    });
  }
  EXPECT_TRUE(waitUntil([this] {
    int waiting = 0;
    for (int i = 0; i < REQUESTERS; ++i) waiting += armtest::semaphoreWaiters(set_, 2 + i);
    return waiting == WAITERS;
  }));
  const armtest::Attached memory(controlPath("ea.kelp"));
  std::vector<Outgoing> all;
  for (size_t i = 0; i < WAITERS; ++i) {
    const size_t head = HEADS + i * HEAD_SIZE;
    const TIPCIdentifier id = {memory.read<int32_t>(head + 4), memory.read<uint32_t>(head + 8)};
    all.push_back(outgoing(id, id.processId));
  }
  writer().putAllUnlessCrowded(all.data(), all.size());
  for (const pid_t waiter : waiters) EXPECT_EQ(0, armtest::exitCodeOf(waiter));
}

TEST_F(ReplyWriterTest, CrowdIsLookedForBeforeEachOfTheRepliesPutTogether) {
  std::vector<Outgoing> all;
  for (uint32_t i = 0; i < REQUESTERS + 2; ++i) all.push_back(outgoing(living(i), 1));
  writer().putAllUnlessCrowded(all.data(), all.size());
  for (uint32_t i = 0; i < REQUESTERS + 2; ++i) {
    EXPECT_EQ(i < REQUESTERS ? Delivery::linked : Delivery::no_head, all[i].delivery) << i;
  }
}

TEST_F(ReplyWriterTest, SemaphoreAtItsLimitDoesNotKeepTheOthersFromRising) {
  for (const uint32_t thread : {1U, 2U, 3U}) {
    EXPECT_EQ(Delivery::linked, put(living(thread), reply(1)));
    EXPECT_EQ(1, take(living(thread)));
  }
  constexpr int LIMIT = 32767;
  armtest::setSemaphore(set_, 3, LIMIT);
  Outgoing all[] = {outgoing(living(1), 11), outgoing(living(2), 12), outgoing(living(3), 13)};
  writer().putAllUnlessCrowded(all, 3);
  EXPECT_EQ(1, armtest::semaphoreValue(set_, 2));
  EXPECT_EQ(LIMIT, armtest::semaphoreValue(set_, 3));
  EXPECT_EQ(1, armtest::semaphoreValue(set_, 4));
  for (const int32_t result : {11, 12, 13}) {
    EXPECT_EQ(Delivery::linked, all[result - 11].delivery);
    EXPECT_EQ(result, take(living(static_cast<uint32_t>(result - 10))));
  }
}

TEST_F(ReplyWriterTest, ImpossibleSemaphoreNumberConcernsItsOwnerAlone) {
  for (const uint16_t number :
       {uint16_t{0}, uint16_t{1}, uint16_t{2 + REQUESTERS}, uint16_t{0xFFFF}}) {
    queues_.reset();
    SetUp();
    for (const uint32_t thread : {1U, 2U}) {
      EXPECT_EQ(Delivery::linked, put(living(thread), reply(1)));
      EXPECT_EQ(1, take(living(thread)));
    }
    armtest::Attached memory(controlPath("ea.kelp"));
    memory.write(HEADS + 2, number);
    Outgoing all[] = {outgoing(living(1), 11), outgoing(living(2), 12)};
    writer().putAllUnlessCrowded(all, 2);
    EXPECT_EQ(Delivery::failed, all[0].delivery);
    EXPECT_EQ(Delivery::linked, all[1].delivery);
    EXPECT_EQ(12, take(living(2)));
    EXPECT_EQ(0U, writer().usedItems());
  }
}

TEST_F(ReplyWriterTest, RemovedSetHoldsNothingUp) {
  ASSERT_EQ(0, semctl(set_, 0, IPC_RMID));
  Outgoing all[] = {outgoing(living(1), 1), outgoing(living(2), 2)};
  writer().putAllUnlessCrowded(all, 2);
  EXPECT_EQ(2U, writer().headsInUse());
}

TEST_F(ReplyWriterTest, NobodyIsGivenNoReply) {
  EXPECT_EQ(Delivery::no_head, put({-1, 0xFFFFFFFFU}, reply(1)));
  EXPECT_EQ(0U, writer().usedItems());
  EXPECT_EQ(0U, writer().headsInUse());
}

TEST_F(ReplyWriterTest, RecordThatHasChangedHandsIsNotTakenForItsFormerOwners) {
  EXPECT_EQ(Delivery::linked, put(living(1), reply(1)));
  EXPECT_EQ(1, take(living(1)));
  EXPECT_EQ(1U, writer().reclaimIdle());
  EXPECT_EQ(Delivery::linked, put(living(2), reply(22)));
  EXPECT_EQ(Delivery::linked, put(living(1), reply(11)));
  EXPECT_EQ(22, take(living(2)));
  EXPECT_EQ(11, take(living(1)));
}

// The kernel accepts at most 500 operations at once.
TEST(ReplyWriter, MoreRepliesThanOneOperationTakesAllRaiseTheirSemaphores) {
  constexpr uint16_t MANY = 601;
  armengine::EngineOptions options;
  options.requesters = MANY;
  std::string why;
  const auto queues = EngineQueues::create(options, &why);
  ASSERT_NE(nullptr, queues) << why;
  std::vector<Outgoing> all;
  for (uint32_t i = 0; i < MANY; ++i) all.push_back(outgoing({getpid(), i}, 1));
  queues->replies().putAllUnlessCrowded(all.data(), all.size());
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  for (int i = 0; i < MANY; ++i) EXPECT_EQ(1, armtest::semaphoreValue(set, 2 + i)) << i;
}

TEST_F(ReplyWriterTest, StateEndsWaits) {
  for (const uint32_t state : {1U, 2U}) {
    const pid_t waiter = forkChild(armtest::waitForReply);
    EXPECT_TRUE(waitUntil([this] { return someWaiter(); }));
    writer().setState(state);
    EXPECT_EQ(armtest::codeOf(-284), armtest::exitCodeOf(waiter));
    queues_.reset();
    SetUp();
  }
}

// A reader that finds state 2 unlocks the segment without having locked it; when it exits, the
// kernel gives the lock back to nobody.
TEST_F(ReplyWriterTest, EndDoesNotWaitForALockThatNobodyHolds) {
  armtest::setSemaphore(armtest::setAt(controlPath("ea.kelp"), 1), 0, 1);
  queues_.reset();
  EXPECT_EQ(0U, armtest::ipcObjects());
}

TEST(ReplyWriter, EndDoesNotWaitForALockThatAStopHasLeftTaken) {
  auto writer = std::make_unique<ReplyWriter>(REQUESTERS);
  ASSERT_TRUE(writer->isInitialized());
  writer->setState(2);
  // What is left when a woken reader has given back a lock that it did not take, and has exited.
  armtest::setSemaphore(armtest::setAt(controlPath("ea.kelp"), 1), 0, 1);
  writer.reset();
  EXPECT_EQ(0U, armtest::ipcObjects());
}

}  // namespace
