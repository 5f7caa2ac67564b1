#include "platform/forkgate.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <functional>
#include <thread>

#include "arm/libarmutils.h"
#include "process.h"

namespace armtest {
namespace {

// Handlers of the host's that were registered before the library's: their preparation comes last,
// their child's part first.
std::function<void()> last_before_fork;
std::function<void()> first_in_child;

void run(const std::function<void()>& handler) {
  if (handler) handler();
}

const int REGISTERED =
    pthread_atfork([] { run(last_before_fork); }, nullptr, [] { run(first_in_child); });

class CountingMutex {
 public:
  bool Lock() { return pthread_mutex_lock(&mutex_) == 0; }
  bool Unlock() {
    unlocks_.fetch_add(1);
    return pthread_mutex_unlock(&mutex_) == 0;
  }
  int unlocks() const { return unlocks_.load(); }

 private:
  pthread_mutex_t mutex_ = PTHREAD_MUTEX_INITIALIZER;
  std::atomic<int> unlocks_{0};
};

class ForkGate : public testing::Test {
 protected:
  ForkGate() {
    EXPECT_EQ(0, REGISTERED);
    // Part of what registers the library's handlers.
    EXPECT_TRUE(VCodesetMutex.IsInitialized());
  }
  ~ForkGate() override {
    last_before_fork = nullptr;
    first_in_child = nullptr;
  }

  CForkGate& gate_ = VConverterGate;
  CountingMutex mutex_;
};

TEST_F(ForkGate, LetsOneThreadInWhileNobodyForks) {
  EXPECT_TRUE(gate_.Enter(mutex_));
  EXPECT_FALSE(gate_.OccupiedByAnother());
  gate_.Leave();
  EXPECT_TRUE(gate_.Enter(mutex_));
  gate_.Leave();
  EXPECT_EQ(0, mutex_.unlocks());
}

TEST_F(ForkGate, IsNotEnteredTwice) {
  EXPECT_TRUE(gate_.Enter(mutex_));
  EXPECT_FALSE(gate_.Enter(mutex_));
  gate_.Leave();
}

TEST_F(ForkGate, ThreadGivesItsMutexBackAndEntersWhenTheForkIsOver) {
  std::thread entering;
  std::atomic<bool> entered{false};
  last_before_fork = [&] {
    entering = std::thread([&] {
      (void)mutex_.Lock();
      EXPECT_TRUE(gate_.Enter(mutex_));
      entered = true;
      gate_.Leave();
      (void)mutex_.Unlock();
    });
    EXPECT_TRUE(waitUntil([&] { return mutex_.unlocks() > 0; }));
  };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
  entering.join();
  EXPECT_TRUE(entered);
}

TEST_F(ForkGate, ForkThatDoesNotEndIsWaitedForOnce) {
  last_before_fork = [&] {
    std::thread([&] {
      (void)mutex_.Lock();
      EXPECT_TRUE(gate_.Enter(mutex_));
      gate_.Leave();
      const int unlocks = mutex_.unlocks();
      EXPECT_LT(0, unlocks);
      EXPECT_TRUE(gate_.Enter(mutex_));
      gate_.Leave();
      EXPECT_EQ(unlocks, mutex_.unlocks());
      (void)mutex_.Unlock();
    }).join();
  };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
}

TEST_F(ForkGate, ForkingThreadItselfDoesNotWait) {
  last_before_fork = [&] {
    EXPECT_TRUE(gate_.Enter(mutex_));
    gate_.Leave();
  };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
  EXPECT_EQ(0, mutex_.unlocks());
}

TEST_F(ForkGate, ForkWaitsForTheThreadInside) {
  ASSERT_TRUE(gate_.Enter(mutex_));
  std::atomic<bool> left{false};
  std::atomic<bool> forking{false};
  bool left_before = false;
  // Comes before the library's own preparation, as every handler that is registered later.
  static std::atomic<bool>* begun = nullptr;
  begun = &forking;
  ASSERT_EQ(0, pthread_atfork([] { begun->store(true); }, nullptr, nullptr));
  last_before_fork = [&] { left_before = left.load(); };
  std::thread fork([] { EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; }))); });
  EXPECT_TRUE(waitUntil([&] { return forking.load(); }));
  left = true;
  gate_.Leave();
  fork.join();
  EXPECT_TRUE(left_before);
}

TEST_F(ForkGate, StaysClosedInAChildThatWasBornWhileAnotherThreadWasInside) {
  ASSERT_TRUE(gate_.Enter(mutex_));
  const auto enters = [this] {
    if (!gate_.Enter(mutex_)) return 1;
    gate_.Leave();
    return 0;
  };
  std::thread([&] {
    EXPECT_EQ(1, exitCodeOf(forkChild([&] {
                // Nobody is waited for, and neither in a child of this one.
                EXPECT_FALSE(gate_.OccupiedByAnother());
                return enters() + exitCodeOf(forkChild(enters)) - 1;
              })));
  }).join();
  gate_.Leave();
  EXPECT_EQ(0, enters());
}

TEST_F(ForkGate, IsOpenInAChildThatASignalHandlerForksWhenItsCallIsOver) {
  ASSERT_TRUE(gate_.Enter(mutex_));
  EXPECT_EQ(0, exitCodeOf(forkChild([&] {
              if (gate_.Enter(mutex_)) return 1;
              gate_.Leave();
              return gate_.Enter(mutex_) ? 0 : 2;
            })));
  gate_.Leave();
}

TEST_F(ForkGate, ChildIsRenewedBeforeAHandlerOfTheHostsCallsTheLibrary) {
  ASSERT_EQ(0, VInitMutex.Lock());
  long in_handler = -1;
  long afterwards = -1;
  first_in_child = [&] {
    renewIfForked();
    in_handler = VInitMutex.TryLock();
  };
  std::thread([&] {
    EXPECT_EQ(0, exitCodeOf(forkChild([&] {
                // What the handler has taken stays taken: nothing is renewed twice.
                afterwards = VInitMutex.TryLock();
                return in_handler == 0 && afterwards == -124 ? 0 : 1;
              })));
  }).join();
  EXPECT_EQ(0, VInitMutex.Unlock());
}

TEST_F(ForkGate, ParentIsNotRenewed) {
  ASSERT_EQ(0, VInitMutex.Lock());
  last_before_fork = [] { renewIfForked(); };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
  EXPECT_TRUE(VInitMutex.HeldByCaller());
  EXPECT_EQ(0, VInitMutex.Unlock());
}

}  // namespace
}  // namespace armtest
