// The writer's end of the request queue, against a segment laid by hand.

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <random>
#include <thread>

#include "calls.h"
#include "errortrail.h"
#include "ipc/CIPCSimpleQueue.h"
#include "process.h"
#include "rawqueues.h"
#include "tracing.h"

namespace armtest {
namespace {

using Queue = CIPCSimpleQueue<TArmMessage>;

constexpr const char* NAME = "/var/kelp/controls_ae.kelp";

/// A record whose every byte depends on the seed.
TArmMessage message(uint8_t seed) {
  TArmMessage made;
  auto* bytes = reinterpret_cast<uint8_t*>(&made);
  for (size_t i = 0; i < 4116; ++i) bytes[i] = static_cast<uint8_t>(seed + i * 13 + i / 256);
  return made;
}

Bytes bytesOf(const TArmMessage& made) {
  const auto* bytes = reinterpret_cast<const uint8_t*>(&made);
  return Bytes(bytes, bytes + sizeof made);
}

bool isLock(const sembuf* operations, size_t count) {
  return count == 2 && operations[0].sem_op == 0;
}
bool isUnlock(const sembuf* operations, size_t count) {
  return count == 1 && operations[0].sem_op == -1 && operations[0].sem_num == 0 &&
         operations[0].sem_flg == 0x1800;
}

/// Fails the next unlock of the segment.
void failUnlockOf(const RequestQueue& ring) {
  auto failed = std::make_shared<bool>(false);
  calls::semop.ask([set = ring.set.id(), failed](int id, const sembuf* operations, size_t count) {
    if (id != set || !isUnlock(operations, count) || *failed) return calls::RUN_IT;
    *failed = true;
    return EIDRM;
  });
}

// ---- opening ------------------------------------------------------------------------------------

TEST(RequestQueueOpening, OfARunningQueueInitializes) {
  RequestQueue ring(3);
  Queue queue(NAME);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_TRUE(queue.CreatorAlive());
  EXPECT_TRUE(queue.IsReadyForIO());
  EXPECT_EQ(50300U, queue.GetArmVersion());
}

TEST(RequestQueueOpening, WithoutOverflowSemaphoreFailsWithItsText) {
  RequestQueue ring(3);
  ring.overflow.remove();
  const TraceLog log;
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on VOverflowSem"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, WithoutEmptySemaphoreFailsWithItsText) {
  RequestQueue ring(3);
  ring.empty.remove();
  const TraceLog log;
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on the empty queue wait sem"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, WithoutSegmentFailsWithItsText) {
  RequestQueue ring(3);
  ring.set.remove();
  const TraceLog log;
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on the shared memory"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, OfAStoppedQueueFailsWithItsText) {
  RequestQueue ring(3);
  ring.setState(1);
  const TraceLog log;
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue VQueueState is bad"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, LooksAtTheOverflowSemaphoreFirst) {
  const TraceLog log;
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_EQ((Lines{"CkesSemaphore_LINUX::implOpen ftok call failed[2] for "
                   "i_Name[/var/kelp/controls_ae.kelp_ovr]",
                   "CIPCSimpleQueue Failed on VOverflowSem"}),
            log.lines());
}

/// Opens a queue whose engine is replaced after the semaphores have been opened.
void openWhileReplaced(RequestQueue& ring, SemaphoreSet& set, const std::string& name) {
  std::unique_ptr<SemaphoreSet> next;
  calls::semctl.ask([&](int id, int, int, TSemArgument) {
    if (id != ring.set.id() || next != nullptr) return calls::RUN_IT;
    set.remove();
    next = std::make_unique<SemaphoreSet>(AE + name, 1, 3);
    next->setValue(2, 1);
    return calls::RUN_IT;
  });
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_NE(nullptr, next);
  calls::semctl.watch();
  EXPECT_TRUE(Queue(NAME).IsInitialized());
}

TEST(RequestQueueOpening, FailsOnceWhenTheEmptySemaphoreIsReplacedMeanwhile) {
  RequestQueue ring(3);
  const TraceLog log;
  openWhileReplaced(ring, ring.empty, "_emp");
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on replaced semaphores"}, log.lines("CIPCSimple"));
}

TEST(RequestQueueOpening, FailsOnceWhenTheOverflowSemaphoreIsReplacedMeanwhile) {
  RequestQueue ring(3);
  const TraceLog log;
  openWhileReplaced(ring, ring.overflow, "_ovr");
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on replaced semaphores"}, log.lines("CIPCSimple"));
}

TEST(RequestQueueOpening, WithoutTracingLogsNothing) {
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_FALSE(traceExists());
}

TEST(RequestQueueOpening, WithoutMemoryForASegmentFailsWithItsText) {
  RequestQueue ring(3);
  const TraceLog log;
  for (int allowed = 0; allowed < 3; ++allowed) {
    int left = allowed;
    calls::refuseMemory([&left](size_t) { return left-- == 0; });
    EXPECT_FALSE(Queue(NAME).IsInitialized());
    calls::giveMemory();
  }
  EXPECT_EQ((Lines{"CIPCSimpleQueue Failed on VOverflowSem",
                   "CIPCSimpleQueue Failed on the empty queue wait sem",
                   "CIPCSimpleQueue Failed on the shared memory"}),
            log.lines("CIPC"));
}

TEST(RequestQueueOpening, ThatFailsLeavesNoAttachment) {
  RequestQueue ring(3);
  ring.setState(2);
  const Queue queue(NAME);
  EXPECT_FALSE(queue.IsInitialized());
  EXPECT_EQ(1U, ring.memory.attachments());
}

TEST(RequestQueueOpening, WritesTheVersionWordBeforeItLooksAtTheState) {
  RequestQueue ring(3);
  ring.setVersion(7);
  ring.setState(1);
  EXPECT_FALSE(Queue(NAME).IsInitialized());
  EXPECT_EQ(50300U, ring.version());
}

TEST(RequestQueueOpening, WritesTheVersionWordEachTime) {
  RequestQueue ring(3);
  const Queue first(NAME);
  ring.setVersion(7);
  const Queue second(NAME);
  EXPECT_EQ(50300U, ring.version());
  EXPECT_EQ(0, std::memcmp("\x7C\xC4\x00\x00", ring.memory.at(20), 4));
}

TEST(RequestQueueOpening, WritesTheVersionWordWithoutTheLock) {
  RequestQueue ring(3);
  ring.lock();
  EXPECT_TRUE(Queue(NAME).IsInitialized());
  EXPECT_EQ(50300U, ring.version());
  EXPECT_TRUE(ring.locked());
}

TEST(RequestQueueOpening, ChangesNothingButTheVersionWord) {
  RequestQueue ring(3);
  std::memset(ring.memory.at(0), 0x5A, ring.memory.mappedSize());
  ring.setState(0);
  Bytes expected = ring.memory.all();
  std::memcpy(expected.data() + 20, "\x7C\xC4\x00\x00", 4);
  { const Queue queue(NAME); }
  EXPECT_EQ(expected, ring.memory.all());
}

TEST(RequestQueueOpening, AcceptsADeadCreator) {
  RequestQueue ring(3);
  ring.creatorDies();
  Queue queue(NAME);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_FALSE(queue.CreatorAlive());
  EXPECT_EQ(0, queue.Put(message(1)));
  EXPECT_EQ(1, ring.count());
}

TEST(RequestQueueOpening, OfAnythingElseReportsNothing) {
  const Queue queue(NAME);
  EXPECT_FALSE(queue.CreatorAlive());
  EXPECT_FALSE(queue.IsReadyForIO());
  EXPECT_EQ(0U, queue.GetArmVersion());
}

TEST(RequestQueueOpening, ReadyAndVersionAreReadEachTime) {
  RequestQueue ring(3);
  ring.setReady(0);
  Queue queue(NAME);
  EXPECT_FALSE(queue.IsReadyForIO());
  ring.setReady(0x80000000);
  EXPECT_TRUE(queue.IsReadyForIO());
  ring.setVersion(0xFFFFFFFF);
  EXPECT_EQ(0xFFFFFFFFUL, queue.GetArmVersion());
  ring.creatorDies();
  EXPECT_FALSE(queue.CreatorAlive());
}

// ---- capacity -----------------------------------------------------------------------------------

/// Puts until one is refused, at most 10 times.
size_t putsAccepted(Queue& queue) {
  for (size_t i = 0; i < 10; ++i) {
    const long result = queue.Put(message(static_cast<uint8_t>(i)));
    if (result == 0) continue;
    EXPECT_EQ(-274, result);
    return i;
  }
  return 10;
}

TEST(RequestQueueCapacity, ThreeSlotsExactly) {
  RequestQueue ring(AE, 28 + 3 * 4116);
  Queue queue(NAME);
  EXPECT_EQ(3U, putsAccepted(queue));
  EXPECT_EQ(3, ring.count());
}

TEST(RequestQueueCapacity, SpareBytesAreNoSlot) {
  RequestQueue ring(AE, 28 + 3 * 4116 + 4115);
  Queue queue(NAME);
  EXPECT_EQ(3U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, OneByteTooFewIsOneSlotLess) {
  RequestQueue ring(AE, 28 + 3 * 4116 - 1);
  Queue queue(NAME);
  EXPECT_EQ(2U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, IsKeptInSixteenBits) {
  RequestQueue ring(AE, 28 + size_t{65536 + 1} * 4116);
  Queue queue(NAME);
  EXPECT_EQ(1U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, HeaderAloneIsAlwaysFull) {
  RequestQueue ring(AE, 28);
  Queue queue(NAME);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_EQ(0U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, SegmentSmallerThanTheHeaderDoesNotInitialize) {
  for (const size_t size : {size_t{27}, size_t{1}}) {
    RequestQueue ring(AE, size);
    const Bytes before = ring.memory.all();
    EXPECT_FALSE(Queue(NAME).IsInitialized());
    EXPECT_EQ(before, ring.memory.all());
    EXPECT_EQ(1U, ring.memory.attachments());
  }
}

// ---- putting ------------------------------------------------------------------------------------

class RequestQueuePut : public testing::Test {
 protected:
  RequestQueuePut() : ring_(3), queue_(NAME) { ring_.fillSlots(0xEE); }

  /// A put that is refused: its code, and not a byte of the segment changes.
  void expectRefused(long code, bool front = false) {
    const Bytes before = ring_.memory.all();
    const int raised = ring_.empty.value(0);
    EXPECT_EQ(code, front ? queue_.PrivatePut(message(9), true) : queue_.Put(message(9)));
    EXPECT_EQ(before, ring_.memory.all());
    EXPECT_EQ(raised, ring_.empty.value(0));
    EXPECT_FALSE(ring_.locked());
  }

  RequestQueue ring_;
  Queue queue_;
};

TEST_F(RequestQueuePut, CopiesTheWholeRecordIntoTheSlotAtTheTail) {
  ring_.setRing(0, 1, 1);
  Bytes expected = ring_.memory.all();
  const Bytes record = bytesOf(message(5));
  std::copy(record.begin(), record.end(), expected.begin() + 28 + 1 * 4116);
  expected[0] = 1;
  expected[4] = 2;
  EXPECT_EQ(0, queue_.Put(message(5)));
  EXPECT_EQ(expected, ring_.memory.all());
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueuePut, GoesToSlotZeroAgainAfterTheLast) {
  for (uint8_t i = 0; i < 3; ++i) EXPECT_EQ(0, queue_.Put(message(i)));
  EXPECT_EQ(0, ring_.tail());
  for (uint8_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(message(i)), ring_.take());
  EXPECT_EQ(0, ring_.count());
  EXPECT_EQ(0, queue_.Put(message(3)));
  EXPECT_EQ(bytesOf(message(3)), ring_.slot(0));
  EXPECT_EQ(bytesOf(message(1)), ring_.slot(1));
  EXPECT_EQ(1, ring_.tail());
}

TEST_F(RequestQueuePut, RaisesTheEmptySemaphoreOnlyWhenTheQueueWasEmpty) {
  EXPECT_EQ(0, queue_.Put(message(0)));
  EXPECT_EQ(1, ring_.empty.value(0));
  EXPECT_EQ(0, queue_.Put(message(1)));
  EXPECT_EQ(0, queue_.Put(message(2)));
  EXPECT_EQ(1, ring_.empty.value(0));
  EXPECT_EQ(0, ring_.overflow.value(0));
}

TEST_F(RequestQueuePut, RaisesTheEmptySemaphoreAgainAfterTheQueueWasEmptied) {
  EXPECT_EQ(0, queue_.Put(message(0)));
  ring_.take();
  EXPECT_EQ(0, queue_.Put(message(1)));
  EXPECT_EQ(2, ring_.empty.value(0));
}

TEST_F(RequestQueuePut, IgnoresThatTheEmptySemaphoreCannotBeRaised) {
  ring_.empty.remove();
  EXPECT_EQ(0, queue_.Put(message(0)));
  EXPECT_EQ(1, ring_.count());
}

TEST_F(RequestQueuePut, IntoAFullQueueIsRefusedAndTheRecordLost) {
  EXPECT_EQ(3U, putsAccepted(queue_));
  expectRefused(-274);
  expectRefused(-274, true);
  EXPECT_EQ(3, ring_.count());
  EXPECT_EQ(0U, ring_.overflowWaiters());
}

TEST_F(RequestQueuePut, OverflowIsRecordedUnderTheNameOfTheOtherQueue) {
  ring_.setRing(3, 0, 0);
  EXPECT_EQ(-274, queue_.Put(message(0)));
  EXPECT_EQ(
      "-274 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
}

TEST_F(RequestQueuePut, IntoAStoppedQueueWritesNothing) {
  for (const uint32_t state : {1U, 2U, 3U, 0x80000000U}) {
    ring_.setState(state);
    expectRefused(-284);
  }
  EXPECT_EQ("-284 CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()", errorTrail());
}

TEST_F(RequestQueuePut, LooksAtTheStateBeforeTheOverflow) {
  ring_.setRing(3, 0, 0);
  ring_.setState(1);
  expectRefused(-284);
}

TEST_F(RequestQueuePut, WithoutTheLockSetFails) {
  ring_.set.remove();
  EXPECT_EQ(-261, queue_.Put(message(0)));
  EXPECT_EQ(
      "-261 CkesSharedMemory::Lock() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
  EXPECT_EQ(0, ring_.count());
}

TEST_F(RequestQueuePut, FailureOfTheUnlockReplacesSuccess) {
  failUnlockOf(ring_);
  EXPECT_EQ(-262, queue_.Put(message(4)));
  EXPECT_EQ(
      "-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
  EXPECT_EQ(1, ring_.count());
  EXPECT_EQ(bytesOf(message(4)), ring_.slot(0));
}

TEST_F(RequestQueuePut, FailureOfTheUnlockReplacesAnEarlierError) {
  ring_.setState(1);
  failUnlockOf(ring_);
  EXPECT_EQ(-262, queue_.Put(message(4)));
  EXPECT_EQ(
      "-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
}

TEST_F(RequestQueuePut, InterruptedLockIsRepeated) {
  int locks = 0;
  calls::semop.ask([&](int set, const sembuf* operations, size_t count) {
    if (set != ring_.set.id() || !isLock(operations, count)) return calls::RUN_IT;
    return ++locks <= 3 ? EINTR : calls::RUN_IT;
  });
  EXPECT_EQ(0, queue_.Put(message(0)));
  calls::semop.watch();
  EXPECT_EQ(4, locks);
}

TEST_F(RequestQueuePut, InterruptedUnlockIsNotRepeated) {
  int unlocks = 0;
  calls::semop.ask([&](int set, const sembuf* operations, size_t count) {
    if (set != ring_.set.id() || !isUnlock(operations, count)) return calls::RUN_IT;
    ++unlocks;
    return EINTR;
  });
  EXPECT_EQ(-262, queue_.Put(message(0)));
  calls::semop.watch();
  EXPECT_EQ(1, unlocks);
}

TEST_F(RequestQueuePut, WaitsForTheLock) {
  ring_.lock();
  std::future<long> put = std::async(std::launch::async, [this] { return queue_.Put(message(0)); });
  EXPECT_TRUE(waitUntil([this] { return semctl(ring_.set.id(), 0, GETZCNT) == 1; }));
  EXPECT_EQ(0, ring_.count());
  ring_.unlock();
  EXPECT_EQ(0, put.get());
}

TEST(RequestQueue, ThatIsNotOpenRefusesToPut) {
  Queue queue(NAME);
  EXPECT_EQ(-276, queue.Put(message(0)));
  EXPECT_EQ("-276 CIPCSimpleQueue<T>::Put()", errorTrail());
}

TEST(RequestQueue, TakesRecordsOfManyThreadsWhole) {
  RequestQueue ring(64);
  Queue queue(NAME);
  std::vector<std::thread> writers;
  for (uint8_t writer = 0; writer < 4; ++writer) {
    writers.emplace_back([&queue, writer] {
      for (int i = 0; i < 16; ++i) EXPECT_EQ(0, queue.Put(message(writer)));
    });
  }
  for (std::thread& writer : writers) writer.join();
  ASSERT_EQ(64, ring.count());
  size_t found[4] = {};
  for (int i = 0; i < 64; ++i) {
    const Bytes record = ring.take();
    ASSERT_LT(record[0], 4);
    EXPECT_EQ(bytesOf(message(record[0])), record);
    ++found[record[0]];
  }
  for (const size_t count : found) EXPECT_EQ(16U, count);
}

// ---- front insert -------------------------------------------------------------------------------

TEST_F(RequestQueuePut, FrontInsertIntoAnEmptyRingWritesAtTheHeadAndAdvancesTheTail) {
  ring_.setRing(0, 1, 1);
  EXPECT_EQ(0, queue_.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring_.slot(1));
  EXPECT_EQ(1, ring_.count());
  EXPECT_EQ(1, ring_.head());
  EXPECT_EQ(2, ring_.tail());
  EXPECT_EQ(1, ring_.empty.value(0));
}

TEST_F(RequestQueuePut, FrontInsertIntoAnEmptyRingWrapsTheTail) {
  ring_.setRing(0, 2, 2);
  EXPECT_EQ(0, queue_.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring_.slot(2));
  EXPECT_EQ(2, ring_.head());
  EXPECT_EQ(0, ring_.tail());
}

TEST_F(RequestQueuePut, FrontInsertWithHeadZeroWritesAtTheLastSlot) {
  ring_.setRing(1, 0, 1);
  EXPECT_EQ(0, queue_.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring_.slot(2));
  EXPECT_EQ(2, ring_.count());
  EXPECT_EQ(2, ring_.head());
  EXPECT_EQ(1, ring_.tail());
  EXPECT_EQ(0, ring_.empty.value(0));
}

TEST_F(RequestQueuePut, FrontInsertStepsTheHeadBackByOne) {
  ring_.setRing(1, 2, 0);
  EXPECT_EQ(0, queue_.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring_.slot(1));
  EXPECT_EQ(1, ring_.head());
  EXPECT_EQ(0, ring_.tail());
}

// ---- draining the overflow semaphore ------------------------------------------------------------

TEST_F(RequestQueuePut, ThatFillsTheQueueDrainsTheOverflowSemaphore) {
  ring_.overflow.setValue(0, 5);
  EXPECT_EQ(0, queue_.Put(message(0)));
  EXPECT_EQ(0, queue_.Put(message(1)));
  EXPECT_EQ(5, ring_.overflow.value(0));
  EXPECT_EQ(0, queue_.Put(message(2)));
  EXPECT_EQ(0, ring_.overflow.value(0));
}

TEST_F(RequestQueuePut, OnlyNothingLeftEndsTheDrainAndAFailureRepeatsIt) {
  ring_.setRing(2, 0, 2);
  ring_.overflow.setValue(0, 2);
  int calls = 0;
  calls::semop.ask([&](int set, const sembuf*, size_t) {
    if (set != ring_.overflow.id()) return calls::RUN_IT;
    EXPECT_TRUE(ring_.locked());
    ++calls;
    return calls <= 3 ? (calls == 2 ? EINTR : EINVAL) : calls::RUN_IT;
  });
  EXPECT_EQ(0, queue_.Put(message(0)));
  calls::semop.watch();
  EXPECT_EQ(3 + 2 + 1, calls);
  EXPECT_EQ(0, ring_.overflow.value(0));
}

TEST(RequestQueue, OfOneSlotIsRaisedAndNotDrained) {
  RequestQueue ring(1);
  ring.overflow.setValue(0, 5);
  Queue queue(NAME);
  EXPECT_EQ(0, queue.Put(message(0)));
  EXPECT_EQ(1, ring.empty.value(0));
  EXPECT_EQ(5, ring.overflow.value(0));
}

// ---- waiting for room ---------------------------------------------------------------------------

/// A full queue of three, and a thread that waits to put one more.
class RequestQueueWait : public testing::Test {
 protected:
  RequestQueueWait() : ring_(3), queue_(NAME) {
    for (uint8_t i = 0; i < 3; ++i) queue_.Put(message(i));
    queue_.SetOverflowWait(true);
  }

  void startPut() {
    put_ = std::async(std::launch::async, [this] {
      (void)CkesErrorManager::RegisterThread();
      const long result = queue_.Put(message(9));
      trail_ = errorTrail();
      (void)CkesErrorManager::UnregisterThread();
      return result;
    });
    ASSERT_TRUE(waitUntil([this] { return sleeping(1); }));
  }

  /// True when the writer sleeps in its given pass.
  bool sleeping(uint32_t pass) const {
    return ring_.overflowWaiters() == pass && ring_.overflow.sleepers(0) == 1;
  }

  void raiseWithoutRoom() { ring_.overflow.add(0, 1); }

  void makeRoom() {
    ring_.take();
    ring_.overflow.add(0, 1);
  }

  RequestQueue ring_;
  Queue queue_;
  std::future<long> put_;
  std::string trail_;
};

TEST_F(RequestQueueWait, LastsUntilTheReaderMakesRoom) {
  startPut();
  EXPECT_FALSE(ring_.locked());
  EXPECT_EQ(3, ring_.count());
  makeRoom();
  EXPECT_EQ(0, put_.get());
  EXPECT_EQ(3, ring_.count());
  EXPECT_EQ(bytesOf(message(9)), ring_.slot(0));
  EXPECT_EQ(0U, ring_.overflowWaiters());
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueueWait, CountsTheWaiterInEachPassAndOutOnce) {
  startPut();
  raiseWithoutRoom();
  EXPECT_TRUE(waitUntil([this] { return sleeping(2); }));
  raiseWithoutRoom();
  EXPECT_TRUE(waitUntil([this] { return sleeping(3); }));
  makeRoom();
  EXPECT_EQ(0, put_.get());
  EXPECT_EQ(2U, ring_.overflowWaiters());
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueueWait, SecondPassTestsAndCountsWithoutTheLockAndDoesNotUnlockAgain) {
  startPut();
  ring_.lock();
  raiseWithoutRoom();
  EXPECT_TRUE(waitUntil([this] { return sleeping(2); }));
  EXPECT_TRUE(ring_.locked());
  ring_.unlock();
  makeRoom();
  EXPECT_EQ(0, put_.get());
}

TEST_F(RequestQueueWait, EndsWhenTheStateChanges) {
  startPut();
  ring_.setState(1);
  raiseWithoutRoom();
  EXPECT_EQ(-284, put_.get());
  EXPECT_EQ(
      "-284 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      trail_);
  EXPECT_EQ(3, ring_.count());
  EXPECT_EQ(0U, ring_.overflowWaiters());
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueueWait, EndsWhenTheStateChangesEvenWithRoom) {
  startPut();
  ring_.setState(7);
  makeRoom();
  EXPECT_EQ(-284, put_.get());
  EXPECT_EQ(2, ring_.count());
}

TEST_F(RequestQueueWait, EndsWhenTheSemaphoreIsRemoved) {
  startPut();
  ring_.overflow.remove();
  EXPECT_EQ(-141, put_.get());
  EXPECT_EQ(
      "-141 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      trail_);
  EXPECT_EQ(0U, ring_.overflowWaiters());
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueueWait, EndsWhenTheSegmentCannotBeUnlocked) {
  failUnlockOf(ring_);
  EXPECT_EQ(-262, queue_.Put(message(9)));
  EXPECT_EQ(
      "-262 CkesSharedMemory::Unlock() < CIPCQueue::CheckOverflow() < "
      "CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()",
      errorTrail());
  EXPECT_EQ(0U, ring_.overflowWaiters());
  EXPECT_FALSE(ring_.locked());
}

/// The lock that follows the wait fails; the unlock that ends the put is made to look good.
void failRelockOf(const RequestQueue& ring) {
  auto locks = std::make_shared<int>(0);
  calls::semop.ask([set = ring.set.id(), locks](int id, const sembuf* operations, size_t count) {
    if (id != set) return calls::RUN_IT;
    if (isLock(operations, count)) return ++*locks == 2 ? EIDRM : calls::RUN_IT;
    return *locks == 2 ? calls::PRETEND_SUCCESS : calls::RUN_IT;
  });
}

TEST_F(RequestQueueWait, LockThatFailsAfterTheWaitIsTheResult) {
  failRelockOf(ring_);
  startPut();
  makeRoom();
  EXPECT_EQ(-261, put_.get());
  EXPECT_EQ(
      "-261 CkesSharedMemory::Lock() < CIPCQueue::CheckOverflow() < "
      "CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()",
      trail_);
  EXPECT_EQ(2, ring_.count());
  EXPECT_EQ(0U, ring_.overflowWaiters());
}

TEST_F(RequestQueueWait, LockThatFailsAfterAnErrorLeavesTheEarlierErrorRecorded) {
  failRelockOf(ring_);
  startPut();
  ring_.setState(2);
  raiseWithoutRoom();
  EXPECT_EQ(-284, put_.get());
  EXPECT_EQ(
      "-284 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      trail_);
}

TEST_F(RequestQueueWait, GoesOnAfterSignals) {
  std::atomic<int> waits{0};
  calls::semop.ask([this, &waits](int set, const sembuf*, size_t) {
    if (set != ring_.overflow.id()) return calls::RUN_IT;
    return ++waits <= 3 ? EINTR : calls::RUN_IT;
  });
  startPut();
  EXPECT_EQ(4, waits);
  EXPECT_EQ(1U, ring_.overflowWaiters());
  makeRoom();
  EXPECT_EQ(0, put_.get());
  calls::semop.watch();
}

TEST_F(RequestQueueWait, IsOffUntilItIsAskedFor) {
  Queue other(NAME);
  EXPECT_EQ(-274, other.Put(message(0)));
}

// ---- what an owner uses -------------------------------------------------------------------------

TEST_F(RequestQueuePut, StatesOneAndTwoWakeEveryWaiterOnce) {
  for (const unsigned long state : {1UL, 2UL}) {
    ring_.empty.setValue(0, 0);
    ring_.overflow.setValue(0, 0);
    ring_.setEmptyWaiters(3);
    ring_.setOverflowWaiters(2);
    EXPECT_EQ(0, queue_.SetState(state));
    EXPECT_EQ(state, ring_.state());
    EXPECT_EQ(3, ring_.empty.value(0));
    EXPECT_EQ(2, ring_.overflow.value(0));
    EXPECT_FALSE(ring_.locked());
  }
}

TEST_F(RequestQueuePut, OtherStatesWakeNobody) {
  ring_.setEmptyWaiters(3);
  ring_.setOverflowWaiters(2);
  for (const unsigned long state : {3UL, 0UL}) {
    EXPECT_EQ(0, queue_.SetState(state));
    EXPECT_EQ(state, ring_.state());
    EXPECT_EQ(0, ring_.empty.value(0));
    EXPECT_EQ(0, ring_.overflow.value(0));
  }
}

TEST_F(RequestQueuePut, WakingStopsAtTheFirstRaiseThatFails) {
  ring_.empty.setValue(2, 2);
  Queue other(NAME);
  ring_.setEmptyWaiters(5);
  ring_.setOverflowWaiters(5);
  EXPECT_EQ(-144, other.SetState(1));
  EXPECT_EQ("-144 CkesSemaphore::Post(long) < CIPCSimpleQueue<T>::SetState()", errorTrail());
  EXPECT_EQ(1U, ring_.state());
  EXPECT_EQ(2, ring_.empty.value(0));
  EXPECT_EQ(0, ring_.overflow.value(0));
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueuePut, StateIsWrittenThoughTheUnlockFails) {
  failUnlockOf(ring_);
  EXPECT_EQ(-262, queue_.SetState(1));
  EXPECT_EQ("-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::SetState()", errorTrail());
  EXPECT_EQ(1U, ring_.state());
}

TEST_F(RequestQueueWait, EndsWithSetState) {
  startPut();
  EXPECT_EQ(0, queue_.SetState(2));
  EXPECT_EQ(-284, put_.get());
  EXPECT_EQ(0U, ring_.overflowWaiters());
}

TEST_F(RequestQueuePut, CleanupEmptiesTheRing) {
  EXPECT_EQ(0, queue_.Put(message(0)));
  EXPECT_EQ(0, queue_.Put(message(1)));
  ring_.take();
  ring_.empty.setValue(0, 3);
  ring_.setOverflowWaiters(4);
  EXPECT_EQ(0, queue_.Cleanup());
  EXPECT_EQ(0, ring_.count());
  EXPECT_EQ(0, ring_.head());
  EXPECT_EQ(0, ring_.tail());
  EXPECT_EQ(2, ring_.empty.value(0));
  EXPECT_EQ(4, ring_.overflow.value(0));
  EXPECT_EQ(4U, ring_.overflowWaiters());
  EXPECT_EQ(0U, ring_.state());
  EXPECT_FALSE(ring_.locked());
}

TEST_F(RequestQueuePut, CleanupDoesNotWaitForTheEmptySemaphore) {
  EXPECT_EQ(0, queue_.Cleanup());
  EXPECT_EQ(0, ring_.empty.value(0));
}

TEST_F(RequestQueuePut, CleanupDoesNotRepeatAnInterruptedTryWait) {
  ring_.empty.setValue(0, 3);
  int calls = 0;
  calls::semop.ask([&](int set, const sembuf*, size_t) {
    if (set != ring_.empty.id()) return calls::RUN_IT;
    return ++calls == 1 ? EINTR : calls::RUN_IT;
  });
  EXPECT_EQ(0, queue_.Cleanup());
  calls::semop.watch();
  EXPECT_EQ(1, calls);
  EXPECT_EQ(3, ring_.empty.value(0));
}

TEST_F(RequestQueuePut, CleanupReportsLockAndUnlock) {
  failUnlockOf(ring_);
  EXPECT_EQ(-262, queue_.Cleanup());
  EXPECT_EQ("-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::Cleanup()", errorTrail());
  ring_.set.remove();
  EXPECT_EQ(-261, queue_.Cleanup());
  EXPECT_EQ("-261 CkesSharedMemory::Lock() < CIPCSimpleQueue<T>::Cleanup()", errorTrail());
  EXPECT_EQ(-261, queue_.SetState(1));
  EXPECT_EQ("-261 CkesSharedMemory::Lock() < CIPCSimpleQueue<T>::SetState()", errorTrail());
}

TEST(RequestQueue, ThatIsNotOpenRefusesToClean) {
  Queue queue(NAME);
  EXPECT_EQ(-276, queue.Cleanup());
  EXPECT_EQ("-276 CIPCSimpleQueue<T>::Cleanup()", errorTrail());
}

TEST(RequestQueue, DestructorOfANonOwnerChangesNothing) {
  RequestQueue ring(3);
  auto queue = std::make_unique<Queue>(NAME);
  EXPECT_EQ(0, queue->Put(message(0)));
  ring.setOverflowWaiters(2);
  ring.setEmptyWaiters(2);
  const Bytes before = ring.memory.all();
  EXPECT_EQ(2U, ring.memory.attachments());
  queue.reset();
  EXPECT_EQ(before, ring.memory.all());
  EXPECT_EQ(1U, ring.memory.attachments());
  EXPECT_EQ(1, ring.empty.value(0));
  EXPECT_EQ(0, ring.overflow.value(0));
  EXPECT_EQ(2, ring.set.value(1));
}

// ---- hostile values -----------------------------------------------------------------------------

TEST_F(RequestQueuePut, IndexesOutsideTheRingAreRefused) {
  for (const uint16_t index : {uint16_t{3}, uint16_t{4}, uint16_t{32768}, uint16_t{65535}}) {
    ring_.setRing(1, 0, index);
    expectRefused(-283);
    ring_.setRing(1, index, 0);
    expectRefused(-283, true);
    ring_.setRing(0, index, index);
    expectRefused(-283, true);
  }
}

TEST_F(RequestQueuePut, CountAboveTheCapacityIsRefused) {
  for (const uint16_t count : {uint16_t{4}, uint16_t{65535}}) {
    ring_.setRing(count, 0, 0);
    expectRefused(-283);
    expectRefused(-283, true);
  }
  EXPECT_EQ(-283, queue_.Put(message(0)));
  EXPECT_EQ("-283 CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()", errorTrail());
}

TEST_F(RequestQueuePut, AnyHeaderLeavesTheMemoryBehindTheRingAlone) {
  ASSERT_GT(ring_.memory.mappedSize(), ring_.memory.size());
  const size_t behind = ring_.memory.mappedSize() - ring_.memory.size();
  const Bytes before = ring_.memory.bytes(ring_.memory.size(), behind);
  std::minstd_rand random(1);
  const auto anything = [&random] {
    const auto value = static_cast<uint16_t>(random());
    return static_cast<uint16_t>(random() % 2 == 0 ? value % 5 : value);
  };
  for (int i = 0; i < 2000; ++i) {
    ring_.setRing(anything(), anything(), anything());
    const bool sane = ring_.count() < 3 && ring_.head() < 3 && ring_.tail() < 3;
    const long expected = ring_.count() == 3 ? -274 : sane ? 0 : -283;
    ASSERT_EQ(expected, queue_.PrivatePut(message(7), i % 2 == 0));
    ASSERT_EQ(before, ring_.memory.bytes(ring_.memory.size(), behind));
  }
}

}  // namespace
}  // namespace armtest
