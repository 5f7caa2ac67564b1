#include "platform/CkesEvent.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <thread>

#include "calls.h"
#include "errortrail.h"
#include "platform/CkesThreadLibrary.h"
#include "process.h"

namespace armtest {
namespace {

/// A thread in the event's Wait without a limit.
class Waiter {
 public:
  explicit Waiter(CkesEvent& event, std::atomic<int>& released)
      : thread_([&event, &released] {
          EXPECT_EQ(0, event.Wait());
          ++released;
        }) {}
  ~Waiter() { thread_.join(); }

 private:
  std::thread thread_;
};

/// Holds until so many threads wait on a condition variable.  They hold its mutex when they are
/// counted, so whoever takes the mutex afterwards finds them asleep.
::testing::AssertionResult waitersAre(int count) {
  if (waitUntil([&] { return calls::pthread_cond_wait.count() == count; }))
    return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << calls::pthread_cond_wait.count() << " waiters";
}

bool releasedAre(const std::atomic<int>& released, int count) {
  return waitUntil([&] { return released == count; });
}

/// Makes events that are not initialized from here on.
void breakEvents() {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
}

TEST(CkesEvent, WaitOnAnEventNotInitializedGivesMinus130) {
  breakEvents();
  CkesEvent event;
  EXPECT_EQ(-130, event.Wait());
  EXPECT_EQ("-130 CkesEvent::Wait()", errorTrail());
}

TEST(CkesEvent, TimedWaitOnAnEventNotInitializedGivesMinus130) {
  breakEvents();
  CkesEvent event;
  EXPECT_EQ(-130, event.Wait(100));
  EXPECT_EQ("-130 CkesEvent::Wait(long)", errorTrail());
}

TEST(CkesEvent, SignalOfAnEventNotInitializedGivesMinus130) {
  breakEvents();
  CkesEvent event;
  EXPECT_EQ(-130, event.Signal());
  EXPECT_EQ("-130 CkesEvent::Signal()", errorTrail());
}

TEST(CkesEvent, PulseOfAnEventNotInitializedGivesMinus130UnderTheNameSignalAll) {
  breakEvents();
  CkesEvent event;
  EXPECT_EQ(-130, event.Pulse());
  EXPECT_EQ("-130 CkesEvent::SignalAll()", errorTrail());
}

TEST(CkesEvent, ResetOfAnEventNotInitializedGivesMinus130) {
  breakEvents();
  CkesEvent event;
  EXPECT_EQ(-130, event.Reset());
  EXPECT_EQ("-130 CkesEvent::Reset()", errorTrail());
}

TEST(CkesEvent, IsNotInitializedWithoutItsMutex) {
  breakEvents();
  const CkesEvent event(EVENT_MANUAL_RESET, true);
  EXPECT_FALSE(event.IsInitialized());
}

TEST(CkesEvent, IsNotInitializedWhenItsMutexFindsNoThreadLibrary) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  const CkesEvent event;
  EXPECT_FALSE(event.IsInitialized());
}

TEST(CkesEvent, ConstructionInitializesTheThreadLibrary) {
  const CkesEvent event;
  EXPECT_TRUE(event.IsInitialized());
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
}

TEST(CkesEvent, ConditionVariableStartsClearedWithoutAnInitCall) {
  calls::pthread_cond_init.watch();
  const CkesEvent event;
  EXPECT_EQ(0, calls::pthread_cond_init.count());
}

TEST(CkesEvent, DestructionDestroysConditionVariableAndMutex) {
  calls::pthread_cond_destroy.watch();
  calls::pthread_mutex_destroy.watch();
  { const CkesEvent event; }
  EXPECT_EQ(1, calls::pthread_cond_destroy.count());
  EXPECT_EQ(1, calls::pthread_mutex_destroy.count());
}

TEST(CkesEvent, DestructionOfAnEventNotInitializedDestroysNothing) {
  breakEvents();
  calls::pthread_cond_destroy.watch();
  { const CkesEvent event; }
  EXPECT_EQ(0, calls::pthread_cond_destroy.count());
}

TEST(CkesEvent, DefaultEventIsAutomatic) {
  CkesEvent event;
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, DefaultEventIsNotSignalled) {
  CkesEvent event;
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, AutomaticEventCreatedSignalledLetsOneWaitThrough) {
  CkesEvent event(EVENT_AUTO_RESET, true);
  EXPECT_EQ(0, event.Wait());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, AutomaticEventCreatedSignalledLetsOneTimedWaitThrough) {
  CkesEvent event(EVENT_AUTO_RESET, true);
  EXPECT_EQ(0, event.Wait(0));
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, ManualEventCreatedSignalledLetsEveryWaitThroughUntilReset) {
  CkesEvent event(EVENT_MANUAL_RESET, true);
  EXPECT_EQ(0, event.Wait());
  EXPECT_EQ(0, event.Wait(0));
  EXPECT_EQ(0, event.Wait());
  EXPECT_EQ(0, event.Reset());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, EveryModeButAutomaticIsManual) {
  CkesEvent event(static_cast<TEventMode>(7), false);
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(0, event.Wait());
  EXPECT_EQ(0, event.Wait());
}

TEST(CkesEvent, AutomaticSignalThatNobodyWaitsForIsLost) {
  CkesEvent event;
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(-132, event.Wait(100));
  EXPECT_EQ("-132 CkesEvent::Wait(long)", errorTrail());
}

TEST(CkesEvent, AutomaticSignalClearsTheSignalledState) {
  CkesEvent event(EVENT_AUTO_RESET, true);
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, AutomaticEventResets) {
  CkesEvent event(EVENT_AUTO_RESET, true);
  EXPECT_EQ(0, event.Reset());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, ManualSignalStaysUntilReset) {
  CkesEvent event(EVENT_MANUAL_RESET, false);
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(0, event.Wait());
  EXPECT_EQ(0, event.Wait(0));
  EXPECT_EQ(0, event.Reset());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, AutomaticSignalReleasesOneWaiter) {
  CkesEvent event;
  std::atomic<int> released{0};
  calls::pthread_cond_wait.watch();
  {
    const Waiter first(event, released);
    const Waiter second(event, released);
    EXPECT_TRUE(waitersAre(2));
    EXPECT_EQ(0, event.Signal());
    EXPECT_TRUE(releasedAre(released, 1));
    EXPECT_EQ(0, event.Signal());
  }
  EXPECT_EQ(2, released);
}

TEST(CkesEvent, AutomaticSignalIsNoBroadcast) {
  CkesEvent event;
  calls::pthread_cond_signal.watch();
  calls::pthread_cond_broadcast.watch();
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(1, calls::pthread_cond_signal.count());
  EXPECT_EQ(0, calls::pthread_cond_broadcast.count());
}

TEST(CkesEvent, ManualSignalReleasesEveryWaiter) {
  CkesEvent event(EVENT_MANUAL_RESET, false);
  std::atomic<int> released{0};
  calls::pthread_cond_wait.watch();
  {
    const Waiter first(event, released);
    const Waiter second(event, released);
    EXPECT_TRUE(waitersAre(2));
    EXPECT_EQ(0, event.Signal());
  }
  EXPECT_EQ(2, released);
}

TEST(CkesEvent, ManualPulseReleasesEveryWaiterAndLeavesTheEventNotSignalled) {
  CkesEvent event(EVENT_MANUAL_RESET, false);
  std::atomic<int> released{0};
  calls::pthread_cond_wait.watch();
  {
    const Waiter first(event, released);
    const Waiter second(event, released);
    EXPECT_TRUE(waitersAre(2));
    EXPECT_EQ(0, event.Pulse());
  }
  EXPECT_EQ(2, released);
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, AutomaticPulseWakesOneAndClearsTheState) {
  CkesEvent event(EVENT_AUTO_RESET, true);
  calls::pthread_cond_signal.watch();
  calls::pthread_cond_broadcast.watch();
  EXPECT_EQ(0, event.Pulse());
  EXPECT_EQ(1, calls::pthread_cond_signal.count());
  EXPECT_EQ(0, calls::pthread_cond_broadcast.count());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, ManualPulseClearsASignalledState) {
  CkesEvent event(EVENT_MANUAL_RESET, true);
  EXPECT_EQ(0, event.Pulse());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, TimedWaitEndsWithASignal) {
  CkesEvent event;
  calls::pthread_cond_timedwait.watch();
  long result = -1;
  std::thread waiter([&] { result = event.Wait(3600000); });
  EXPECT_TRUE(waitUntil([] { return calls::pthread_cond_timedwait.count() == 1; }));
  EXPECT_EQ(0, event.Signal());
  waiter.join();
  EXPECT_EQ(0, result);
}

TEST(CkesEvent, FailingWaitGivesMinus133) {
  CkesEvent event;
  calls::pthread_cond_wait.fail(EINVAL, 0);
  EXPECT_EQ(-133, event.Wait());
  EXPECT_EQ("-133 CkesEvent::Wait()", errorTrail());
}

TEST(CkesEvent, TimedWaitThatFailsOtherwiseThanByTimeGivesMinus133) {
  CkesEvent event;
  calls::pthread_cond_timedwait.fail(EINVAL, 0);
  EXPECT_EQ(-133, event.Wait(1));
  EXPECT_EQ("-133 CkesEvent::Wait(long)", errorTrail());
}

TEST(CkesEvent, AnyWakeUpEndsAWaitWithoutALookAtTheState) {
  CkesEvent event;
  calls::pthread_cond_wait.fail(0, 0);
  EXPECT_EQ(0, event.Wait());
  EXPECT_EQ(1, calls::pthread_cond_wait.count());
}

TEST(CkesEvent, AnyWakeUpEndsATimedWaitWithoutALookAtTheState) {
  CkesEvent event;
  calls::pthread_cond_timedwait.fail(0, 0);
  EXPECT_EQ(0, event.Wait(1000));
  EXPECT_EQ(1, calls::pthread_cond_timedwait.count());
}

/// The deadline of a timed wait that begins when time() is 1000.
timespec deadlineOf(long milliseconds) {
  CkesEvent event;
  timespec deadline = {};
  calls::time.fail(1000, 0);
  calls::pthread_cond_timedwait.replace(
      [&](pthread_cond_t*, pthread_mutex_t*, const timespec* given) {
        deadline = *given;
        return ETIMEDOUT;
      });
  EXPECT_EQ(-132, event.Wait(milliseconds));
  calls::time.watch();
  return deadline;
}

TEST(CkesEvent, TimedWaitUsesTheWholeSecondsOfNow) {
  const timespec deadline = deadlineOf(1500);
  EXPECT_EQ(1001, deadline.tv_sec);
  EXPECT_EQ(500000000, deadline.tv_nsec);
}

TEST(CkesEvent, TimedWaitBelowASecondEndsWithinTheCurrentSecond) {
  const timespec deadline = deadlineOf(999);
  EXPECT_EQ(1000, deadline.tv_sec);
  EXPECT_EQ(999000000, deadline.tv_nsec);
}

TEST(CkesEvent, NegativeTimeIsSplitByTruncatingDivision) {
  const timespec deadline = deadlineOf(-1500);
  EXPECT_EQ(999, deadline.tv_sec);
  EXPECT_EQ(-500000000, deadline.tv_nsec);
}

TEST(CkesEvent, FailingSignalGivesMinus134) {
  CkesEvent event;
  calls::pthread_cond_signal.fail(EINVAL, 0);
  EXPECT_EQ(-134, event.Signal());
  EXPECT_EQ("-134 CkesEvent::Signal()", errorTrail());
}

TEST(CkesEvent, FailingManualSignalSetsTheStateAllTheSame) {
  CkesEvent event(EVENT_MANUAL_RESET, false);
  calls::pthread_cond_broadcast.fail(EINVAL, 0);
  EXPECT_EQ(-134, event.Signal());
  EXPECT_EQ(0, event.Wait());
}

TEST(CkesEvent, FailingAutomaticSignalClearsTheStateAllTheSame) {
  CkesEvent event(EVENT_AUTO_RESET, true);
  calls::pthread_cond_signal.fail(EINVAL, 0);
  EXPECT_EQ(-134, event.Signal());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, FailingPulseIsRecordedUnderTheNameSignalAll) {
  CkesEvent event;
  calls::pthread_cond_signal.fail(EINVAL, 0);
  EXPECT_EQ(-134, event.Pulse());
  EXPECT_EQ("-134 CkesEvent::SignalAll()", errorTrail());
}

TEST(CkesEvent, FailingManualPulseClearsTheStateAllTheSame) {
  CkesEvent event(EVENT_MANUAL_RESET, true);
  calls::pthread_cond_broadcast.fail(EINVAL, 0);
  EXPECT_EQ(-134, event.Pulse());
  EXPECT_EQ(-132, event.Wait(0));
}

TEST(CkesEvent, ResultsOfItsMutexAreNotLookedAt) {
  CkesEvent event;
  calls::pthread_mutex_lock.fail(EINVAL, 0);
  EXPECT_EQ(0, event.Reset());
}

TEST(CkesEvent, StateIsUnderItsMutexDuringASignal) {
  CkesEvent event;
  pthread_mutex_t* mutex = nullptr;
  calls::pthread_mutex_lock.replace([&](pthread_mutex_t* locked) {
    mutex = locked;
    return calls::pthread_mutex_lock.real(locked);
  });
  int held = 0;
  calls::pthread_cond_signal.replace([&](pthread_cond_t* condition) {
    held = calls::pthread_mutex_trylock.real(mutex);
    return calls::pthread_cond_signal.real(condition);
  });
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(EBUSY, held);
}

TEST(CkesEvent, OperationsLeaveItsMutexFree) {
  CkesEvent event;
  EXPECT_EQ(0, event.Signal());
  EXPECT_EQ(0, event.Pulse());
  EXPECT_EQ(0, event.Reset());
  EXPECT_EQ(-132, event.Wait(0));
  long result = -1;
  std::thread([&] { result = event.Reset(); }).join();
  EXPECT_EQ(0, result);
}

}  // namespace
}  // namespace armtest
