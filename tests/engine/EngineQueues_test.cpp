#include "core/EngineQueues.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <cstdlib>
#include <string>

#include "ipc/CIPCQueue.h"
#include "ipc/CIPCSimpleQueue.h"
#include "ipcobjects.h"
#include "process.h"
#include "queueclients.h"
#include "sleepers.h"

namespace {

using armengine::EngineOptions;
using armengine::EngineQueues;
using armtest::controlPath;
using armtest::forkChild;
using armtest::waitUntil;

EngineOptions capacities(uint16_t requests, uint16_t requesters) {
  EngineOptions options;
  options.requests = requests;
  options.requesters = requesters;
  return options;
}

std::unique_ptr<EngineQueues> make(const EngineOptions& options) {
  std::string why;
  auto queues = EngineQueues::create(options, &why);
  EXPECT_NE(nullptr, queues) << why;
  return queues;
}

std::string refusal(const EngineOptions& options) {
  std::string why;
  EXPECT_EQ(nullptr, EngineQueues::create(options, &why));
  return why;
}

void expectSegmentSizes(unsigned requests, unsigned requesters) {
  EXPECT_EQ(28U + requests * 4116U,
            armtest::segmentSize(armtest::segmentAt(controlPath("ae.kelp_mem"))));
  EXPECT_EQ(12U + requesters * 548U,
            armtest::segmentSize(armtest::segmentAt(controlPath("ea.kelp"))));
  EXPECT_EQ(requesters + 2U, armtest::setSize(armtest::setAt(controlPath("ea.kelp"), 3)));
}

/// A process that makes an engine's queues and keeps them until it is killed.
pid_t otherEngine(const EngineOptions& options) {
  const pid_t engine = forkChild([&options] {
    std::string why;
    const auto queues = EngineQueues::create(options, &why);
    if (queues == nullptr) return 1;
    for (;;) pause();
  });
  EXPECT_TRUE(waitUntil([] {
    const int segment = armtest::segmentAt(controlPath("ae.kelp_mem"));
    return segment != -1 && armtest::Attached(controlPath("ae.kelp_mem")).read<uint32_t>(24) == 1;
  }));
  return engine;
}

void killAndReap(pid_t process) {
  kill(process, SIGKILL);
  EXPECT_EQ(128 + SIGKILL, armtest::exitCodeOf(process));
}

TEST(EngineQueues, NameFilesAndObjectsAreMade) {
  const auto queues = make(capacities(7, 5));
  const std::vector<std::string> expected = {"controls_ae.kelp_emp", "controls_ae.kelp_mem",
                                             "controls_ae.kelp_ovr", "controls_ea.kelp"};
  EXPECT_EQ(expected, armtest::nameFiles());
  EXPECT_EQ(7U, armtest::ipcObjects());
  expectSegmentSizes(7, 5);
}

TEST(EngineQueues, ObjectsAreOpenToEveryUser) {
  const auto queues = make(capacities(7, 5));
  EXPECT_EQ(0666U, armtest::segmentMode(armtest::segmentAt(controlPath("ae.kelp_mem"))));
  EXPECT_EQ(0666U, armtest::segmentMode(armtest::segmentAt(controlPath("ea.kelp"))));
  for (const char* name : {"ae.kelp_emp", "ae.kelp_ovr", "ae.kelp_mem", "ea.kelp"}) {
    EXPECT_EQ(0666U, armtest::setMode(armtest::setAt(controlPath(name), 1))) << name;
  }
  EXPECT_EQ(0666U, armtest::setMode(armtest::setAt(controlPath("ea.kelp"), 3)));
}

TEST(EngineQueues, NothingIsLeftAtTheEnd) {
  make(capacities(7, 5)).reset();
  EXPECT_TRUE(armtest::nameFiles().empty());
  EXPECT_EQ(0U, armtest::ipcObjects());
}

TEST(EngineQueues, DirectoryOfTheNameFilesIsMadeWhenMissing) {
  ASSERT_EQ(0, rmdir("/var/kelp"));
  EXPECT_NE(nullptr, make(capacities(7, 5)));
}

TEST(EngineQueues, PrefixIsPartOfEveryPath) {
  EngineOptions options = capacities(7, 5);
  options.prefix = "blue";
  const auto queues = make(options);
  const std::vector<std::string> expected = {"controls_ae.kelp_emp.blue",
                                             "controls_ae.kelp_mem.blue",
                                             "controls_ae.kelp_ovr.blue", "controls_ea.kelp.blue"};
  EXPECT_EQ(expected, armtest::nameFiles());
  EXPECT_EQ("/var/kelp/controls_ae.kelp_mem.blue", queues->controlFile());
}

TEST(EngineQueues, PrefixOfTheEnvironmentHoldsWithoutAnother) {
  ASSERT_EQ(0, setenv("ARM_AGENT_PREFIX", "green", 1));
  EXPECT_EQ("/var/kelp/controls_ae.kelp_mem.green", make(capacities(7, 5))->controlFile());
}

TEST(EngineQueues, EnginesOfTwoPrefixesLiveSideBySide) {
  const pid_t other = otherEngine(capacities(7, 5));
  EngineOptions options = capacities(3, 3);
  options.prefix = "blue";
  auto queues = make(options);
  EXPECT_EQ(8U, armtest::nameFiles().size());
  EXPECT_EQ(14U, armtest::ipcObjects());
  queues.reset();
  EXPECT_EQ(4U, armtest::nameFiles().size());
  EXPECT_EQ(7U, armtest::ipcObjects());
  killAndReap(other);
  options.prefix = std::nullopt;
  ASSERT_EQ(0, unsetenv("ARM_AGENT_PREFIX"));
  (void)make(options);
}

TEST(EngineQueues, LongestPrefixIsServedAndALongerOneIsRefused) {
  EngineOptions options = capacities(7, 5);
  options.prefix = std::string(armengine::LONGEST_PREFIX, 'x');
  const auto queues = make(options);
  EXPECT_EQ(4U, armtest::nameFiles().size());
  EXPECT_TRUE(CIPCQueue<TArmReplyMessage>("/var/kelp/controls_ea.kelp", false).IsInitialized());
  options.prefix->push_back('x');
  EXPECT_NE(std::string::npos, refusal(options).find("93"));
}

TEST(EngineQueues, PrefixWithASlashIsRefused) {
  EngineOptions options = capacities(7, 5);
  options.prefix = "a/b";
  EXPECT_NE("", refusal(options));
  EXPECT_TRUE(armtest::nameFiles().empty());
}

TEST(EngineQueues, ImpossibleCapacitiesAreRefused) {
  EXPECT_NE("", refusal(capacities(0, 5)));
  EXPECT_NE("", refusal(capacities(5, 0)));
  EXPECT_NE("", refusal(capacities(5, 31999)));
  EXPECT_EQ(0U, armtest::ipcObjects());
}

TEST(EngineQueues, SmallestCapacitiesAreServed) {
  const auto queues = make(capacities(1, 1));
  expectSegmentSizes(1, 1);
}

TEST(EngineQueues, ReadyWordIsWrittenWhenAsked) {
  EngineOptions options = capacities(7, 5);
  for (const bool ready : {false, true}) {
    options.ready = ready;
    const auto queues = make(options);
    EXPECT_EQ(ready, CIPCSimpleQueue<TArmMessage>("/var/kelp/controls_ae.kelp").IsReadyForIO());
  }
}

TEST(EngineQueues, SecondLivingEngineIsRefusedInOneSentence) {
  const pid_t other = otherEngine(capacities(7, 5));
  const std::string why = refusal(capacities(7, 5));
  EXPECT_NE(std::string::npos, why.find("another engine (process " + std::to_string(other) + ")"));
  EXPECT_EQ(std::string::npos, why.find('\n'));
  // The refusal has taken nothing from the other one.
  expectSegmentSizes(7, 5);
  killAndReap(other);
  (void)make(capacities(7, 5));
}

TEST(EngineQueues, LeftoversOfAKilledEngineAreReplaced) {
  killAndReap(otherEngine(capacities(7, 5)));
  EXPECT_EQ(7U, armtest::ipcObjects());
  auto queues = make(capacities(7, 5));
  EXPECT_EQ(7U, armtest::ipcObjects());
  expectSegmentSizes(7, 5);
  queues.reset();
  EXPECT_EQ(0U, armtest::ipcObjects());
}

TEST(EngineQueues, LeftoversOfLargerQueuesAreReplaced) {
  killAndReap(otherEngine(capacities(20, 30)));
  const auto queues = make(capacities(3, 4));
  EXPECT_EQ(7U, armtest::ipcObjects());
  expectSegmentSizes(3, 4);
}

TEST(EngineQueues, LeftoversOfSmallerQueuesAreReplaced) {
  killAndReap(otherEngine(capacities(3, 4)));
  const auto queues = make(capacities(20, 30));
  EXPECT_EQ(7U, armtest::ipcObjects());
  expectSegmentSizes(20, 30);
}

TEST(EngineQueues, WaitersOfAKilledEngineAreWokenByTheNext) {
  const pid_t engine = otherEngine(capacities(3, 4));
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  const pid_t waiter = forkChild(armtest::waitForReply);
  EXPECT_TRUE(armtest::sleeperComes(set, 2));
  killAndReap(engine);
  const auto queues = make(capacities(3, 4));
  // The wait fails, or the lock after it, since both sets go.
  EXPECT_NE(0, armtest::exitCodeOf(waiter));
}

TEST(EngineQueues, EndWakesWaitingReaders) {
  auto queues = make(capacities(3, 4));
  const int set = armtest::setAt(controlPath("ea.kelp"), 3);
  pid_t waiters[3];
  for (pid_t& waiter : waiters) waiter = forkChild(armtest::waitForReply);
  EXPECT_TRUE(waitUntil([set] {
    return armtest::semaphoreWaiters(set, 2) + armtest::semaphoreWaiters(set, 3) +
               armtest::semaphoreWaiters(set, 4) ==
           3;
  }));
  queues.reset();
  for (const pid_t waiter : waiters) EXPECT_EQ(armtest::codeOf(-284), armtest::exitCodeOf(waiter));
}

TEST(EngineQueues, EndWakesWritersThatWaitForRoom) {
  auto queues = make(capacities(1, 4));
  ASSERT_EQ(0, armtest::putRequest(1, false));
  const pid_t writer = forkChild([] { return armtest::codeOf(armtest::putRequest(2, true)); });
  const int set = armtest::setAt(controlPath("ae.kelp_ovr"), 1);
  EXPECT_TRUE(armtest::sleeperComes(set, 0));
  queues.reset();
  // The code depends on how far the removal has come when the writer runs; that it fails does not.
  EXPECT_NE(0, armtest::exitCodeOf(writer));
}

TEST(EngineQueues, QueueThatClientsHaveOpenRefusesAfterTheEnd) {
  auto queues = make(capacities(3, 4));
  CIPCSimpleQueue<TArmMessage> client("/var/kelp/controls_ae.kelp");
  ASSERT_TRUE(client.CreatorAlive());
  queues.reset();
  EXPECT_FALSE(client.CreatorAlive());
  EXPECT_NE(0, client.Put(armtest::request(1)));
}

}  // namespace
