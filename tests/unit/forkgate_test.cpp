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
std::function<void()> lastBeforeFork;
std::function<void()> firstInChild;

void run(const std::function<void()>& handler) {
  if (handler) handler();
}

const int registered =
    pthread_atfork([] { run(lastBeforeFork); }, nullptr, [] { run(firstInChild); });

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
    EXPECT_EQ(0, registered);
    // Part of what registers the library's handlers.
    EXPECT_TRUE(VCodesetMutex.IsInitialized());
  }
  ~ForkGate() override {
    lastBeforeFork = nullptr;
    firstInChild = nullptr;
  }

  CForkGate& gate = VConverterGate;
  CountingMutex mutex;
};

TEST_F(ForkGate, LetsOneThreadInWhileNobodyForks) {
  EXPECT_TRUE(gate.Enter(mutex));
  EXPECT_FALSE(gate.OccupiedByAnother());
  gate.Leave();
  EXPECT_TRUE(gate.Enter(mutex));
  gate.Leave();
  EXPECT_EQ(0, mutex.unlocks());
}

TEST_F(ForkGate, IsNotEnteredTwice) {
  EXPECT_TRUE(gate.Enter(mutex));
  EXPECT_FALSE(gate.Enter(mutex));
  gate.Leave();
}

TEST_F(ForkGate, ThreadGivesItsMutexBackAndEntersWhenTheForkIsOver) {
  std::thread entering;
  std::atomic<bool> entered{false};
  lastBeforeFork = [&] {
    entering = std::thread([&] {
      (void)mutex.Lock();
      EXPECT_TRUE(gate.Enter(mutex));
      entered = true;
      gate.Leave();
      (void)mutex.Unlock();
    });
    EXPECT_TRUE(waitUntil([&] { return mutex.unlocks() > 0; }));
  };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
  entering.join();
  EXPECT_TRUE(entered);
}

TEST_F(ForkGate, ForkThatDoesNotEndIsWaitedForOnce) {
  lastBeforeFork = [&] {
    std::thread([&] {
      (void)mutex.Lock();
      EXPECT_TRUE(gate.Enter(mutex));
      gate.Leave();
      const int unlocks = mutex.unlocks();
      EXPECT_LT(0, unlocks);
      EXPECT_TRUE(gate.Enter(mutex));
      gate.Leave();
      EXPECT_EQ(unlocks, mutex.unlocks());
      (void)mutex.Unlock();
    }).join();
  };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
}

TEST_F(ForkGate, ForkingThreadItselfDoesNotWait) {
  lastBeforeFork = [&] {
    EXPECT_TRUE(gate.Enter(mutex));
    gate.Leave();
  };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
  EXPECT_EQ(0, mutex.unlocks());
}

TEST_F(ForkGate, ForkWaitsForTheThreadInside) {
  ASSERT_TRUE(gate.Enter(mutex));
  std::atomic<bool> left{false};
  std::atomic<bool> forking{false};
  bool leftBefore = false;
  // Comes before the library's own preparation, as every handler that is registered later.
  static std::atomic<bool>* begun = nullptr;
  begun = &forking;
  ASSERT_EQ(0, pthread_atfork([] { begun->store(true); }, nullptr, nullptr));
  lastBeforeFork = [&] { leftBefore = left.load(); };
  std::thread fork([] { EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; }))); });
  EXPECT_TRUE(waitUntil([&] { return forking.load(); }));
  left = true;
  gate.Leave();
  fork.join();
  EXPECT_TRUE(leftBefore);
}

TEST_F(ForkGate, StaysClosedInAChildThatWasBornWhileAnotherThreadWasInside) {
  ASSERT_TRUE(gate.Enter(mutex));
  const auto enters = [this] {
    if (!gate.Enter(mutex)) return 1;
    gate.Leave();
    return 0;
  };
  std::thread([&] {
    EXPECT_EQ(1, exitCodeOf(forkChild([&] {
                // Nobody is waited for, and neither in a child of this one.
                EXPECT_FALSE(gate.OccupiedByAnother());
                return enters() + exitCodeOf(forkChild(enters)) - 1;
              })));
  }).join();
  gate.Leave();
  EXPECT_EQ(0, enters());
}

TEST_F(ForkGate, IsOpenInAChildThatASignalHandlerForksWhenItsCallIsOver) {
  ASSERT_TRUE(gate.Enter(mutex));
  EXPECT_EQ(0, exitCodeOf(forkChild([&] {
              if (gate.Enter(mutex)) return 1;
              gate.Leave();
              return gate.Enter(mutex) ? 0 : 2;
            })));
  gate.Leave();
}

TEST_F(ForkGate, ChildIsRenewedBeforeAHandlerOfTheHostsCallsTheLibrary) {
  ASSERT_EQ(0, VInitMutex.Lock());
  long inHandler = -1;
  long afterwards = -1;
  firstInChild = [&] {
    renewIfForked();
    inHandler = VInitMutex.TryLock();
  };
  std::thread([&] {
    EXPECT_EQ(0, exitCodeOf(forkChild([&] {
                // What the handler has taken stays taken: nothing is renewed twice.
                afterwards = VInitMutex.TryLock();
                return inHandler == 0 && afterwards == -124 ? 0 : 1;
              })));
  }).join();
  EXPECT_EQ(0, VInitMutex.Unlock());
}

TEST_F(ForkGate, ParentIsNotRenewed) {
  ASSERT_EQ(0, VInitMutex.Lock());
  lastBeforeFork = [] { renewIfForked(); };
  EXPECT_EQ(0, exitCodeOf(forkChild([] { return 0; })));
  EXPECT_TRUE(VInitMutex.HeldByCaller());
  EXPECT_EQ(0, VInitMutex.Unlock());
}

}  // namespace
}  // namespace armtest
