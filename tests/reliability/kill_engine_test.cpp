// Engines killed before and after each of their System V calls, and under clients that are
// themselves at any of theirs; then replaced by one of the same or of other capacities.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/ipc.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "armext.h"
#include "ipcobjects.h"
#include "kill_points.h"
#include "kill_queues.h"
#include "kill_tracer.h"
#include "process.h"
#include "programs.h"
#include "soak_team.h"

namespace armtest {
namespace {

constexpr unsigned OBJECTS = 7;

std::vector<std::string> capacity(unsigned round) {
  static const std::vector<std::vector<std::string>> CAPACITIES = {
      {"--requests", "64", "--requesters", "64"},
      {"--requests", "64", "--requesters", "64"},
      {"--requests", "8", "--requesters", "16"},
      {"--requests", "300", "--requesters", "200"}};
  return CAPACITIES[round % CAPACITIES.size()];
}

std::unique_ptr<EngineProcess> startEngine(unsigned round) {
  auto engine = std::make_unique<EngineProcess>(capacity(round), engineBuildDir());
  EXPECT_EQ(0U, engine->ready().find("armengine: serving ")) << engine->ready();
  return engine;
}

// ---- at each of the engine's calls --------------------------------------------------------------

enum class Phase { start, serve, stop };

/// An engine of this width that is traced.
class TracedEngine {
 public:
  TracedEngine() {
    if (pipe(output_) != 0) abort();
    process_ = std::make_unique<TracedProcess>([] {},
                                               [this] {
                                                 dup2(output_[1], STDOUT_FILENO);
                                                 const std::string program =
                                                     builtProgram("armengine");
                                                 execl(program.c_str(), program.c_str(), nullptr);
                                                 return 127;
                                               });
  }
  ~TracedEngine() {
    close(output_[0]);
    close(output_[1]);
  }
  TracedEngine(const TracedEngine&) = delete;
  TracedEngine& operator=(const TracedEngine&) = delete;

  /// Goes on to the n-th stop, from 0, of a phase, and sets point; false when the phase has fewer.
  bool runTo(Phase phase, unsigned number, Point* point) {
    while (const auto stop = process_->next()) {
      enterPhase(phase);
      if (phase_ > phase) return false;
      if (phase_ == phase && stops_ == number) {
        *point = {stop->step, number, stop->before};
        return true;
      }
      ++stops_;
    }
    EXPECT_EQ(0, process_->exitCode()) << "the engine ended badly";
    return false;
  }

  void kill() { process_->kill(); }

 private:
  /// Enough to take and answer some requests.
  static constexpr unsigned SERVING_STOPS = 120;

  void enterPhase(Phase wanted) {
    if (phase_ == Phase::start && hasPrinted()) {
      phase_ = Phase::serve;
      stops_ = 0;
    } else if (phase_ == Phase::serve && stops_ >= SERVING_STOPS) {
      phase_ = Phase::stop;
      stops_ = 0;
      if (wanted == Phase::stop) (void)::kill(process_->process(), SIGTERM);
    }
  }

  bool hasPrinted() const {
    pollfd output = {output_[0], POLLIN, 0};
    return poll(&output, 1, 0) == 1;
  }

  int output_[2] = {-1, -1};
  std::unique_ptr<TracedProcess> process_;
  Phase phase_ = Phase::start;
  unsigned stops_ = 0;
};

class KilledEngine : public testing::Test {
 protected:
  void SetUp() override {
    team_.beginChange();
    engine_ = startEngine(0);
    team_.endChange();
    for (const std::string& dir : buildDirs()) ASSERT_LE(0, team_.start(dir, 2));
    ASSERT_TRUE(team_.waitProgress(1));
  }

  void TearDown() override {
    team_.finish();
    ASSERT_EQ(0, engine_->end(SIGTERM));
    EXPECT_EQ(0U, ipcObjects());
    std::printf("%u calls answered, %u failed by a change of engines, %u by a reconnection\n",
                team_.answered(), team_.disturbed(), team_.reconnecting());
  }

  /// Kills an engine, which has followed one that was killed too, at a stop of a phase; false when
  /// the phase has fewer.
  bool killAt(Phase phase, unsigned number) {
    team_.beginChange();
    EXPECT_EQ(128 + SIGKILL, engine_->end(SIGKILL));
    TracedEngine victim;
    Point point = {};
    const bool reached = victim.runTo(phase, number, &point);
    SCOPED_TRACE(nameOf(point));
    victim.kill();
    if (reached) tally_.count(point);
    engine_ = startEngine(number);
    team_.endChange();
    EXPECT_TRUE(team_.waitProgress(3));
    EXPECT_EQ(OBJECTS, ipcObjects());
    expectSoundQueues();
    team_.expectNoWrongAnswer();
    return reached;
  }

  /// Lives differ a little in length: a phase is over when some in a row have not come so far.
  void killEverywhere(Phase phase, const char* what) {
    constexpr unsigned MISSES = 4;
    unsigned misses = 0;
    for (unsigned number = 0; misses < MISSES && !HasFailure(); number += killEvery()) {
      misses = killAt(phase, number) ? 0 : misses + 1;
    }
    tally_.print(what);
  }

  void expectSteps(const std::vector<std::string>& steps) const {
    for (const std::string& step : steps) EXPECT_TRUE(killEvery() > 1 || tally_.has(step)) << step;
  }

  SoakTeam team_;
  std::unique_ptr<EngineProcess> engine_;
  Tally tally_;
};

TEST_F(KilledEngine, WhileItStartsIsReplacedAndClientsGoOn) {
  killEverywhere(Phase::start, "engine killed while it starts");
  expectSteps({"requests remove", "wake remove", "segment remove", "requests raise", "shmat"});
}

TEST_F(KilledEngine, WhileItServesIsReplacedAndClientsGoOn) {
  killEverywhere(Phase::serve, "engine killed while it serves");
  expectSteps({"requests lock", "requests unlock", "replies lock", "replies unlock", "wake raise"});
}

TEST_F(KilledEngine, WhileItStopsIsReplacedAndClientsGoOn) {
  killEverywhere(Phase::stop, "engine killed while it stops");
  // Its two threads end in any order: no life has the moments of another.
  for (const char* step : {"requests unlock", "overflow remove", "shmdt"}) {
    EXPECT_TRUE(killEvery() > 1 || tally_.touches(step)) << step;
  }
}

// ---- under a client at each of its calls --------------------------------------------------------

constexpr int32_t NO_HANDLE = 0x7ffffff0;
constexpr int32_t UNKNOWN_HANDLE = -103;

int32_t callOnce() {
  return arm_update(NO_HANDLE, 0, nullptr, 0);
}

/// The steps between the calls of a client.
constexpr const char* FIRST_MARK = "stat first";
constexpr const char* SECOND_MARK = "stat second";

void mark(const char* name) {
  (void)ftok(controlPath(name).c_str(), 1);
}

/// A client's calls: the first may fail, the others may not.
int callThrice() {
  const int32_t first = callOnce();
  const bool known = first == UNKNOWN_HANDLE || first == -2 || first == -8 || first == -9;
  mark("first");
  const int32_t second = callOnce();
  mark("second");
  const bool served = second == UNKNOWN_HANDLE && callOnce() == UNKNOWN_HANDLE;
  return (known ? 0 : 1) + (served ? 0 : 2);
}

std::unique_ptr<TracedProcess> makeClient(bool connected) {
  return std::make_unique<TracedProcess>(
      [connected] {
        if (connected) (void)callOnce();
      },
      callThrice);
}

class EngineKilledUnderAClient : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override { engine_ = startEngine(0); }

  void TearDown() override {
    ASSERT_EQ(0, engine_->end(SIGTERM));
    EXPECT_EQ(0U, ipcObjects());
  }

  static std::vector<Point> findPoints() {
    const auto client = makeClient(GetParam());
    std::vector<Point> points = pointsOf(*client, FIRST_MARK);
    points.pop_back();
    EXPECT_EQ(0, client->release());
    return points;
  }

  /// Lets the client go on from where it is: it must end well, and once it has reconnected it uses
  /// nothing of the engine before.
  static void expectServed(TracedProcess& client) {
    bool reconnected = false;
    while (const auto stop = client.next()) {
      if (reconnected) {
        EXPECT_EQ(std::string::npos, stop->step.find("unknown")) << stop->step;
      }
      reconnected = reconnected || stop->step == SECOND_MARK;
    }
    EXPECT_EQ(0, client.exitCode()) << "1: the first call, 2: a later call, 3: both";
    expectSoundQueues();
  }

  Tally tally_;
  std::unique_ptr<EngineProcess> engine_;
};

TEST_P(EngineKilledUnderAClient, AtAnyOfItsCallsFailsOneCallAtMost) {
  unsigned round = 0;
  for (const Point& point : everyNth(findPoints())) {
    SCOPED_TRACE(nameOf(point));
    const auto client = makeClient(GetParam());
    ASSERT_TRUE(runTo(*client, point));
    EXPECT_EQ(128 + SIGKILL, engine_->end(SIGKILL));
    engine_ = startEngine(++round);
    expectServed(*client);
    tally_.count(point);
  }
  tally_.print("engine killed and replaced under a client");
}

TEST_P(EngineKilledUnderAClient, OrThatEndsInGoodOrderFailsOneCallAtMost) {
  unsigned round = 0;
  for (const Point& point : everyNth(findPoints())) {
    SCOPED_TRACE(nameOf(point));
    const auto client = makeClient(GetParam());
    ASSERT_TRUE(runTo(*client, point));
    engine_->signal(SIGTERM);
    // It needs the locks that the client may hold.
    ASSERT_TRUE(runTo(*client, {FIRST_MARK, 1, true}));
    EXPECT_EQ(0, engine_->end(SIGTERM));
    engine_ = startEngine(++round);
    expectServed(*client);
    tally_.count(point);
  }
  tally_.print("engine stopped and replaced under a client");
}

std::string nameOfClient(const testing::TestParamInfo<bool>& client) {
  return client.param ? "connected" : "connecting";
}

INSTANTIATE_TEST_SUITE_P(Clients, EngineKilledUnderAClient, testing::Bool(), nameOfClient);

}  // namespace
}  // namespace armtest
