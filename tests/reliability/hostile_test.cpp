// Damaged queues, and a process that damages them while others measure: the calls end with -2, -8
// or -9, or with a reply that was there, and nothing beside the segments is touched.
//
// ARM_HOSTILE_ROUNDS is the number of random rounds; random actions are eight times as many.

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>

#include "CallTest.h"
#include "counted.h"
#include "hostile_calls.h"
#include "hostile_guard.h"
#include "hostile_queues.h"
#include "setting.h"
#include "shared.h"

namespace armtest {
namespace {

constexpr size_t CALLS = 5;
constexpr uint32_t SEED = 20240307;
constexpr uint32_t SHORT_ROUNDS = 250;
constexpr int32_t NOT_CALLED = 1;

uint32_t rounds() {
  return settingOr("ARM_HOSTILE_ROUNDS", SHORT_ROUNDS);
}

/// Words that the test and the process that measures share.
struct HostileBoard {
  std::atomic<uint32_t> thread;
  std::atomic<int> step;  ///< the measuring process goes on to this call
  std::atomic<int> done;
  std::atomic<int32_t> results[CALLS];
  std::atomic<uint32_t> drains_cut;
  std::atomic<bool> stop;
  std::atomic<uint32_t> calls;
  std::atomic<uint32_t> answered;
  std::atomic<uint32_t> unexpected;
  std::atomic<int32_t> an_unexpected;
  std::atomic<bool> links_damaged;
};

using SharedHostileBoard = Shared<HostileBoard>;

/// The measuring process: one call whenever it is told.
int measure(HostileBoard* board, size_t first_call) {
  Host host;
  board->thread.store(ownThreadWord());
  int failures = 0;
  for (size_t i = 0; i < CALLS; ++i) {
    while (board->step.load() <= static_cast<int>(i)) usleep(1);
    fillHost(host);
    board->results[i].store(callNumber(first_call + i, host));
    if (!hostIsWhole(host)) ++failures;
    board->done.fetch_add(1);
  }
  (void)GetExpectedCodeset();
  board->drains_cut.store(drainsCut());
  return failures;
}

/// What the rounds of a test have come to.
struct Tally {
  uint32_t rounds = 0;
  uint32_t answered = 0;
  uint32_t unreachable = 0;
  uint32_t full = 0;
  uint32_t failed = 0;
  uint32_t released = 0;
  uint32_t drains_cut = 0;

  void print(const char* what) const {
    counted(what, rounds);
    std::printf(
        "hostile: %s: %u rounds of %zu calls: %u answered, -2 %u, -8 %u, -9 %u; "
        "%u waits released, %u drains cut short\n",
        what, rounds, CALLS, answered, unreachable, full, failed, released, drains_cut);
  }
};

class Hostile : public testing::Test {
 protected:
  using Damage = std::function<void(HostileQueues&)>;

  void setTo(const Target& target, uint32_t value) {
    linksDamaged_ = linksDamaged_ || target.is_link;
    target.set(value);
  }

  /// One process makes its calls on queues that are damaged before call number `moment`.
  void runRound(size_t moment, const Damage& damage, const Layout& layout = {}) {
    SharedHostileBoard board;
    for (auto& result : board->results) result.store(NOT_CALLED);
    HostileQueues queues(layout);
    linksDamaged_ = false;
    const size_t first_call = tally_.rounds;
    const pid_t process = forkChild([&] { return measure(board.get(), first_call); });
    ASSERT_TRUE(waitUntil([&] { return board->thread.load() != 0; }));
    queues.answer(static_cast<uint32_t>(process), board->thread.load(), 2);
    if (moment > 0) {
      board->step.store(static_cast<int>(moment));
      waitFor(board.get(), queues, static_cast<int>(moment));
    }
    damage(queues);
    board->step.store(CALLS);
    waitFor(board.get(), queues, CALLS);
    EXPECT_EQ(0, exitCodeOf(process));
    EXPECT_TRUE(queues.marginsUntouched());
    count(board.get());
  }

  /// Waits until so many calls are over. A call that sleeps is released: the contract says that it
  /// waits.
  void waitFor(const HostileBoard* board, HostileQueues& queues, int calls) {
    const bool over = waitUntil([&] {
      if (board->done.load() >= calls) return true;
      if (queues.sleepers() > 0) {
        ++tally_.released;
        queues.removeSets();
      }
      return false;
    });
    EXPECT_TRUE(over) << "a call does not end";
  }

  void count(const HostileBoard* board) {
    ++tally_.rounds;
    tally_.drains_cut += board->drains_cut.load();
    for (const auto& stored : board->results) {
      const int32_t result = stored.load();
      EXPECT_TRUE(isAllowedOnDamage(result) || linksDamaged_) << result;
      tally_.answered += result == MARKED_RESULT ? 1 : 0;
      tally_.unreachable += result == -2 ? 1 : 0;
      tally_.full += result == -8 ? 1 : 0;
      tally_.failed += result == -9 ? 1 : 0;
    }
  }

  void damageEveryTargetBefore(size_t moment) {
    const size_t targets = HostileQueues().targets().size();
    for (size_t target = 0; target < targets; ++target) {
      const size_t values = HostileQueues().targets()[target].values.size();
      for (size_t value = 0; value < values && !HasFailure(); ++value) {
        std::string what;
        runRound(moment, [&](HostileQueues& queues) {
          const Target one = queues.targets()[target];
          what = one.name + " = " + std::to_string(one.values[value]);
          setTo(one, one.values[value]);
        });
        EXPECT_FALSE(HasFailure()) << what;
      }
    }
  }

  Tally tally_;
  bool linksDamaged_ = false;
};

TEST_F(Hostile, UndamagedQueuesAnswerTwiceThenFillUp) {
  runRound(0, [](HostileQueues&) {});
  EXPECT_EQ(2U, tally_.answered);
  // The third call waits for its reply until the sets are removed.
  EXPECT_EQ(1U, tally_.failed);
  EXPECT_EQ(2U, tally_.unreachable);
  EXPECT_EQ(1U, tally_.released);
}

TEST_F(Hostile, EveryWordAtEveryBoundaryBeforeTheOpening) {
  damageEveryTargetBefore(0);
  tally_.print("every word before the opening");
}

TEST_F(Hostile, EveryWordAtEveryBoundaryOnAnOpenConnection) {
  damageEveryTargetBefore(1);
  tally_.print("every word on an open connection");
}

TEST_F(Hostile, RandomWordsAtRandomMoments) {
  std::minstd_rand random(SEED);
  const uint32_t wanted = rounds();
  for (uint32_t round = 0; round < wanted && !HasFailure(); ++round) {
    const size_t moment = random() % CALLS;
    const size_t damages = 1 + random() % 8;
    runRound(moment, [&](HostileQueues& queues) {
      const std::vector<Target> targets = queues.targets();
      for (size_t i = 0; i < damages; ++i) {
        const Target& target = targets[random() % targets.size()];
        const bool boundary = random() % 2 == 0;
        setTo(target, boundary ? target.values[random() % target.values.size()]
                               : static_cast<uint32_t>(random() * 3));
      }
    });
    EXPECT_FALSE(HasFailure()) << "round " << round;
  }
  tally_.print("random words at random moments");
}

// ---- segments and sets of other sizes -----------------------------------------------------------

TEST_F(Hostile, SegmentsOfEverySizeAroundTheirParts) {
  for (const long size : {1, 3, 4, 8, 11, 12, 20, 27}) {
    Layout layout;
    layout.request_size = size;
    runRound(
        0, [](HostileQueues&) {}, layout);
  }
  // Smaller than its header, a segment is not opened.
  EXPECT_EQ(tally_.rounds * CALLS, tally_.unreachable);
  for (const long size : {28, 29, 4096, 4115, 4116, 28 + 4115, 28 + 4116, 28 + 4117, 2 * 4116}) {
    Layout layout;
    layout.request_size = size;
    runRound(
        0, [](HostileQueues&) {}, layout);
  }
  const uint32_t before = tally_.unreachable;
  for (const long size : {1, 4, 8, 11}) {
    Layout layout;
    layout.reply_size = size;
    runRound(
        0, [](HostileQueues&) {}, layout);
  }
  EXPECT_EQ(before + 4 * CALLS, tally_.unreachable);
  for (const long size : {12, 13, 27, 28, 40, 544, 559, 560, 561, 12 + 2 * 548 - 1}) {
    Layout layout;
    layout.reply_size = size;
    runRound(
        0, [](HostileQueues&) {}, layout);
  }
  // More records than 16 bits count.
  Layout large;
  large.reply_size = 12 + 70000 * 548;
  runRound(
      0, [](HostileQueues&) {}, large);
  tally_.print("segments of other sizes");
}

TEST_F(Hostile, SetsOfFewerSemaphores) {
  using Field = int Layout::*;
  for (const Field field : {&Layout::request_lock, &Layout::reply_lock, &Layout::empty,
                            &Layout::overflow, &Layout::waits}) {
    for (int semaphores = 1; semaphores <= 4; ++semaphores) {
      Layout layout;
      layout.*field = semaphores;
      runRound(
          0, [](HostileQueues&) {}, layout);
    }
  }
  tally_.print("sets of fewer semaphores");
}

TEST_F(Hostile, EachSetRemovedBeforeEachCall) {
  for (size_t set = 0; set < 5; ++set) {
    for (size_t moment = 0; moment < CALLS; ++moment) {
      runRound(moment, [set](HostileQueues& queues) { queues.removeSet(set); });
    }
  }
  tally_.print("each set removed before each call");
}

// ---- while threads call -------------------------------------------------------------------------

// Whoever breaks the lock lets two threads into the segment at once, which is what the thread
// sanitizer reports.
#if !defined(__SANITIZE_THREAD__)

void noteResult(HostileBoard* board, int32_t result) {
  board->calls.fetch_add(1);
  if (result == MARKED_RESULT) board->answered.fetch_add(1);
  if (isAllowedOnDamage(result) || board->links_damaged.load()) return;
  board->unexpected.fetch_add(1);
  board->an_unexpected.store(result);
}

int measureUntilStopped(HostileBoard* board) {
  std::atomic<int> broken{0};
  std::vector<std::thread> threads;
  for (size_t thread = 0; thread < 4; ++thread) {
    threads.emplace_back([board, thread, &broken] {
      Host host;
      for (size_t number = thread; !board->stop.load(); ++number) {
        fillHost(host);
        noteResult(board, callNumber(number, host));
        if (!hostIsWhole(host)) broken.fetch_add(1);
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  board->drains_cut.store(drainsCut());
  return broken.load();
}

/// A process that may write to the queues, does, and now and then behaves like an engine.
class Vandal {
 public:
  Vandal(uint32_t seed, HostileBoard* board) : random_(seed), board_(board) { lay(); }

  /// Undamaged queues.
  void rest() {
    layout_ = {};
    lay();
  }
  void serve() { queues_->serve(); }
  /// From now on it also changes where items lie.
  void damageLinks() { board_->links_damaged.store(true); }

  void act() {
    // Most of the time an engine; otherwise nobody would come far.
    queues_->serve();
    switch (random_() % 16) {
      case 0:
        queues_->removeSet(random_() % 5);
        break;
      case 1:
        (void)unlink(nameFile().c_str());
        break;
      case 2:
        queues_.reset();
        break;
      case 3:
        changeLayout();
        break;
      case 4:
        queues_->answerHead(random_());
        break;
      case 5:
      case 6:
      case 7:
      case 8:
        changeWord();
        break;
      default:
        break;
    }
    if (queues_ == nullptr || random_() % 16 == 0) lay();
  }

 private:
  std::string nameFile() {
    const char* const suffixes[] = {"_mem", "_emp", "_ovr"};
    const size_t which = random_() % 4;
    return which == 3 ? EA : AE + suffixes[which];
  }

  void changeWord() {
    const std::vector<Target> targets = queues_->targets();
    const Target& target = targets[random_() % targets.size()];
    if (target.is_link && !board_->links_damaged.load()) return;
    target.set(target.values[random_() % target.values.size()]);
  }

  void changeLayout() {
    layout_ = {};
    layout_.requests = 1 + random_() % 5;
    layout_.replies = 1 + random_() % 6;
    if (random_() % 8 == 0) layout_.request_size = static_cast<long>(random_() % 9000 + 1);
    if (random_() % 8 == 0) layout_.empty = static_cast<int>(1 + random_() % 3);
    if (random_() % 8 == 0) layout_.waits = static_cast<int>(1 + random_() % 5);
    if (random_() % 8 == 0) layout_.reply_lock = 1;
    lay();
  }

  void lay() {
    queues_.reset();
    queues_ = std::make_unique<HostileQueues>(layout_);
  }

  std::minstd_rand random_;
  HostileBoard* board_;
  Layout layout_;
  std::unique_ptr<HostileQueues> queues_;
};

void runVandal(uint32_t seed, uint32_t actions, HostileBoard* board) {
  Vandal vandal(seed, board);
  for (uint32_t i = 0; i < actions; ++i) {
    if (i == actions / 2) vandal.damageLinks();
    const uint32_t answered = board->answered.load();
    if (i % 25 == 0) vandal.rest();
    // Somebody gets through before it goes on.
    while (i % 25 == 0 && board->answered.load() == answered) {
      vandal.serve();
      usleep(1);
    }
    const uint32_t before = board->calls.load();
    vandal.act();
    for (int look = 0; look < 6 && board->calls.load() == before; ++look) usleep(1);
  }
  board->stop.store(true);
}

TEST_F(Hostile, QueuesDamagedRemovedAndReplacedWhileThreadsCall) {
  SharedHostileBoard board;
  const uint32_t actions = rounds() * 8;
  const pid_t client = forkChild([&] { return measureUntilStopped(board.get()); });
  const pid_t vandal = forkChild([&] {
    runVandal(SEED, actions, board.get());
    return 0;
  });
  EXPECT_EQ(0, exitCodeOf(vandal));
  int status = -1;
  // What still sleeps is released.
  const bool ended = waitUntil([&] {
    removeIpcObjects();
    return waitpid(client, &status, WNOHANG) == client;
  });
  ASSERT_TRUE(ended) << "a call does not end";
  EXPECT_TRUE(WIFEXITED(status)) << "signal " << WTERMSIG(status);
  EXPECT_EQ(0, WEXITSTATUS(status)) << "bytes beside a block were written";
  EXPECT_EQ(0U, board->unexpected.load()) << board->an_unexpected.load();
  EXPECT_LT(0U, board->answered.load());
  counted("acts of damage while threads call", actions);
  counted("calls meanwhile", board->calls.load());
  counted("calls meanwhile that were answered", board->answered.load());
  std::printf("hostile: %u drains cut short while threads called\n", board->drains_cut.load());
}

#endif

}  // namespace
}  // namespace armtest
