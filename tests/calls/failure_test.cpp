// What every call that posts has in common: the engine's word passed on, the order of the checks,
// and the results when the engine or a queue fails.

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include "CallTest.h"

namespace armtest {
namespace {

using EveryCall = CallsWithEngine;
using EveryCallWithoutEngine = Calls;
using Failures = Calls;

TEST(TestedLibrary, IsTheSharedOneThatIsShipped) {
  Dl_info where = {};
  ASSERT_NE(0, dladdr(reinterpret_cast<void*>(arm_init), &where));
  EXPECT_NE(nullptr, std::strstr(where.dli_fname, "/lib/libarm.so.2")) << where.dli_fname;
}

// ---- the engine's word --------------------------------------------------------------------------

TEST_F(EveryCall, ReturnsTheWordOfTheEngineUnchanged) {
  for (const int32_t result : {1, 0, 2147483647, -1, -17, INT_MIN}) {
    engine_.forget();
    engine_.reply(0, result);
    for (const PostingCall& one : postingCalls()) EXPECT_EQ(result, one.call()) << one.name;
  }
}

TEST_F(EveryCall, PostsExactlyOneRequestOfItsTypeFromTheCallingThread) {
  uint32_t count = 0;
  for (const PostingCall& one : postingCalls()) {
    EXPECT_EQ(100 + one.type, one.call()) << one.name;
    expectTaken(++count);
    EXPECT_EQ(static_cast<uint32_t>(one.type), word(engine_.last(), 8)) << one.name;
    EXPECT_EQ(static_cast<uint32_t>(getpid()), word(engine_.last(), 0)) << one.name;
    EXPECT_EQ(ownThreadWord(), word(engine_.last(), 4)) << one.name;
  }
}

TEST_F(EveryCall, WaitsWithoutALimitUntilTheLateReplyComes) {
  engine_.hold(0, -1, 99);
  uint32_t count = 0;
  for (const PostingCall& one : postingCalls()) {
    CallInThread call(one.call);
    ASSERT_TRUE(engine_.waitTaken(++count) && engine_.waitSleepers(1)) << one.name;
    EXPECT_EQ(1, engine_.release());
    EXPECT_EQ(99, call.result()) << one.name;
  }
}

TEST_F(EveryCall, TakesAReplyThatWasLinkedBeforeTheWaitAtOnce) {
  engine_.drop();
  for (const PostingCall& one : postingCalls()) {
    engine_.put(getpid(), static_cast<int32_t>(ownThreadWord()), 1000 + one.type);
    EXPECT_EQ(1000 + one.type, one.call()) << one.name;
  }
}

TEST_F(EveryCall, FindsTheReplyThatTheSameThreadDidNotFetch) {
  engine_.put(getpid(), static_cast<int32_t>(ownThreadWord()), 7000);
  EXPECT_EQ(7000, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(103, arm_update(5, 0, nullptr, 0));
  ASSERT_TRUE(engine_.waitTaken(2));
  engine_.drop();
  EXPECT_EQ(104, arm_stop(5, 0, 0, nullptr, 0));
}

// ---- no engine ----------------------------------------------------------------------------------

TEST_F(EveryCallWithoutEngine, ReturnsMinus2) {
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-2, one.call()) << one.name;
}

TEST_F(EveryCallWithoutEngine, ReturnsMinus2BeforeAnyArgumentIsLookedAt) {
  Bytes block = makeBlock(256, 1, 0xC0);
  block[197] = 1;
  EXPECT_EQ(-2, arm_init(nullptr, nullptr, 0, nullptr, 0));
  EXPECT_EQ(-2, w_ArmInit(0, "", nullptr, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_getid(-1, nullptr, nullptr, 0, nullptr, 0));
  EXPECT_EQ(-2, w_ArmGetID(0, 0, "", nullptr, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_start(-1, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_start(5, 0, block.data(), 256));
  EXPECT_EQ(-2, arm_update(0, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_stop(-1, 0, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_end(0, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_transactionReport(-1, 0, nullptr, 0, 0, -1, -1, 0));
  EXPECT_EQ(-2, arm_transactionInstanceReport(-1, 0, nullptr, 0, 0, -1, -1, 0));
  EXPECT_EQ(-2, arm_completeTransaction(-1, -1, 0));
  EXPECT_EQ(-2, arm_completeTransactionInstance(-1, -1, 0));
  EXPECT_EQ(-2, arm_associateMetricData(-1, nullptr, 0));
}

TEST_F(EveryCallWithoutEngine, ReturnsMinus2EvenForIgnoredTransactions) {
  EXPECT_EQ(-2, arm_update(2147483647, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_stop(2147483647, 0, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_transactionReport(2147483647, 0, nullptr, 0, 0, 0, 0, 0));
  EXPECT_EQ(-2, arm_transactionInstanceReport(2147483647, 0, nullptr, 0, 0, 0, 0, 0));
  EXPECT_EQ(-2, arm_completeTransaction(2147483647, 0, 0));
  EXPECT_EQ(-2, arm_completeTransactionInstance(2147483647, 0, 0));
  EXPECT_EQ(-2, arm_associateMetricData(2147483647, "x", 1));
}

TEST_F(Failures, EngineThatIsNotReadyCannotBeUsed) {
  EngineSetup setup;
  setup.ready = false;
  ASSERT_TRUE(engine_.start(setup));
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-2, one.call()) << one.name;
  engine_.setReady(true);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Failures, ReadyWordIsLookedAtOnlyWhenOpening) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.setReady(false);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Failures, RequestQueueThatIsStoppedWhenOpeningCannotBeUsed) {
  ASSERT_TRUE(engine_.start());
  for (const int32_t state : {1, 2, 3}) {
    engine_.setRequestState(state);
    EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0)) << state;
  }
  engine_.setRequestState(0);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Failures, ReplyQueueThatIsStoppedWhenOpeningCannotBeUsed) {
  ASSERT_TRUE(engine_.start());
  for (const int32_t state : {1, 2, 3}) {
    engine_.setReplyState(state);
    EXPECT_EQ(-2, arm_start(5, 0, nullptr, 0)) << state;
  }
  engine_.setReplyState(0);
  // The mutexes that were unlocked twice still work.
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(100 + one.type, one.call()) << one.name;
}

TEST_F(Failures, EngineThatEndsIsMinus2AndOneThatComesBackIsUsedByTheNextCall) {
  ASSERT_TRUE(engine_.start());
  for (const PostingCall& one : postingCalls()) {
    EXPECT_EQ(100 + one.type, one.call()) << one.name;
    engine_.quit();
    EXPECT_EQ(-2, one.call()) << one.name;
    ASSERT_TRUE(engine_.start());
  }
}

TEST_F(Failures, EngineThatIsKilledIsMinus2) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.kill();
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-2, one.call()) << one.name;
}

TEST_F(Failures, EngineRestartedWithOtherCapacitiesIsUsedByTheNextCall) {
  EngineSetup setup;
  ASSERT_TRUE(engine_.start(setup));
  for (const int size : {64, 3, 1, 500, 2}) {
    EXPECT_EQ(103, arm_start(5, 0, nullptr, 0)) << size;
    engine_.kill();
    setup.requests = size;
    setup.requesters = size;
    ASSERT_TRUE(engine_.start(setup));
  }
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(100 + one.type, one.call()) << one.name;
}

TEST_F(Failures, WrongVersionWordIsRepairedByTheReopeningThatItCauses) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.setVersion(50299);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

// ---- a full ring --------------------------------------------------------------------------------

TEST_F(Failures, FullRingIsMinus8AtOnceForEveryCallAndOnlyTheRefusedAreLost) {
  EngineSetup setup;
  setup.requests = 2;
  ASSERT_TRUE(engine_.start(setup));
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.derive();
  engine_.pause();
  CallInThread first([] { return arm_start(1, 0, nullptr, 0); });
  CallInThread second([] { return arm_start(2, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitSleepers(2));
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-8, one.call()) << one.name;
  EXPECT_EQ(1U, engine_.taken());
  engine_.resume();
  EXPECT_EQ(derivedResult(1), first.result());
  EXPECT_EQ(derivedResult(2), second.result());
  EXPECT_EQ(3U, engine_.taken());
  EXPECT_EQ(derivedResult(3), arm_start(3, 0, nullptr, 0));
  EXPECT_EQ(4U, engine_.taken());
}

TEST_F(Failures, RingOfOneSlotServesCallAfterCall) {
  EngineSetup setup;
  setup.requests = 1;
  ASSERT_TRUE(engine_.start(setup));
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(100 + one.type, one.call()) << one.name;
}

// ---- failures of a queue ------------------------------------------------------------------------

TEST_F(Failures, RequestQueueStoppedAfterOpeningIsMinus9) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  for (const int32_t state : {1, 2, 77}) {
    engine_.setRequestState(state);
    for (const PostingCall& one : postingCalls()) EXPECT_EQ(-9, one.call()) << one.name;
  }
  engine_.setRequestState(0);
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(2U, engine_.taken());
}

TEST_F(Failures, ReplyQueueStoppedAfterOpeningIsMinus9ThoughTheRequestIsPosted) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.setReplyState(1);
  engine_.drop();
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-9, one.call()) << one.name;
  EXPECT_TRUE(engine_.waitTaken(1 + 13));
}

TEST_F(Failures, WaitThatTheEngineCancelsIsMinus9ForEveryCall) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  uint32_t count = 0;
  for (const PostingCall& one : postingCalls()) {
    CallInThread call(one.call);
    ASSERT_TRUE(engine_.waitTaken(++count) && engine_.waitSleepers(1)) << one.name;
    const Bytes record = engine_.last();
    EXPECT_TRUE(engine_.cancel(static_cast<int32_t>(word(record, 0)),
                               static_cast<int32_t>(word(record, 4))));
    EXPECT_EQ(-9, call.result()) << one.name;
  }
}

TEST_F(Failures, WaitThatTheEngineStopsWithState1IsMinus9ForEveryCall) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  uint32_t count = 0;
  for (const PostingCall& one : postingCalls()) {
    CallInThread call(one.call);
    ASSERT_TRUE(engine_.waitTaken(++count) && engine_.waitSleepers(1)) << one.name;
    engine_.setReplyState(1);
    EXPECT_EQ(-9, call.result()) << one.name;
    engine_.setReplyState(0);
  }
}

TEST_F(Failures, WaitThatTheEngineStopsWithState2IsMinus9AndARestartHeals) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  CallInThread call([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  engine_.setReplyState(2);
  EXPECT_EQ(-9, call.result());
  engine_.quit();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Failures, WaitWhoseEngineQuitsIsMinus9) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  CallInThread call([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  engine_.quit();
  EXPECT_EQ(-9, call.result());
}

TEST_F(Failures, WaitWhoseEngineIsKilledAndReplacedIsMinus9ForEveryCall) {
  ASSERT_TRUE(engine_.start());
  uint32_t count = 0;
  for (const PostingCall& one : postingCalls()) {
    engine_.hold();
    CallInThread call(one.call);
    ASSERT_TRUE(engine_.waitTaken(++count) && engine_.waitSleepers(1)) << one.name;
    engine_.kill();
    ASSERT_TRUE(engine_.start());
    EXPECT_EQ(-9, call.result()) << one.name;
  }
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Failures, CallThatGetsNoHeadRecordIsMinus9ThoughItsRequestIsPosted) {
  EngineSetup setup;
  setup.requesters = 1;
  ASSERT_TRUE(engine_.start(setup));
  engine_.hold(3, 1, 31);
  CallInThread holder([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  engine_.drop();
  for (const PostingCall& one : postingCalls()) EXPECT_EQ(-9, one.call()) << one.name;
  EXPECT_TRUE(engine_.waitTaken(1 + 13));
  EXPECT_EQ(1, engine_.release());
  EXPECT_EQ(31, holder.result());
  // An idle head is handed on.
  engine_.forget();
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(1, engine_.headsInUse());
}

}  // namespace
}  // namespace armtest
