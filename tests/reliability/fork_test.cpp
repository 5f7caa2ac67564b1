// Children of a process whose other threads are inside any call: they use the library as ever, and
// the parent does not notice.
//
// ARM_FORKS is the number of children of each kind.

#include <spawn.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <random>

#include "CallTest.h"
#include "counted.h"
#include "fork_calls.h"
#include "setting.h"
#include "shared.h"

namespace armtest {
namespace {

constexpr int THREADS = 4;
constexpr uint32_t FORK_SEED = 20240307;
constexpr uint32_t SHORT_FORKS = 24;

uint32_t forks() {
  return settingOr("ARM_FORKS", SHORT_FORKS);
}

struct ForkBoard {
  std::atomic<uint32_t> wrong;
  std::atomic<uint32_t> done;
};

void ignore(int) {}

/// Ends a child in the way that its number says.
[[noreturn]] void endChild(uint32_t number, int code) {
  if (number % 3 == 0) exit(code);
  _exit(code);
}

class Forks : public testing::Test {
 protected:
  void SetUp() override { start(nullptr); }

  void start(const char* format) {
    if (format != nullptr) {
      setenv("ARMDEBUG", "1", 1);
      setenv("ARMDEBUGFORMAT", format, 1);
    }
    if (engine_.running()) return;
    EngineSetup setup;
    setup.requests = 256;
    setup.requesters = 256;
    ASSERT_TRUE(engine_.start(setup));
    engine_.derive();
  }

  void TearDown() override {
    stopThreads();
    EXPECT_EQ(0U, wrong_.load()) << "the parent got wrong answers";
  }

  void startThreads() {
    for (int thread = 0; thread < THREADS; ++thread) {
      threads_.emplace_back([this, thread] {
        for (int32_t id = 1 + thread * 1000000; !stop_.load(); ++id) {
          wrong_.fetch_add(static_cast<uint32_t>(wrongAnswersOfEveryCall(id)));
          calls_.fetch_add(1);
        }
      });
    }
    ASSERT_TRUE(waitUntil([this] { return calls_.load() >= THREADS; }));
  }

  void stopThreads() {
    stop_.store(true);
    for (std::thread& thread : threads_) thread.join();
    threads_.clear();
  }

  /// Some moment of what the other threads do.
  void waitAMoment() {
    for (auto spins = random_() % 20000; spins > 0; --spins) ignore(0);
  }

  /// The parent's threads go on.
  void expectProgress() {
    const uint32_t before = calls_.load();
    EXPECT_TRUE(waitUntil([&] { return calls_.load() > before; })) << "the parent hangs";
    (void)engine_.reclaim();
  }

  /// Forks children that run a body with their number, each at another moment.
  template <typename Body>
  void forkMany(Body&& body) {
    startThreads();
    const pid_t parent = getpid();
    for (uint32_t number = 0; number < forks() && !HasFailure(); ++number) {
      waitAMoment();
      const pid_t child = fork();
      if (child == 0) {
        dieWithParent(parent);
        endChild(number, body(number));
      }
      EXPECT_EQ(0, exitCodeOf(child)) << "child " << number;
      expectProgress();
    }
    stopThreads();
  }

  static int32_t idOfChild(uint32_t number) {
    return 50000000 + static_cast<int32_t>(number) * 1000;
  }

  ScriptedEngine engine_;
  std::vector<std::thread> threads_;
  std::atomic<bool> stop_{false};
  std::atomic<uint32_t> wrong_{0};
  std::atomic<uint32_t> calls_{0};
  std::minstd_rand random_{FORK_SEED};
};

TEST_F(Forks, AtAnyMomentTheChildMakesEveryCall) {
  forkMany([](uint32_t number) { return wrongAnswersOfEveryCall(idOfChild(number)); });
  counted("a fork at any moment", forks());
}

TEST_F(Forks, AtAnyMomentTheChildOfATracingProcessMakesEveryCall) {
  start("basic");
  forkMany([](uint32_t number) { return wrongAnswersOfEveryCall(idOfChild(number)); });
  counted("a fork at any moment while tracing", forks());
}

TEST_F(Forks, ChildrenThatOnlyExitLeaveNothing) {
  const int before = engine_.headsInUse();
  forkMany([](uint32_t) { return 0; });
  EXPECT_LE(engine_.headsInUse(), before + THREADS);
  counted("a child that only exits", forks());
}

TEST_F(Forks, GrandchildrenMakeEveryCall) {
  forkMany([](uint32_t number) {
    const int wrong = wrongAnswersOfEveryCall(idOfChild(number));
    const pid_t grandchild = fork();
    if (grandchild == 0) _exit(wrongAnswersOfEveryCall(idOfChild(number) + 500));
    return wrong + exitCodeOf(grandchild);
  });
  counted("a child that forks a child", forks());
}

TEST_F(Forks, DaemonsMakeEveryCall) {
  Shared<ForkBoard> board;
  forkMany([&](uint32_t number) {
    if (setsid() < 0) return 1;
    if (fork() != 0) return 0;
    (void)chdir("/");
    (void)umask(0);
    for (int file = 0; file < 3; ++file) close(file);
    board->wrong.fetch_add(static_cast<uint32_t>(wrongAnswersOfEveryCall(idOfChild(number))));
    board->done.fetch_add(1);
    _exit(0);
  });
  EXPECT_TRUE(waitUntil([&] { return board->done.load() == forks(); })) << "a daemon hangs";
  EXPECT_EQ(0U, board->wrong.load());
  counted("a daemon", forks());
}

TEST_F(Forks, OfSeveralThreadsAtOnce) {
  startThreads();
  std::atomic<uint32_t> failed{0};
  std::vector<std::thread> forking;
  for (uint32_t thread = 0; thread < 3; ++thread) {
    forking.emplace_back([&failed, thread] {
      for (uint32_t number = 0; number < forks() / 3 + 1; ++number) {
        const int32_t id = idOfChild(thread * 10000 + number);
        if (exitCodeOf(forkChild([id] { return wrongAnswersOfEveryCall(id); })) != 0) {
          failed.fetch_add(1);
        }
      }
    });
  }
  for (std::thread& thread : forking) thread.join();
  EXPECT_EQ(0U, failed.load());
  expectProgress();
  counted("forks of three threads at once", 3 * (forks() / 3 + 1));
}

TEST_F(Forks, OfAProcessThatIsClosingItsConnection) {
  ASSERT_EQ(0, wrongAnswersOfEveryCall(1));
  engine_.forget();
  engine_.hold();
  const uint32_t before = engine_.taken();
  CallInThread blocked([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(before + 1) && engine_.waitSleepers(1));
  engine_.kill();
  // Waits up to four seconds for the blocked thread, with the gate closed.
  CallInThread closing([] { return arm_update(5, 0, nullptr, 0); });
  for (int i = 0; i < 20; ++i) {
    const pid_t child = forkChild([] { return arm_start(5, 0, nullptr, 0) == -2 ? 0 : 1; });
    EXPECT_EQ(0, exitCodeOf(child));
    usleep(5000);
  }
  EXPECT_EQ(-2, closing.result());
  start(nullptr);
  EXPECT_EQ(-9, blocked.result());
  EXPECT_EQ(0, wrongAnswersOfEveryCall(2));
  counted("a fork while another thread closes the connection", 20);
}

// ---- programs -----------------------------------------------------------------------------------

std::vector<std::string> clientCommand(uint32_t number) {
  return {ARM_BUILD_DIR "/bin/fork_client", std::to_string(50000000 + number * 1000)};
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> all;
  for (std::string& word : words) all.push_back(word.data());
  all.push_back(nullptr);
  return all;
}

TEST_F(Forks, ExecutedProgramsMakeEveryCall) {
  forkMany([](uint32_t number) {
    std::vector<std::string> words = clientCommand(number);
    execv(words[0].c_str(), pointers(words).data());
    return 127;
  });
  counted("fork and execv", forks());
}

TEST_F(Forks, SpawnedProgramsMakeEveryCall) {
  startThreads();
  for (uint32_t number = 0; number < forks(); ++number) {
    waitAMoment();
    std::vector<std::string> words = clientCommand(number);
    pid_t child = -1;
    ASSERT_EQ(0, posix_spawn(&child, words[0].c_str(), nullptr, nullptr, pointers(words).data(),
                             environ));
    EXPECT_EQ(0, exitCodeOf(child));
    expectProgress();
  }
  counted("posix_spawn", forks());
}

TEST_F(Forks, ProgramsOfAShellMakeEveryCall) {
  startThreads();
  for (uint32_t number = 0; number < forks() / 4; ++number) {
    waitAMoment();
    const std::vector<std::string> words = clientCommand(number);
    EXPECT_EQ(0, std::system((words[0] + " " + words[1]).c_str()));
    expectProgress();
  }
  counted("system", forks() / 4);
}

}  // namespace
}  // namespace armtest
