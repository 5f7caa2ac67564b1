// Programs of one width with an engine of the other. The programs of the other width come from its
// build tree.

#include <spawn.h>
#include <unistd.h>

#include "EveryCall.h"

namespace armtest {
namespace {

const std::string OTHER = ARM_OTHER_BUILD_DIR;

/// Tests that need the programs of the other width.
class MixedWidths : public Calls {
 protected:
  void SetUp() override {
    for (const char* program : {"/bin/scripted_engine", "/bin/mixed_client"}) {
      ASSERT_EQ(0, access((OTHER + program).c_str(), X_OK))
          << OTHER << program << " is missing: build that tree first (./run build)";
    }
  }

  /// An engine of the other width.
  static EngineSetup otherEngine() {
    EngineSetup setup;
    setup.build_dir = OTHER;
    return setup;
  }
};

/// Starts a client program whose standard output is a descriptor; returns its process id.
pid_t startClient(const std::string& build_dir, int output,
                  const std::vector<std::string>& arguments = {}) {
  const std::string program = build_dir + "/bin/mixed_client";
  std::vector<char*> words = {const_cast<char*>(program.c_str())};
  for (const std::string& argument : arguments) {
    words.push_back(const_cast<char*>(argument.c_str()));
  }
  words.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
  pid_t client = -1;
  const int error = posix_spawn(&client, program.c_str(), &actions, nullptr, words.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  EXPECT_EQ(0, error) << program << " cannot be started";
  return client;
}

/// Runs a client program that makes every call.
pid_t runClient(const std::string& build_dir, MixedOutcome& outcome) {
  int ends[2];
  if (pipe(ends) != 0) abort();
  const pid_t client = startClient(build_dir, ends[1]);
  close(ends[1]);
  size_t length = 0;
  for (ssize_t part = 1; part > 0 && length < sizeof outcome;) {
    part = read(ends[0], reinterpret_cast<char*>(&outcome) + length, sizeof outcome - length);
    if (part > 0) length += static_cast<size_t>(part);
  }
  close(ends[0]);
  EXPECT_EQ(sizeof outcome, length);
  EXPECT_EQ(0, exitCodeOf(client));
  return client;
}

TEST_F(MixedWidths, OtherTreeHoldsProgramsOfTheOtherWidth) {
  FILE* file = fopen((OTHER + "/bin/mixed_client").c_str(), "rb");
  ASSERT_NE(nullptr, file);
  unsigned char header[5] = {};
  ASSERT_EQ(sizeof header, fread(header, 1, sizeof header, file));
  fclose(file);
  // The class byte of an executable: 1 for 32 bits, 2 for 64.
  EXPECT_EQ(sizeof(void*) == 4 ? 2 : 1, header[4]);
}

TEST_F(MixedWidths, EngineOfTheOtherWidthServesEveryCallOfThisOne) {
  ASSERT_TRUE(engine_.start(otherEngine()));
  prepareMixedEngine(engine_);
  expectMixedOutcome(makeEveryMixedCall());
  ASSERT_EQ(13U, engine_.taken());
  expectMixedRecords(engine_, 0, static_cast<uint32_t>(getpid()));
}

TEST_F(MixedWidths, ClientOfTheOtherWidthMakesEveryCallToAnEngineOfThisOne) {
  ASSERT_TRUE(engine_.start());
  prepareMixedEngine(engine_);
  MixedOutcome outcome = {};
  const pid_t client = runClient(OTHER, outcome);
  expectMixedOutcome(outcome);
  ASSERT_EQ(13U, engine_.taken());
  expectMixedRecords(engine_, 0, static_cast<uint32_t>(client));
}

TEST_F(MixedWidths, ClientsOfBothWidthsPostTheSameBytes) {
  for (const EngineSetup& setup : {EngineSetup(), otherEngine()}) {
    ASSERT_TRUE(engine_.start(setup));
    prepareMixedEngine(engine_);
    const uint32_t first = engine_.taken();
    MixedOutcome own = {};
    MixedOutcome other = {};
    const pid_t own_client = runClient(ARM_BUILD_DIR, own);
    const pid_t other_client = runClient(OTHER, other);
    EXPECT_EQ(own.results, other.results);
    EXPECT_EQ(own.start_block, other.start_block);
    EXPECT_EQ(own.report_block, other.report_block);
    ASSERT_EQ(first + 26, engine_.taken());
    expectMixedRecords(engine_, first, static_cast<uint32_t>(own_client));
    expectMixedRecords(engine_, first + 13, static_cast<uint32_t>(other_client));
    engine_.quit();
  }
}

TEST_F(MixedWidths, ClientsOfBothWidthsAtOnceGetTheirOwnReplies) {
  for (const EngineSetup& setup : {EngineSetup(), otherEngine()}) {
    ASSERT_TRUE(engine_.start(setup));
    engine_.derive();
    const uint32_t first = engine_.taken();
    std::vector<pid_t> clients;
    for (int i = 0; i < 6; ++i) {
      clients.push_back(startClient(i % 2 == 0 ? ARM_BUILD_DIR : OTHER, STDOUT_FILENO,
                                    {std::to_string(1 + i * 1000), "40"}));
    }
    for (const pid_t client : clients) EXPECT_EQ(0, exitCodeOf(client));
    EXPECT_EQ(first + 240, engine_.taken());
    engine_.quit();
  }
}

TEST_F(MixedWidths, EngineThatComesBackInTheOtherWidthIsUsedByTheNextCall) {
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.kill();
  ASSERT_TRUE(engine_.start(otherEngine()));
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.kill();
  ASSERT_TRUE(engine_.start());
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
}

TEST_F(MixedWidths, BlockedThreadLeavesWhenAnEngineOfTheOtherWidthReplacesItsOwn) {
  ASSERT_TRUE(engine_.start());
  engine_.hold();
  CallInThread blocked([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  engine_.kill();
  ASSERT_TRUE(engine_.start(otherEngine()));
  EXPECT_EQ(-9, blocked.result());
  EXPECT_EQ(104, arm_update(5, 0, nullptr, 0));
}

TEST_F(MixedWidths, EngineOfTheOtherWidthCancelsAndStopsWaits) {
  ASSERT_TRUE(engine_.start(otherEngine()));
  engine_.hold();
  CallInThread cancelled([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(1) && engine_.waitSleepers(1));
  const Bytes record = engine_.last();
  EXPECT_TRUE(
      engine_.cancel(static_cast<int32_t>(word(record, 0)), static_cast<int32_t>(word(record, 4))));
  EXPECT_EQ(-9, cancelled.result());
  CallInThread stopped([] { return arm_start(5, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitTaken(2) && engine_.waitSleepers(1));
  engine_.setReplyState(1);
  EXPECT_EQ(-9, stopped.result());
}

TEST_F(MixedWidths, FullRingOfAnEngineOfTheOtherWidthIsMinus8) {
  EngineSetup setup = otherEngine();
  setup.requests = 3;
  ASSERT_TRUE(engine_.start(setup));
  EXPECT_EQ(103, arm_start(5, 0, nullptr, 0));
  engine_.derive();
  engine_.pause();
  CallInThread first([] { return arm_start(1, 0, nullptr, 0); });
  CallInThread second([] { return arm_start(2, 0, nullptr, 0); });
  CallInThread third([] { return arm_start(3, 0, nullptr, 0); });
  ASSERT_TRUE(engine_.waitSleepers(3));
  EXPECT_EQ(-8, arm_start(4, 0, nullptr, 0));
  engine_.resume();
  EXPECT_EQ(derivedResult(1), first.result());
  EXPECT_EQ(derivedResult(2), second.result());
  EXPECT_EQ(derivedResult(3), third.result());
}

}  // namespace
}  // namespace armtest
