// Many processes and threads against one engine: everybody gets the own replies, whoever dies.

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>

#include "CallTest.h"
#include "counted.h"
#include "shared.h"
#include "tracefile.h"

namespace armtest {
namespace {

using Processes = Calls;

/// Words that all processes of a test see.
struct Board {
  std::atomic<uint32_t> calls;
  std::atomic<uint32_t> wrong;
  std::atomic<bool> stop;
};

/// A board that the processes forked later share.
using SharedBoard = Shared<Board>;

/// Makes one call with an id and tells whether the answer belongs to that id.
bool callIsAnsweredRight(int32_t id) {
  switch (id % 4) {
    case 0:
      return arm_start(id, 0, nullptr, 0) == derivedResult(id);
    case 1:
      return arm_update(id, 0, nullptr, 0) == derivedResult(id);
    case 2:
      return arm_completeTransaction(id, 0, 0) == derivedResult(id);
    default:
      return arm_associateMetricData(id, &id, sizeof id) == derivedResult(id);
  }
}

/// Threads of one process, each with ids of its own.
void runThreads(int threads, const std::function<void(int)>& body) {
  std::vector<std::thread> running;
  for (int i = 0; i < threads; ++i) running.emplace_back(body, i);
  for (std::thread& thread : running) thread.join();
}

void callMany(Board* board, int32_t first_id, int32_t count) {
  for (int32_t id = first_id; id < first_id + count; ++id) {
    if (!callIsAnsweredRight(id)) board->wrong.fetch_add(1);
    board->calls.fetch_add(1);
  }
}

void callUntilStopped(Board* board, int32_t first_id) {
  for (int32_t id = first_id; !board->stop.load(); ++id) callMany(board, id, 1);
}

// ---- many processes -----------------------------------------------------------------------------

TEST_F(Processes, WithManyThreadsEachGetTheirOwnReplies) {
  constexpr int PROCESSES = 6;
  constexpr int THREADS = 8;
  constexpr int CALLS = 40;
  ASSERT_TRUE(engine_.start());
  engine_.derive();
  SharedBoard board;
  std::vector<pid_t> clients;
  for (int process = 0; process < PROCESSES; ++process) {
    clients.push_back(forkChild([&] {
      runThreads(THREADS, [&](int thread) {
        callMany(board.get(), 1 + (process * THREADS + thread) * 10000, CALLS);
      });
      return 0;
    }));
  }
  for (const pid_t client : clients) EXPECT_EQ(0, exitCodeOf(client));
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(1920U, board->calls.load());
  EXPECT_EQ(1920U, engine_.taken());
  EXPECT_EQ(0, engine_.usedItems());
}

TEST_F(Processes, MoreThanThereAreHeadRecordsShareThemOneAfterTheOther) {
  EngineSetup setup;
  setup.requesters = 2;
  ASSERT_TRUE(engine_.start(setup));
  engine_.derive();
  SharedBoard board;
  for (int process = 0; process < 10; ++process) {
    const pid_t client = forkChild([&] {
      callMany(board.get(), 1 + process * 1000, 5);
      return 0;
    });
    EXPECT_EQ(0, exitCodeOf(client));
  }
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(50U, engine_.taken());
}

TEST_F(Processes, BeyondTheRingAreRefusedWithMinus8AndTheOthersLoseNothing) {
  constexpr int ROOM = 4;
  EngineSetup setup;
  setup.requests = ROOM;
  ASSERT_TRUE(engine_.start(setup));
  engine_.derive();
  engine_.pause();
  SharedBoard board;
  std::vector<pid_t> clients;
  for (int process = 0; process < ROOM; ++process) {
    clients.push_back(forkChild([&board, process] {
      callMany(board.get(), 1 + process * 1000, 1);
      return 0;
    }));
  }
  ASSERT_TRUE(engine_.waitSleepers(ROOM));
  const pid_t refused = forkChild([] {
    int count = 0;
    for (int i = 0; i < 20; ++i) count += arm_start(5, 0, nullptr, 0) == -8 ? 1 : 0;
    return count;
  });
  EXPECT_EQ(20, exitCodeOf(refused));
  engine_.resume();
  for (const pid_t client : clients) EXPECT_EQ(0, exitCodeOf(client));
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(4U, engine_.taken());
}

TEST_F(Processes, WithoutAHeadRecordAreRefusedWithMinus9AndTheOthersGetTheirReplies) {
  constexpr int HEADS = 3;
  EngineSetup setup;
  setup.requesters = HEADS;
  ASSERT_TRUE(engine_.start(setup));
  engine_.hold(3, -1, 33);
  std::vector<pid_t> clients;
  for (int process = 0; process < HEADS; ++process) {
    clients.push_back(forkChild([] { return arm_start(5, 0, nullptr, 0); }));
  }
  ASSERT_TRUE(engine_.waitTaken(HEADS) && engine_.waitSleepers(HEADS));
  engine_.drop();
  const pid_t refused = forkChild([] { return -arm_update(5, 0, nullptr, 0); });
  EXPECT_EQ(9, exitCodeOf(refused));
  EXPECT_EQ(HEADS, engine_.release());
  for (const pid_t client : clients) EXPECT_EQ(33, exitCodeOf(client));
}

// ---- clients that die ---------------------------------------------------------------------------

TEST_F(Processes, KilledWhileTheyWaitDoNotDisturbOthers) {
  EngineSetup setup;
  setup.requesters = 4;
  ASSERT_TRUE(engine_.start(setup));
  SharedBoard board;
  // Far more than there are head records: those of the dead are used again.
  for (int32_t victim = 0; victim < 12; ++victim) {
    engine_.forget();
    engine_.hold(5);
    engine_.derive();
    const uint32_t before = engine_.taken();
    const pid_t waiting = forkChild([] { return arm_stop(1, 0, 0, nullptr, 0); });
    ASSERT_TRUE(engine_.waitTaken(before + 1) && engine_.waitSleepers(1));
    kill(waiting, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, exitCodeOf(waiting));
    // The late reply goes to a process that is gone.
    EXPECT_EQ(1, engine_.release());
    EXPECT_LE(1, engine_.reclaim());
    EXPECT_EQ(0, engine_.usedItems());
    const pid_t other = forkChild([&] {
      callMany(board.get(), 1 + 1000 * victim, 4);
      return 0;
    });
    EXPECT_EQ(0, exitCodeOf(other));
  }
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(48U, board->calls.load());
}

TEST_F(Processes, KilledWhileTheyWaitKeepTheirHeadRecordsUntilTheEngineTakesThemBack) {
  constexpr int HEADS = 3;
  EngineSetup setup;
  setup.requesters = HEADS;
  ASSERT_TRUE(engine_.start(setup));
  engine_.drop();
  for (int victim = 0; victim < HEADS; ++victim) {
    const pid_t waiting = forkChild([] { return arm_stop(1, 0, 0, nullptr, 0); });
    ASSERT_TRUE(engine_.waitSleepers(1));
    kill(waiting, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, exitCodeOf(waiting));
  }
  EXPECT_EQ(HEADS, engine_.headsInUse());
  EXPECT_EQ(-9, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(HEADS, engine_.reclaim());
  EXPECT_EQ(0, engine_.headsInUse());
  engine_.forget();
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(Processes, KilledAtAnyMomentDoNotDisturbOthers) {
  constexpr int VICTIMS = 25;
  EngineSetup setup;
  setup.requesters = 16;
  ASSERT_TRUE(engine_.start(setup));
  engine_.derive();
  SharedBoard board;
  SharedBoard victims;
  std::vector<pid_t> survivors;
  for (int process = 0; process < 3; ++process) {
    survivors.push_back(forkChild([&] {
      runThreads(2, [&](int thread) {
        callUntilStopped(board.get(), 1 + (process * 2 + thread) * 1000000);
      });
      return 0;
    }));
  }
  std::minstd_rand random(20240307);
  for (int32_t victim = 0; victim < VICTIMS; ++victim) {
    victims->calls.store(0);
    const pid_t process = forkChild([&] {
      callUntilStopped(victims.get(), 100000000 + victim * 1000000);
      return 0;
    });
    const uint32_t calls = static_cast<uint32_t>(random() % 30);
    EXPECT_TRUE(waitUntil([&] { return victims->calls.load() >= calls; }));
    kill(process, SIGKILL);
    EXPECT_EQ(128 + SIGKILL, exitCodeOf(process));
    (void)engine_.reclaim();
    const uint32_t before = board->calls.load();
    EXPECT_TRUE(waitUntil([&] { return board->calls.load() >= before + 6; }))
        << "nobody is served after victim " << victim;
  }
  board->stop.store(true);
  for (const pid_t survivor : survivors) EXPECT_EQ(0, exitCodeOf(survivor));
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(0U, victims->wrong.load());
}

// ---- engines that die ---------------------------------------------------------------------------

TEST_F(Processes, BlockedWhileTheEngineIsReplacedLeaveWithMinus9AndReconnect) {
  constexpr int THREADS = 4;
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  SharedBoard board;
  std::vector<pid_t> clients;
  for (int process = 0; process < 2; ++process) {
    clients.push_back(forkChild([&] {
      runThreads(THREADS, [&](int thread) {
        if (arm_start(5, 0, nullptr, 0) != -9) board->wrong.fetch_add(1);
        board->calls.fetch_add(1);
        // One thread after the other: the first one reconnects for all.
        while (board->calls.load() < 2 * THREADS || !board->stop.load()) usleep(1000);
        (void)thread;
      });
      callMany(board.get(), 1000 * (process + 1), 10);
      return 0;
    }));
  }
  ASSERT_TRUE(engine_.waitTaken(2 * THREADS) && engine_.waitSleepers(2 * THREADS));
  engine_.kill();
  EngineSetup setup;
  setup.requests = 7;
  setup.requesters = 33;
  ASSERT_TRUE(engine_.start(setup));
  engine_.derive();
  ASSERT_TRUE(waitUntil([&] { return board->calls.load() == 2 * THREADS; }));
  board->stop.store(true);
  for (const pid_t client : clients) EXPECT_EQ(0, exitCodeOf(client));
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(28U, board->calls.load());
  counted("threads blocked in their waits while the engine is killed and replaced", 2 * THREADS);
}

TEST_F(Processes, BlockedWhileTheEngineQuitsLeaveWithMinus9) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  std::vector<pid_t> clients;
  for (int process = 0; process < 4; ++process) {
    clients.push_back(forkChild([] {
      int failed = 0;
      failed += arm_start(5, 0, nullptr, 0) == -9 ? 0 : 1;
      // The engine may still be removing its objects.
      const int32_t next = arm_start(5, 0, nullptr, 0);
      failed += next == -2 || next == -9 ? 0 : 2;
      return failed;
    }));
  }
  ASSERT_TRUE(engine_.waitTaken(4) && engine_.waitSleepers(4));
  engine_.quit();
  for (const pid_t client : clients) EXPECT_EQ(0, exitCodeOf(client));
  counted("threads blocked in their waits while the engine ends in good order", 4);
}

TEST_F(Processes, SeeingTheDeadEngineInManyThreadsAtOnceReconnectWithoutHarm) {
  constexpr int THREADS = 8;
  constexpr int ROUNDS = 5;
  ASSERT_TRUE(engine_.start());
  engine_.derive();
  ASSERT_TRUE(callIsAnsweredRight(1));
  for (int32_t round = 0; round < ROUNDS; ++round) {
    engine_.kill();
    ASSERT_TRUE(engine_.start());
    engine_.derive();
    std::atomic<int> waiting{0};
    std::atomic<int> unexpected{0};
    runThreads(THREADS, [&](int thread) {
      const int32_t id = 4 * (1 + round * 100 + thread);
      waiting.fetch_add(1);
      while (waiting.load() < THREADS) {
      }
      // Another thread may close the connection that this one has just opened.
      const int32_t result = arm_start(id, 0, nullptr, 0);
      if (result != derivedResult(id) && result != -2) unexpected.fetch_add(1);
    });
    EXPECT_EQ(0, unexpected.load());
    // Threads that begin after the storm are served as ever.
    std::atomic<int> wrong{0};
    runThreads(THREADS, [&](int thread) {
      if (!callIsAnsweredRight(1000000 + round * 1000 + thread)) wrong.fetch_add(1);
    });
    EXPECT_EQ(0, wrong.load());
  }
  counted("eight threads that see the dead engine at once", ROUNDS);
}

TEST_F(Processes, ClosingUnderABlockedThreadLeavesItsQueueAliveUntilItLeaves) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  CallInThread blocked([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  engine_.kill();
  // The blocked thread's semaphore set is still there: this call waits for it, in vain, and closes.
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  EXPECT_EQ(-2, arm_update(5, 0, nullptr, 0));
  EXPECT_EQ(1, engine_.sleepers());
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(-9, blocked.result());
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
}

TEST_F(Processes, ReplacedEngineReleasesABlockedThreadWhileAnotherReconnects) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  CallInThread blocked([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  engine_.kill();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
  EXPECT_EQ(-9, blocked.result());
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
}

// While an engine dies, its reply queue can be seen dead before its request queue: calls then post
// and do not wait, and may fill the ring.
TEST_F(Processes, CallingAllTheTimeSurviveEnginesThatComeAndGo) {
  constexpr int THREADS = 4;
  ASSERT_TRUE(engine_.start());
  engine_.derive();
  SharedBoard board;
  SharedBoard served;
  const pid_t client = forkChild([&] {
    runThreads(THREADS, [&](int thread) {
      for (int32_t id = 4 * (1 + thread * 1000000); !board->stop.load(); id += 4) {
        const int32_t result = arm_start(id, 0, nullptr, 0);
        board->calls.fetch_add(1);
        if (result > 0) served->calls.fetch_add(1);
        const bool failed = result == -2 || result == -8 || result == -9;
        if (result <= 0 && !failed) board->wrong.fetch_add(1);
      }
    });
    return 0;
  });
  for (int round = 0; round < 6; ++round) {
    const uint32_t before = served->calls.load();
    EXPECT_TRUE(waitUntil([&] { return served->calls.load() > before + 20; }))
        << "nobody is served in round " << round;
    if (round % 2 == 0) {
      engine_.kill();
    } else {
      engine_.quit();
    }
    ASSERT_TRUE(engine_.start());
    engine_.derive();
  }
  board->stop.store(true);
  EXPECT_EQ(0, exitCodeOf(client));
  EXPECT_EQ(0U, board->wrong.load());
}

// ---- cancellation, signals, stacks, forks -------------------------------------------------------

struct CancelledCall {
  std::atomic<int32_t> result{0};
  int type = PTHREAD_CANCEL_DEFERRED;
};

void* callThenReachACancellationPoint(void* argument) {
  auto* call = static_cast<CancelledCall*>(argument);
  int before = 0;
  pthread_setcanceltype(call->type, &before);
  const int32_t result = arm_start(5, 0, nullptr, 0);
  // With asynchronous cancellation the thread does not come here.
  call->result.store(result);
  for (;;) pause();
}

void expectCancellationAfterTheCall(ScriptedEngine& engine, int type) {
  const uint32_t before = engine.taken();
  CancelledCall call;
  call.type = type;
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, nullptr, callThenReachACancellationPoint, &call));
  ASSERT_TRUE(engine.waitTaken(before + 1) && engine.waitSleepers(1));
  ASSERT_EQ(0, pthread_cancel(thread));
  // It still sleeps: others can call, and nothing of the library is locked.
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
  EXPECT_EQ(1, engine.sleepers());
  EXPECT_EQ(1, engine.release());
  void* end = nullptr;
  EXPECT_EQ(0, pthread_join(thread, &end));
  EXPECT_EQ(PTHREAD_CANCELED, end);
  if (type == PTHREAD_CANCEL_DEFERRED) {
    EXPECT_EQ(33, call.result.load());
  }
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
}

TEST_F(Processes, ThreadThatIsCancelledWhileItWaitsEndsAfterItsCall) {
  ASSERT_TRUE(engine_.start());
  engine_.hold(3, -1, 33);
  expectCancellationAfterTheCall(engine_, PTHREAD_CANCEL_DEFERRED);
  expectCancellationAfterTheCall(engine_, PTHREAD_CANCEL_ASYNCHRONOUS);
  // The connection can still be closed and opened.
  engine_.kill();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
}

std::atomic<int> signals_handled{0};

void countSignal(int) {
  signals_handled.fetch_add(1);
}

void installHandler(int flags) {
  struct sigaction action = {};
  action.sa_handler = countSignal;
  action.sa_flags = flags;
  ASSERT_EQ(0, sigaction(SIGUSR1, &action, nullptr));
}

/// One thread waits for a late reply while signals arrive.
void expectSignalsDoNotEndTheWait(ScriptedEngine& engine) {
  const uint32_t before = engine.taken();
  std::atomic<pthread_t> caller{};
  CallInThread call([&caller] {
    caller.store(pthread_self());
    return arm_start(5, 0, nullptr, 0);
  });
  ASSERT_TRUE(engine.waitTaken(before + 1) && engine.waitSleepers(1));
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(0, pthread_kill(caller.load(), SIGUSR1));
#if !defined(__SANITIZE_THREAD__)
    // The thread sanitizer runs handlers only when the call has ended.
    const int handled = i + 1;
    ASSERT_TRUE(waitUntil([&] { return signals_handled.load() >= handled; }));
#endif
    ASSERT_TRUE(engine.waitSleepers(1));
  }
  EXPECT_EQ(1, engine.release());
  EXPECT_EQ(33, call.result());
  signals_handled.store(0);
}

TEST_F(Processes, SignalsWithoutRestartDoNotEndAWait) {
  installHandler(0);
  ASSERT_TRUE(engine_.start());
  engine_.hold(3, -1, 33);
  expectSignalsDoNotEndTheWait(engine_);
}

TEST_F(Processes, SignalsWithRestartDoNotEndAWait) {
  installHandler(SA_RESTART);
  ASSERT_TRUE(engine_.start());
  engine_.hold(3, -1, 33);
  expectSignalsDoNotEndTheWait(engine_);
}

TEST_F(Processes, SignalsAtAnyMomentChangeNoResult) {
  installHandler(0);
  ASSERT_TRUE(engine_.start());
  engine_.derive();
  SharedBoard board;
  std::atomic<bool> started{false};
  std::thread caller([&] {
    started.store(true);
    callMany(board.get(), 1, 300);
    board->stop.store(true);
    // Stays until the last signal has been sent.
    while (started.load()) usleep(100);
  });
  while (!started.load()) {
  }
  while (!board->stop.load()) {
    pthread_kill(caller.native_handle(), SIGUSR1);
    usleep(50);
  }
  started.store(false);
  caller.join();
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(300U, engine_.taken());
}

// A thread of the thread sanitizer does not start with so small a stack.
#if !defined(__SANITIZE_THREAD__)

void* makeEveryCallOnASmallStack(void* failures) {
  auto* count = static_cast<int*>(failures);
  for (const PostingCall& one : postingCalls()) *count += one.call() == 100 + one.type ? 0 : 1;
  const std::string name(3619, 'n');
  const std::string detail(127, 'd');
  *count += arm_getid(5, name.c_str(), detail.c_str(), 0, nullptr, 0) == 102 ? 0 : 1;
  *count += arm_init(detail.c_str(), "*", 0, nullptr, 0) == 101 ? 0 : 1;
  *count += arm_init(nullptr, nullptr, 0, nullptr, 0) == -1 ? 0 : 1;
  *count += SetExpectedCodeset("UTF-8") == -3004 ? 0 : 1;
  *count += GetExpectedCodeset() != nullptr ? 0 : 1;
  *count += arm_getCorrelatorKey() != nullptr ? 0 : 1;
  return nullptr;
}

TEST_F(Processes, StackOf64KiBIsEnoughForEveryCallWithTracing) {
  setenv("ARMDEBUG", "1", 1);
  ASSERT_TRUE(engine_.start());
  pthread_attr_t attributes;
  ASSERT_EQ(0, pthread_attr_init(&attributes));
  ASSERT_EQ(0, pthread_attr_setstacksize(&attributes, 64 * 1024));
  int failures = 0;
  pthread_t thread;
  ASSERT_EQ(0, pthread_create(&thread, &attributes, makeEveryCallOnASmallStack, &failures));
  ASSERT_EQ(0, pthread_join(thread, nullptr));
  pthread_attr_destroy(&attributes);
  EXPECT_EQ(0, failures);
}

#endif

TEST_F(Processes, ForkedChildOfAConnectedProcessGetsItsOwnReplies) {
  ASSERT_TRUE(engine_.start());
  engine_.derive();
  ASSERT_TRUE(callIsAnsweredRight(7));
  const uint32_t own_thread = ownThreadWord();
  SharedBoard board;
  const pid_t child = forkChild([&] {
    callMany(board.get(), 5000, 50);
    return 0;
  });
  for (int32_t id = 100; id < 150; ++id) EXPECT_TRUE(callIsAnsweredRight(id));
  EXPECT_EQ(0, exitCodeOf(child));
  EXPECT_EQ(0U, board->wrong.load());
  EXPECT_EQ(101U, engine_.taken());
  for (uint32_t i = 0; i < engine_.taken(); ++i) {
    const Bytes record = engine_.record(i);
    const bool of_child = word(record, 12) >= 5000;
    EXPECT_EQ(static_cast<uint32_t>(of_child ? child : getpid()), word(record, 0));
#if defined(__LP64__)
    // The child's only thread has the process's number.
    EXPECT_EQ(of_child ? static_cast<uint32_t>(child) : own_thread, word(record, 4));
#else
    EXPECT_EQ(own_thread, word(record, 4));
#endif
  }
}

TEST_F(Processes, ForkedChildOfATracingProcessCallsAndTraces) {
  setenv("ARMDEBUG", "1", 1);
  setenv("ARMDEBUGFORMAT", "basic", 1);
  ASSERT_TRUE(engine_.start());
  ASSERT_EQ(101, arm_init("a", "u", 0, nullptr, 0));
  clearTrace();
  for (int i = 0; i < 3; ++i) {
    const pid_t child = forkChild([] {
      if (arm_start(5, 0, nullptr, 0) != 103) return 1;
      return basicTexts(readTrace()).size() == 3 ? 0 : 2;
    });
    EXPECT_EQ(0, exitCodeOf(child));
    clearTrace();
  }
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  EXPECT_EQ(3U, basicTexts(readTrace()).size());
}

TEST_F(Processes, ForkedWhileAThreadWaitsTheChildStillCalls) {
  ASSERT_TRUE(engine_.start());
  engine_.hold(5, -1, 55);
  CallInThread waiting([] { return arm_stop(5, 0, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  const pid_t child = forkChild([] { return arm_start(5, 0, nullptr, 0) == 103 ? 0 : 1; });
  EXPECT_EQ(0, exitCodeOf(child));
  EXPECT_EQ(1, engine_.release());
  EXPECT_EQ(55, waiting.result());
}

// ---- engines side by side -----------------------------------------------------------------------

/// The result of a call in a process with a prefix of its own; no prefix when null.
int32_t callWithPrefix(const char* prefix) {
  return exitCodeOf(forkChild([prefix] {
    if (prefix != nullptr) {
      setenv("ARM_AGENT_PREFIX", prefix, 1);
    } else {
      unsetenv("ARM_AGENT_PREFIX");
    }
    const int32_t result = arm_start(5, 0, nullptr, 0);
    return result >= 0 ? result : 256 + result;
  }));
}

EngineSetup prefixed(const char* prefix) {
  EngineSetup setup;
  setup.prefixed = true;
  setup.prefix = prefix;
  return setup;
}

TEST_F(Processes, OfTwoEnginesSideBySideEachReachTheirOwn) {
  ScriptedEngine other;
  ASSERT_TRUE(engine_.start(prefixed("one")));
  ASSERT_TRUE(other.start(prefixed("two")));
  engine_.reply(3, 11);
  other.reply(3, 22);
  EXPECT_EQ(11, callWithPrefix("one"));
  EXPECT_EQ(22, callWithPrefix("two"));
  EXPECT_EQ(22, callWithPrefix("two"));
  EXPECT_EQ(256 - 2, callWithPrefix("three"));
  EXPECT_EQ(256 - 2, callWithPrefix(nullptr));
  EXPECT_EQ(1U, engine_.taken());
  EXPECT_EQ(2U, other.taken());
  other.quit();
  EXPECT_EQ(256 - 2, callWithPrefix("two"));
  EXPECT_EQ(11, callWithPrefix("one"));
}

TEST_F(Processes, PrefixThatIsEmptyIsNotTheSameAsNone) {
  ScriptedEngine other;
  ASSERT_TRUE(engine_.start(prefixed("")));
  EXPECT_EQ(256 - 2, callWithPrefix(nullptr));
  unsetenv("ARM_AGENT_PREFIX");
  ASSERT_TRUE(other.start());
  engine_.reply(3, 11);
  other.reply(3, 22);
  EXPECT_EQ(11, callWithPrefix(""));
  EXPECT_EQ(22, callWithPrefix(nullptr));
}

TEST_F(Processes, OneProcessFollowsTheVariableWhenItReconnects) {
  ScriptedEngine other;
  ASSERT_TRUE(engine_.start(prefixed("one")));
  ASSERT_TRUE(other.start(prefixed("two")));
  engine_.reply(3, 11);
  other.reply(3, 22);
  setenv("ARM_AGENT_PREFIX", "one", 1);
  EXPECT_EQ(11, arm_start(5, 0, nullptr, 0));
  setenv("ARM_AGENT_PREFIX", "two", 1);
  EXPECT_EQ(11, arm_start(5, 0, nullptr, 0));
  engine_.quit();
  EXPECT_EQ(22, arm_start(5, 0, nullptr, 0));
}

}  // namespace
}  // namespace armtest
