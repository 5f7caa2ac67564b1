// The reader's end of the reply queue, against a segment laid by hand.

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <thread>

#include "calls.h"
#include "errortrail.h"
#include "ipc/CIPCQueue.h"
#include "process.h"
#include "rawqueues.h"
#include "tracing.h"

namespace armtest {
namespace {

using Reader = CIPCQueue<TArmReplyMessage>;

constexpr const char* NAME = "/var/kelp/controls_ea.kelp";
constexpr _TIPCIdentifier ME = {1001, 2002};
constexpr _TIPCIdentifier OTHER = {1001, 3003};

Bytes bytesOf(const TArmReplyMessage& reply) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&reply);
  return Bytes(bytes, bytes + sizeof reply);
}

bool isUnlock(const sembuf* operations, size_t count) {
  return count == 1 && operations[0].sem_op == -1 && operations[0].sem_flg == 0x1800;
}

/// Fails every unlock of the segment.
void failUnlocksOf(const ReplyQueue& replies) {
  calls::semop.ask([set = replies.set.id()](int id, const sembuf* operations, size_t count) {
    return id == set && isUnlock(operations, count) ? EIDRM : calls::RUN_IT;
  });
}

// ---- opening ------------------------------------------------------------------------------------

TEST(ReplyQueueOpening, OfARunningQueueIsTraced) {
  ReplyQueue replies(3);
  const TraceLog log;
  const Reader queue(NAME, false);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_TRUE(queue.CreatorAlive());
  EXPECT_EQ(
      (Lines{"CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, name[/var/kelp/controls_ea.kelp] "
             "remove[0]",
             "CkesSharedMemory_UNIX::implOpen ENTER - name = /var/kelp/controls_ea.kelp",
             "CkesSharedMemory_UNIX::implOpen EXIT - name = /var/kelp/controls_ea.kelp",
             "CIPCQueue_LINUX::implInitialize ENTER - name = /var/kelp/controls_ea.kelp, items = 0",
             "CIPCQueue_LINUX::implInitialize EXIT - name = /var/kelp/controls_ea.kelp, items = 0",
             "CIPCQueue<T>::CIPCQueue(const char*,bool) EXIT, name[/var/kelp/controls_ea.kelp] "
             "remove[0] VInitialized[1]"}),
      log.lines());
}

TEST(ReplyQueueOpening, WithoutSegmentHasNoExitLine) {
  const TraceLog log;
  EXPECT_FALSE(Reader(NAME, false).IsInitialized());
  EXPECT_EQ(
      (Lines{"CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, name[/var/kelp/controls_ea.kelp] "
             "remove[0]",
             "CIPCQueue<T>::CIPCQueue(const char*,bool) - ERROR "
             "-VSharedMemory->GetInitResult() = -250"}),
      log.lines("CIPCQueue<T>"));
}

TEST(ReplyQueueOpening, WithoutItsSetFailsWithItsTexts) {
  ReplyQueue replies(3);
  replies.waits.remove();
  const TraceLog log;
  EXPECT_FALSE(Reader(NAME, true).IsInitialized());
  EXPECT_EQ(
      (Lines{"CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, name[/var/kelp/controls_ea.kelp] "
             "remove[1]",
             "CIPCQueue_LINUX::implInitialize ENTER - name = /var/kelp/controls_ea.kelp, items = 0",
             "CIPCQueue_LINUX::implInitialize - ERROR - semget get semaphore id errno = 2",
             "CIPCQueue<T>::CIPCQueue(const char*,bool) ERROR - VInitialized == 0",
             "CIPCQueue<T>::CIPCQueue(const char*,bool) EXIT, name[/var/kelp/controls_ea.kelp] "
             "remove[1] VInitialized[0]"}),
      log.lines("CIPC"));
}

TEST(ReplyQueueOpening, OfAStoppedQueueIsRefusedAndDetached) {
  for (const uint32_t state : {1U, 2U, 5U}) {
    ReplyQueue replies(3);
    replies.setState(state);
    const Bytes before = replies.memory.all();
    const Reader queue(NAME, false);
    EXPECT_FALSE(queue.IsInitialized());
    EXPECT_FALSE(queue.CreatorAlive());
    EXPECT_EQ(before, replies.memory.all());
    EXPECT_EQ(1U, replies.memory.attachments());
    EXPECT_FALSE(replies.locked());
    EXPECT_EQ(1, replies.waits.value(0));
  }
}

TEST(ReplyQueueOpening, OfAStoppedQueueEndsWithTheExitLine) {
  ReplyQueue replies(3);
  replies.setState(1);
  const TraceLog log;
  const Reader queue(NAME, false);
  EXPECT_EQ(
      (Lines{"CIPCQueue<T>::CIPCQueue(const char*,bool) ENTER, name[/var/kelp/controls_ea.kelp] "
             "remove[0]",
             "CIPCQueue<T>::CIPCQueue(const char*,bool) EXIT, name[/var/kelp/controls_ea.kelp] "
             "remove[0] VInitialized[0]"}),
      log.lines("CIPCQueue<T>"));
}

TEST(ReplyQueueOpening, OfAStoppedQueueByItsOwnerClosesAndRemovesIt) {
  ReplyQueue replies(3);
  replies.setState(1);
  EXPECT_FALSE(Reader(NAME, true).IsInitialized());
  EXPECT_EQ(2U, replies.memory.u32(8));
  EXPECT_EQ(-1, setAt(EA, 1));
  EXPECT_EQ(-1, setAt(EA, 3));
}

TEST(ReplyQueueOpening, AcceptsADeadCreator) {
  ReplyQueue replies(3);
  replies.creatorDies();
  const Reader queue(NAME, false);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_FALSE(queue.CreatorAlive());
}

TEST(ReplyQueueOpening, ChangesNothing) {
  ReplyQueue replies(3);
  const Bytes before = replies.memory.all();
  { const Reader queue(NAME, false); }
  EXPECT_EQ(before, replies.memory.all());
  EXPECT_EQ(1U, replies.memory.attachments());
}

TEST(ReplyQueueOpening, OfASegmentSmallerThanTheHeaderFails) {
  LockedSegment segment(EA, 11);
  SemaphoreSet waits(EA, 3, 3);
  const Reader queue(NAME, false);
  EXPECT_FALSE(queue.IsInitialized());
  EXPECT_EQ(1U, segment.memory.attachments());
}

TEST(ReplyQueueOpening, WithoutMemoryFails) {
  ReplyQueue replies(3);
  calls::refuseMemory([](size_t) { return true; });
  EXPECT_FALSE(Reader(NAME, false).IsInitialized());
  calls::giveMemory();
}

TEST(ReplyQueueOpening, CutsSpareBytesFromTheCapacity) {
  ReplyQueue replies(2, 547);
  Reader queue(NAME, false);
  TArmReplyMessage reply;
  EXPECT_EQ(-278, queue.PrivateGet(ME, 2, reply));
  replies.setStatus(1, 2);
  replies.reply(1, replyRecord(5));
  EXPECT_EQ(0, queue.PrivateGet(ME, 1, reply));
  EXPECT_EQ(replyRecord(5), bytesOf(reply));
}

TEST(ReplyQueueOpening, OfTheHeaderAloneHasNoHead) {
  ReplyQueue replies(0);
  Reader queue(NAME, false);
  EXPECT_TRUE(queue.IsInitialized());
  TArmReplyMessage reply;
  EXPECT_EQ(-274, queue.Get(ME, reply));
}

TEST(ReplyQueue, ThatIsNotOpenRefusesToGet) {
  Reader queue(NAME, false);
  TArmReplyMessage reply;
  EXPECT_EQ(-276, queue.Get(ME, reply));
  EXPECT_EQ("-276 CIPCQueue::PrivateGet() < CIPCQueue::Get()", errorTrail());
  EXPECT_FALSE(queue.CreatorAlive());
}

TEST(ReplyQueue, DestructorOfANonOwnerChangesNothing) {
  ReplyQueue replies(3);
  auto queue = std::make_unique<Reader>(NAME, false);
  const Bytes before = replies.memory.all();
  EXPECT_EQ(2U, replies.memory.attachments());
  queue.reset();
  EXPECT_EQ(before, replies.memory.all());
  EXPECT_EQ(1U, replies.memory.attachments());
  EXPECT_FALSE(replies.locked());
  EXPECT_EQ(2, replies.set.value(1));
  EXPECT_EQ(1, replies.waits.value(0));
}

TEST(ReplyQueue, DestructorWaitsForTheLock) {
  ReplyQueue replies(3);
  auto queue = std::make_unique<Reader>(NAME, false);
  replies.lock();
  std::thread destroyer([&queue] { queue.reset(); });
  EXPECT_TRUE(waitUntil([&] { return semctl(replies.set.id(), 0, GETZCNT) == 1; }));
  replies.unlock();
  destroyer.join();
}

TEST(ReplyQueue, DestructorOfAnOwnerClosesAndRemovesTheQueue) {
  ReplyQueue replies(3);
  { const Reader queue(NAME, true); }
  EXPECT_EQ(2U, replies.memory.u32(8));
  EXPECT_EQ(-1, setAt(EA, 1));
  EXPECT_EQ(-1, setAt(EA, 3));
}

TEST(ReplyQueue, DestructorTracesALockWhoseSetIsGone) {
  ReplyQueue replies(3);
  const TraceLog log;
  {
    const Reader queue(NAME, false);
    replies.set.remove();
  }
  EXPECT_EQ((Lines{"CkesSharedMemory::implLock: semop on VSemaphore[" +
                   std::to_string(replies.set.id()) + "] failed [-1] errno[22]"}),
            log.lines("CkesSharedMemory::"));
}

// ---- FindHead -----------------------------------------------------------------------------------

/// Three heads, and the library's view of them.
class ReplyQueueHeads : public testing::Test {
 protected:
  ReplyQueueHeads() : replies_(3), queue_(NAME, false) {}

  /// Owned by other requesters: the record is idle and empty.
  void own(size_t head) { replies_.setOwner(head, 7, static_cast<uint32_t>(70 + head)); }
  void ownAll() {
    for (size_t i = 0; i < 3; ++i) own(i);
    replies_.setHeadsInUse(3);
  }

  /// The index of the head that FindHead gives ME, -1 for none.
  long found(long expected, bool create = true) {
    _TIPCHeadItem* head = nullptr;
    EXPECT_EQ(expected, queue_.FindHead(ME, create, &head));
    if (head == nullptr) return -1;
    for (size_t i = 0; i < 3; ++i) {
      if (replies_.process(i) != 1001 || replies_.thread(i) != 2002) continue;
      EXPECT_EQ(replies_.semaphore(i), head->semaphore);
      return static_cast<long>(i);
    }
    ADD_FAILURE() << "a head was given, but none is owned";
    return -1;
  }

  ReplyQueue replies_;
  Reader queue_;
};

TEST_F(ReplyQueueHeads, FirstFreeRecordIsClaimed) {
  own(0);
  replies_.setHeadsInUse(1);
  Bytes expected = replies_.memory.all();
  std::memcpy(expected.data() + 12 + 16 + 4, "\xE9\x03\x00\x00\xD2\x07\x00\x00", 8);
  expected[2] = 2;
  EXPECT_EQ(1, found(0));
  EXPECT_EQ(expected, replies_.memory.all());
}

TEST_F(ReplyQueueHeads, ClaimClearsStatusAndListAndKeepsTheSemaphore) {
  replies_.setStatus(0, 3);
  replies_.setFirstReply(0, 77);
  replies_.setSemaphore(0, 4);
  EXPECT_EQ(0, found(0));
  EXPECT_EQ(0, replies_.status(0));
  EXPECT_EQ(0U, replies_.firstReply(0));
  EXPECT_EQ(4, replies_.semaphore(0));
}

TEST_F(ReplyQueueHeads, FreeOnlyWhenBothWordsAreAllOnes) {
  replies_.setOwner(0, 0xFFFFFFFF, 5);
  replies_.setOwner(1, 5, 0xFFFFFFFF);
  replies_.setHeadsInUse(2);
  EXPECT_EQ(2, found(0));
}

TEST_F(ReplyQueueHeads, OwnRecordIsFoundAgainAndNotCounted) {
  own(0);
  replies_.setHeadsInUse(1);
  EXPECT_EQ(1, found(0));
  replies_.setStatus(1, 1);
  replies_.setFirstReply(1, replies_.itemOffset(2));
  EXPECT_EQ(1, found(0));
  EXPECT_EQ(2, replies_.headsInUse());
  EXPECT_EQ(1, replies_.status(1));
  EXPECT_EQ(replies_.itemOffset(2), replies_.firstReply(1));
}

TEST_F(ReplyQueueHeads, WithoutCreateNothingIsClaimed) {
  const Bytes before = replies_.memory.all();
  EXPECT_EQ(-1, found(-277, false));
  EXPECT_EQ(before, replies_.memory.all());
}

TEST_F(ReplyQueueHeads, WithoutCreateTheOwnRecordIsFound) {
  replies_.setOwner(2, 1001, 2002);
  EXPECT_EQ(2, found(0, false));
}

TEST_F(ReplyQueueHeads, FirstIdleRecordIsTakenOverWhenAllAreOwned) {
  ownAll();
  EXPECT_EQ(0, found(0));
  EXPECT_EQ(3, replies_.headsInUse());
}

TEST_F(ReplyQueueHeads, RecordWithAStatusIsNotTakenOver) {
  ownAll();
  replies_.setStatus(0, 1);
  replies_.setStatus(1, 3);
  EXPECT_EQ(2, found(0));
}

TEST_F(ReplyQueueHeads, RecordWithAReplyIsNotTakenOver) {
  ownAll();
  replies_.setFirstReply(0, replies_.itemOffset(0));
  EXPECT_EQ(1, found(0));
}

TEST_F(ReplyQueueHeads, RecordThatIsWaitedOnIsNotTakenOver) {
  ownAll();
  std::thread sleeper([this] { replies_.waits.add(2, -1); });
  EXPECT_TRUE(waitUntil([this] { return replies_.waits.sleepers(2) == 1; }));
  EXPECT_EQ(1, found(0));
  replies_.waits.add(2, 1);
  sleeper.join();
}

TEST_F(ReplyQueueHeads, RecordWhoseSleepersCannotBeAskedIsNotTakenOver) {
  ownAll();
  replies_.setSemaphore(0, 999);
  EXPECT_EQ(1, found(0));
}

TEST_F(ReplyQueueHeads, NoneIsGivenWhenAllAreInUse) {
  ownAll();
  replies_.setStatus(0, 1);
  replies_.setFirstReply(1, replies_.itemOffset(0));
  replies_.setStatus(2, 2);
  const Bytes before = replies_.memory.all();
  EXPECT_EQ(-1, found(-274));
  EXPECT_EQ(before, replies_.memory.all());
  TArmReplyMessage reply;
  EXPECT_EQ(-274, queue_.Get(ME, reply));
  EXPECT_EQ("-274 CIPCQueue::PrivateGet() < CIPCQueue::Get()", errorTrail());
  EXPECT_EQ(before, replies_.memory.all());
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueHeads, CounterOfHeadsIsTrustedButTheScanStaysInside) {
  ownAll();
  replies_.setHeadsInUse(2);
  Bytes expected = replies_.memory.all();
  std::memcpy(expected.data() + 12 + 32 + 4, "\xE9\x03\x00\x00\xD2\x07\x00\x00", 8);
  EXPECT_EQ(2, found(0));
  EXPECT_EQ(expected, replies_.memory.all());
}

TEST_F(ReplyQueueHeads, CounterOfHeadsIsTrustedThoughARecordIsFree) {
  own(0);
  replies_.setHeadsInUse(3);
  EXPECT_EQ(0, found(0));
  EXPECT_EQ(3, replies_.headsInUse());
}

// ---- getting ------------------------------------------------------------------------------------

/// What one Get of another thread came to.
struct Outcome {
  long result;
  Bytes reply;
  std::string trail;
};

class ReplyQueueGet : public testing::Test {
 protected:
  ReplyQueueGet() : replies_(3), queue_(NAME, false) {}

  /// The queue's destructor waits for the lock, which some tests leave taken.
  ~ReplyQueueGet() override {
    calls::semop.watch();
    replies_.breakLock();
  }

  Outcome get(_TIPCIdentifier id, long index) {
    TArmReplyMessage reply;
    std::memset(&reply, 0xEE, sizeof reply);
    const long result = index == -1 ? queue_.Get(id, reply) : queue_.PrivateGet(id, index, reply);
    return {result, bytesOf(reply), errorTrail()};
  }

  /// Gets in a thread of its own, which sleeps when this returns.
  std::future<Outcome> startGet(_TIPCIdentifier id = ME, long index = -1, int semaphore = 2) {
    const int before = replies_.waits.sleepers(semaphore);
    std::future<Outcome> got = std::async(std::launch::async, [this, id, index] {
      (void)CkesErrorManager::RegisterThread();
      Outcome outcome = get(id, index);
      (void)CkesErrorManager::UnregisterThread();
      return outcome;
    });
    EXPECT_TRUE(waitUntil([&] { return replies_.waits.sleepers(semaphore) == before + 1; }));
    return got;
  }

  void claimForMe() {
    replies_.setOwner(0, 1001, 2002);
    replies_.setHeadsInUse(1);
  }

  ReplyQueue replies_;
  Reader queue_;
};

TEST_F(ReplyQueueGet, ReplyLinkedBeforeIsReturnedAtOnce) {
  claimForMe();
  replies_.reply(0, replyRecord(-5, 1));
  const Outcome got = get(ME, -1);
  EXPECT_EQ(0, got.result);
  EXPECT_EQ(replyRecord(-5, 1), got.reply);
  EXPECT_EQ(0, replies_.waits.value(2));
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, TakenItemIsPushedOnTheFreeListAndTheRecordStaysOwned) {
  claimForMe();
  Bytes expected = replies_.memory.all();
  replies_.reply(0, replyRecord(5));
  std::memcpy(expected.data() + replies_.itemOffset(0), replyRecord(5).data(), 528);
  EXPECT_EQ(replies_.itemOffset(1), replies_.freeList());
  EXPECT_EQ(0, get(ME, -1).result);
  EXPECT_EQ(replies_.itemOffset(0), replies_.freeList());
  EXPECT_EQ(replies_.itemOffset(1), replies_.link(0));
  EXPECT_EQ(0, replies_.usedItems());
  EXPECT_EQ(expected, replies_.memory.all());
}

TEST_F(ReplyQueueGet, RepliesAreTakenInTheOrderOfTheList) {
  claimForMe();
  replies_.reply(0, replyRecord(1));
  replies_.reply(0, replyRecord(2));
  EXPECT_EQ(replyRecord(1), get(ME, -1).reply);
  EXPECT_EQ(1, replies_.usedItems());
  EXPECT_EQ(replies_.itemOffset(1), replies_.firstReply(0));
  EXPECT_EQ(replyRecord(2), get(ME, -1).reply);
  EXPECT_EQ(0U, replies_.firstReply(0));
  EXPECT_EQ(replies_.itemOffset(1), replies_.freeList());
  EXPECT_EQ(replies_.itemOffset(0), replies_.link(1));
}

TEST_F(ReplyQueueGet, SleepsOnItsOwnSemaphoreWithTheSegmentUnlocked) {
  replies_.setOwner(0, 7, 7);
  replies_.setHeadsInUse(1);
  replies_.setSemaphore(1, 4);
  std::future<Outcome> got = startGet(ME, -1, 4);
  EXPECT_EQ(1, replies_.status(1));
  EXPECT_EQ(1001U, replies_.process(1));
  EXPECT_EQ(2002U, replies_.thread(1));
  EXPECT_EQ(2, replies_.headsInUse());
  EXPECT_FALSE(replies_.locked());
  replies_.reply(1, replyRecord(9));
  const Outcome outcome = got.get();
  EXPECT_EQ(0, outcome.result);
  EXPECT_EQ(replyRecord(9), outcome.reply);
  EXPECT_EQ(0, replies_.status(1));
  EXPECT_EQ(1001U, replies_.process(1));
}

TEST_F(ReplyQueueGet, AlwaysWaitsOnceEvenWhenAReplyIsLinked) {
  claimForMe();
  replies_.linkReply(0, replyRecord(1));
  std::future<Outcome> got = startGet();
  EXPECT_EQ(1, replies_.usedItems());
  replies_.waits.add(2, 1);
  EXPECT_EQ(replyRecord(1), got.get().reply);
}

TEST_F(ReplyQueueGet, WokenWithNothingGoesBackToWait) {
  std::future<Outcome> got = startGet();
  for (int i = 0; i < 3; ++i) {
    // The kernel takes the unit at once; that the thread has come round shows in the status.
    replies_.lock();
    replies_.setStatus(0, 0);
    replies_.waits.add(2, 1);
    replies_.unlock();
    EXPECT_TRUE(waitUntil([this] { return replies_.status(0) == 1; }));
    EXPECT_TRUE(waitUntil([this] { return replies_.waits.sleepers(2) == 1; }));
  }
  replies_.reply(0, replyRecord(4));
  EXPECT_EQ(replyRecord(4), got.get().reply);
}

TEST_F(ReplyQueueGet, SignalsDoNotEndTheWait) {
  struct sigaction action = {};
  action.sa_handler = [](int) {};
  sigaction(SIGUSR1, &action, nullptr);
  std::atomic<int> waits{0};
  calls::semop.ask([this, &waits](int set, const sembuf*, size_t) {
    if (set == replies_.waits.id()) ++waits;
    return calls::RUN_IT;
  });
  std::atomic<pthread_t> reader{0};
  Outcome outcome;
  std::thread thread([&] {
    reader = pthread_self();
    outcome = get(ME, -1);
  });
  for (int i = 1; i <= 3; ++i) {
    EXPECT_TRUE(waitUntil([&] { return waits == i && replies_.waits.sleepers(2) == 1; }));
    pthread_kill(reader, SIGUSR1);
  }
  EXPECT_TRUE(waitUntil([&] { return waits == 4 && replies_.waits.sleepers(2) == 1; }));
  replies_.reply(0, replyRecord(4));
  thread.join();
  EXPECT_EQ(0, outcome.result);
}

TEST_F(ReplyQueueGet, WithoutTheLockSetFails) {
  replies_.set.remove();
  EXPECT_EQ(-261, get(ME, -1).result);
  EXPECT_EQ("-261 CkesSharedMemory::Lock() < CIPCQueue::PrivateGet() < CIPCQueue::Get()",
            errorTrail());
}

TEST_F(ReplyQueueGet, UnlockThatFailsIsTheResultOfASuccess) {
  claimForMe();
  replies_.reply(0, replyRecord(1));
  int unlocks = 0;
  calls::semop.ask([&](int id, const sembuf* operations, size_t count) {
    if (id != replies_.set.id() || !isUnlock(operations, count)) return calls::RUN_IT;
    return ++unlocks == 2 ? EIDRM : calls::RUN_IT;
  });
  const Outcome got = get(ME, -1);
  EXPECT_EQ(-262, got.result);
  EXPECT_EQ("-262 CkesSharedMemory::Unlock() < CIPCQueue::PrivateGet() < CIPCQueue::Get()",
            got.trail);
  EXPECT_EQ(replyRecord(1), got.reply);
}

TEST_F(ReplyQueueGet, UnlockThatFailsDoesNotReplaceAnError) {
  replies_.setState(1);
  failUnlocksOf(replies_);
  const Outcome got = get(ME, -1);
  EXPECT_EQ(-284, got.result);
  EXPECT_EQ("-284 CIPCQueue::PrivateGet() < CIPCQueue::Get()", got.trail);
}

// ---- stopping -----------------------------------------------------------------------------------

TEST_F(ReplyQueueGet, FromAStoppedEmptyQueueDoesNotWait) {
  for (const uint32_t state : {1U, 2U, 9U}) {
    replies_.setState(state);
    const Outcome got = get(ME, -1);
    EXPECT_EQ(-284, got.result);
    EXPECT_EQ("-284 CIPCQueue::PrivateGet() < CIPCQueue::Get()", got.trail);
    EXPECT_EQ(0, replies_.status(0));
    EXPECT_FALSE(replies_.locked());
  }
}

TEST_F(ReplyQueueGet, FromAQueueInStateOneTakesWhatIsLinked) {
  claimForMe();
  replies_.reply(0, replyRecord(1));
  replies_.setState(1);
  EXPECT_EQ(replyRecord(1), get(ME, -1).reply);
}

TEST_F(ReplyQueueGet, StateOneEndsAWaitThatFindsNothing) {
  std::future<Outcome> got = startGet();
  replies_.setState(1);
  replies_.waits.add(2, 1);
  const Outcome outcome = got.get();
  EXPECT_EQ(-284, outcome.result);
  EXPECT_EQ("-284 CIPCQueue::PrivateGet() < CIPCQueue::Get()", outcome.trail);
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, StateOneIsSeenUnderTheLock) {
  std::future<Outcome> got = startGet();
  replies_.lock();
  replies_.setState(1);
  replies_.waits.add(2, 1);
  EXPECT_TRUE(waitUntil([this] { return semctl(replies_.set.id(), 0, GETZCNT) == 1; }));
  replies_.unlock();
  EXPECT_EQ(-284, got.get().result);
}

TEST_F(ReplyQueueGet, StateTwoEndsTheWaitEvenWithAReplyLinked) {
  std::future<Outcome> got = startGet();
  replies_.linkReply(0, replyRecord(1));
  replies_.setState(2);
  replies_.waits.add(2, 1);
  EXPECT_EQ(-284, got.get().result);
  EXPECT_EQ(1, replies_.usedItems());
}

TEST_F(ReplyQueueGet, StateTwoUnlocksALockThatTheReaderDoesNotHold) {
  std::future<Outcome> got = startGet();
  replies_.lock();
  replies_.setState(2);
  replies_.waits.add(2, 1);
  EXPECT_EQ(-284, got.get().result);
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, StateTwoTriesTheUnlockThoughNobodyHoldsTheLock) {
  std::future<Outcome> got = startGet();
  replies_.setState(2);
  replies_.waits.add(2, 1);
  const Outcome outcome = got.get();
  EXPECT_EQ(-284, outcome.result);
  EXPECT_EQ("-262 CkesSharedMemory::Unlock() < CIPCQueue::Get()", outcome.trail);
}

TEST_F(ReplyQueueGet, StateTwoLeavesTheLockTakenWhenTheReadersProcessExits) {
  int tube[2];
  ASSERT_EQ(0, pipe(tube));
  const pid_t child = forkChild([&] {
    const long result = get(ME, -1).result;
    char go = 0;
    return read(tube[0], &go, 1) == 1 && result == -284 ? 0 : 1;
  });
  ASSERT_TRUE(waitUntil([this] { return replies_.waits.sleepers(2) == 1; }));
  replies_.lock();
  replies_.setState(2);
  replies_.waits.add(2, 1);
  EXPECT_TRUE(waitUntil([this] { return !replies_.locked(); }));
  EXPECT_EQ(1, write(tube[1], "g", 1));
  EXPECT_EQ(0, exitCodeOf(child));
  EXPECT_EQ(1, replies_.set.value(0));
}

TEST_F(ReplyQueueGet, RemovedSetEndsTheWait) {
  std::future<Outcome> got = startGet();
  replies_.waits.remove();
  const Outcome outcome = got.get();
  EXPECT_EQ(-272, outcome.result);
  EXPECT_EQ("-272 CIPCQueue::PrivateGet() < CIPCQueue::Get()", outcome.trail);
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, RemovedSetOfAClosedQueueIsTheState) {
  std::future<Outcome> got = startGet();
  replies_.setState(2);
  replies_.waits.remove();
  EXPECT_EQ(-284, got.get().result);
}

TEST_F(ReplyQueueGet, RemovedSetOfAQueueInStateOneIsTheFailedWait) {
  std::future<Outcome> got = startGet();
  replies_.setState(1);
  replies_.waits.remove();
  EXPECT_EQ(-272, got.get().result);
}

TEST_F(ReplyQueueGet, LockThatFailsAfterTheWaitIsTheResult) {
  std::future<Outcome> got = startGet();
  replies_.set.remove();
  replies_.waits.add(2, 1);
  EXPECT_EQ(-261, got.get().result);
}

// ---- cancelling ---------------------------------------------------------------------------------

TEST_F(ReplyQueueGet, CancelledWaitEndsAndTheRecordIsIdleAgain) {
  std::future<Outcome> got = startGet();
  replies_.setStatus(0, 3);
  replies_.waits.add(2, 1);
  const Outcome outcome = got.get();
  EXPECT_EQ(-277, outcome.result);
  EXPECT_EQ("-277 CIPCQueue::PrivateGet() < CIPCQueue::Get()", outcome.trail);
  EXPECT_EQ(0, replies_.status(0));
  EXPECT_EQ(1001U, replies_.process(0));
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, CancelledWaitLeavesALinkedReply) {
  std::future<Outcome> got = startGet();
  replies_.linkReply(0, replyRecord(1));
  replies_.setStatus(0, 3);
  replies_.waits.add(2, 1);
  EXPECT_EQ(-277, got.get().result);
  EXPECT_EQ(replies_.itemOffset(0), replies_.firstReply(0));
  EXPECT_EQ(1, replies_.usedItems());
}

TEST_F(ReplyQueueGet, CancelledStatusStaysUntilTheLastWaiterIsGone) {
  std::future<Outcome> first = startGet();
  std::future<Outcome> second = startGet();
  replies_.setStatus(0, 3);
  replies_.waits.add(2, 1);
  EXPECT_EQ(-277, first.get().result);
  EXPECT_EQ(3, replies_.status(0));
  replies_.waits.add(2, 1);
  EXPECT_EQ(-277, second.get().result);
  EXPECT_EQ(0, replies_.status(0));
}

TEST_F(ReplyQueueGet, StateIsLookedAtBeforeTheCancellation) {
  std::future<Outcome> got = startGet();
  replies_.lock();
  replies_.setState(1);
  replies_.setStatus(0, 3);
  replies_.unlock();
  replies_.waits.add(2, 1);
  EXPECT_EQ(-284, got.get().result);
  EXPECT_EQ(3, replies_.status(0));
}

// ---- threads of one identifier ------------------------------------------------------------------

TEST_F(ReplyQueueGet, StatusStaysUntilTheLastThreadOfAnIdentifierHasItsReply) {
  std::future<Outcome> first = startGet();
  std::future<Outcome> second = startGet();
  EXPECT_EQ(1, replies_.headsInUse());
  replies_.reply(0, replyRecord(1));
  EXPECT_EQ(replyRecord(1), first.get().reply);
  EXPECT_EQ(1, replies_.status(0));
  replies_.reply(0, replyRecord(2));
  EXPECT_EQ(replyRecord(2), second.get().reply);
  EXPECT_EQ(0, replies_.status(0));
}

TEST_F(ReplyQueueGet, ReplyWakesOnlyTheThreadThatItIsAddressedTo) {
  std::future<Outcome> mine = startGet();
  std::future<Outcome> others = startGet(OTHER, -1, 3);
  EXPECT_EQ(2, replies_.headsInUse());
  replies_.reply(1, replyRecord(2));
  EXPECT_EQ(replyRecord(2), others.get().reply);
  EXPECT_EQ(1, replies_.waits.sleepers(2));
  EXPECT_EQ(1, replies_.status(0));
  replies_.reply(0, replyRecord(1));
  EXPECT_EQ(replyRecord(1), mine.get().reply);
}

TEST_F(ReplyQueueGet, SleepersThatCannotBeAskedAreAFailureButTheReplyIsTaken) {
  std::future<Outcome> got = startGet();
  for (int i = 0; i < 3; ++i) replies_.linkReply(0, replyRecord(i));
  replies_.setSemaphore(0, 999);
  replies_.waits.add(2, 1);
  const Outcome outcome = got.get();
  EXPECT_EQ(-279, outcome.result);
  EXPECT_EQ("-279 CIPCQueue::PrivateGet() < CIPCQueue::Get()", outcome.trail);
  EXPECT_EQ(replyRecord(0), outcome.reply);
  EXPECT_EQ(2, replies_.usedItems());
  EXPECT_EQ(1, replies_.status(0));
  // The queue was full, but the room is made known only by a get that succeeds.
  EXPECT_EQ(0, replies_.waits.value(1));
}

// ---- room ---------------------------------------------------------------------------------------

TEST_F(ReplyQueueGet, RoomIsMadeKnownOnlyByTheGetThatLeavesFull) {
  claimForMe();
  for (int i = 0; i < 3; ++i) replies_.reply(0, replyRecord(i));
  EXPECT_EQ(0, get(ME, -1).result);
  EXPECT_EQ(1, replies_.waits.value(1));
  EXPECT_EQ(0, get(ME, -1).result);
  EXPECT_EQ(0, get(ME, -1).result);
  EXPECT_EQ(1, replies_.waits.value(1));
}

TEST_F(ReplyQueueGet, RoomThatCannotBeMadeKnownIsAFailureButTheReplyIsTaken) {
  claimForMe();
  for (int i = 0; i < 3; ++i) replies_.reply(0, replyRecord(i));
  replies_.waits.setValue(1, 32767);
  const Outcome got = get(ME, -1);
  EXPECT_EQ(-280, got.result);
  EXPECT_EQ("-280 CIPCQueue::PrivateGet() < CIPCQueue::Get()", got.trail);
  EXPECT_EQ(replyRecord(0), got.reply);
  EXPECT_EQ(2, replies_.usedItems());
  EXPECT_EQ(0, replies_.status(0));
  EXPECT_FALSE(replies_.locked());
}

// ---- by index -----------------------------------------------------------------------------------

TEST_F(ReplyQueueGet, ByIndexOutOfRangeIsRefused) {
  for (const long index : {3L, -2L, 65536L, 2147483647L, -2147483647L - 1L}) {
    EXPECT_EQ(-278, get(ME, index).result) << index;
    EXPECT_EQ("-278 CIPCQueue::PrivateGet()", errorTrail());
  }
  EXPECT_EQ(0, replies_.headsInUse());
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, ByIndexNeedsStatusTwo) {
  for (const uint8_t status : {uint8_t{0}, uint8_t{1}, uint8_t{3}}) {
    replies_.setStatus(1, status);
    EXPECT_EQ(-278, get(ME, 1).result);
  }
}

TEST_F(ReplyQueueGet, ByIndexReadsThroughTheRecordWhoseverItIs) {
  replies_.setOwner(1, 7, 7);
  replies_.setStatus(1, 2);
  std::future<Outcome> got = startGet(ME, 1, 3);
  EXPECT_EQ(2, replies_.status(1));
  replies_.reply(1, replyRecord(6));
  EXPECT_EQ(replyRecord(6), got.get().reply);
  EXPECT_EQ(2, replies_.status(1));
  EXPECT_EQ(7U, replies_.process(1));
}

TEST_F(ReplyQueueGet, ByIndexDoesNotAskForSleepers) {
  replies_.setStatus(1, 2);
  std::future<Outcome> got = startGet(ME, 1, 3);
  replies_.linkReply(1, replyRecord(6));
  replies_.setSemaphore(1, 999);
  replies_.waits.add(3, 1);
  EXPECT_EQ(0, got.get().result);
}

// ---- hostile values -----------------------------------------------------------------------------

TEST_F(ReplyQueueGet, OffsetsOfItemsThatAreNotBehindTheHeaderAndInTheSegmentAreRefused) {
  claimForMe();
  const uint32_t end = 12 + 3 * 16 + 3 * 532;
  for (const uint32_t offset : {1U, 11U, end - 531, end - 4, end - 1, end, end + 1, end + 532,
                                0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU, 0xFFFFFFFFU - 531}) {
    replies_.setFirstReply(0, offset);
    replies_.setUsedItems(1);
    replies_.waits.setValue(2, 1);
    replies_.setStatus(0, 1);
    const Bytes before = replies_.memory.all();
    const Outcome got = get(ME, -1);
    EXPECT_EQ(-283, got.result) << offset;
    EXPECT_EQ("-283 CIPCQueue::PrivateGet() < CIPCQueue::Get()", got.trail);
    EXPECT_EQ(Bytes(528, 0xEE), got.reply);
    EXPECT_EQ(before, replies_.memory.all());
    EXPECT_FALSE(replies_.locked());
  }
}

TEST_F(ReplyQueueGet, LastItemIsOne) {
  claimForMe();
  replies_.setFirstReply(0, 12 + 3 * 16 + 2 * 532);
  replies_.waits.setValue(2, 1);
  EXPECT_EQ(0, get(ME, -1).result);
}

TEST_F(ReplyQueueGet, ItemsLieWhereTheEngineHasPutThem) {
  claimForMe();
  uint32_t free = replies_.freeList();
  for (const uint32_t offset : {12U + 16, 12U + 3 * 16 + 1, 12U + 3 * 16 + 2 * 532 - 3}) {
    std::memcpy(replies_.memory.at(offset), replyRecord(7, 1, 5).data(), 528);
    const uint32_t next = offset + 1;
    std::memcpy(replies_.memory.at(offset + 528), &next, 4);
    replies_.setFirstReply(0, offset);
    replies_.setUsedItems(1);
    replies_.waits.setValue(2, 1);
    const Outcome got = get(ME, -1);
    EXPECT_EQ(0, got.result) << offset;
    EXPECT_EQ(replyRecord(7, 1, 5), got.reply) << offset;
    EXPECT_EQ(next, replies_.firstReply(0)) << offset;
    EXPECT_EQ(offset, replies_.freeList());
    EXPECT_EQ(0, std::memcmp(&free, replies_.memory.at(offset + 528), 4)) << offset;
    EXPECT_EQ(0, replies_.usedItems());
    free = offset;
  }
}

TEST_F(ReplyQueueGet, FreeListIsCarriedAlongUnseen) {
  claimForMe();
  replies_.reply(0, replyRecord(1));
  replies_.memory.put32(4, 0xDEADBEEF);
  EXPECT_EQ(0, get(ME, -1).result);
  EXPECT_EQ(0xDEADBEEF, replies_.link(0));
}

TEST_F(ReplyQueueGet, SemaphoreThatTheSetDoesNotHaveFails) {
  replies_.setSemaphore(0, 5);
  const Outcome got = get(ME, -1);
  EXPECT_EQ(-272, got.result);
  EXPECT_FALSE(replies_.locked());
}

// ---- stopping by an owner -----------------------------------------------------------------------

TEST_F(ReplyQueueGet, SetStateTwoEndsAWait) {
  std::future<Outcome> got = startGet();
  // The reader's unlock may come before the owner's, which then fails.
  const long result = queue_.SetState(2);
  EXPECT_TRUE(result == 0 || result == -262) << result;
  EXPECT_EQ(-284, got.get().result);
}

TEST_F(ReplyQueueGet, SetStateOneEndsEveryWait) {
  std::future<Outcome> first = startGet();
  std::future<Outcome> second = startGet();
  std::future<Outcome> third = startGet(OTHER, -1, 3);
  EXPECT_EQ(0, queue_.SetState(1));
  EXPECT_EQ(-284, first.get().result);
  EXPECT_EQ(-284, second.get().result);
  EXPECT_EQ(-284, third.get().result);
  EXPECT_FALSE(replies_.locked());
}

TEST_F(ReplyQueueGet, OtherStatesWakeNobody) {
  std::future<Outcome> got = startGet();
  EXPECT_EQ(0, queue_.SetState(3));
  EXPECT_EQ(1, replies_.waits.sleepers(2));
  EXPECT_EQ(0, queue_.SetState(0));
  replies_.reply(0, replyRecord(1));
  EXPECT_EQ(0, got.get().result);
}

TEST_F(ReplyQueueGet, SetStateReportsTheUnlockBeforeTheWaking) {
  replies_.waits.remove();
  EXPECT_EQ(-279, queue_.SetState(1));
  failUnlocksOf(replies_);
  EXPECT_EQ(-262, queue_.SetState(2));
  EXPECT_EQ(2U, replies_.memory.u32(8));
}

/// Threads that take a number of units of one semaphore and sleep until it has them.
class Sleepers {
 public:
  Sleepers(SemaphoreSet& set, int semaphore, int units, int threads) : set_(set) {
    for (int i = 0; i < threads; ++i) {
      threads_.emplace_back([&set, semaphore, units] {
        sembuf take = {static_cast<unsigned short>(semaphore), static_cast<short>(-units), 0};
        while (semtimedop(set.id(), &take, 1, nullptr) < 0 && errno == EINTR) continue;
      });
    }
    EXPECT_TRUE(waitUntil([&] { return set.sleepers(semaphore) == threads; }));
  }
  ~Sleepers() {
    set_.remove();
    join();
  }
  void join() {
    for (std::thread& thread : threads_) {
      if (thread.joinable()) thread.join();
    }
  }

 private:
  SemaphoreSet& set_;
  std::vector<std::thread> threads_;
};

TEST_F(ReplyQueueGet, AwakenAllRaisesByTheNumberOfSleepers) {
  {
    Sleepers writers(replies_.waits, 1, 1, 2);
    Sleepers readers(replies_.waits, 4, 1, 3);
    EXPECT_EQ(0, queue_.implAwakenAll());
    readers.join();
    writers.join();
    EXPECT_EQ(0, replies_.waits.value(1));
    EXPECT_EQ(0, replies_.waits.value(2));
    EXPECT_EQ(0, replies_.waits.value(4));
  }
  EXPECT_EQ(-279, queue_.implAwakenAll());
}

TEST_F(ReplyQueueGet, AwakenAllStopsAtWritersThatCannotBeRaised) {
  replies_.waits.setValue(1, 32766);
  Sleepers writers(replies_.waits, 1, 32767, 2);
  Sleepers readers(replies_.waits, 2, 1, 1);
  EXPECT_EQ(-280, queue_.implAwakenAll());
  EXPECT_EQ(1, replies_.waits.sleepers(2));
}

TEST_F(ReplyQueueGet, AwakenAllStopsAtAReaderThatCannotBeRaised) {
  replies_.waits.setValue(2, 32766);
  Sleepers first(replies_.waits, 2, 32767, 2);
  Sleepers second(replies_.waits, 3, 1, 1);
  EXPECT_EQ(-281, queue_.implAwakenAll());
  EXPECT_EQ(1, replies_.waits.sleepers(3));
}

TEST_F(ReplyQueueGet, AwakenAllStopsAtAHeadThatCannotBeAsked) {
  replies_.setSemaphore(0, 999);
  Sleepers readers(replies_.waits, 3, 1, 1);
  EXPECT_EQ(-279, queue_.implAwakenAll());
  EXPECT_EQ(1, replies_.waits.sleepers(3));
}

// ---- implInitialize -----------------------------------------------------------------------------

/// A queue object that could not be opened; its set is made and removed on its own.
class ReplyQueueSet : public testing::Test {
 protected:
  ReplyQueueSet() : queue_("/var/kelp/none", true) { touch(PATH); }

  /// Removes whatever set is left.
  ~ReplyQueueSet() override {
    calls::semop.watch();
    calls::semctl.watch();
    const int set = setAt(PATH, 3);
    if (set != -1) semctl(set, 0, IPC_RMID);
  }

  static int value(int number) { return semctl(setAt(PATH, 3), number, GETVAL); }
  static Lines both(const std::string& between) {
    return {"CIPCQueue_LINUX::implInitialize ENTER - name = /var/kelp/set, items = 5",
            "CIPCQueue_LINUX::implInitialize " + between};
  }

  static constexpr const char* PATH = "/var/kelp/set";
  Reader queue_;
};

TEST_F(ReplyQueueSet, IsCreatedWithTwoMoreSemaphoresThanItems) {
  const TraceLog log;
  EXPECT_TRUE(queue_.implInitialize(PATH, 5));
  EXPECT_EQ(both("EXIT - name = /var/kelp/set, items = 5"), log.lines());
  semid_ds info = {};
  ASSERT_EQ(0, semctl(setAt(PATH, 3), 0, IPC_STAT, &info));
  EXPECT_EQ(7U, info.sem_nsems);
  EXPECT_EQ(0666U, info.sem_perm.mode & 0777U);
  EXPECT_EQ(1, value(0));
  for (int i = 1; i < 7; ++i) EXPECT_EQ(0, value(i));
}

TEST_F(ReplyQueueSet, LeftOverOneIsReplaced) {
  SemaphoreSet stale(PATH, 3, 7);
  stale.setValue(0, 1);
  stale.setValue(3, 9);
  EXPECT_TRUE(queue_.implInitialize(PATH, 5));
  EXPECT_NE(stale.id(), setAt(PATH, 3));
  EXPECT_EQ(1, value(0));
  EXPECT_EQ(0, value(3));
}

TEST_F(ReplyQueueSet, WhoseFirstSemaphoreIsZeroIsTakenAndCleared) {
  SemaphoreSet fresh(PATH, 3, 9);
  fresh.setValue(3, 9);
  EXPECT_TRUE(queue_.implInitialize(PATH, 5));
  EXPECT_EQ(fresh.id(), setAt(PATH, 3));
  EXPECT_EQ(1, fresh.value(0));
  EXPECT_EQ(0, fresh.value(3));
}

TEST_F(ReplyQueueSet, WithTooFewSemaphoresCannotBeTaken) {
  SemaphoreSet small(PATH, 3, 6);
  const TraceLog log;
  EXPECT_FALSE(queue_.implInitialize(PATH, 5));
  EXPECT_EQ(both("- ERROR - semget IPC_CREAT errno = 22, sem_num = 7"), log.lines());
}

TEST_F(ReplyQueueSet, WithoutNameFileFails) {
  const TraceLog log;
  EXPECT_FALSE(queue_.implInitialize("/var/kelp/nowhere", 5));
  EXPECT_EQ((Lines{"CIPCQueue_LINUX::implInitialize ENTER - name = /var/kelp/nowhere, items = 5",
                   "CIPCQueue_LINUX::implInitialize - ERROR - ftok errno = 2"}),
            log.lines());
}

TEST_F(ReplyQueueSet, IsNotCreatedByOpening) {
  EXPECT_FALSE(queue_.implInitialize(PATH, 0));
  EXPECT_EQ(-1, setAt(PATH, 3));
  SemaphoreSet one(PATH, 3, 1);
  EXPECT_FALSE(queue_.implInitialize(PATH, 0));
}

TEST_F(ReplyQueueSet, FailuresOfSemctlHaveTheirTexts) {
  const TraceLog log;
  int failing = GETVAL;
  calls::semctl.ask(
      [&failing](int, int, int command, TSemArgument) { return command == failing ? ERANGE : 0; });
  EXPECT_FALSE(queue_.implInitialize(PATH, 5));
  failing = SETALL;
  EXPECT_FALSE(queue_.implInitialize(PATH, 5));
  failing = IPC_RMID;
  SemaphoreSet::add(setAt(PATH, 3), 0, 1);
  EXPECT_FALSE(queue_.implInitialize(PATH, 5));
  const Lines lines = log.lines("CIPCQueue_LINUX::implInitialize - ");
  EXPECT_EQ((Lines{"CIPCQueue_LINUX::implInitialize - ERROR - semctl GETVAL errno = 34",
                   "CIPCQueue_LINUX::implInitialize - ERROR - semctl SETALL errno = 34",
                   "CIPCQueue_LINUX::implInitialize - ERROR - semctl IPC_RMID errno = 34"}),
            lines);
}

TEST_F(ReplyQueueSet, FailureOfTheFirstRaiseHasItsText) {
  const TraceLog log;
  calls::semop.ask([](int, const sembuf* operations, size_t) {
    EXPECT_EQ(0, operations->sem_num);
    EXPECT_EQ(1, operations->sem_op);
    EXPECT_EQ(0, operations->sem_flg);
    return EFBIG;
  });
  EXPECT_FALSE(queue_.implInitialize(PATH, 5));
  EXPECT_EQ(both("- ERROR - semop Semaphore #0 initialization errno = 27"), log.lines());
}

TEST_F(ReplyQueueSet, IsRemovedByAnOwnerAndNobodyElse) {
  EXPECT_TRUE(queue_.implInitialize(PATH, 5));
  Reader other("/var/kelp/none", false);
  EXPECT_TRUE(other.implInitialize(PATH, 0));
  other.implDestroy();
  EXPECT_NE(-1, setAt(PATH, 3));
  queue_.implDestroy();
  EXPECT_EQ(-1, setAt(PATH, 3));
}

}  // namespace
}  // namespace armtest
