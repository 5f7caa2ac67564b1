// Every wait of a call, with signals arriving, with a cancellation aimed at its thread, and with
// the process ending meanwhile.
//
// ARM_SIGNALS is the number of signals per wait.

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <functional>

#include "CallTest.h"
#include "counted.h"
#include "rawqueues.h"
#include "setting.h"

namespace armtest {
namespace {

constexpr int32_t ANSWER = 4711;
constexpr unsigned SHORT_SIGNALS = 200;
constexpr int EXIT_CODE = 7;

uint32_t signalsPerWait() {
  return settingOr("ARM_SIGNALS", SHORT_SIGNALS);
}

/// Hand-laid queues and one call in a thread of its own.
class Scene {
 public:
  ~Scene() {
    if (running_) pthread_join(thread_, nullptr);
  }

  /// Starts the thread; it calls when the scene has been prepared.
  void begin(bool stays_after_the_call, int cancel_type) {
    stays_ = stays_after_the_call;
    cancelType_ = cancel_type;
    if (pthread_create(&thread_, nullptr, run, this) != 0) abort();
    running_ = true;
    (void)waitUntil([this] { return word_.load() != 0; });
  }
  void call() { go_.store(true); }
  /// Links the answer before the call asks for it.
  void answerBefore() { replies.reply(ownHead(), replyRecord(ANSWER)); }
  size_t ownHead() { return replies.headOf(static_cast<uint32_t>(getpid()), word_.load()); }

  pthread_t thread() const { return thread_; }
  bool over() const { return over_.load(); }
  int32_t result() const { return result_.load(); }
  void* join() {
    void* end = nullptr;
    pthread_join(thread_, &end);
    running_ = false;
    return end;
  }

  RequestQueue requests{8};
  ReplyQueue replies{3};

 private:
  static void* run(void* self) {
    auto* scene = static_cast<Scene*>(self);
    int before = 0;
    pthread_setcanceltype(scene->cancelType_, &before);
    scene->word_.store(ownThreadWord());
    while (!scene->go_.load()) sched_yield();
    scene->result_.store(arm_start(5, 0, nullptr, 0));
    scene->over_.store(true);
    while (scene->stays_) pause();
    return nullptr;
  }

  bool stays_ = false;
  int cancelType_ = PTHREAD_CANCEL_DEFERRED;
  std::atomic<uint32_t> word_{0};
  std::atomic<bool> go_{false};
  std::atomic<bool> over_{false};
  std::atomic<int32_t> result_{0};
  pthread_t thread_{};
  bool running_ = false;
};

/// Where a call can sleep.
struct Wait {
  const char* name;
  void (*prepare)(Scene&);
  bool (*asleep)(const Scene&);
  void (*release)(Scene&);
};

void nothing(Scene&) {}

bool sleepsForItsReply(const Scene& scene) {
  for (int number = 2; number < 5; ++number) {
    if (scene.replies.waits.sleepers(number) > 0) return true;
  }
  return false;
}

const std::vector<Wait>& waits() {
  static const std::vector<Wait> ALL = {
      {"for the reply", nothing, sleepsForItsReply, [](Scene& scene) { scene.answerBefore(); }},
      {"for the lock of the request queue",
       [](Scene& scene) {
         scene.answerBefore();
         scene.requests.lock();
       },
       [](const Scene& scene) { return zeroWaiters(scene.requests.set.id(), 0) > 0; },
       [](Scene& scene) { scene.requests.unlock(); }},
      {"for the lock of the reply queue before the reply",
       [](Scene& scene) {
         scene.answerBefore();
         scene.replies.lock();
       },
       [](const Scene& scene) { return zeroWaiters(scene.replies.set.id(), 0) > 0; },
       [](Scene& scene) { scene.replies.unlock(); }},
      {"for the lock of the reply queue after the reply",
       [](Scene& scene) {
         scene.call();
         (void)waitUntil([&] { return sleepsForItsReply(scene); });
         const size_t head = scene.ownHead();
         scene.replies.lock();
         (void)scene.replies.linkReply(head, replyRecord(ANSWER));
         scene.replies.waits.add(scene.replies.semaphore(head), 1);
       },
       [](const Scene& scene) { return zeroWaiters(scene.replies.set.id(), 0) > 0; },
       [](Scene& scene) { scene.replies.unlock(); }},
      {"for the private lock of the semaphore that wakes the engine",
       [](Scene& scene) {
         scene.answerBefore();
         scene.requests.empty.setValue(1, 1);
       },
       [](const Scene& scene) { return zeroWaiters(scene.requests.empty.id(), 1) > 0; },
       [](Scene& scene) { scene.requests.empty.setValue(1, 0); }}};
  return ALL;
}

/// Brings the call of a scene into its wait.
void enter(Scene& scene, const Wait& wait, bool stays_after_the_call = false,
           int cancel_type = PTHREAD_CANCEL_DEFERRED) {
  scene.begin(stays_after_the_call, cancel_type);
  wait.prepare(scene);
  scene.call();
  ASSERT_TRUE(waitUntil([&] { return wait.asleep(scene); })) << wait.name;
}

// The thread sanitizer runs a handler only when the call has ended.
#if !defined(__SANITIZE_THREAD__)

std::atomic<unsigned> handled{0};

void countSignal(int) {
  handled.fetch_add(1);
}

void sendSignals(const Scene& scene, const Wait& wait) {
  handled.store(0);
  for (unsigned i = 1; i <= signalsPerWait(); ++i) {
    ASSERT_EQ(0, pthread_kill(scene.thread(), SIGUSR1));
    while (handled.load() < i) sched_yield();
    if (i % 50 == 0) {
      ASSERT_TRUE(waitUntil([&] { return wait.asleep(scene); })) << "signal " << i;
    }
  }
}

void expectStormsChangeNothing(int flags) {
  struct sigaction action = {};
  action.sa_handler = countSignal;
  action.sa_flags = flags;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
  for (const Wait& wait : waits()) {
    SCOPED_TRACE(wait.name);
    Scene scene;
    enter(scene, wait);
    sendSignals(scene, wait);
    EXPECT_FALSE(scene.over());
    wait.release(scene);
    (void)scene.join();
    EXPECT_EQ(ANSWER, scene.result());
    EXPECT_FALSE(scene.requests.locked());
    EXPECT_FALSE(scene.replies.locked());
  }
  counted("signals during each wait", signalsPerWait() * waits().size());
}

TEST(Signals, WithoutRestartEndNoWait) {
  expectStormsChangeNothing(0);
}

TEST(Signals, WithRestartEndNoWait) {
  expectStormsChangeNothing(SA_RESTART);
}

/// A call in a thread that can be sent signals.
struct DisturbedCall {
  std::atomic<bool> over{false};
  std::atomic<pthread_t> thread{};
  CallInThread call{[this] {
    thread.store(pthread_self());
    const int32_t result = arm_update(5, 0, nullptr, 0);
    over.store(true);
    return result;
  }};
};

// A thread that closes the connection sleeps between its looks; signals make those shorter. Another
// one waits for the end of the closing.
TEST(Signals, EndNothingButTheSleepOfAClosingThread) {
  struct sigaction action = {};
  action.sa_handler = countSignal;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
  Scene scene;
  enter(scene, waits()[0]);
  scene.requests.creatorDies();
  DisturbedCall calls[2];
  for (const DisturbedCall& one : calls) {
    ASSERT_TRUE(waitUntil([&] { return one.thread.load() != pthread_t{}; }));
  }
  while (!calls[0].over.load() || !calls[1].over.load()) {
    for (const DisturbedCall& one : calls) {
      if (!one.over.load()) pthread_kill(one.thread.load(), SIGUSR1);
    }
    usleep(200);
  }
  for (DisturbedCall& one : calls) EXPECT_EQ(-2, one.call.result());
  EXPECT_FALSE(scene.over());
  scene.requests.set.setValue(1, 2);
  waits()[0].release(scene);
  (void)scene.join();
  EXPECT_EQ(ANSWER, scene.result());
  counted("signals while a thread closes the connection", 1);
}

#endif

// ---- cancellation -------------------------------------------------------------------------------

void expectCancellationWaitsForTheEndOfTheCall(const Wait& wait, int type) {
  SCOPED_TRACE(wait.name);
  Scene scene;
  enter(scene, wait, true, type);
  ASSERT_EQ(0, pthread_cancel(scene.thread()));
  // Nothing has ended the wait when others have had their turn.
  for (int i = 0; i < 100; ++i) sched_yield();
  EXPECT_TRUE(wait.asleep(scene));
  wait.release(scene);
  // The thread would stay for ever. With asynchronous cancellation it ends as the call returns, and
  // the C library does not always tell then why.
  void* end = scene.join();
  if (type == PTHREAD_CANCEL_DEFERRED) {
    EXPECT_EQ(PTHREAD_CANCELED, end);
    EXPECT_EQ(ANSWER, scene.result());
  } else {
    EXPECT_FALSE(scene.over());
  }
  EXPECT_FALSE(scene.requests.locked());
  EXPECT_FALSE(scene.replies.locked());
  EXPECT_EQ(0, scene.replies.usedItems());
}

TEST(Cancellation, OfAWaitingThreadTakesEffectAfterItsCall) {
  for (const Wait& wait : waits()) {
    expectCancellationWaitsForTheEndOfTheCall(wait, PTHREAD_CANCEL_DEFERRED);
  }
  counted("pthread_cancel during each wait", waits().size());
}

TEST(Cancellation, AtAnyInstructionTakesEffectAfterTheCall) {
  for (const Wait& wait : waits()) {
    expectCancellationWaitsForTheEndOfTheCall(wait, PTHREAD_CANCEL_ASYNCHRONOUS);
  }
  counted("pthread_cancel during each wait", waits().size());
}

// ---- the end of the process ---------------------------------------------------------------------

/// A process whose thread waits, and whose main thread ends it.
int endWhileWaiting(const Wait& wait, bool quickly) {
  Scene scene;
  return exitCodeOf(forkChild([&]() -> int {
    enter(scene, wait);
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    // The sanitizers would report what the waiting thread has in hand.
    if (!quickly) exit(EXIT_CODE);
#endif
    (void)quickly;
    return EXIT_CODE;
  }));
}

TEST(Exit, WhileThreadsWaitEndsTheProcess) {
  for (const Wait& wait : waits()) {
    for (const bool quickly : {false, true}) {
      EXPECT_EQ(EXIT_CODE, endWhileWaiting(wait, quickly)) << wait.name;
    }
  }
  counted("exit and _exit while a thread waits", 2 * waits().size());
}

}  // namespace
}  // namespace armtest
