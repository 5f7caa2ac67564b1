#include "platform/CkesMutex.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <thread>

#include "calls.h"
#include "errortrail.h"
#include "platform/CkesThreadLibrary.h"
#include "process.h"

namespace armtest {
namespace {

/// What a thread of its own gets from TryLock; the mutex is given back.
long tryLockElsewhere(CkesMutex& mutex) {
  long result = 0;
  std::thread([&] {
    result = mutex.TryLock();
    if (result == 0) (void)mutex.Unlock();
  }).join();
  return result;
}

/// A thread that holds a mutex as long as the object lives.
class Holder {
 public:
  explicit Holder(CkesMutex& mutex)
      : thread_([this, &mutex] {
          EXPECT_EQ(0, mutex.Lock());
          holding_ = true;
          EXPECT_TRUE(waitUntil([this] { return mayEnd_.load(); }));
          EXPECT_EQ(0, mutex.Unlock());
        }) {
    EXPECT_TRUE(waitUntil([this] { return holding_.load(); }));
  }
  ~Holder() {
    mayEnd_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> holding_{false};
  std::atomic<bool> mayEnd_{false};
  std::thread thread_;
};

TEST(CkesMutex, LockAndUnlockSucceedAndRecordNothing) {
  CkesMutex mutex;
  EXPECT_TRUE(mutex.IsInitialized());
  EXPECT_EQ(0, mutex.Lock());
  EXPECT_EQ(0, mutex.Unlock());
  EXPECT_EQ("0 Error code not set.", errorTrail());
}

TEST(CkesMutex, TryLockTakesAFreeMutex) {
  CkesMutex mutex;
  EXPECT_EQ(0, mutex.TryLock());
  EXPECT_EQ(-124, tryLockElsewhere(mutex));
  EXPECT_EQ(0, mutex.Unlock());
}

TEST(CkesMutex, TryLockOfAMutexHeldByAnotherThreadGivesMinus124AndRecordsIt) {
  CkesMutex mutex;
  const Holder holder(mutex);
  EXPECT_EQ(-124, mutex.TryLock());
  EXPECT_EQ("-124 CkesMutex::TryLock()", errorTrail());
}

TEST(CkesMutex, PassWaitsForTheHolderAndLeavesTheMutexFree) {
  CkesMutex mutex;
  EXPECT_EQ(0, mutex.Pass());
  EXPECT_EQ(0, tryLockElsewhere(mutex));
  calls::pthread_mutex_lock.watch();
  std::atomic<bool> passed{false};
  ASSERT_EQ(0, mutex.Lock());
  std::thread passing([&] {
    EXPECT_EQ(0, mutex.Pass());
    passed = true;
  });
  EXPECT_TRUE(waitUntil([] { return calls::pthread_mutex_lock.count() > 1; }));
  EXPECT_FALSE(passed);
  EXPECT_EQ(0, mutex.Unlock());
  passing.join();
  EXPECT_EQ(0, tryLockElsewhere(mutex));
}

TEST(CkesMutex, FailuresOfPassAreThoseOfLockAndUnlock) {
  CkesMutex mutex;
  calls::pthread_mutex_lock.fail(EINVAL, 0, 0, 1);
  EXPECT_EQ(-122, mutex.Pass());
  EXPECT_EQ("-122 CkesMutex::Lock()", errorTrail());
  calls::pthread_mutex_unlock.replace([](pthread_mutex_t* held) {
    (void)calls::pthread_mutex_unlock.real(held);
    return EPERM;
  });
  EXPECT_EQ(-123, mutex.Pass());
  EXPECT_EQ("-123 CkesMutex::Unlock()", errorTrail());
  calls::pthread_mutex_init.fail(EINVAL, 0, 0, 1);
  CkesMutex not_initialized;
  EXPECT_EQ(-120, not_initialized.Pass());
  EXPECT_EQ("-120 CkesMutex::Lock()", errorTrail());
}

TEST(CkesMutex, IsNotReentrant) {
  CkesMutex mutex;
  EXPECT_EQ(0, mutex.Lock());
  EXPECT_EQ(-124, mutex.TryLock());
  EXPECT_EQ(0, mutex.Unlock());
}

TEST(CkesMutex, LockWaitsUntilTheHolderUnlocks) {
  CkesMutex mutex;
  int guarded = 0;
  ASSERT_EQ(0, mutex.Lock());
  calls::pthread_mutex_lock.watch();
  std::thread waiter([&] {
    EXPECT_EQ(0, mutex.Lock());
    EXPECT_EQ(1, guarded);
    EXPECT_EQ(0, mutex.Unlock());
  });
  EXPECT_TRUE(waitUntil([] { return calls::pthread_mutex_lock.count() > 0; }));
  guarded = 1;
  EXPECT_EQ(0, mutex.Unlock());
  waiter.join();
}

TEST(CkesMutex, ConstructionInitializesTheThreadLibrary) {
  EXPECT_FALSE(CkesThreadLibrary::IsInitialized());
  const CkesMutex mutex;
  EXPECT_TRUE(CkesThreadLibrary::IsInitialized());
}

TEST(CkesMutex, IsMadeWithDefaultAttributes) {
  bool defaults = false;
  calls::pthread_mutex_init.replace(
      [&](pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
        defaults = attributes == nullptr;
        return calls::pthread_mutex_init.real(mutex, attributes);
      });
  const CkesMutex mutex;
  EXPECT_EQ(1, calls::pthread_mutex_init.count());
  EXPECT_TRUE(defaults);
}

TEST(CkesMutex, IsNotInitializedWhenTheThreadLibraryCannotBe) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  const CkesMutex mutex;
  EXPECT_FALSE(mutex.IsInitialized());
}

TEST(CkesMutex, IsInitializedAfterAFailedInitializationOfTheThreadLibraryByAnother) {
  calls::pthread_key_create.fail(EAGAIN, 0);
  const CkesMutex first;
  const CkesMutex second;
  EXPECT_TRUE(second.IsInitialized());
}

TEST(CkesMutex, IsNotInitializedWhenThePosixMutexCannotBeMade) {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
  const CkesMutex mutex;
  EXPECT_FALSE(mutex.IsInitialized());
}

TEST(CkesMutex, LockOfAMutexNotInitializedGivesMinus120) {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
  CkesMutex mutex;
  EXPECT_EQ(-120, mutex.Lock());
  EXPECT_EQ("-120 CkesMutex::Lock()", errorTrail());
}

TEST(CkesMutex, UnlockOfAMutexNotInitializedGivesMinus120) {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
  CkesMutex mutex;
  EXPECT_EQ(-120, mutex.Unlock());
  EXPECT_EQ("-120 CkesMutex::Unlock()", errorTrail());
}

TEST(CkesMutex, TryLockOfAMutexNotInitializedGivesMinus120) {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
  CkesMutex mutex;
  EXPECT_EQ(-120, mutex.TryLock());
  EXPECT_EQ("-120 CkesMutex::TryLock()", errorTrail());
}

TEST(CkesMutex, FailingLockGivesMinus122) {
  CkesMutex mutex;
  calls::pthread_mutex_lock.fail(EINVAL, 0);
  EXPECT_EQ(-122, mutex.Lock());
  EXPECT_EQ("-122 CkesMutex::Lock()", errorTrail());
}

TEST(CkesMutex, FailingUnlockGivesMinus123) {
  CkesMutex mutex;
  ASSERT_EQ(0, mutex.Lock());
  calls::pthread_mutex_unlock.replace([](pthread_mutex_t* held) {
    (void)calls::pthread_mutex_unlock.real(held);
    return EPERM;
  });
  EXPECT_EQ(-123, mutex.Unlock());
  EXPECT_EQ("-123 CkesMutex::Unlock()", errorTrail());
}

TEST(CkesMutex, TryLockThatFailsOtherwiseThanBusyGivesMinus122) {
  CkesMutex mutex;
  calls::pthread_mutex_trylock.fail(EINVAL, 0);
  EXPECT_EQ(-122, mutex.TryLock());
  EXPECT_EQ("-122 CkesMutex::TryLock()", errorTrail());
}

TEST(CkesMutex, UnlockOfAMutexNotHeldIsTolerated) {
  CkesMutex mutex;
  EXPECT_EQ(0, mutex.Unlock());
  EXPECT_EQ(0, mutex.Lock());
  EXPECT_EQ(0, mutex.Unlock());
  EXPECT_EQ(0, mutex.Unlock());
  EXPECT_EQ("0 Error code not set.", errorTrail());
}

TEST(CkesMutex, UnlockByAThreadThatDoesNotHoldTheMutexDoesNotReleaseIt) {
  CkesMutex mutex;
  ASSERT_EQ(0, mutex.Lock());
  std::thread([&] { EXPECT_EQ(0, mutex.Unlock()); }).join();
  EXPECT_EQ(-124, tryLockElsewhere(mutex));
  EXPECT_EQ(0, mutex.Unlock());
  EXPECT_EQ(0, tryLockElsewhere(mutex));
}

TEST(CkesMutex, UnlockByANonHolderDoesNotReachThePosixMutex) {
  CkesMutex mutex;
  calls::pthread_mutex_unlock.watch();
  EXPECT_EQ(0, mutex.Unlock());
  EXPECT_EQ(0, calls::pthread_mutex_unlock.count());
}

TEST(CkesMutex, DestructionDestroysThePosixMutex) {
  calls::pthread_mutex_destroy.watch();
  { const CkesMutex mutex; }
  EXPECT_EQ(1, calls::pthread_mutex_destroy.count());
}

TEST(CkesMutex, DestructionOfAMutexNotInitializedDestroysNothing) {
  calls::pthread_mutex_init.fail(ENOMEM, 0);
  calls::pthread_mutex_destroy.watch();
  { const CkesMutex mutex; }
  EXPECT_EQ(0, calls::pthread_mutex_destroy.count());
}

TEST(CkesMutex, RefusesOperationsBeforeItsConstructorHasRun) {
  alignas(CkesMutex) static unsigned char storage[sizeof(CkesMutex)] = {};
  EXPECT_EQ(-120, reinterpret_cast<CkesMutex*>(storage)->Lock());
}

TEST(CkesMutex, RefusesOperationsAfterItsDestructorHasRun) {
  alignas(CkesMutex) static unsigned char storage[sizeof(CkesMutex)] = {};
  auto* mutex = new (storage) CkesMutex;
  EXPECT_EQ(0, mutex->Lock());
  EXPECT_EQ(0, mutex->Unlock());
  mutex->~CkesMutex();
  EXPECT_EQ(-120, mutex->Lock());
}

// The thread sanitizer does not see that a mutex made anew in a forked child is free.
#ifndef __SANITIZE_THREAD__
TEST(CkesMutex, RenewalFreesAMutexThatAThreadOfTheForkingProcessHeld) {
  CkesMutex mutex;
  const Holder holder(mutex);
  const pid_t child = forkChild([&] {
    mutex.RenewAfterFork();
    return mutex.TryLock() == 0 && mutex.Unlock() == 0 ? 0 : 1;
  });
  EXPECT_EQ(0, exitCodeOf(child));
}
#endif

}  // namespace
}  // namespace armtest
