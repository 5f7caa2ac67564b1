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

constexpr const char* kName = "/var/kelp/controls_ae.kelp";

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
  Queue queue(kName);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_TRUE(queue.CreatorAlive());
  EXPECT_TRUE(queue.IsReadyForIO());
  EXPECT_EQ(50300U, queue.GetArmVersion());
}

TEST(RequestQueueOpening, WithoutOverflowSemaphoreFailsWithItsText) {
  RequestQueue ring(3);
  ring.overflow.remove();
  const TraceLog log;
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on VOverflowSem"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, WithoutEmptySemaphoreFailsWithItsText) {
  RequestQueue ring(3);
  ring.empty.remove();
  const TraceLog log;
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on the empty queue wait sem"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, WithoutSegmentFailsWithItsText) {
  RequestQueue ring(3);
  ring.set.remove();
  const TraceLog log;
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue Failed on the shared memory"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, OfAStoppedQueueFailsWithItsText) {
  RequestQueue ring(3);
  ring.setState(1);
  const TraceLog log;
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_EQ(Lines{"CIPCSimpleQueue VQueueState is bad"}, log.lines("CIPC"));
}

TEST(RequestQueueOpening, LooksAtTheOverflowSemaphoreFirst) {
  const TraceLog log;
  EXPECT_FALSE(Queue(kName).IsInitialized());
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
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_NE(nullptr, next);
  calls::semctl.watch();
  EXPECT_TRUE(Queue(kName).IsInitialized());
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
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_FALSE(traceExists());
}

TEST(RequestQueueOpening, WithoutMemoryForASegmentFailsWithItsText) {
  RequestQueue ring(3);
  const TraceLog log;
  for (int allowed = 0; allowed < 3; ++allowed) {
    int left = allowed;
    calls::refuseMemory([&left](size_t) { return left-- == 0; });
    EXPECT_FALSE(Queue(kName).IsInitialized());
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
  const Queue queue(kName);
  EXPECT_FALSE(queue.IsInitialized());
  EXPECT_EQ(1U, ring.memory.attachments());
}

TEST(RequestQueueOpening, WritesTheVersionWordBeforeItLooksAtTheState) {
  RequestQueue ring(3);
  ring.setVersion(7);
  ring.setState(1);
  EXPECT_FALSE(Queue(kName).IsInitialized());
  EXPECT_EQ(50300U, ring.version());
}

TEST(RequestQueueOpening, WritesTheVersionWordEachTime) {
  RequestQueue ring(3);
  const Queue first(kName);
  ring.setVersion(7);
  const Queue second(kName);
  EXPECT_EQ(50300U, ring.version());
  EXPECT_EQ(0, std::memcmp("\x7C\xC4\x00\x00", ring.memory.at(20), 4));
}

TEST(RequestQueueOpening, WritesTheVersionWordWithoutTheLock) {
  RequestQueue ring(3);
  ring.lock();
  EXPECT_TRUE(Queue(kName).IsInitialized());
  EXPECT_EQ(50300U, ring.version());
  EXPECT_TRUE(ring.locked());
}

TEST(RequestQueueOpening, ChangesNothingButTheVersionWord) {
  RequestQueue ring(3);
  std::memset(ring.memory.at(0), 0x5A, ring.memory.mappedSize());
  ring.setState(0);
  Bytes expected = ring.memory.all();
  std::memcpy(expected.data() + 20, "\x7C\xC4\x00\x00", 4);
  { const Queue queue(kName); }
  EXPECT_EQ(expected, ring.memory.all());
}

TEST(RequestQueueOpening, AcceptsADeadCreator) {
  RequestQueue ring(3);
  ring.creatorDies();
  Queue queue(kName);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_FALSE(queue.CreatorAlive());
  EXPECT_EQ(0, queue.Put(message(1)));
  EXPECT_EQ(1, ring.count());
}

TEST(RequestQueueOpening, OfAnythingElseReportsNothing) {
  const Queue queue(kName);
  EXPECT_FALSE(queue.CreatorAlive());
  EXPECT_FALSE(queue.IsReadyForIO());
  EXPECT_EQ(0U, queue.GetArmVersion());
}

TEST(RequestQueueOpening, ReadyAndVersionAreReadEachTime) {
  RequestQueue ring(3);
  ring.setReady(0);
  Queue queue(kName);
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
  Queue queue(kName);
  EXPECT_EQ(3U, putsAccepted(queue));
  EXPECT_EQ(3, ring.count());
}

TEST(RequestQueueCapacity, SpareBytesAreNoSlot) {
  RequestQueue ring(AE, 28 + 3 * 4116 + 4115);
  Queue queue(kName);
  EXPECT_EQ(3U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, OneByteTooFewIsOneSlotLess) {
  RequestQueue ring(AE, 28 + 3 * 4116 - 1);
  Queue queue(kName);
  EXPECT_EQ(2U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, IsKeptInSixteenBits) {
  RequestQueue ring(AE, 28 + size_t{65536 + 1} * 4116);
  Queue queue(kName);
  EXPECT_EQ(1U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, HeaderAloneIsAlwaysFull) {
  RequestQueue ring(AE, 28);
  Queue queue(kName);
  EXPECT_TRUE(queue.IsInitialized());
  EXPECT_EQ(0U, putsAccepted(queue));
}

TEST(RequestQueueCapacity, SegmentSmallerThanTheHeaderDoesNotInitialize) {
  for (const size_t size : {size_t{27}, size_t{1}}) {
    RequestQueue ring(AE, size);
    const Bytes before = ring.memory.all();
    EXPECT_FALSE(Queue(kName).IsInitialized());
    EXPECT_EQ(before, ring.memory.all());
    EXPECT_EQ(1U, ring.memory.attachments());
  }
}

// ---- putting ------------------------------------------------------------------------------------

class RequestQueuePut : public testing::Test {
 protected:
  RequestQueuePut() : ring(3), queue(kName) { ring.fillSlots(0xEE); }

  /// A put that is refused: its code, and not a byte of the segment changes.
  void expectRefused(long code, bool front = false) {
    const Bytes before = ring.memory.all();
    const int raised = ring.empty.value(0);
    EXPECT_EQ(code, front ? queue.PrivatePut(message(9), true) : queue.Put(message(9)));
    EXPECT_EQ(before, ring.memory.all());
    EXPECT_EQ(raised, ring.empty.value(0));
    EXPECT_FALSE(ring.locked());
  }

  RequestQueue ring;
  Queue queue;
};

TEST_F(RequestQueuePut, CopiesTheWholeRecordIntoTheSlotAtTheTail) {
  ring.setRing(0, 1, 1);
  Bytes expected = ring.memory.all();
  const Bytes record = bytesOf(message(5));
  std::copy(record.begin(), record.end(), expected.begin() + 28 + 1 * 4116);
  expected[0] = 1;
  expected[4] = 2;
  EXPECT_EQ(0, queue.Put(message(5)));
  EXPECT_EQ(expected, ring.memory.all());
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueuePut, GoesToSlotZeroAgainAfterTheLast) {
  for (uint8_t i = 0; i < 3; ++i) EXPECT_EQ(0, queue.Put(message(i)));
  EXPECT_EQ(0, ring.tail());
  for (uint8_t i = 0; i < 3; ++i) EXPECT_EQ(bytesOf(message(i)), ring.take());
  EXPECT_EQ(0, ring.count());
  EXPECT_EQ(0, queue.Put(message(3)));
  EXPECT_EQ(bytesOf(message(3)), ring.slot(0));
  EXPECT_EQ(bytesOf(message(1)), ring.slot(1));
  EXPECT_EQ(1, ring.tail());
}

TEST_F(RequestQueuePut, RaisesTheEmptySemaphoreOnlyWhenTheQueueWasEmpty) {
  EXPECT_EQ(0, queue.Put(message(0)));
  EXPECT_EQ(1, ring.empty.value(0));
  EXPECT_EQ(0, queue.Put(message(1)));
  EXPECT_EQ(0, queue.Put(message(2)));
  EXPECT_EQ(1, ring.empty.value(0));
  EXPECT_EQ(0, ring.overflow.value(0));
}

TEST_F(RequestQueuePut, RaisesTheEmptySemaphoreAgainAfterTheQueueWasEmptied) {
  EXPECT_EQ(0, queue.Put(message(0)));
  ring.take();
  EXPECT_EQ(0, queue.Put(message(1)));
  EXPECT_EQ(2, ring.empty.value(0));
}

TEST_F(RequestQueuePut, IgnoresThatTheEmptySemaphoreCannotBeRaised) {
  ring.empty.remove();
  EXPECT_EQ(0, queue.Put(message(0)));
  EXPECT_EQ(1, ring.count());
}

TEST_F(RequestQueuePut, IntoAFullQueueIsRefusedAndTheRecordLost) {
  EXPECT_EQ(3U, putsAccepted(queue));
  expectRefused(-274);
  expectRefused(-274, true);
  EXPECT_EQ(3, ring.count());
  EXPECT_EQ(0U, ring.overflowWaiters());
}

TEST_F(RequestQueuePut, OverflowIsRecordedUnderTheNameOfTheOtherQueue) {
  ring.setRing(3, 0, 0);
  EXPECT_EQ(-274, queue.Put(message(0)));
  EXPECT_EQ(
      "-274 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
}

TEST_F(RequestQueuePut, IntoAStoppedQueueWritesNothing) {
  for (const uint32_t state : {1U, 2U, 3U, 0x80000000U}) {
    ring.setState(state);
    expectRefused(-284);
  }
  EXPECT_EQ("-284 CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()", errorTrail());
}

TEST_F(RequestQueuePut, LooksAtTheStateBeforeTheOverflow) {
  ring.setRing(3, 0, 0);
  ring.setState(1);
  expectRefused(-284);
}

TEST_F(RequestQueuePut, WithoutTheLockSetFails) {
  ring.set.remove();
  EXPECT_EQ(-261, queue.Put(message(0)));
  EXPECT_EQ(
      "-261 CkesSharedMemory::Lock() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
  EXPECT_EQ(0, ring.count());
}

TEST_F(RequestQueuePut, FailureOfTheUnlockReplacesSuccess) {
  failUnlockOf(ring);
  EXPECT_EQ(-262, queue.Put(message(4)));
  EXPECT_EQ(
      "-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
  EXPECT_EQ(1, ring.count());
  EXPECT_EQ(bytesOf(message(4)), ring.slot(0));
}

TEST_F(RequestQueuePut, FailureOfTheUnlockReplacesAnEarlierError) {
  ring.setState(1);
  failUnlockOf(ring);
  EXPECT_EQ(-262, queue.Put(message(4)));
  EXPECT_EQ(
      "-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      errorTrail());
}

TEST_F(RequestQueuePut, InterruptedLockIsRepeated) {
  int locks = 0;
  calls::semop.ask([&](int set, const sembuf* operations, size_t count) {
    if (set != ring.set.id() || !isLock(operations, count)) return calls::RUN_IT;
    return ++locks <= 3 ? EINTR : calls::RUN_IT;
  });
  EXPECT_EQ(0, queue.Put(message(0)));
  calls::semop.watch();
  EXPECT_EQ(4, locks);
}

TEST_F(RequestQueuePut, InterruptedUnlockIsNotRepeated) {
  int unlocks = 0;
  calls::semop.ask([&](int set, const sembuf* operations, size_t count) {
    if (set != ring.set.id() || !isUnlock(operations, count)) return calls::RUN_IT;
    ++unlocks;
    return EINTR;
  });
  EXPECT_EQ(-262, queue.Put(message(0)));
  calls::semop.watch();
  EXPECT_EQ(1, unlocks);
}

TEST_F(RequestQueuePut, WaitsForTheLock) {
  ring.lock();
  std::future<long> put = std::async(std::launch::async, [this] { return queue.Put(message(0)); });
  EXPECT_TRUE(waitUntil([this] { return semctl(ring.set.id(), 0, GETZCNT) == 1; }));
  EXPECT_EQ(0, ring.count());
  ring.unlock();
  EXPECT_EQ(0, put.get());
}

TEST(RequestQueue, ThatIsNotOpenRefusesToPut) {
  Queue queue(kName);
  EXPECT_EQ(-276, queue.Put(message(0)));
  EXPECT_EQ("-276 CIPCSimpleQueue<T>::Put()", errorTrail());
}

TEST(RequestQueue, TakesRecordsOfManyThreadsWhole) {
  RequestQueue ring(64);
  Queue queue(kName);
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
  ring.setRing(0, 1, 1);
  EXPECT_EQ(0, queue.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring.slot(1));
  EXPECT_EQ(1, ring.count());
  EXPECT_EQ(1, ring.head());
  EXPECT_EQ(2, ring.tail());
  EXPECT_EQ(1, ring.empty.value(0));
}

TEST_F(RequestQueuePut, FrontInsertIntoAnEmptyRingWrapsTheTail) {
  ring.setRing(0, 2, 2);
  EXPECT_EQ(0, queue.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring.slot(2));
  EXPECT_EQ(2, ring.head());
  EXPECT_EQ(0, ring.tail());
}

TEST_F(RequestQueuePut, FrontInsertWithHeadZeroWritesAtTheLastSlot) {
  ring.setRing(1, 0, 1);
  EXPECT_EQ(0, queue.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring.slot(2));
  EXPECT_EQ(2, ring.count());
  EXPECT_EQ(2, ring.head());
  EXPECT_EQ(1, ring.tail());
  EXPECT_EQ(0, ring.empty.value(0));
}

TEST_F(RequestQueuePut, FrontInsertStepsTheHeadBackByOne) {
  ring.setRing(1, 2, 0);
  EXPECT_EQ(0, queue.PrivatePut(message(5), true));
  EXPECT_EQ(bytesOf(message(5)), ring.slot(1));
  EXPECT_EQ(1, ring.head());
  EXPECT_EQ(0, ring.tail());
}

// ---- draining the overflow semaphore ------------------------------------------------------------

TEST_F(RequestQueuePut, ThatFillsTheQueueDrainsTheOverflowSemaphore) {
  ring.overflow.setValue(0, 5);
  EXPECT_EQ(0, queue.Put(message(0)));
  EXPECT_EQ(0, queue.Put(message(1)));
  EXPECT_EQ(5, ring.overflow.value(0));
  EXPECT_EQ(0, queue.Put(message(2)));
  EXPECT_EQ(0, ring.overflow.value(0));
}

TEST_F(RequestQueuePut, OnlyNothingLeftEndsTheDrainAndAFailureRepeatsIt) {
  ring.setRing(2, 0, 2);
  ring.overflow.setValue(0, 2);
  int calls = 0;
  calls::semop.ask([&](int set, const sembuf*, size_t) {
    if (set != ring.overflow.id()) return calls::RUN_IT;
    EXPECT_TRUE(ring.locked());
    ++calls;
    return calls <= 3 ? (calls == 2 ? EINTR : EINVAL) : calls::RUN_IT;
  });
  EXPECT_EQ(0, queue.Put(message(0)));
  calls::semop.watch();
  EXPECT_EQ(3 + 2 + 1, calls);
  EXPECT_EQ(0, ring.overflow.value(0));
}

TEST(RequestQueue, OfOneSlotIsRaisedAndNotDrained) {
  RequestQueue ring(1);
  ring.overflow.setValue(0, 5);
  Queue queue(kName);
  EXPECT_EQ(0, queue.Put(message(0)));
  EXPECT_EQ(1, ring.empty.value(0));
  EXPECT_EQ(5, ring.overflow.value(0));
}

// ---- waiting for room ---------------------------------------------------------------------------

/// A full queue of three, and a thread that waits to put one more.
class RequestQueueWait : public testing::Test {
 protected:
  RequestQueueWait() : ring(3), queue(kName) {
    for (uint8_t i = 0; i < 3; ++i) queue.Put(message(i));
    queue.SetOverflowWait(true);
  }

  void startPut() {
    put = std::async(std::launch::async, [this] {
      (void)CkesErrorManager::RegisterThread();
      const long result = queue.Put(message(9));
      trail = errorTrail();
      (void)CkesErrorManager::UnregisterThread();
      return result;
    });
    ASSERT_TRUE(waitUntil([this] { return sleeping(1); }));
  }

  /// True when the writer sleeps in its given pass.
  bool sleeping(uint32_t pass) const {
    return ring.overflowWaiters() == pass && ring.overflow.sleepers(0) == 1;
  }

  void raiseWithoutRoom() { ring.overflow.add(0, 1); }

  void makeRoom() {
    ring.take();
    ring.overflow.add(0, 1);
  }

  RequestQueue ring;
  Queue queue;
  std::future<long> put;
  std::string trail;
};

TEST_F(RequestQueueWait, LastsUntilTheReaderMakesRoom) {
  startPut();
  EXPECT_FALSE(ring.locked());
  EXPECT_EQ(3, ring.count());
  makeRoom();
  EXPECT_EQ(0, put.get());
  EXPECT_EQ(3, ring.count());
  EXPECT_EQ(bytesOf(message(9)), ring.slot(0));
  EXPECT_EQ(0U, ring.overflowWaiters());
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueueWait, CountsTheWaiterInEachPassAndOutOnce) {
  startPut();
  raiseWithoutRoom();
  EXPECT_TRUE(waitUntil([this] { return sleeping(2); }));
  raiseWithoutRoom();
  EXPECT_TRUE(waitUntil([this] { return sleeping(3); }));
  makeRoom();
  EXPECT_EQ(0, put.get());
  EXPECT_EQ(2U, ring.overflowWaiters());
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueueWait, SecondPassTestsAndCountsWithoutTheLockAndDoesNotUnlockAgain) {
  startPut();
  ring.lock();
  raiseWithoutRoom();
  EXPECT_TRUE(waitUntil([this] { return sleeping(2); }));
  EXPECT_TRUE(ring.locked());
  ring.unlock();
  makeRoom();
  EXPECT_EQ(0, put.get());
}

TEST_F(RequestQueueWait, EndsWhenTheStateChanges) {
  startPut();
  ring.setState(1);
  raiseWithoutRoom();
  EXPECT_EQ(-284, put.get());
  EXPECT_EQ(
      "-284 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      trail);
  EXPECT_EQ(3, ring.count());
  EXPECT_EQ(0U, ring.overflowWaiters());
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueueWait, EndsWhenTheStateChangesEvenWithRoom) {
  startPut();
  ring.setState(7);
  makeRoom();
  EXPECT_EQ(-284, put.get());
  EXPECT_EQ(2, ring.count());
}

TEST_F(RequestQueueWait, EndsWhenTheSemaphoreIsRemoved) {
  startPut();
  ring.overflow.remove();
  EXPECT_EQ(-141, put.get());
  EXPECT_EQ(
      "-141 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      trail);
  EXPECT_EQ(0U, ring.overflowWaiters());
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueueWait, EndsWhenTheSegmentCannotBeUnlocked) {
  failUnlockOf(ring);
  EXPECT_EQ(-262, queue.Put(message(9)));
  EXPECT_EQ(
      "-262 CkesSharedMemory::Unlock() < CIPCQueue::CheckOverflow() < "
      "CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()",
      errorTrail());
  EXPECT_EQ(0U, ring.overflowWaiters());
  EXPECT_FALSE(ring.locked());
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
  failRelockOf(ring);
  startPut();
  makeRoom();
  EXPECT_EQ(-261, put.get());
  EXPECT_EQ(
      "-261 CkesSharedMemory::Lock() < CIPCQueue::CheckOverflow() < "
      "CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()",
      trail);
  EXPECT_EQ(2, ring.count());
  EXPECT_EQ(0U, ring.overflowWaiters());
}

TEST_F(RequestQueueWait, LockThatFailsAfterAnErrorLeavesTheEarlierErrorRecorded) {
  failRelockOf(ring);
  startPut();
  ring.setState(2);
  raiseWithoutRoom();
  EXPECT_EQ(-284, put.get());
  EXPECT_EQ(
      "-284 CIPCQueue::CheckOverflow() < CIPCSimpleQueue<T>::PrivatePut() < "
      "CIPCSimpleQueue<T>::Put()",
      trail);
}

TEST_F(RequestQueueWait, GoesOnAfterSignals) {
  std::atomic<int> waits{0};
  calls::semop.ask([this, &waits](int set, const sembuf*, size_t) {
    if (set != ring.overflow.id()) return calls::RUN_IT;
    return ++waits <= 3 ? EINTR : calls::RUN_IT;
  });
  startPut();
  EXPECT_EQ(4, waits);
  EXPECT_EQ(1U, ring.overflowWaiters());
  makeRoom();
  EXPECT_EQ(0, put.get());
  calls::semop.watch();
}

TEST_F(RequestQueueWait, IsOffUntilItIsAskedFor) {
  Queue other(kName);
  EXPECT_EQ(-274, other.Put(message(0)));
}

// ---- what an owner uses -------------------------------------------------------------------------

TEST_F(RequestQueuePut, StatesOneAndTwoWakeEveryWaiterOnce) {
  for (const unsigned long state : {1UL, 2UL}) {
    ring.empty.setValue(0, 0);
    ring.overflow.setValue(0, 0);
    ring.setEmptyWaiters(3);
    ring.setOverflowWaiters(2);
    EXPECT_EQ(0, queue.SetState(state));
    EXPECT_EQ(state, ring.state());
    EXPECT_EQ(3, ring.empty.value(0));
    EXPECT_EQ(2, ring.overflow.value(0));
    EXPECT_FALSE(ring.locked());
  }
}

TEST_F(RequestQueuePut, OtherStatesWakeNobody) {
  ring.setEmptyWaiters(3);
  ring.setOverflowWaiters(2);
  for (const unsigned long state : {3UL, 0UL}) {
    EXPECT_EQ(0, queue.SetState(state));
    EXPECT_EQ(state, ring.state());
    EXPECT_EQ(0, ring.empty.value(0));
    EXPECT_EQ(0, ring.overflow.value(0));
  }
}

TEST_F(RequestQueuePut, WakingStopsAtTheFirstRaiseThatFails) {
  ring.empty.setValue(2, 2);
  Queue other(kName);
  ring.setEmptyWaiters(5);
  ring.setOverflowWaiters(5);
  EXPECT_EQ(-144, other.SetState(1));
  EXPECT_EQ("-144 CkesSemaphore::Post(long) < CIPCSimpleQueue<T>::SetState()", errorTrail());
  EXPECT_EQ(1U, ring.state());
  EXPECT_EQ(2, ring.empty.value(0));
  EXPECT_EQ(0, ring.overflow.value(0));
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueuePut, StateIsWrittenThoughTheUnlockFails) {
  failUnlockOf(ring);
  EXPECT_EQ(-262, queue.SetState(1));
  EXPECT_EQ("-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::SetState()", errorTrail());
  EXPECT_EQ(1U, ring.state());
}

TEST_F(RequestQueueWait, EndsWithSetState) {
  startPut();
  EXPECT_EQ(0, queue.SetState(2));
  EXPECT_EQ(-284, put.get());
  EXPECT_EQ(0U, ring.overflowWaiters());
}

TEST_F(RequestQueuePut, CleanupEmptiesTheRing) {
  EXPECT_EQ(0, queue.Put(message(0)));
  EXPECT_EQ(0, queue.Put(message(1)));
  ring.take();
  ring.empty.setValue(0, 3);
  ring.setOverflowWaiters(4);
  EXPECT_EQ(0, queue.Cleanup());
  EXPECT_EQ(0, ring.count());
  EXPECT_EQ(0, ring.head());
  EXPECT_EQ(0, ring.tail());
  EXPECT_EQ(2, ring.empty.value(0));
  EXPECT_EQ(4, ring.overflow.value(0));
  EXPECT_EQ(4U, ring.overflowWaiters());
  EXPECT_EQ(0U, ring.state());
  EXPECT_FALSE(ring.locked());
}

TEST_F(RequestQueuePut, CleanupDoesNotWaitForTheEmptySemaphore) {
  EXPECT_EQ(0, queue.Cleanup());
  EXPECT_EQ(0, ring.empty.value(0));
}

TEST_F(RequestQueuePut, CleanupDoesNotRepeatAnInterruptedTryWait) {
  ring.empty.setValue(0, 3);
  int calls = 0;
  calls::semop.ask([&](int set, const sembuf*, size_t) {
    if (set != ring.empty.id()) return calls::RUN_IT;
    return ++calls == 1 ? EINTR : calls::RUN_IT;
  });
  EXPECT_EQ(0, queue.Cleanup());
  calls::semop.watch();
  EXPECT_EQ(1, calls);
  EXPECT_EQ(3, ring.empty.value(0));
}

TEST_F(RequestQueuePut, CleanupReportsLockAndUnlock) {
  failUnlockOf(ring);
  EXPECT_EQ(-262, queue.Cleanup());
  EXPECT_EQ("-262 CkesSharedMemory::Unlock() < CIPCSimpleQueue<T>::Cleanup()", errorTrail());
  ring.set.remove();
  EXPECT_EQ(-261, queue.Cleanup());
  EXPECT_EQ("-261 CkesSharedMemory::Lock() < CIPCSimpleQueue<T>::Cleanup()", errorTrail());
  EXPECT_EQ(-261, queue.SetState(1));
  EXPECT_EQ("-261 CkesSharedMemory::Lock() < CIPCSimpleQueue<T>::SetState()", errorTrail());
}

TEST(RequestQueue, ThatIsNotOpenRefusesToClean) {
  Queue queue(kName);
  EXPECT_EQ(-276, queue.Cleanup());
  EXPECT_EQ("-276 CIPCSimpleQueue<T>::Cleanup()", errorTrail());
}

TEST(RequestQueue, DestructorOfANonOwnerChangesNothing) {
  RequestQueue ring(3);
  auto queue = std::make_unique<Queue>(kName);
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
    ring.setRing(1, 0, index);
    expectRefused(-283);
    ring.setRing(1, index, 0);
    expectRefused(-283, true);
    ring.setRing(0, index, index);
    expectRefused(-283, true);
  }
}

TEST_F(RequestQueuePut, CountAboveTheCapacityIsRefused) {
  for (const uint16_t count : {uint16_t{4}, uint16_t{65535}}) {
    ring.setRing(count, 0, 0);
    expectRefused(-283);
    expectRefused(-283, true);
  }
  EXPECT_EQ(-283, queue.Put(message(0)));
  EXPECT_EQ("-283 CIPCSimpleQueue<T>::PrivatePut() < CIPCSimpleQueue<T>::Put()", errorTrail());
}

TEST_F(RequestQueuePut, AnyHeaderLeavesTheMemoryBehindTheRingAlone) {
  ASSERT_GT(ring.memory.mappedSize(), ring.memory.size());
  const size_t behind = ring.memory.mappedSize() - ring.memory.size();
  const Bytes before = ring.memory.bytes(ring.memory.size(), behind);
  std::minstd_rand random(1);
  const auto anything = [&random] {
    const auto value = static_cast<uint16_t>(random());
    return static_cast<uint16_t>(random() % 2 == 0 ? value % 5 : value);
  };
  for (int i = 0; i < 2000; ++i) {
    ring.setRing(anything(), anything(), anything());
    const bool sane = ring.count() < 3 && ring.head() < 3 && ring.tail() < 3;
    const long expected = ring.count() == 3 ? -274 : sane ? 0 : -283;
    ASSERT_EQ(expected, queue.PrivatePut(message(7), i % 2 == 0));
    ASSERT_EQ(before, ring.memory.bytes(ring.memory.size(), behind));
  }
}

}  // namespace
}  // namespace armtest
