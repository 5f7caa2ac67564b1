// Clients killed before and after each of their System V calls, in every exported call: whatever
// they leave behind, the queues are sound and everybody else gets the own answers.

#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "CallTest.h"
#include "counted.h"
#include "ipcobjects.h"
#include "kill_points.h"
#include "kill_queues.h"
#include "kill_tracer.h"
#include "process.h"
#include "programs.h"
#include "soak_team.h"

namespace armtest {
namespace {

/// What a call of a victim may not give when nobody kills it.
bool failed(int32_t result) {
  return result == -2 || result == -8 || result == -9;
}

void connect() {
  if (failed(arm_update(1, 0, nullptr, 0))) _exit(1);
}

void stayUnconnected() {}

/// A process that is about to make a call.
std::unique_ptr<TracedProcess> makeVictim(const PostingCall& call, bool connected) {
  return std::make_unique<TracedProcess>(connected ? connect : stayUnconnected,
                                         [&call] { return failed(call.call()) ? 1 : 0; });
}

class KilledClient : public testing::TestWithParam<PostingCall> {
 protected:
  /// Those that are tried in this call; each of them is in one of the calls.
  static std::vector<Point> chosen(const std::vector<Point>& points) {
    size_t number = 0;
    while (postingCalls()[number].name != std::string(GetParam().name)) ++number;
    return everyNth(points, number);
  }

  /// Fails when a step was left out although all moments are to be tried.
  void expectSteps(const std::vector<std::string>& steps) const {
    for (const std::string& step : steps) EXPECT_TRUE(killEvery() > 1 || tally_.has(step)) << step;
  }

  Tally tally_;
};

// ---- while others measure -----------------------------------------------------------------------

class KilledClientAmongOthers : public KilledClient {
 protected:
  void SetUp() override {
    engine_ =
        std::make_unique<EngineProcess>(std::vector<std::string>{"--report"}, engineBuildDir());
    ASSERT_NE("", engine_->ready());
    for (const std::string& dir : buildDirs()) ASSERT_LE(0, team_.start(dir, 2));
    ASSERT_TRUE(team_.waitProgress(1));
  }

  void TearDown() override {
    team_.finish();
    ASSERT_EQ(0, engine_->end(SIGTERM));
    // No instance of the others is lost or counted twice.
    const auto words = wordsOfLine(engine_->report(), {"soak", "order"});
    ASSERT_LT(2U, words.size());
    EXPECT_EQ(0U, team_.board().lives[0].possible.load());
    EXPECT_EQ(std::to_string(team_.board().lives[0].confirmed.load()), words[2]);
    EXPECT_EQ(0U, team_.disturbed() + team_.reconnecting());
  }

  /// The moments of the call when nobody else posts: then it wakes the engine too.
  std::vector<Point> findPoints(bool connected) {
    EXPECT_TRUE(team_.pause());
    const auto whole = makeVictim(GetParam(), connected);
    const std::vector<Point> points = pointsOf(*whole);
    EXPECT_EQ(0, whole->exitCode());
    team_.resume();
    return points;
  }

  /// Kills at one moment; a victim that finds the engine awake does not come to each.
  void killAt(const Point& point, bool connected) {
    SCOPED_TRACE(nameOf(point));
    const bool reached = waitUntil([&] {
      const auto victim = makeVictim(GetParam(), connected);
      const bool there = runTo(*victim, point);
      EXPECT_EQ(there ? -1 : 0, victim->exitCode());
      return there || HasFailure();
    });
    ASSERT_TRUE(reached);
    tally_.count(point);
    expectSoundQueues();
    team_.expectNoWrongAnswer();
    ASSERT_TRUE(team_.waitProgress(2));
  }

  void killEverywhere(bool connected) {
    for (const Point& point : chosen(findPoints(connected))) {
      killAt(point, connected);
      if (HasFailure()) return;
    }
    expectSteps({"requests lock", "requests unlock", "empty lock", "empty raise", "empty unlock",
                 "replies lock", "replies unlock", "wake wait"});
  }

  SoakTeam team_;
  std::unique_ptr<EngineProcess> engine_;
};

TEST_P(KilledClientAmongOthers, OnAnOpenConnectionDisturbsNobody) {
  killEverywhere(true);
  tally_.print(std::string("client killed in ") + GetParam().name + ", connection open");
}

TEST_P(KilledClientAmongOthers, WhileItOpensTheConnectionDisturbsNobody) {
  killEverywhere(false);
  expectSteps({"shmat", "semget", "stat ea.kelp"});
  tally_.print(std::string("client killed in ") + GetParam().name + ", connection not yet open");
}

// ---- while it replaces its connection -----------------------------------------------------------

/// Victims that are connected to an engine which is replaced then: each is killed at another moment
/// of a call that sees the dead engine, gives the connection up and opens it anew.
class KilledClientThatReconnects : public KilledClient {
 protected:
  void SetUp() override {
    startEngine();
    for (const std::string& dir : buildDirs()) ASSERT_LE(0, team_.start(dir, 2));
    ASSERT_TRUE(team_.waitProgress(1));
  }

  void TearDown() override {
    team_.finish();
    ASSERT_EQ(0, engine_->end(SIGTERM));
    EXPECT_EQ(0U, ipcObjects());
  }

  void startEngine() {
    team_.beginChange();
    if (engine_ != nullptr) {
      EXPECT_EQ(128 + SIGKILL, engine_->end(SIGKILL));
    }
    engine_ =
        std::make_unique<EngineProcess>(std::vector<std::string>{"--report"}, engineBuildDir());
    EXPECT_NE("", engine_->ready());
    team_.endChange();
  }

  std::vector<Point> findPoints() {
    const auto whole = makeVictim(GetParam(), true);
    startEngine();
    EXPECT_TRUE(team_.waitProgress(1));
    EXPECT_TRUE(team_.pause());
    const std::vector<Point> points = pointsOf(*whole);
    EXPECT_EQ(0, whole->exitCode());
    team_.resume();
    return points;
  }

  /// Kills one victim at each of the moments, and returns those that none came to: a victim that
  /// finds the engine awake does not wake it.
  std::vector<Point> killAtEach(const std::vector<Point>& points) {
    std::vector<std::unique_ptr<TracedProcess>> victims;
    for (size_t i = 0; i < points.size(); ++i) victims.push_back(makeVictim(GetParam(), true));
    startEngine();
    std::vector<Point> left;
    for (size_t i = 0; i < points.size() && !HasFailure(); ++i) {
      SCOPED_TRACE(nameOf(points[i]));
      if (!runTo(*victims[i], points[i])) {
        EXPECT_EQ(0, victims[i]->exitCode());
        left.push_back(points[i]);
        continue;
      }
      victims[i]->kill();
      tally_.count(points[i]);
      expectSoundQueues();
      team_.expectNoWrongAnswer();
      EXPECT_TRUE(team_.waitProgress(1));
    }
    return left;
  }

  SoakTeam team_;
  std::unique_ptr<EngineProcess> engine_;
};

TEST_P(KilledClientThatReconnects, DisturbsNobody) {
  constexpr size_t AT_ONCE = 20;
  std::vector<Point> points = chosen(findPoints());
  ASSERT_TRUE(waitUntil([&] {
    const size_t count = std::min(points.size(), AT_ONCE);
    const std::vector<Point> some(points.end() - static_cast<ptrdiff_t>(count), points.end());
    points.resize(points.size() - count);
    const std::vector<Point> left = killAtEach(some);
    points.insert(points.begin(), left.begin(), left.end());
    return points.empty() || HasFailure();
  }));
  expectSteps({"shmdt", "shmat", "semget", "wake wait"});
  tally_.print(std::string("client killed in ") + GetParam().name + ", replacing its connection");
}

// ---- what is in the ring ------------------------------------------------------------------------

class KilledClientThatFillsTheRing : public KilledClient {
 protected:
  static constexpr unsigned ROOM = 3;
  static constexpr size_t TYPE = 8;

  void SetUp() override {
    EngineSetup setup;
    setup.requests = ROOM;
    setup.build_dir = engineBuildDir();
    ASSERT_TRUE(engine_.start(setup));
    engine_.derive();
  }

  /// A victim about to post the third record, behind two of processes that wait, to an engine that
  /// does not take any.
  void prepare() {
    victim_ = makeVictim(GetParam(), true);
    engine_.pause();
    taken_ = engine_.taken();
    for (unsigned i = 1; i < ROOM; ++i) {
      const auto id = static_cast<int32_t>(taken_ * 10 + i);
      others_.push_back(
          forkChild([id] { return arm_start(id, 0, nullptr, 0) == derivedResult(id) ? 0 : 1; }));
      ASSERT_TRUE(waitUntil([i] { return requestRecords().size() == i; }));
    }
    ring_ = requestRecords();
  }

  /// The victim has gone: the ring as it must be, and everybody gets the own answer.
  void expectWholeRecords(const std::string& reference) {
    const std::vector<std::string> records = requestRecords();
    ASSERT_LE(ring_.size(), records.size());
    ASSERT_GE(ROOM, records.size());
    for (size_t i = 0; i < ring_.size(); ++i) EXPECT_TRUE(ring_[i] == records[i]) << i;
    if (records.size() == ROOM) {
      EXPECT_TRUE(withoutSenderAndTime(records.back()) == reference) << "torn";
    }
    expectSoundQueues();
    engine_.resume();
    for (const pid_t other : others_) EXPECT_EQ(0, exitCodeOf(other));
    others_.clear();
    const auto all = taken_ + static_cast<uint32_t>(records.size());
    ASSERT_TRUE(engine_.waitTaken(all));
    (void)engine_.reclaim();
    EXPECT_EQ(all, engine_.taken());
    expectSoundQueues();
  }

  static std::string withoutSenderAndTime(std::string record) {
    std::memset(record.data(), 0, TYPE);
    int32_t type = 0;
    std::memcpy(&type, record.data() + TYPE, sizeof type);
    const size_t time = timeOffset(type);
    if (time != 0) std::memset(record.data() + time, 0, 8);
    return record;
  }

  ScriptedEngine engine_;
  std::unique_ptr<TracedProcess> victim_;
  std::vector<pid_t> others_;
  std::vector<std::string> ring_;
  uint32_t taken_ = 0;
};

TEST_P(KilledClientThatFillsTheRing, LeavesAWholeRecordOrNone) {
  prepare();
  const std::vector<Point> points = pointsOf(*victim_, "wake wait");
  const std::string reference = withoutSenderAndTime(requestRecords().back());
  victim_->kill();
  expectWholeRecords(reference);
  for (const Point& point : chosen(points)) {
    SCOPED_TRACE(nameOf(point));
    prepare();
    if (HasFailure()) return;
    ASSERT_TRUE(runTo(*victim_, point));
    victim_->kill();
    tally_.count(point);
    expectWholeRecords(reference);
    if (HasFailure()) return;
  }
  expectSteps({"overflow wait"});
  tally_.print(std::string("client killed in ") + GetParam().name + ", filling the ring");
}

class ReplacedEngine : public KilledClientThatFillsTheRing {};

TEST_P(ReplacedEngine, LetsAWriterEndThatDrainsTheOverflowSemaphore) {
  prepare();
  ASSERT_TRUE(runTo(*victim_, {"overflow wait", 1, true}));
  engine_.kill();
  EngineSetup setup;
  setup.build_dir = engineBuildDir();
  ASSERT_TRUE(engine_.start(setup));
  EXPECT_EQ(1, victim_->release()) << "its call fails";
  for (const pid_t other : others_) EXPECT_EQ(1, exitCodeOf(other));
  counted("a dead engine replaced under a client that drains _ovr", 1);
}

// ---- the last item of the reply queue -----------------------------------------------------------

class KilledClientThatMakesRoom : public KilledClient {};

TEST_P(KilledClientThatMakesRoom, LeavesNoItemLost) {
  EngineSetup setup;
  setup.requesters = 2;
  setup.build_dir = engineBuildDir();
  ScriptedEngine engine;
  ASSERT_TRUE(engine.start(setup));
  engine.derive();
  // One of two items is taken all the time.
  engine.put(getpid(), 77, 1);
  const auto whole = makeVictim(GetParam(), true);
  const std::vector<Point> points = pointsOf(*whole);
  EXPECT_EQ(0, whole->exitCode());
  for (const Point& point : chosen(points)) {
    SCOPED_TRACE(nameOf(point));
    (void)engine.reclaim();
    const auto victim = makeVictim(GetParam(), true);
    ASSERT_TRUE(runTo(*victim, point));
    victim->kill();
    tally_.count(point);
    expectSoundQueues();
    ASSERT_TRUE(waitUntil([] { return requestRecords().empty(); }));
    // It pauses when it has answered what it has taken.
    engine.pause();
    (void)engine.reclaim();
    EXPECT_EQ(1, engine.usedItems());
    EXPECT_EQ(1, engine.headsInUse());
    engine.resume();
    const pid_t other =
        forkChild([] { return arm_start(9, 0, nullptr, 0) == derivedResult(9) ? 0 : 1; });
    ASSERT_EQ(0, exitCodeOf(other));
  }
  expectSteps({"wake raise"});
  tally_.print(std::string("client killed in ") + GetParam().name +
               ", taking from a full reply queue");
}

// ---- the calls ----------------------------------------------------------------------------------

std::string nameOfCall(const testing::TestParamInfo<PostingCall>& info) {
  return info.param.name;
}

INSTANTIATE_TEST_SUITE_P(Calls, KilledClientAmongOthers, testing::ValuesIn(postingCalls()),
                         nameOfCall);
INSTANTIATE_TEST_SUITE_P(Calls, KilledClientThatReconnects, testing::ValuesIn(postingCalls()),
                         nameOfCall);
INSTANTIATE_TEST_SUITE_P(Calls, KilledClientThatFillsTheRing, testing::ValuesIn(postingCalls()),
                         nameOfCall);
INSTANTIATE_TEST_SUITE_P(Start, ReplacedEngine, testing::Values(postingCalls()[4]), nameOfCall);
INSTANTIATE_TEST_SUITE_P(Calls, KilledClientThatMakesRoom, testing::ValuesIn(postingCalls()),
                         nameOfCall);

TEST(KilledClient, HasNoSystemVCallInTheThreeOtherExportedCalls) {
  TracedProcess process([] {},
                        [] {
                          (void)arm_getCorrelatorKey();
                          (void)SetExpectedCodeset("UTF-8");
                          (void)GetExpectedCodeset();
                          return 0;
                        });
  EXPECT_TRUE(pointsOf(process).empty());
  EXPECT_EQ(0, process.exitCode());
  EXPECT_EQ(13U, postingCalls().size());
  counted("client traced through the three calls that post nothing", 1);
}

}  // namespace
}  // namespace armtest
