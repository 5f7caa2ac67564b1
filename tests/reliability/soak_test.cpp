// Eight programs with 32 threads each, of both widths, that come and go while engines do.
//
// ARM_SOAK_CALLS is the number of answered calls after which it ends.

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "ipcobjects.h"
#include "process.h"
#include "programs.h"
#include "setting.h"
#include "soak_team.h"

namespace armtest {
namespace {

constexpr unsigned SOAK_PROGRAMS = 8;
constexpr unsigned SOAK_THREADS = 32;
constexpr uint32_t CALLS_PER_THREAD = 400;
constexpr uint32_t SHORT_FORM = 20000;
/// The two segments, their lock sets, the wake-up set, and the two counting semaphores.
constexpr unsigned SOAK_OBJECTS = 7;

uint32_t wantedCalls() {
  return settingOr("ARM_SOAK_CALLS", SHORT_FORM);
}

class Soak : public testing::Test {
 protected:
  void startEngine() {
    engine_ =
        std::make_unique<EngineProcess>(std::vector<std::string>{"--report"}, engineBuildDir());
    ASSERT_EQ(0U, engine_->ready().find("armengine: serving ")) << engine_->ready();
    EXPECT_EQ(SOAK_OBJECTS, ipcObjects());
    team_.endChange();
  }

  /// Every fourth engine is killed. The others end in good order and say how much they have
  /// counted, every fourth of them while nobody calls.
  void endEngine() {
    const unsigned life = team_.life();
    const unsigned manner = life % 4;
    const bool quiet = manner == 1 && team_.pause();
    team_.beginChange();
    if (manner == 0) {
      EXPECT_EQ(128 + SIGKILL, engine_->end(SIGKILL));
    } else {
      endInGoodOrder(life);
    }
    if (quiet) team_.resume();
  }

  void endInGoodOrder(unsigned life) {
    EXPECT_EQ(0, engine_->end(SIGTERM));
    EXPECT_EQ(0U, ipcObjects());
    expectCounted(life);
  }

  /// What the engine has counted is what the clients have been told, and at most what may have
  /// been.
  void expectCounted(unsigned life) {
    const Life& seen = team_.board().lives[life % LIVES];
    const auto words = wordsOfLine(engine_->report(), {"soak", "order"});
    const unsigned long counted = words.size() > 2 ? std::stoul(words[2]) : 0;
    EXPECT_GE(counted, seen.confirmed.load());
    EXPECT_LE(counted, seen.confirmed.load() + seen.possible.load());
    counted_ += counted;
    uncertain_ += seen.possible.load();
  }

  /// The first program of each width stays; the others end after their calls, and one is killed now
  /// and then.
  void keepProgramsRunning() {
    for (unsigned place = 0; place < SOAK_PROGRAMS; ++place) {
      const std::string& dir = buildDirs()[place % 2];
      const uint32_t calls = place < 2 ? 0 : CALLS_PER_THREAD;
      if (place >= started_) {
        ASSERT_EQ(static_cast<int>(place), team_.start(dir, SOAK_THREADS, calls));
        ++started_;
      } else if (!team_.runs(static_cast<int>(place))) {
        ASSERT_EQ(static_cast<int>(place), team_.start(dir, SOAK_THREADS, calls));
        ++renewed_;
      }
    }
  }

  void killAProgram() {
    team_.kill(static_cast<int>(2 + killed_ % (SOAK_PROGRAMS - 2)));
    ++killed_;
  }

  SoakTeam team_;
  std::unique_ptr<EngineProcess> engine_;
  unsigned started_ = 0;
  unsigned renewed_ = 0;
  unsigned killed_ = 0;
  unsigned long counted_ = 0;
  unsigned long uncertain_ = 0;
};

TEST_F(Soak, EveryAnswerIsTheOwnAndNothingIsLostOrLeft) {
  const uint32_t wanted = wantedCalls();
  const uint32_t per_life = std::max(wanted / 64, uint32_t{3000});
  team_.beginChange();
  startEngine();
  while (team_.answered() < wanted && !HasFailure()) {
    keepProgramsRunning();
    const uint32_t goal = team_.answered() + per_life;
    EXPECT_TRUE(waitUntil([&] {
      keepProgramsRunning();
      return team_.answered() >= goal || HasFailure();
    })) << "too few answers";
    killAProgram();
    endEngine();
    startEngine();
  }
  team_.finish();
  EXPECT_EQ(SOAK_OBJECTS, ipcObjects());
  endInGoodOrder(team_.life());
  std::printf(
      "soak: %u calls answered by %u engines, each with its own answer; %u programs of %u threads "
      "started, %u killed; %lu instances counted by the engines, %lu uncertain; calls failed by a "
      "change of engines: %u, by a reconnection: %u\n",
      team_.answered(), team_.life(), SOAK_PROGRAMS + renewed_ + killed_, SOAK_THREADS, killed_,
      counted_, uncertain_, team_.disturbed(), team_.reconnecting());
  EXPECT_EQ(0U, ipcObjects());
}

}  // namespace
}  // namespace armtest
